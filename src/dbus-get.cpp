#include "dbus-get.hpp"

#include <cstring>
#include <string>

#include <spa/utils/string.h>

#include "context.hpp"
#include "dbus-property.hpp"
#include "dbus.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "parse.hpp"
#include "plugin.hpp"
#include "props.hpp"
#include "source-settings.hpp"
#include "source.hpp"

namespace {

/** The setting or event behind a property; null for what is generated. */
hs_properties_ptr find_entry(const hs_source *source, const char *interface, const char *property)
{
	return hs_props_find(hs_dbus_property_table(source, interface), property);
}

/** Answers with the result of appending the value. */
int answer(int r, sd_bus_error *error, const char *property, const char *interface, const char *path)
{
	return r < 0 ? hs_dbus_property_fail(error, property, interface, path) : r;
}

bool generate_bool(sd_bus *bus, const hs_source *source, const char *interface, const char *property, bool *value)
{
	const hs_plugin *plugin = source->plugin;
	if (spa_streq(property, "EnableEvent"))
		return hs_loop_bus_get_event_status(hs_context_get()->loop, bus, source,
						    hs_dbus_property_event(interface), value);
	if (spa_streq(property, "isDeprecated"))
		*value = hs_plugin_get_event_flag(plugin, interface, HS_PLUGIN_EVENT_IS_DEPRECATED);
	else if (spa_streq(property, "isApplicationData"))
		*value = hs_plugin_get_event_flag(plugin, interface, HS_PLUGIN_EVENT_IS_APPLICATION_DATA);
	else if (spa_streq(property, "isPropertyState"))
		*value = hs_plugin_get_event_flag(plugin, interface, HS_PLUGIN_EVENT_IS_PROPERTY_STATE);
	else
		return false;
	return true;
}

int get_bool(sd_bus *bus, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	     void *data, sd_bus_error *error)
{
	const auto *source = static_cast<const hs_source *>(data);
	bool value = false;
	const hs_properties_ptr entry = find_entry(source, interface, property);
	const bool known = entry ? pw_properties_fetch_bool(entry.get(), "value", &value) >= 0
				 : generate_bool(bus, source, interface, property, &value);
	if (!known)
		return hs_dbus_property_fail(error, property, interface, path);
	return answer(sd_bus_message_append(reply, "b", value ? 1 : 0), error, property, interface, path);
}

template <typename T>
using fetch_value = int (*)(const pw_properties *, const char *, T *);

/** An integer of the entry; `Type` is its D-Bus type. */
template <typename T, char Type, fetch_value<T> Fetch>
int get_integer(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
		void *data, sd_bus_error *error)
{
	T value = 0;
	const hs_properties_ptr entry = find_entry(static_cast<const hs_source *>(data), interface, property);
	if (!entry || Fetch(entry.get(), "value", &value) < 0)
		return hs_dbus_property_fail(error, property, interface, path);
	return answer(sd_bus_message_append_basic(reply, Type, &value), error, property, interface, path);
}

constexpr sd_bus_property_get_t get_uint32 = get_integer<uint32_t, 'u', pw_properties_fetch_uint32>;
constexpr sd_bus_property_get_t get_int32 = get_integer<int32_t, 'i', pw_properties_fetch_int32>;
constexpr sd_bus_property_get_t get_int64 = get_integer<int64_t, 'x', pw_properties_fetch_int64>;

int get_float(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	      void *data, sd_bus_error *error)
{
	const hs_properties_ptr entry = find_entry(static_cast<const hs_source *>(data), interface, property);
	if (!entry)
		return hs_dbus_property_fail(error, property, interface, path);
	const char *text = pw_properties_get(entry.get(), "value");
	float value = 0;
	if (!hs_parse_float(text, &value)) {
		pw_log_warn("Failed to parse \"%s\"=\"%s\" as float", property, text ? text : "(null)");
		return hs_dbus_property_fail(error, property, interface, path);
	}
	return answer(sd_bus_message_append(reply, "d", static_cast<double>(value)), error, property, interface, path);
}

int get_double(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	       void *data, sd_bus_error *error)
{
	const hs_properties_ptr entry = find_entry(static_cast<const hs_source *>(data), interface, property);
	if (!entry)
		return hs_dbus_property_fail(error, property, interface, path);
	const char *text = pw_properties_get(entry.get(), "value");
	double value = 0;
	if (!hs_parse_double(text, &value)) {
		pw_log_warn("Failed to parse \"%s\"=\"%s\" as double", property, text ? text : "(null)");
		return hs_dbus_property_fail(error, property, interface, path);
	}
	return answer(sd_bus_message_append(reply, "d", value), error, property, interface, path);
}

struct topic_property {
	const char *name;
	hs_plugin_topic_selector selector;
};

constexpr topic_property topic_properties[] = {
	{"Topic0Name", HS_PLUGIN_TOPIC0_NAME},		 {"Topic0Namespace", HS_PLUGIN_TOPIC0_NAMESPACE},
	{"Topic0NiceName", HS_PLUGIN_TOPIC0_NICE_NAME},	 {"Topic1Name", HS_PLUGIN_TOPIC1_NAME},
	{"Topic1Namespace", HS_PLUGIN_TOPIC1_NAMESPACE}, {"Topic1NiceName", HS_PLUGIN_TOPIC1_NICE_NAME},
	{"Topic2Name", HS_PLUGIN_TOPIC2_NAME},		 {"Topic2Namespace", HS_PLUGIN_TOPIC2_NAMESPACE},
	{"Topic2NiceName", HS_PLUGIN_TOPIC2_NICE_NAME},
};

std::optional<std::string> generate_string(const hs_source *source, const char *interface, const char *property)
{
	const hs_plugin *plugin = source->plugin;
	if (spa_streq(interface, HS_DBUS_SOURCE_INTERFACE)) {
		if (spa_streq(property, "Id"))
			return source->name;
		return std::nullopt;
	}
	if (spa_streq(interface, HS_DBUS_CHAIN_INTERFACE)) {
		if (spa_streq(property, "Id"))
			return hs_source_get_device_name(source);
		if (spa_streq(property, "NiceName"))
			return hs_source_get_display_name(source);
		if (spa_streq(property, "Direction"))
			return hs_source_get_direction(source);
		return std::nullopt;
	}
	if (spa_streq(property, "Name"))
		return "hs-" + source->name;
	if (spa_streq(property, "Schema"))
		return hs_plugin_get_schema(plugin);
	if (spa_streq(property, "NiceName"))
		return hs_plugin_get_event_nice_name(plugin, interface);
	if (spa_streq(property, "EventName"))
		return hs_plugin_get_event_name(plugin, interface);
	for (const topic_property &topic : topic_properties) {
		if (spa_streq(property, topic.name))
			return hs_plugin_get_topic(plugin, interface, topic.selector);
	}
	return std::nullopt;
}

int get_string(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	       void *data, sd_bus_error *error)
{
	const auto *source = static_cast<const hs_source *>(data);
	if (const hs_properties_ptr entry = find_entry(source, interface, property))
		return answer(sd_bus_message_append(reply, "s", pw_properties_get(entry.get(), "value")), error,
			      property, interface, path);
	const std::optional<std::string> text = generate_string(source, interface, property);
	if (!text)
		return hs_dbus_property_fail(error, property, interface, path);
	return answer(sd_bus_message_append(reply, "s", text->c_str()), error, property, interface, path);
}

/** The path that the property points to; null where there is none. */
const char *find_object_path(const hs_source *source, const char *interface, const char *property)
{
	const bool of_instance =
		spa_strstartswith(interface, HS_DBUS_EVENTS_PREFIX) || spa_streq(interface, HS_DBUS_INSTANCE_INTERFACE);
	if (of_instance && spa_streq(property, "Source"))
		return source->node_path.c_str();
	if (spa_streq(interface, HS_DBUS_SOURCE_INTERFACE) && spa_streq(property, "AudioChain"))
		return source->device_path.c_str();
	return nullptr;
}

int get_object_path(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
		    void *data, sd_bus_error *error)
{
	const char *target = find_object_path(static_cast<const hs_source *>(data), interface, property);
	if (!target)
		return hs_dbus_property_fail(error, property, interface, path);
	return answer(sd_bus_message_append(reply, "o", target), error, property, interface, path);
}

/* sd_bus_message_append_array takes neither booleans of one byte nor strings. */
int append_bools(sd_bus_message *reply, const bool *values, uint32_t count)
{
	int r = sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "b");
	for (uint32_t i = 0; i < count && r >= 0; ++i)
		r = sd_bus_message_append(reply, "b", values[i] ? 1 : 0);
	return r < 0 ? r : sd_bus_message_close_container(reply);
}

int append_strings(sd_bus_message *reply, char *const *values, uint32_t count)
{
	int r = sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "s");
	for (uint32_t i = 0; i < count && r >= 0; ++i)
		r = sd_bus_message_append(reply, "s", values[i]);
	return r < 0 ? r : sd_bus_message_close_container(reply);
}

int append_array(sd_bus_message *reply, const char *text, const char *complex_type)
{
	const size_t length = std::strlen(text);
	const uint32_t count = hs_parse_array_count(text, length);
	void *buffer = nullptr;
	uint32_t size = 0;
	hs_parse_array(text, length, count, &buffer, complex_type, &size);
	const hs_malloc_ptr<void> owned(buffer);

	if (spa_streq(complex_type, "ab"))
		return append_bools(reply, static_cast<const bool *>(buffer), size);
	if (spa_streq(complex_type, "as")) {
		auto *strings = static_cast<char **>(buffer);
		const uint32_t n_strings = size / HS_PARSE_TEXT_SIZE;
		const int r = append_strings(reply, strings, n_strings);
		for (uint32_t i = 0; i < n_strings; ++i)
			hs_malloc_ptr<char>(strings[i]).reset();
		return r;
	}
	return sd_bus_message_append_array(reply, complex_type[1], buffer, size);
}

int get_array(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	      void *data, sd_bus_error *error)
{
	const hs_properties_ptr entry = find_entry(static_cast<const hs_source *>(data), interface, property);
	const char *text = entry ? pw_properties_get(entry.get(), "value") : nullptr;
	const char *complex_type = entry ? pw_properties_get(entry.get(), "complexType") : nullptr;
	if (!text || !complex_type || append_array(reply, text, complex_type) < 0)
		return hs_dbus_property_fail(error, property, interface, path);
	return 1;
}

/** Logs a step of building a dictionary that failed; passes the result on. */
int check_step(int r, const char *failure)
{
	if (r < 0)
		pw_log_error("%s: %s", failure, std::strerror(-r));
	return r;
}

int warn_unparsable(const char *value, char type)
{
	pw_log_warn("Failed to parse '%s' as %c", value, type);
	return 0;
}

/** Appends nothing, after a warning, where the text is no value of that type. */
int append_variant(sd_bus_message *reply, char type, const char *value)
{
	const bool is_empty = value[0] == '\0';
	switch (type) {
	case 'b':
		if (is_empty)
			return warn_unparsable(value, type);
		return check_step(sd_bus_message_append(reply, "v", "b", spa_streq(value, "true") ? 1 : 0),
				  "Unable to open append bool variant");
	case 'u': {
		uint32_t number;
		if (!hs_parse_uint32(value, &number))
			return warn_unparsable(value, type);
		return check_step(sd_bus_message_append(reply, "v", "u", number),
				  "Unable to open append uint32_t variant");
	}
	case 'i': {
		int32_t number;
		if (!hs_parse_int32(value, &number))
			return warn_unparsable(value, type);
		return check_step(sd_bus_message_append(reply, "v", "i", number),
				  "Unable to open append int32_t variant");
	}
	case 'x': {
		int64_t number;
		if (!hs_parse_int64(value, &number))
			return warn_unparsable(value, type);
		return check_step(sd_bus_message_append(reply, "v", "x", number),
				  "Unable to open append int64_t variant");
	}
	case 'f': {
		float number;
		if (!hs_parse_float(value, &number))
			return warn_unparsable(value, type);
		return check_step(sd_bus_message_append(reply, "v", "d", static_cast<double>(number)),
				  "Unable to open append float variant");
	}
	case 'd': {
		double number;
		if (!hs_parse_double(value, &number))
			return warn_unparsable(value, type);
		return check_step(sd_bus_message_append(reply, "v", "d", number),
				  "Unable to open append double variant");
	}
	case 's':
		if (is_empty)
			return warn_unparsable(value, type);
		return check_step(sd_bus_message_append(reply, "v", "s", value),
				  "Unable to open append string variant");
	default:
		pw_log_warn("Unkown type in struct %c", type);
		return 0;
	}
}

int append_member(sd_bus_message *reply, const char *key, char type, const char *value)
{
	int r = check_step(sd_bus_message_open_container(reply, SD_BUS_TYPE_DICT_ENTRY, "sv"),
			   "Unable to open dictionary container");
	if (r < 0)
		return r;
	r = check_step(sd_bus_message_append(reply, "s", key), "Unable to open append string");
	if (r < 0)
		return r;
	r = append_variant(reply, type, value);
	if (r < 0)
		return r;
	return check_step(sd_bus_message_close_container(reply), "Unable to close dictionary container");
}

bool event_has_report(const hs_source *source, const char *title)
{
	const int position = hs_source_find_event(source, title);
	return position >= 0 &&
	       hs_source_has_report(source->interface, source->event_indices[static_cast<size_t>(position)]);
}

/** Appends a flat object as a dictionary, its members typed by the signature in their order. */
int append_struct(sd_bus_message *reply, const hs_source *source, const char *property, const pw_properties *members,
		  const char *signature)
{
	int r = check_step(sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "{sv}"),
			   "Unable to open array container");
	if (r < 0)
		return r;

	const char *type = signature[0] ? signature + 1 : signature;
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(members, &state)) {
		const char *value = pw_properties_get(members, key);
		/* Without a report of its own the event must not claim one. */
		if (spa_streq(key, "Report") && spa_streq(value, "true") && !event_has_report(source, property))
			value = "false";
		r = append_member(reply, key, *type, value);
		if (r < 0)
			return r;
		if (*type != '\0')
			++type;
	}
	return check_step(sd_bus_message_close_container(reply), "Unable to close array container");
}

int get_struct(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	       void *data, sd_bus_error *error)
{
	const auto *source = static_cast<const hs_source *>(data);
	const hs_properties_ptr entry = spa_streq(property, "DataTypes")
						? hs_plugin_get_event_data_types(source->plugin, interface)
						: find_entry(source, interface, property);
	const char *text = entry ? pw_properties_get(entry.get(), "value") : nullptr;
	const char *signature = entry ? pw_properties_get(entry.get(), "complexType") : nullptr;
	if (!text || !signature)
		return hs_dbus_property_fail(error, property, interface, path);
	const hs_properties_ptr members(pw_properties_new_string(text));
	if (!members || append_struct(reply, source, property, members.get(), signature) < 0)
		return hs_dbus_property_fail(error, property, interface, path);
	return 1;
}

struct getter {
	const char *signature;
	sd_bus_property_get_t get;
};

constexpr getter getters[] = {
	{"b", get_bool},  {"u", get_uint32}, {"i", get_int32},	{"x", get_int64},
	{"f", get_float}, {"d", get_double}, {"s", get_string}, {"o", get_object_path},
};

} // namespace

sd_bus_property_get_t hs_dbus_get_find(const char *signature)
{
	if (spa_strstartswith(signature, "a"))
		return get_array;
	if (spa_strstartswith(signature, "("))
		return get_struct;
	for (const getter &getter : getters) {
		if (spa_streq(signature, getter.signature))
			return getter.get;
	}
	return nullptr;
}
