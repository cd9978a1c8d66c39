#include "dbus-set.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <spa/utils/string.h>

#include "authorization.hpp"
#include "conf.hpp"
#include "context.hpp"
#include "dbus-property.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "pod.hpp"
#include "props.hpp"
#include "source-settings.hpp"
#include "source.hpp"

namespace {

/** The text of a written value; longer ones are cut. */
using value_text = char[128];

/** One write, as sd-bus hands it to a setter. */
struct write {
	sd_bus *bus;
	const char *path;
	const char *interface;
	const char *property;
	sd_bus_message *message;
	hs_source *source;
	sd_bus_error *error;
};

int fail(const write &write)
{
	return hs_dbus_property_fail(write.error, write.property, write.interface, write.path);
}

/** Reads the one value of type `type` that the client sent. */
bool read_value(const write &write, char type, void *value)
{
	const int r = sd_bus_message_read_basic(write.message, type, value);
	if (r < 0)
		pw_log_error("Unable to read dbus message: %s", std::strerror(-r));
	return r >= 0;
}

int emit_changed(const write &write)
{
	const int r = sd_bus_emit_properties_changed(write.bus, write.path, write.interface, write.property, nullptr);
	return r < 0 ? fail(write) : 0;
}

/** Hands the value to the source; `signature` names its type. */
int apply(const write &write, const char *signature, const char *text)
{
	const hs_schema_type *type = hs_schema_type_by_signature(signature);
	if (!hs_source_handle_settings(write.source, write.source->settings, write.property, text, type->name)) {
		pw_log_error("Failed to set property %s", write.property);
		return fail(write);
	}
	return emit_changed(write);
}

/** Reads a value of one number type, formats it and hands it on. */
template <typename T>
int apply_number(const write &write, const char *signature, const char *format)
{
	T value{};
	if (!read_value(write, signature[0], &value))
		return fail(write);
	value_text text;
	std::snprintf(text, sizeof(text), format, value);
	return apply(write, signature, text);
}

int set_int32(const write &write)
{
	return apply_number<int32_t>(write, "i", "%i");
}

int set_uint32(const write &write)
{
	return apply_number<uint32_t>(write, "u", "%u");
}

int set_int64(const write &write)
{
	return apply_number<int64_t>(write, "x", "%" PRIi64);
}

int set_double(const write &write)
{
	return apply_number<double>(write, "d", "%lf");
}

int set_float(const write &write)
{
	double value = 0;
	if (!read_value(write, 'd', &value))
		return fail(write);
	value_text text;
	std::snprintf(text, sizeof(text), "%f", static_cast<double>(static_cast<float>(value)));
	return apply(write, "f", text);
}

/** Copies as much as fits, but no half character: the bus would not take the text back. */
void cut_text(const char *value, value_text &text)
{
	size_t length = strnlen(value, sizeof(text));
	if (length == sizeof(text)) {
		--length;
		while (length > 0 && (static_cast<unsigned char>(value[length]) & 0xc0) == 0x80)
			--length;
	}
	std::memcpy(text, value, length);
	text[length] = '\0';
}

/** Whether the text reads back as itself from the setting's entry and from the settings file. */
bool survives_storage(const write &write, const char *text)
{
	return hs_props_value_survives(write.source->settings, write.property, text) &&
	       hs_settings_value_survives(text);
}

int set_string(const write &write)
{
	const char *value = nullptr;
	if (!read_value(write, 's', &value))
		return fail(write);
	value_text text;
	cut_text(value, text);
	if (!survives_storage(write, text)) {
		pw_log_warn("Refused \"%s\" for property %s: the settings file can not hold this text", text,
			    write.property);
		return fail(write);
	}
	return apply(write, "s", text);
}

int enable_event(const write &write, bool enabled)
{
	const char *event_name = hs_dbus_property_event(write.interface);
	hs_loop_bus_set_event_status(hs_context_get()->loop, write.bus, event_name, write.source, enabled);
	return emit_changed(write);
}

int set_bool(const write &write)
{
	int value = 0;
	if (!read_value(write, 'b', &value))
		return fail(write);
	if (spa_streq(write.property, "EnableEvent"))
		return enable_event(write, value != 0);
	return apply(write, "b", value == 1 ? "true" : "false");
}

/** Of an event, nothing but its status on a bus is written. */
bool is_writable(const write &write)
{
	if (hs_dbus_property_is_setting(write.interface))
		return write.source->settings;
	return !write.source->events.empty() && spa_streq(write.property, "EnableEvent");
}

/** Checks the caller's rights before `Set` reads the value. */
template <int (*Set)(const write &)>
int on_set(sd_bus *bus, const char *path, const char *interface, const char *property, sd_bus_message *message,
	   void *data, sd_bus_error *error)
{
	const write write = {bus, path, interface, property, message, static_cast<hs_source *>(data), error};
	/* With the value unread, a negative result and the error filled, sd-bus sends exactly one answer. */
	if (!hs_authorization_is_authorized(message, interface, property, error))
		return -sd_bus_error_get_errno(error);
	if (!is_writable(write))
		return fail(write);
	return Set(write);
}

struct setter {
	const char *signature;
	sd_bus_property_set_t set;
};

constexpr setter setters[] = {
	{"b", on_set<set_bool>},  {"u", on_set<set_uint32>}, {"i", on_set<set_int32>},	{"x", on_set<set_int64>},
	{"f", on_set<set_float>}, {"d", on_set<set_double>}, {"s", on_set<set_string>},
};

} // namespace

sd_bus_property_set_t hs_dbus_set_find(const char *signature)
{
	for (const setter &setter : setters) {
		if (spa_streq(signature, setter.signature))
			return setter.set;
	}
	return nullptr;
}
