#include "dbus-get.hpp"

#include <cerrno>
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

/** The setting or event behind a property. */
struct entry {
	/** False for what is generated. */
	bool found;
	/** Null where there is none. */
	const char *value;
	const char *complex_type;
	/** Holds the texts, where they are not an event's own. */
	hs_properties_ptr object;
};

entry entry_of(const hs_event &event)
{
	return {true, event.value.c_str(), event.complex_type.c_str(), nullptr};
}

entry entry_of(hs_properties_ptr object)
{
	if (!object)
		return {};
	const char *value = pw_properties_get(object.get(), "value");
	const char *complex_type = pw_properties_get(object.get(), "complexType");
	return {true, value, complex_type, std::move(object)};
}

entry find_entry(const hs_source *source, const char *interface, const char *property)
{
	if (!hs_dbus_property_is_setting(interface)) {
		const hs_event *event = hs_events_find(source->events, property);
		return event ? entry_of(*event) : entry{};
	}
	return entry_of(hs_props_find(source->settings, property));
}

/*
 * Each of these appends the value of a setting or event; negative where its text is no value of the type or
 * does not go into the message.
 */
using append_entry = int (*)(sd_bus_message *reply, const hs_source *source, const char *property, const entry &entry);

/** Answers with the result of appending the value. */
int answer(int r, sd_bus_error *error, const char *property, const char *interface, const char *path)
{
	return r < 0 ? hs_dbus_property_fail(error, property, interface, path) : r;
}

/** Reads a property that is a setting or event, and nothing else. */
template <append_entry Append>
int get_entry(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	      void *data, sd_bus_error *error)
{
	const auto *source = static_cast<const hs_source *>(data);
	const entry entry = find_entry(source, interface, property);
	if (!entry.found)
		return hs_dbus_property_fail(error, property, interface, path);
	return answer(Append(reply, source, property, entry), error, property, interface, path);
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

int append_bool(sd_bus_message *reply, const hs_source *, const char *, const entry &entry)
{
	const int value = entry.value && spa_atob(entry.value);
	return entry.value ? sd_bus_message_append_basic(reply, 'b', &value) : -EINVAL;
}

int get_bool(sd_bus *bus, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	     void *data, sd_bus_error *error)
{
	const auto *source = static_cast<const hs_source *>(data);
	const entry entry = find_entry(source, interface, property);
	if (entry.found)
		return answer(append_bool(reply, source, property, entry), error, property, interface, path);
	bool value = false;
	if (!generate_bool(bus, source, interface, property, &value))
		return hs_dbus_property_fail(error, property, interface, path);
	return answer(sd_bus_message_append(reply, "b", value ? 1 : 0), error, property, interface, path);
}

template <typename T>
using parse_integer = bool (*)(const char *, T *, int);

/** `Type` is the D-Bus type, `Name` the type's, for the log. */
template <typename T, char Type, parse_integer<T> Parse, const char *Name>
int append_integer(sd_bus_message *reply, const hs_source *, const char *, const entry &entry)
{
	T value = 0;
	if (Parse(entry.value, &value, 0))
		return sd_bus_message_append_basic(reply, Type, &value);
	/* As PipeWire says it of a table's entry. */
	if (entry.value)
		pw_log_warn("Failed to parse \"value\"=\"%s\" as %s", entry.value, Name);
	return -EINVAL;
}

constexpr char uint32_name[] = "uint32";
constexpr char int32_name[] = "int32";
constexpr char int64_name[] = "int64";
constexpr append_entry append_uint32 = append_integer<uint32_t, 'u', spa_atou32, uint32_name>;
constexpr append_entry append_int32 = append_integer<int32_t, 'i', spa_atoi32, int32_name>;
constexpr append_entry append_int64 = append_integer<int64_t, 'x', spa_atoi64, int64_name>;

template <typename T, bool (*Parse)(const char *, T *), const char *Name>
int append_real(sd_bus_message *reply, const hs_source *, const char *property, const entry &entry)
{
	T value = 0;
	if (!Parse(entry.value, &value)) {
		pw_log_warn("Failed to parse \"%s\"=\"%s\" as %s", property, entry.value ? entry.value : "(null)",
			    Name);
		return -EINVAL;
	}
	const double real = value;
	return sd_bus_message_append_basic(reply, 'd', &real);
}

constexpr char float_name[] = "float";
constexpr char double_name[] = "double";
constexpr append_entry append_float = append_real<float, hs_parse_float, float_name>;
constexpr append_entry append_double = append_real<double, hs_parse_double, double_name>;

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

int append_string(sd_bus_message *reply, const hs_source *, const char *, const entry &entry)
{
	return sd_bus_message_append_basic(reply, 's', entry.value);
}

int get_string(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	       void *data, sd_bus_error *error)
{
	const auto *source = static_cast<const hs_source *>(data);
	if (const entry entry = find_entry(source, interface, property); entry.found)
		return answer(append_string(reply, source, property, entry), error, property, interface, path);
	const bool of_shared_object =
		spa_streq(interface, HS_DBUS_SOURCE_INTERFACE) || spa_streq(interface, HS_DBUS_CHAIN_INTERFACE);
	if (!of_shared_object && spa_streq(property, "Source"))
		return answer(sd_bus_message_append(reply, "o", source->node_path.c_str()), error, property, interface,
			      path);
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

int append_elements(sd_bus_message *reply, const char *text, const char *complex_type)
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
	/* An event whose type names no element at all. */
	if (complex_type[0] == '\0')
		return -EINVAL;
	return sd_bus_message_append_array(reply, complex_type[1], buffer, size);
}

int append_array(sd_bus_message *reply, const hs_source *, const char *, const entry &entry)
{
	return entry.value && entry.complex_type ? append_elements(reply, entry.value, entry.complex_type) : -EINVAL;
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
	const hs_event *event = hs_events_find(source->events, title);
	return event && hs_source_has_report(source->interface, event->index);
}

/** Appends a flat object as a dictionary, its members typed by the signature in their order. */
int append_members(sd_bus_message *reply, const hs_source *source, const char *property, const pw_properties *members,
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

int append_struct(sd_bus_message *reply, const hs_source *source, const char *property, const entry &entry)
{
	if (!entry.value || !entry.complex_type)
		return -EINVAL;
	const hs_properties_ptr members(pw_properties_new_string(entry.value));
	return members ? append_members(reply, source, property, members.get(), entry.complex_type) : -EINVAL;
}

int get_struct(sd_bus *, const char *path, const char *interface, const char *property, sd_bus_message *reply,
	       void *data, sd_bus_error *error)
{
	const auto *source = static_cast<const hs_source *>(data);
	const entry entry = spa_streq(property, "DataTypes")
				    ? entry_of(hs_plugin_get_event_data_types(source->plugin, interface))
				    : find_entry(source, interface, property);
	return answer(append_struct(reply, source, property, entry), error, property, interface, path);
}

struct getter {
	const char *signature;
	sd_bus_property_get_t get;
	append_entry append;
};

constexpr getter array_getter = {"a", get_entry<append_array>, append_array};
constexpr getter struct_getter = {"(", get_struct, append_struct};
constexpr getter getters[] = {
	{"b", get_bool, append_bool},
	{"u", get_entry<append_uint32>, append_uint32},
	{"i", get_entry<append_int32>, append_int32},
	{"x", get_entry<append_int64>, append_int64},
	{"f", get_entry<append_float>, append_float},
	{"d", get_entry<append_double>, append_double},
	{"s", get_string, append_string},
	{"o", get_object_path, nullptr},
};

const getter *find_getter(const char *signature)
{
	if (spa_strstartswith(signature, array_getter.signature))
		return &array_getter;
	if (spa_strstartswith(signature, struct_getter.signature))
		return &struct_getter;
	for (const getter &getter : getters) {
		if (spa_streq(signature, getter.signature))
			return &getter;
	}
	return nullptr;
}

} // namespace

sd_bus_property_get_t hs_dbus_get_find(const char *signature)
{
	const getter *found = find_getter(signature);
	return found ? found->get : nullptr;
}

int hs_dbus_get_append_event(sd_bus_message *message, const hs_source *source, const hs_event &event,
			     const char *signature)
{
	const getter *found = find_getter(signature);
	if (!found || !found->append)
		return -EINVAL;
	/* What reading the property would give for any failure. */
	return found->append(message, source, event.title.c_str(), entry_of(event)) < 0 ? -EIO : 0;
}
