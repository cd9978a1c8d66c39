#include "failing-calls.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <pipewire/pipewire.h>

#include <systemd/sd-bus.h>

#include <dlfcn.h>

namespace {

struct failing_calls {
	std::map<hs_call, size_t> seen;
	hs_call failing;
	/** 0 for none. */
	size_t countdown = 0;
	bool has_failed = false;
	size_t n_quits = 0;
};

failing_calls calls;

/** What the environment asks for: any n-th call of a function. */
struct told_failure {
	told_failure()
	{
		const char *text = std::getenv("HS_FAIL_CALL");
		if (!text)
			return;
		function = text;
		const size_t colon = function.find(':');
		countdown = colon == std::string::npos ? 1 : std::strtoul(text + colon + 1, nullptr, 10);
		function.resize(std::min(colon, function.size()));
	}

	std::string function;
	size_t countdown = 0;
};

bool is_told_to_fail(std::string_view function)
{
	static told_failure told;
	return function == told.function && told.countdown > 0 && --told.countdown == 0;
}

/** Where `address` is in the program or library that this is a part of; 0 where it is elsewhere. */
uintptr_t place_of(void *address)
{
	Dl_info here{};
	Dl_info there{};
	if (!dladdr(reinterpret_cast<void *>(&place_of), &here) || !dladdr(address, &there))
		return 0;
	if (here.dli_fbase != there.dli_fbase)
		return 0;
	return reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(here.dli_fbase);
}

/** `arguments` are for the trace, each after a space. */
bool must_fail(const char *function, void *address, const std::string &arguments = "")
{
	static const bool is_traced = std::getenv("HS_TRACE_CALLS");
	const uintptr_t place = place_of(address);
	if (place == 0)
		return false;
	if (is_traced)
		std::fprintf(stderr, "call %s%s\n", function, arguments.c_str());
	const hs_call call{function, place};
	++calls.seen[call];
	const bool fails = calls.countdown > 0 && call == calls.failing && --calls.countdown == 0;
	calls.has_failed |= fails;
	if (!fails && !is_told_to_fail(function))
		return false;
	/* sd-bus only returns its errors. */
	errno = std::string_view{function}.starts_with("sd_") ? 0 : EIO;
	return true;
}

} // namespace

#define HS_CALLED_FROM __builtin_extract_return_addr(__builtin_return_address(0))

#define HS_WRAP(result, failure, name, parameters, arguments)                                                          \
	extern "C" result __real_##name parameters;                                                                    \
	extern "C" result __wrap_##name parameters                                                                     \
	{                                                                                                              \
		return must_fail(#name, HS_CALLED_FROM) ? failure : __real_##name arguments;                           \
	}

/* For a function that has a form with a va_list, or one like it. */
#define HS_WRAP_VARIADIC(name, v_name, parameters, last, ...)                                                          \
	extern "C" int __wrap_##name parameters                                                                        \
	{                                                                                                              \
		if (must_fail(#name, HS_CALLED_FROM))                                                                  \
			return -EIO;                                                                                   \
		va_list arguments;                                                                                     \
		va_start(arguments, last);                                                                             \
		const int r = v_name(__VA_ARGS__, arguments);                                                          \
		va_end(arguments);                                                                                     \
		return r;                                                                                              \
	}

HS_WRAP_VARIADIC(sd_bus_message_append, sd_bus_message_appendv, (sd_bus_message * m, const char *types, ...), types, m,
		 types)
HS_WRAP_VARIADIC(sd_bus_message_read, sd_bus_message_readv, (sd_bus_message * m, const char *types, ...), types, m,
		 types)
HS_WRAP_VARIADIC(sd_bus_reply_method_return, sd_bus_reply_method_returnv,
		 (sd_bus_message * call, const char *types, ...), types, call, types)
HS_WRAP_VARIADIC(sd_bus_reply_method_errorf, sd_bus_reply_method_errorfv,
		 (sd_bus_message * call, const char *name, const char *format, ...), format, call, name, format)

extern "C" int __wrap_sd_bus_emit_properties_changed(sd_bus *bus, const char *path, const char *interface,
						     const char *name, ...)
{
	if (must_fail("sd_bus_emit_properties_changed", HS_CALLED_FROM))
		return -EIO;
	std::vector<char *> names;
	va_list arguments;
	va_start(arguments, name);
	for (const char *next = name; next; next = va_arg(arguments, const char *))
		names.push_back(const_cast<char *>(next));
	va_end(arguments);
	names.push_back(nullptr);
	return sd_bus_emit_properties_changed_strv(bus, path, interface, names.data());
}

HS_WRAP(int, -EIO, sd_bus_add_filter, (sd_bus * bus, sd_bus_slot **slot, sd_bus_message_handler_t callback, void *data),
	(bus, slot, callback, data))
HS_WRAP(int, -EIO, sd_bus_add_object_manager, (sd_bus * bus, sd_bus_slot **slot, const char *path), (bus, slot, path))
HS_WRAP(int, -EIO, sd_bus_add_object_vtable,
	(sd_bus * bus, sd_bus_slot **slot, const char *path, const char *interface, const sd_bus_vtable *table,
	 void *data),
	(bus, slot, path, interface, table, data))
HS_WRAP(int, -EIO, sd_bus_call,
	(sd_bus * bus, sd_bus_message *m, uint64_t usec, sd_bus_error *error, sd_bus_message **reply),
	(bus, m, usec, error, reply))
HS_WRAP(int, -EIO, sd_bus_creds_get_euid, (sd_bus_creds * creds, uid_t *uid), (creds, uid))
HS_WRAP(int, -EIO, sd_bus_creds_get_uid, (sd_bus_creds * creds, uid_t *uid), (creds, uid))
HS_WRAP(int, -EIO, sd_bus_emit_object_added, (sd_bus * bus, const char *path), (bus, path))
HS_WRAP(int, -EIO, sd_bus_emit_object_removed, (sd_bus * bus, const char *path), (bus, path))
HS_WRAP(int, -EIO, sd_bus_get_events, (sd_bus * bus), (bus))
HS_WRAP(int, -EIO, sd_bus_get_fd, (sd_bus * bus), (bus))
HS_WRAP(int, -EIO, sd_bus_get_n_queued_write, (sd_bus * bus, uint64_t *n), (bus, n))
HS_WRAP(int, -EIO, sd_bus_get_timeout, (sd_bus * bus, uint64_t *usec), (bus, usec))
HS_WRAP(int, -EIO, sd_bus_is_open, (sd_bus * bus), (bus))
HS_WRAP(int, -EIO, sd_bus_is_ready, (sd_bus * bus), (bus))
HS_WRAP(int, -EIO, sd_bus_match_signal,
	(sd_bus * bus, sd_bus_slot **slot, const char *sender, const char *path, const char *interface,
	 const char *member, sd_bus_message_handler_t callback, void *data),
	(bus, slot, sender, path, interface, member, callback, data))
HS_WRAP(int, -EIO, sd_bus_message_append_array, (sd_bus_message * m, char type, const void *items, size_t size),
	(m, type, items, size))
HS_WRAP(int, -EIO, sd_bus_message_append_basic, (sd_bus_message * m, char type, const void *value), (m, type, value))
HS_WRAP(int, -EIO, sd_bus_message_close_container, (sd_bus_message * m), (m))
HS_WRAP(int, -EIO, sd_bus_message_copy, (sd_bus_message * m, sd_bus_message *from, int all), (m, from, all))
HS_WRAP(int, -EIO, sd_bus_message_enter_container, (sd_bus_message * m, char type, const char *contents),
	(m, type, contents))
HS_WRAP(int, -EIO, sd_bus_message_is_method_call, (sd_bus_message * m, const char *interface, const char *member),
	(m, interface, member))
HS_WRAP(int, -EIO, sd_bus_message_new_method_call,
	(sd_bus * bus, sd_bus_message **m, const char *destination, const char *path, const char *interface,
	 const char *member),
	(bus, m, destination, path, interface, member))
HS_WRAP(int, -EIO, sd_bus_message_new_signal,
	(sd_bus * bus, sd_bus_message **m, const char *path, const char *interface, const char *member),
	(bus, m, path, interface, member))
HS_WRAP(int, -EIO, sd_bus_message_open_container, (sd_bus_message * m, char type, const char *contents),
	(m, type, contents))
HS_WRAP(int, -EIO, sd_bus_message_read_basic, (sd_bus_message * m, char type, void *value), (m, type, value))
HS_WRAP(int, -EIO, sd_bus_message_rewind, (sd_bus_message * m, int complete), (m, complete))
HS_WRAP(int, -EIO, sd_bus_negotiate_fds, (sd_bus * bus, int yes), (bus, yes))
HS_WRAP(int, -EIO, sd_bus_new, (sd_bus * *bus), (bus))
HS_WRAP(int, -EIO, sd_bus_open_system, (sd_bus * *bus), (bus))
HS_WRAP(int, -EIO, sd_bus_open_user, (sd_bus * *bus), (bus))
HS_WRAP(int, -ECONNRESET, sd_bus_process, (sd_bus * bus, sd_bus_message **m), (bus, m))
HS_WRAP(int, -EIO, sd_bus_query_sender_creds, (sd_bus_message * m, uint64_t mask, sd_bus_creds **creds),
	(m, mask, creds))
HS_WRAP(int, -EIO, sd_bus_request_name, (sd_bus * bus, const char *name, uint64_t flags), (bus, name, flags))
HS_WRAP(int, -EIO, sd_bus_send, (sd_bus * bus, sd_bus_message *m, uint64_t *cookie), (bus, m, cookie))
HS_WRAP(int, -EIO, sd_bus_set_anonymous, (sd_bus * bus, int yes), (bus, yes))
HS_WRAP(int, -EIO, sd_bus_set_fd, (sd_bus * bus, int in, int out), (bus, in, out))
HS_WRAP(int, -EIO, sd_bus_set_server, (sd_bus * bus, int yes, sd_id128_t id), (bus, yes, id))
HS_WRAP(int, -EIO, sd_bus_start, (sd_bus * bus), (bus))
HS_WRAP(int, -EIO, sd_id128_get_machine, (sd_id128_t * id), (id))
HS_WRAP(int, -EIO, sd_id128_randomize, (sd_id128_t * id), (id))

HS_WRAP(int, -EIO, pw_context_add_spa_lib, (pw_context * context, const char *pattern, const char *library),
	(context, pattern, library))
/* Properties are the callee's, whatever it answers. */
HS_WRAP(spa_handle *, nullptr, pw_context_load_spa_handle,
	(pw_context * context, const char *factory, const spa_dict *info), (context, factory, info))
HS_WRAP(pw_context *, (pw_properties_free(props), nullptr), pw_context_new,
	(pw_loop * loop, pw_properties *props, size_t size), (loop, props, size))
HS_WRAP(int, -EIO, pw_stream_connect,
	(pw_stream * stream, pw_direction direction, uint32_t target, pw_stream_flags flags, const spa_pod **params,
	 uint32_t n_params),
	(stream, direction, target, flags, params, n_params))
HS_WRAP(int, -EIO, pw_stream_disconnect, (pw_stream * stream), (stream))
HS_WRAP(pw_stream *, (pw_properties_free(props), nullptr), pw_stream_new,
	(pw_core * core, const char *name, pw_properties *props), (core, name, props))
HS_WRAP(int, -EIO, pw_stream_set_active, (pw_stream * stream, bool active), (stream, active))

namespace {

/** The methods of an object with some of them replaced; `real` is what they were. */
template <typename Methods>
void replace_methods(spa_interface *interface, Methods *real, Methods *ours, void (*replace)(Methods *))
{
	if (interface->cb.funcs == ours)
		return;
	*real = *static_cast<const Methods *>(interface->cb.funcs);
	*ours = *real;
	replace(ours);
	interface->cb.funcs = ours;
}

spa_loop_utils_methods real_utils;
spa_loop_utils_methods our_utils;

spa_source *on_add_io(void *object, int fd, uint32_t mask, bool close, spa_source_io_func_t func, void *data)
{
	return must_fail("pw_loop_add_io", HS_CALLED_FROM) ? nullptr
							   : real_utils.add_io(object, fd, mask, close, func, data);
}

int on_update_io(void *object, spa_source *source, uint32_t mask)
{
	return must_fail("pw_loop_update_io", HS_CALLED_FROM) ? -EIO : real_utils.update_io(object, source, mask);
}

spa_source *on_add_idle(void *object, bool enabled, spa_source_idle_func_t func, void *data)
{
	return must_fail("pw_loop_add_idle", HS_CALLED_FROM) ? nullptr
							     : real_utils.add_idle(object, enabled, func, data);
}

int on_enable_idle(void *object, spa_source *source, bool enabled)
{
	return must_fail("pw_loop_enable_idle", HS_CALLED_FROM) ? -EIO
								: real_utils.enable_idle(object, source, enabled);
}

spa_source *on_add_timer(void *object, spa_source_timer_func_t func, void *data)
{
	return must_fail("pw_loop_add_timer", HS_CALLED_FROM) ? nullptr : real_utils.add_timer(object, func, data);
}

int on_update_timer(void *object, spa_source *source, timespec *value, timespec *interval, bool absolute)
{
	return must_fail("pw_loop_update_timer", HS_CALLED_FROM)
		       ? -EIO
		       : real_utils.update_timer(object, source, value, interval, absolute);
}

spa_source *on_add_signal(void *object, int number, spa_source_signal_func_t func, void *data)
{
	return must_fail("pw_loop_add_signal", HS_CALLED_FROM) ? nullptr
							       : real_utils.add_signal(object, number, func, data);
}

void replace_utils(spa_loop_utils_methods *methods)
{
	methods->add_io = on_add_io;
	methods->update_io = on_update_io;
	methods->add_idle = on_add_idle;
	methods->enable_idle = on_enable_idle;
	methods->add_timer = on_add_timer;
	methods->update_timer = on_update_timer;
	methods->add_signal = on_add_signal;
}

pw_core_methods real_core;
pw_core_methods our_core;

int on_sync(void *object, uint32_t id, int seq)
{
	return must_fail("pw_core_sync", HS_CALLED_FROM) ? -EIO : real_core.sync(object, id, seq);
}

pw_registry *on_get_registry(void *object, uint32_t version, size_t size)
{
	const std::string arguments = " " + std::to_string(version) + " " + std::to_string(size);
	return must_fail("pw_core_get_registry", HS_CALLED_FROM, arguments)
		       ? nullptr
		       : real_core.get_registry(object, version, size);
}

void replace_core(pw_core_methods *methods)
{
	methods->sync = on_sync;
	methods->get_registry = on_get_registry;
}

pw_registry_methods real_registry;
pw_registry_methods our_registry;

void *on_bind(void *object, uint32_t id, const char *type, uint32_t version, size_t size)
{
	return must_fail("pw_registry_bind", HS_CALLED_FROM) ? nullptr
							     : real_registry.bind(object, id, type, version, size);
}

void replace_registry(pw_registry_methods *methods)
{
	methods->bind = on_bind;
}

} // namespace

extern "C" {
pw_main_loop *__real_pw_main_loop_new(const spa_dict *props);
pw_core *__real_pw_context_connect(pw_context *context, pw_properties *props, size_t size);

pw_main_loop *__wrap_pw_main_loop_new(const spa_dict *props)
{
	if (must_fail("pw_main_loop_new", HS_CALLED_FROM))
		return nullptr;
	pw_main_loop *loop = __real_pw_main_loop_new(props);
	if (loop)
		replace_methods(&pw_main_loop_get_loop(loop)->utils->iface, &real_utils, &our_utils, replace_utils);
	return loop;
}

int __real_pw_main_loop_quit(pw_main_loop *loop);

int __wrap_pw_main_loop_quit(pw_main_loop *loop)
{
	++calls.n_quits;
	return __real_pw_main_loop_quit(loop);
}

pw_core *__wrap_pw_context_connect(pw_context *context, pw_properties *props, size_t size)
{
	const std::string arguments = (props ? " props " : " null ") + std::to_string(size);
	if (must_fail("pw_context_connect", HS_CALLED_FROM, arguments))
		return nullptr;
	pw_core *core = __real_pw_context_connect(context, props, size);
	if (core)
		hs_calls_watch(core);
	return core;
}
}

void hs_calls_begin()
{
	calls = {};
}

const std::map<hs_call, size_t> &hs_calls_seen()
{
	return calls.seen;
}

void hs_calls_fail(const hs_call &call, size_t n)
{
	calls.failing = call;
	calls.countdown = n;
}

bool hs_calls_have_failed()
{
	return calls.has_failed;
}

size_t hs_calls_quits()
{
	return calls.n_quits;
}

void hs_calls_watch(pw_core *core)
{
	replace_methods(reinterpret_cast<spa_interface *>(core), &real_core, &our_core, replace_core);
}

void hs_calls_watch(pw_registry *registry)
{
	replace_methods(reinterpret_cast<spa_interface *>(registry), &real_registry, &our_registry, replace_registry);
}
