#include "plugin-log.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace hs_tool {

namespace {

constexpr size_t max_text = 4096;
/** Nobody reads more, and some write their measurements into each line. */
constexpr size_t max_copied = 100;

const spa_log_methods *methods_of(const spa_log *log)
{
	return static_cast<const spa_log_methods *>(log->iface.cb.funcs);
}

} // namespace

const spa_log_methods plugin_log::methods = [] {
	spa_log_methods all{};
	all.version = SPA_VERSION_LOG_METHODS;
	all.log = on_log;
	all.logv = on_logv;
	all.logt = on_logt;
	all.logtv = on_logtv;
	all.topic_init = on_topic_init;
	return all;
}();

plugin_log::plugin_log()
{
	log.iface = {SPA_TYPE_INTERFACE_Log, SPA_VERSION_LOG, {&methods, this}};
}

plugin_log &plugin_log::get()
{
	static plugin_log the_log;
	return the_log;
}

spa_log *plugin_log::in_front_of(spa_log *pipewire_log)
{
	next = pipewire_log;
	log.level = std::max(next->level, SPA_LOG_LEVEL_WARN);
	return &log;
}

void plugin_log::copy_to(int fd)
{
	const std::lock_guard lock(mutex);
	copy_fd = fd;
}

size_t plugin_log::n_errors() const
{
	const std::lock_guard lock(mutex);
	return error_count;
}

std::string plugin_log::last_error() const
{
	const std::lock_guard lock(mutex);
	return latest_error;
}

void plugin_log::keep(spa_log_level level, const std::string &text)
{
	const std::lock_guard lock(mutex);
	if (level == SPA_LOG_LEVEL_ERROR) {
		++error_count;
		latest_error = text;
	}
	std::string line = (level == SPA_LOG_LEVEL_ERROR ? "error: " : "warning: ") + text;
	std::replace(line.begin(), line.end(), '\n', ' ');
	line += '\n';
	if (copy_fd >= 0 && copied.size() < max_copied && copied.insert(line).second)
		static_cast<void>(!write(copy_fd, line.data(), line.size()));
}

void plugin_log::add(spa_log_level level, const spa_log_topic *topic, const char *file, int line, const char *function,
		     const char *format, va_list args)
{
	const int error = errno;
	char text[max_text];
	std::vsnprintf(text, sizeof(text), format, args);
	if (level == SPA_LOG_LEVEL_ERROR || level == SPA_LOG_LEVEL_WARN)
		keep(level, text);

	const spa_log_level shown = topic && topic->has_custom_level ? topic->level : next->level;
	errno = error;
	if (level > shown)
		return;
	if (methods_of(next)->version >= 1)
		methods_of(next)->logt(next->iface.cb.data, level, topic, file, line, function, "%s", text);
	else
		methods_of(next)->log(next->iface.cb.data, level, file, line, function, "%s", text);
	errno = error;
}

void plugin_log::on_log(void *object, spa_log_level level, const char *file, int line, const char *function,
			const char *format, ...)
{
	va_list args;
	va_start(args, format);
	static_cast<plugin_log *>(object)->add(level, nullptr, file, line, function, format, args);
	va_end(args);
}

void plugin_log::on_logv(void *object, spa_log_level level, const char *file, int line, const char *function,
			 const char *format, va_list args)
{
	static_cast<plugin_log *>(object)->add(level, nullptr, file, line, function, format, args);
}

void plugin_log::on_logt(void *object, spa_log_level level, const spa_log_topic *topic, const char *file, int line,
			 const char *function, const char *format, ...)
{
	va_list args;
	va_start(args, format);
	static_cast<plugin_log *>(object)->add(level, topic, file, line, function, format, args);
	va_end(args);
}

void plugin_log::on_logtv(void *object, spa_log_level level, const spa_log_topic *topic, const char *file, int line,
			  const char *function, const char *format, va_list args)
{
	static_cast<plugin_log *>(object)->add(level, topic, file, line, function, format, args);
}

void plugin_log::on_topic_init(void *object, spa_log_topic *topic)
{
	spa_log *next = static_cast<plugin_log *>(object)->next;
	if (methods_of(next)->version >= 1 && methods_of(next)->topic_init)
		methods_of(next)->topic_init(next->iface.cb.data, topic);
}

} // namespace hs_tool
