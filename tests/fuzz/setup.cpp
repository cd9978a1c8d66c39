#include "fuzz.hpp"

#include <cstdarg>

#include <pipewire/pipewire.h>
#include <spa/support/log.h>

#include "log.hpp"

namespace {

/* Every line is put together, since a bad argument shows only then; none is shown. */
void format_line(const char *format, va_list arguments)
{
	char line[512];
	static_cast<void>(std::vsnprintf(line, sizeof(line), format, arguments));
}

void logtv(void *, spa_log_level, const spa_log_topic *, const char *, int, const char *, const char *format,
	   va_list arguments)
{
	format_line(format, arguments);
}

void logt(void *, spa_log_level, const spa_log_topic *, const char *, int, const char *, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	format_line(format, arguments);
	va_end(arguments);
}

void logv(void *, spa_log_level, const char *, int, const char *, const char *format, va_list arguments)
{
	format_line(format, arguments);
}

void log(void *, spa_log_level, const char *, int, const char *, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	format_line(format, arguments);
	va_end(arguments);
}

constexpr spa_log_methods log_methods = [] {
	spa_log_methods methods{};
	methods.version = SPA_VERSION_LOG_METHODS;
	methods.log = log;
	methods.logv = logv;
	methods.logt = logt;
	methods.logtv = logtv;
	return methods;
}();

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
	pw_init(nullptr, nullptr);
	static spa_log silent;
	silent.iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_Log, SPA_VERSION_LOG, &log_methods, nullptr);
	silent.level = SPA_LOG_LEVEL_DEBUG;
	pw_log_set(&silent);
	pw_log_set_level(SPA_LOG_LEVEL_DEBUG);
	hs_log_topic->level = SPA_LOG_LEVEL_TRACE;
	hs_log_topic->has_custom_level = true;
	return 0;
}
