/*
 * Checks of what is installed beside the library: the configuration and the schemas.
 */
#include "check-bench.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include <nlohmann/json.hpp>

#include <pipewire/properties.h>
#include <spa/utils/string.h>

#include "conf-syntax.hpp"
#include "conf.hpp"
#include "event-json.hpp"
#include "failure.hpp"
#include "node-pattern.hpp"
#include "pcm-format.hpp"
#include "schema.hpp"
#include "source-settings.hpp"

namespace hs_tool {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

constexpr char default_suffix[] = ".default";

void check_default(const std::string &key, const char *text, host *instance, report *found)
{
	const hs_properties_ptr entry(pw_properties_new_string(text));
	const char *title = pw_properties_get(entry.get(), "title");
	const char *value = pw_properties_get(entry.get(), "value");
	if (!title || !value) {
		found->warn("The entry " + key + " lacks a \"title\" or a \"value\".");
		return;
	}
	const std::string name = hs_setting_name(title);
	if (name == "enable") {
		const std::string text_value = value;
		if (text_value != "true" && text_value != "false")
			found->fail("The entry " + key + " is neither true nor false.");
		return;
	}
	for (const setting &s : instance->settings()) {
		if (hs_setting_name(s.title.c_str()) != name)
			continue;
		try {
			instance->set(s.title, value);
		} catch (const failure &why) {
			found->fail("The entry " + key + ": " + why.what());
		}
		return;
	}
	found->warn("The entry " + key + " names the setting " + title + ", which there is not.");
}

void check_pattern(const char *pattern, report *found)
{
	const std::string fault = hs_node_pattern_fault(pattern);
	if (!fault.empty())
		found->fail("Its node.pattern selects no node: " + fault + ".");
}

constexpr const char *format_keys[] = {"audio.format", "audio.rate", "audio.channels", "audio.position", "node.name"};
constexpr char pattern_key[] = "node.pattern";
constexpr char info_key[] = "plugin.info";
constexpr char config_key[] = "plugin.config";
constexpr char source_prefix[] = "source.";

void check_number(const std::string &key, const char *text, report *found)
{
	uint32_t value = 0;
	if (text && (!spa_atou32(text, &value, 10) || value == 0))
		found->warn(key + " = " + text + " is no number, so it is as if it was not there.");
}

bool is_position(const char *names)
{
	uint32_t position[SPA_AUDIO_MAX_CHANNELS] = {};
	const int n = hs_pcm_parse_position(names, position);
	uint32_t *end = position + std::clamp<int>(n, 0, SPA_AUDIO_MAX_CHANNELS);
	return n > 0 && std::find(position, end, uint32_t{SPA_AUDIO_CHANNEL_UNKNOWN}) == end;
}

void check_format(const std::string &where, const pw_properties *entry, report *found)
{
	check_number(where + "audio.rate", pw_properties_get(entry, "audio.rate"), found);
	check_number(where + "audio.channels", pw_properties_get(entry, "audio.channels"), found);
	const char *format = pw_properties_get(entry, "audio.format");
	if (format && hs_pcm_format_from_name(format) == SPA_AUDIO_FORMAT_UNKNOWN)
		found->warn(where + "audio.format = " + format + " is no sample format, so PipeWire chooses one.");
	const char *names = pw_properties_get(entry, "audio.position");
	if (names && !is_position(names))
		found->warn(where + "audio.position = " + names + " is no list of channels.");
}

/** An object of the file: its format, and that there is nothing in it that nobody reads. */
void check_entry(const std::string &where, const pw_properties *entry, bool has_pattern, report *found)
{
	check_format(where, entry, found);
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(entry, &state)) {
		const bool is_read = std::string_view(key).ends_with(default_suffix) ||
				     (has_pattern && spa_streq(key, pattern_key)) ||
				     std::any_of(std::begin(format_keys), std::end(format_keys),
						 [key](const char *known) { return spa_streq(key, known); });
		if (!is_read)
			found->warn("The key " + where + key + " is read by nobody.");
	}
}

void check_keys(const configuration &conf, report *found)
{
	check_entry("", conf.info.get(), true, found);
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(conf.file.get(), &state)) {
		if (std::string_view(key).starts_with(source_prefix)) {
			const hs_properties_ptr entry(
				pw_properties_new_string(pw_properties_get(conf.file.get(), key)));
			check_entry(std::string(key) + ": ", entry.get(), false, found);
			if (!pw_properties_get(entry.get(), "node.name"))
				found->warn(std::string("The entry ") + key +
					    " has no node.name, so it is for no microphone.");
		} else if (!spa_streq(key, info_key) && !spa_streq(key, config_key)) {
			found->warn(std::string("The key ") + key + " is read by nobody; there are " + info_key + ", " +
				    config_key + " and " + source_prefix + "N.");
		}
	}
}

std::string read_text(const std::string &path)
{
	std::ifstream stream(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(stream), {}};
}

void check_configuration(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const configuration &conf = loaded.conf;
	if (conf.path.empty()) {
		found->note("there is none, --conf names one");
		return;
	}
	found->note(conf.path);
	if (fs::path(conf.path).filename() != loaded.plugin.name() + ".conf")
		found->warn("It is not called " + loaded.plugin.name() +
			    ".conf, so the daemon takes it for another plug-in's.");
	if (conf.info->dict.n_items == 0)
		found->warn("It has no \"plugin.info\", or none that can be read.");
	if (const char *pattern = pw_properties_get(conf.info.get(), pattern_key))
		check_pattern(pattern, found);
	if (const std::optional<std::string> error = find_bracket_error(read_text(conf.path)))
		found->fail(*error);
	check_keys(conf, found);

	found->begin("taking the format of the configuration");
	const auto instance = loaded.make();
	const spa_audio_info_raw format = loaded.usual_format();
	found->note(describe(format));

	void *state = nullptr;
	while (const char *key = pw_properties_iterate(conf.info.get(), &state)) {
		found->begin(std::string("the entry ") + key);
		if (std::string_view(key).ends_with(default_suffix))
			check_default(key, pw_properties_get(conf.info.get(), key), instance.get(), found);
	}
}

/** Whether a JSON schema's type, a name or a list of names, is that of a setting. */
bool types_fit(const json &schema_type, const std::string &type)
{
	if (schema_type.is_array())
		return std::any_of(schema_type.begin(), schema_type.end(),
				   [&type](const json &one) { return types_fit(one, type); });
	if (type == "boolean" || type == "string")
		return schema_type == type;
	if (type == "float" || type == "double")
		return schema_type == "number";
	return schema_type == "integer" || schema_type == "number";
}

/** The schema in the file; null where it is not there or no good. */
json read_schema(const std::string &what, const char *file, const std::string &folder, report *found)
{
	if (!file) {
		found->note("no " + what);
		return nullptr;
	}
	const std::string path = folder + "/" + file;
	std::ifstream stream(path);
	if (!stream) {
		found->warn("The " + what + " " + path + " is not there.");
		return nullptr;
	}
	json schema = json::parse(stream, nullptr, false);
	if (schema.is_discarded() || !schema.is_object()) {
		found->fail("The " + what + " " + path + " is no JSON object.");
		return nullptr;
	}
	if (!schema.contains("properties") || !schema["properties"].is_object()) {
		found->warn("The " + what + " " + path + " has no \"properties\".");
		return nullptr;
	}
	return schema;
}

/** A schema, and what it describes. */
struct schema_kind {
	const char *name;
	/** Of what there is besides the settings. */
	json others;
	/** What it is where the schema refuses what the daemon makes of defaults. */
	verdict refusal;
};

json value_of(const setting &s)
{
	return value_json(s.type.c_str(), nullptr, s.value.c_str()).value_or(nullptr);
}

void compare_setting(const std::string &what, const std::string &name, const setting &s, const json &property,
		     report *found)
{
	if (!property.is_object())
		return;
	const json type = property.contains("type") ? property["type"] : json("(none)");
	const json value = value_of(s);
	/* What the schema refuses is told elsewhere. */
	if (!refusal(property, value) && !types_fit(type, s.type))
		found->warn("The " + what + " gives " + name + " the type " +
			    (type.is_string() ? type.get<std::string>() : to_line(type)) + "; it is " + s.type + ".");
	if (!value.is_null() && property.contains("default") && property["default"] != value)
		found->warn("The " + what + " gives " + name + " the default " + to_line(property["default"]) +
			    "; it is " + to_line(value) + ".");
}

/** Compares the schema's properties with the settings, by name. */
void compare(const schema_kind &kind, const json &schema, const std::map<std::string, setting> &settings, report *found)
{
	const std::string what = kind.name;
	for (const auto &[name, s] : settings) {
		if (const json *property = find_property(schema, name))
			compare_setting(what, name, s, *property, found);
		else if (!schema.contains("additionalProperties"))
			found->warn("The " + what + " lacks the setting " + name + ".");
	}
	for (const auto &[name, property] : schema["properties"].items()) {
		if (!settings.contains(name) && !kind.others.contains(name))
			found->warn("The " + what + " has the setting " + name + ", which there is not.");
	}
}

/** Lets the schema look at what the daemon makes of the settings. */
void let_refuse(const schema_kind &kind, const json &schema, const std::map<std::string, setting> &settings,
		report *found)
{
	json made = kind.others;
	for (const auto &[name, s] : settings) {
		const json value = value_of(s);
		if (!value.is_null())
			made[name] = value;
	}
	for (const std::string &reason : refusals(schema, made)) {
		const std::string text =
			std::string("The ") + kind.name + " refuses the settings that there are: " + reason + ".";
		if (kind.refusal == verdict::error)
			found->fail(text);
		else
			found->warn(text);
	}
}

std::map<std::string, setting> settings_by(host *instance, std::string (*name_of)(const setting &))
{
	std::map<std::string, setting> all;
	for (const setting &s : instance->settings())
		all[name_of(s)] = s;
	return all;
}

void check_schema(const schema_kind &kind, const json &schema, const bench &loaded,
		  std::string (*name_of)(const setting &), report *found)
{
	if (schema.is_null())
		return;
	host instance(loaded.plugin, loaded.conf.config.get(), nullptr);
	compare(kind, schema, settings_by(&instance, name_of), found);
	let_refuse(kind, schema, settings_by(&instance, name_of), found);
	/* As they are once the configuration's defaults are set. */
	instance.set_defaults(loaded.conf.info.get());
	let_refuse(kind, schema, settings_by(&instance, name_of), found);
}

void check_schemas(const subject &plugin, report *found)
{
	const std::string folder = plugin.schemas.empty() ? HS_CONF_SCHEMA_DIR : plugin.schemas;
	std::error_code error;
	if (!fs::is_directory(folder, error)) {
		if (!plugin.schemas.empty())
			throw failure("There is no folder " + folder + ".");
		found->note("there is no folder " + folder + ", --schemas names one");
		return;
	}

	const bench loaded(plugin);
	const host instance(loaded.plugin, loaded.conf.config.get(), nullptr);
	const hs_plugin_interface &interface = *instance.interface();
	const schema_kind on_bus = {"schema", {{"Enable", false}}, verdict::warning};
	check_schema(
		on_bus, read_schema(on_bus.name, interface.schema, folder, found), loaded,
		[](const setting &s) { return s.title; }, found);
	const schema_kind in_file = {
		"schema of the settings file", {{"$schema", folder}, {"enable", false}}, verdict::error};
	check_schema(
		in_file, read_schema(in_file.name, interface.settings_schema, folder, found), loaded,
		[](const setting &s) { return hs_setting_name(s.title.c_str()); }, found);
}

constexpr check_case checks[] = {
	{"configuration", "has a configuration that fits", check_configuration},
	{"schemas", "has schemas that describe its settings", check_schemas},
};

} // namespace

std::span<const check_case> installation_checks()
{
	return checks;
}

} // namespace hs_tool
