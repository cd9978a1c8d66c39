/* A settings file from an earlier run, whatever has happened to it since. */
#include "fuzz.hpp"

#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/utils/string.h>

#include <hear-sense/plugin.h>

#include "conf.hpp"
#include "owned.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "props.hpp"
#include "source-settings.hpp"
#include "source.hpp"
#include "utf8.hpp"

#include "../unit/temp-dir.hpp"

namespace {

struct setting {
	const char *title;
	const char *type;
	void (*build)(spa_pod_builder *builder);
};

constexpr setting settings[] = {
	{"Label", "string", [](spa_pod_builder *builder) { spa_pod_builder_string(builder, "kitchen"); }},
	{"Flag", "boolean", [](spa_pod_builder *builder) { spa_pod_builder_bool(builder, true); }},
	{"Word", "uint32", [](spa_pod_builder *builder) { spa_pod_builder_id(builder, 7); }},
	{"Number", "int32", [](spa_pod_builder *builder) { spa_pod_builder_int(builder, -7); }},
	{"Large", "int64", [](spa_pod_builder *builder) { spa_pod_builder_long(builder, -70000000000); }},
	{"Gain", "float", [](spa_pod_builder *builder) { spa_pod_builder_float(builder, 1.5f); }},
	{"Precise", "double", [](spa_pod_builder *builder) { spa_pod_builder_double(builder, 2.25); }},
};

int get_setting(void *, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	if (!result)
		return static_cast<int>(std::size(settings));
	spa_pod_frame object;
	spa_pod_builder_push_object(builder, &object, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
	spa_pod_builder_string(builder, settings[index].title);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
	settings[index].build(builder);
	*result = static_cast<spa_pod *>(spa_pod_builder_pop(builder, &object));
	return 0;
}

int set_settings(void *, const spa_pod *)
{
	return 0;
}

/** What the daemon makes of the settings file at its start. */
hs_properties_ptr start(const std::string &path)
{
	static const hs_plugin_methods methods = [] {
		hs_plugin_methods table{};
		table.get_setting = get_setting;
		table.set_settings = set_settings;
		return table;
	}();
	hs_plugin_interface interface {
	};
	interface.funcs = &methods;
	hs_plugin plugin{};
	plugin.schema_path = "/schemas";
	spa_list_init(&plugin.sources);
	const hs_properties_ptr props{pw_properties_new(nullptr, nullptr)};
	plugin.props = props.get();
	hs_source source{};
	source.plugin = &plugin;
	source.interface = &interface;
	hs_source_add_global_settings(&source, nullptr, path.c_str());
	HS_REQUIRE(source.settings);
	return hs_properties_ptr{source.settings};
}

std::string value_of(const pw_properties *table, const char *title)
{
	const hs_properties_ptr entry = hs_props_find(table, title);
	const char *value = entry ? pw_properties_get(entry.get(), "value") : nullptr;
	return value ? value : "";
}

/** Every setting is there, with a value that the file can hold. */
bool is_sound(const pw_properties *table)
{
	const hs_properties_ptr enable = hs_props_find(table, "Enable");
	if (!enable || !hs_settings_value_survives(value_of(table, "Enable").c_str()))
		return false;
	for (const setting &each : settings) {
		const hs_properties_ptr entry = hs_props_find(table, each.title);
		if (!entry || !pw_properties_get(entry.get(), "value") ||
		    !hs_settings_value_survives(value_of(table, each.title).c_str()))
			return false;
	}
	return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const hs_temp_dir folder;
	const std::string path = folder / "ear-node.conf";
	hs_write_text(path, {reinterpret_cast<const char *>(data), size});

	const hs_properties_ptr first = start(path);
	const std::string written = hs_read_text(path);
	for (const setting &each : settings)
		HS_REQUIRE(hs_utf8_is_valid(value_of(first.get(), each.title)));

	/* What the daemon wrote itself it reads as it was, and writes once more. */
	if (!is_sound(first.get()))
		return 0;
	const hs_properties_ptr second = start(path);
	HS_REQUIRE(hs_read_text(path) == written);
	HS_REQUIRE(value_of(second.get(), "Enable") == value_of(first.get(), "Enable"));
	for (const setting &each : settings)
		HS_REQUIRE(value_of(second.get(), each.title) == value_of(first.get(), each.title));
	return 0;
}
