/*
 * What plug-ins log: the log that they are given, which keeps errors and warnings and hands all on to PipeWire's.
 *
 * One for the process, as PipeWire's is.
 *
 * Threads: any may log.
 */
#pragma once

#include <cstdarg>
#include <cstddef>
#include <mutex>
#include <set>
#include <string>

#include <spa/support/log.h>

namespace hs_tool {

class plugin_log
{
public:
	static plugin_log &get();

	plugin_log(const plugin_log &) = delete;
	plugin_log &operator=(const plugin_log &) = delete;

	/** The log for plug-ins. What it is told goes on to `pipewire_log`, which is borrowed. */
	spa_log *in_front_of(spa_log *pipewire_log);

	/**
	 * From now on errors and warnings are written there as they come, "error: TEXT" or "warning: TEXT", a line
	 * each. Of equal ones only the first is.
	 */
	void copy_to(int fd);

	/** How often an error was logged. */
	size_t n_errors() const;
	/** Empty where there was none. */
	std::string last_error() const;

private:
	plugin_log();

	[[gnu::format(printf, 7, 0)]] void add(spa_log_level level, const spa_log_topic *topic, const char *file,
					       int line, const char *function, const char *format, va_list args);
	void keep(spa_log_level level, const std::string &text);

	/* The methods of the log. */
	[[gnu::format(printf, 6, 7)]] static void on_log(void *object, spa_log_level level, const char *file, int line,
							 const char *function, const char *format, ...);
	[[gnu::format(printf, 6, 0)]] static void on_logv(void *object, spa_log_level level, const char *file, int line,
							  const char *function, const char *format, va_list args);
	[[gnu::format(printf, 7, 8)]] static void on_logt(void *object, spa_log_level level, const spa_log_topic *topic,
							  const char *file, int line, const char *function,
							  const char *format, ...);
	[[gnu::format(printf, 7, 0)]] static void on_logtv(void *object, spa_log_level level,
							   const spa_log_topic *topic, const char *file, int line,
							   const char *function, const char *format, va_list args);
	static void on_topic_init(void *object, spa_log_topic *topic);

	static const spa_log_methods methods;

	spa_log log{};
	/** Borrowed. */
	spa_log *next = nullptr;

	mutable std::mutex mutex;
	int copy_fd = -1;
	std::set<std::string> copied;
	size_t error_count = 0;
	std::string latest_error;
};

} // namespace hs_tool
