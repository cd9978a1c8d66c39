#include "commands.hpp"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include <pipewire/properties.h>

#include "conf.hpp"
#include "event-json.hpp"
#include "format.hpp"
#include "host.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "schema.hpp"
#include "source-settings.hpp"

namespace hs_tool {

namespace {

using json = nlohmann::ordered_json;

json text(const char *value)
{
	return value ? json(value) : json(nullptr);
}

const hs_event_info *find_info(const hs_plugin_interface &interface, const char *title)
{
	for (uint64_t i = 0; interface.events && i < interface.n_events; ++i) {
		const hs_event_info *info = interface.events[i];
		if (info && info->name && std::string_view(info->name) == title)
			return info;
	}
	return nullptr;
}

json topics_of(const hs_event_info &info)
{
	json topics = json::array();
	for (uint64_t i = 0; info.topics && i < info.n_topics; ++i) {
		if (const hs_event_topic *topic = info.topics[i])
			topics.push_back({{"name", text(topic->name)},
					  {"namespace", text(topic->namespace_)},
					  {"niceName", text(topic->nice_name)}});
	}
	return topics;
}

json event_of(const hs_plugin_interface &interface, const hs_event &described)
{
	json event = {{"title", described.title}, {"type", described.type->name}};
	if (!described.complex_type.empty())
		event["complexType"] = described.complex_type;
	event["value"] = value_json(described.type->name, described.complex_type.c_str(), described.value.c_str())
				 .value_or(nullptr);
	if (const hs_event_info *info = find_info(interface, described.title.c_str())) {
		event["niceName"] = text(info->nice_name);
		event["public"] = interface.version > 2 ? info->is_public : info->isPropertyState;
		event["isPropertyState"] = info->isPropertyState;
		event["isApplicationData"] = info->isApplicationData;
		event["isDeprecated"] = info->isDeprecated;
		event["stats"] = (info->data_types & HS_EVENT_DATA_STATS) != 0;
		event["event"] = (info->data_types & HS_EVENT_DATA_EVENT) != 0;
		event["topics"] = topics_of(*info);
	}
	return event;
}

/** The schema in the file; null where it is not there, or no JSON. */
json read_schema(const char *file, const std::string &folder)
{
	std::ifstream stream(file ? folder + "/" + file : "");
	return stream ? json::parse(stream, nullptr, false) : json(nullptr);
}

/** Adds "minimum" and "maximum" where the schema has them. */
void add_range(const json &schema, const std::string &name, json *setting)
{
	const json *property = schema.is_object() ? find_property(schema, name) : nullptr;
	if (!property || !property->is_object())
		return;
	for (const char *key : {"minimum", "maximum"}) {
		const auto limit = property->find(key);
		if (limit != property->end() && limit->is_number())
			(*setting)[key] = *limit;
	}
}

json settings_of(host *instance, const std::string &schemas)
{
	/* The interface itself does not tell ranges. */
	const json schema = read_schema(instance->interface()->schema, schemas);
	const json settings_schema = read_schema(instance->interface()->settings_schema, schemas);
	json settings = json::array();
	for (const setting &s : instance->settings()) {
		settings.push_back({{"title", s.title},
				    {"type", s.type},
				    {"default", value_json(s.type.c_str(), nullptr, s.value.c_str()).value_or(nullptr)},
				    {"description", s.description}});
		add_range(settings_schema, hs_setting_name(s.title.c_str()), &settings.back());
		add_range(schema, s.title, &settings.back());
	}
	return settings;
}

json events_of(host *instance)
{
	json events = json::array();
	for (const hs_event &event : instance->events())
		events.push_back(event_of(*instance->interface(), event));
	return events;
}

/** A schema's file, and whether it is there. */
json schema_of(const char *file, const std::string &folder)
{
	if (!file)
		return nullptr;
	const std::string path = folder + "/" + file;
	std::error_code error;
	return {{"file", file}, {"path", path}, {"exists", std::filesystem::is_regular_file(path, error)}};
}

/** What the configuration asks for; what it does not tell is the microphone's. */
json format_of(const pw_properties *info)
{
	json format = json::object();
	for (const char *key : {"audio.format", "audio.rate", "audio.channels", "audio.position", "node.pattern"}) {
		if (const char *value = pw_properties_get(info, key))
			format[key] = value;
	}
	return format;
}

json describe_plugin(const library &plugin, const configuration &conf, host *instance, const std::string &schemas)
{
	const hs_plugin_interface &interface = *instance->interface();
	return {{"plugin", plugin.name()},
		{"file", plugin.path()},
		{"factory", HS_PLUGIN_FACTORY_PREFIX + plugin.name()},
		{"interface", text(interface.type)},
		{"version", interface.version},
		{"name", text(interface.name)},
		{"interfaceName", text(interface.interface_name)},
		{"configuration", conf.path.empty() ? json(nullptr) : json(conf.path)},
		{"info", format_of(conf.info.get())},
		{"schema", schema_of(interface.schema, schemas)},
		{"settingsSchema", schema_of(interface.settings_schema, schemas)},
		{"settings", settings_of(instance, schemas)},
		{"events", events_of(instance)}};
}

std::string plain(const json &value)
{
	if (value.is_null())
		return "none";
	return value.is_string() ? value.get<std::string>() : to_line(value);
}

void print_line(const char *what, const std::string &value)
{
	std::printf("%-16s %s\n", what, value.c_str());
}

void print_schema(const char *what, const json &schema)
{
	if (schema.is_null())
		print_line(what, "none");
	else
		print_line(what, plain(schema["path"]) + (schema["exists"].get<bool>() ? "" : " (not there)"));
}

std::string event_traits(const json &event)
{
	if (!event.contains("public"))
		return "not in the plug-in's list of events";
	std::string traits = event["public"].get<bool>() ? "public" : "private";
	for (const auto &[key, name] : {std::pair{"isPropertyState", "state"},
					{"isApplicationData", "application data"},
					{"isDeprecated", "deprecated"},
					{"stats", "stats"},
					{"event", "event"}}) {
		if (event[key].get<bool>())
			traits += std::string(", ") + name;
	}
	return traits;
}

/** " (from 0 to 10)", " (from 0)", " (to 10)" or nothing. */
std::string range_text(const json &setting)
{
	std::string text;
	for (const auto &[key, word] : {std::pair{"minimum", "from "}, {"maximum", "to "}}) {
		if (setting.contains(key))
			text += (text.empty() ? " (" : " ") + std::string(word) + to_line(setting[key]);
	}
	return text.empty() ? "" : text + ")";
}

void print_text(const json &all)
{
	print_line("Plug-in", plain(all["plugin"]));
	print_line("File", plain(all["file"]));
	print_line("Factory", plain(all["factory"]));
	print_line("Interface", plain(all["interface"]) + ", version " + plain(all["version"]));
	print_line("Name", plain(all["name"]));
	print_line("Name on the bus", plain(all["interfaceName"]));
	print_line("Configuration", plain(all["configuration"]));
	for (const auto &[key, value] : all["info"].items())
		print_line("", key + " = " + plain(value));
	print_schema("Schema", all["schema"]);
	print_schema("Settings schema", all["settingsSchema"]);

	std::printf("\nSettings%s\n", all["settings"].empty() ? ": none" : "");
	for (const json &s : all["settings"])
		std::printf("  %-20s %-8s %s%s\n  %-20s %s\n", plain(s["title"]).c_str(), plain(s["type"]).c_str(),
			    to_line(s["default"]).c_str(), range_text(s).c_str(), "", plain(s["description"]).c_str());
	std::printf("\nEvents%s\n", all["events"].empty() ? ": none" : "");
	for (const json &e : all["events"])
		std::printf(
			"  %-20s %-8s %s\n  %-20s %s\n", plain(e["title"]).c_str(),
			(plain(e["type"]) + (e.contains("complexType") ? " " + plain(e["complexType"]) : "")).c_str(),
			to_line(e["value"]).c_str(), "", event_traits(e).c_str());
}

} // namespace

int info(const options &options)
{
	const library plugin(find_plugin(options.plugin));
	const configuration conf = find_configuration({plugin.name(), plugin.path()}, options.conf);
	host instance(plugin, conf.config.get(), nullptr);
	instance.describe_events();

	const json all = describe_plugin(plugin, conf, &instance,
					 options.schemas.empty() ? HS_CONF_SCHEMA_DIR : options.schemas);
	if (options.json)
		std::printf("%s\n", all.dump(2, ' ', false, json::error_handler_t::replace).c_str());
	else
		print_text(all);
	return STATUS_OK;
}

} // namespace hs_tool
