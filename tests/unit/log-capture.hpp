/*
 * Captures what the daemon logs while it lives, at every level.
 *
 *	hs_log_capture capture;
 *	EXPECT_FALSE(hs_conf_load_conf("/nowhere", properties));
 *	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_WARN, "Failed to load config")) << capture.text();
 *
 * Only lines of the daemon's topic are kept; those of PipeWire's own libraries go where they always go.
 * Captures may be nested, the innermost one gets the lines.
 *
 * Threads: the test's own only.
 */
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <spa/support/log.h>

#include "log.hpp"

class hs_log_capture
{
public:
	struct line {
		spa_log_level level;
		std::string file;
		std::string function;
		std::string text;
	};

	hs_log_capture() : previous{pw_log_get()}, topic{*hs_log_topic}
	{
		log.iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_Log, SPA_VERSION_LOG, &methods, this);
		pw_log_set(&log);
		hs_log_topic->level = SPA_LOG_LEVEL_TRACE;
		hs_log_topic->has_custom_level = true;
	}

	~hs_log_capture()
	{
		*hs_log_topic = topic;
		pw_log_set(previous);
	}

	hs_log_capture(const hs_log_capture &) = delete;
	hs_log_capture &operator=(const hs_log_capture &) = delete;

	/** Number of lines of that level with `part` in their text. */
	size_t count(spa_log_level level, std::string_view part = "") const
	{
		size_t n = 0;
		for (const line &l : captured)
			n += l.level == level && l.text.find(part) != std::string::npos;
		return n;
	}

	bool contains(spa_log_level level, std::string_view part) const
	{
		return count(level, part) > 0;
	}

	/** Number of errors and warnings. */
	size_t complaints() const
	{
		return count(SPA_LOG_LEVEL_ERROR) + count(SPA_LOG_LEVEL_WARN);
	}

	const std::vector<line> &lines() const
	{
		return captured;
	}

	/** All lines, for the message of a failed expectation. */
	std::string text() const
	{
		std::string all;
		for (const line &l : captured)
			all += "[" + std::to_string(l.level) + "] " + l.function + "(): " + l.text + "\n";
		return all;
	}

	void clear()
	{
		captured.clear();
	}

private:
	void keep(spa_log_level level, const spa_log_topic *of, const char *file, int number,
		  const char *function, const char *format, va_list arguments)
	{
		/* The code under test may look at errno after it has logged, and "%m" does so below. */
		const int error = errno;
		if (of != hs_log_topic) {
			spa_log_logtv(previous, level, of, file, number, function, format, arguments);
		} else {
			va_list again;
			va_copy(again, arguments);
			const int length = std::vsnprintf(nullptr, 0, format, again);
			va_end(again);
			std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
			errno = error;
			std::vsnprintf(text.data(), text.size() + 1, format, arguments);
			captured.push_back({level, file, function, std::move(text)});
		}
		errno = error;
	}

	static void on_log(void *capture, spa_log_level level, const char *file, int number,
			   const char *function, const char *format, ...) SPA_PRINTF_FUNC(6, 7)
	{
		va_list arguments;
		va_start(arguments, format);
		on_logtv(capture, level, nullptr, file, number, function, format, arguments);
		va_end(arguments);
	}

	static void on_logv(void *capture, spa_log_level level, const char *file, int number,
			    const char *function, const char *format, va_list arguments) SPA_PRINTF_FUNC(6, 0)
	{
		on_logtv(capture, level, nullptr, file, number, function, format, arguments);
	}

	static void on_logt(void *capture, spa_log_level level, const spa_log_topic *of, const char *file,
			    int number, const char *function, const char *format, ...) SPA_PRINTF_FUNC(7, 8)
	{
		va_list arguments;
		va_start(arguments, format);
		on_logtv(capture, level, of, file, number, function, format, arguments);
		va_end(arguments);
	}

	static void on_logtv(void *capture, spa_log_level level, const spa_log_topic *of, const char *file,
			     int number, const char *function, const char *format, va_list arguments)
		SPA_PRINTF_FUNC(7, 0)
	{
		static_cast<hs_log_capture *>(capture)->keep(level, of, file, number, function, format,
							     arguments);
	}

	/* Keeps the levels that the capture has set. */
	static void on_topic_init(void *, spa_log_topic *)
	{
	}

	static constexpr spa_log_methods methods = {
		.version = SPA_VERSION_LOG_METHODS,
		.log = on_log,
		.logv = on_logv,
		.logt = on_logt,
		.logtv = on_logtv,
		.topic_init = on_topic_init,
	};

	spa_log log{};
	spa_log *previous;
	spa_log_topic topic;
	std::vector<line> captured;
};
