#include "source-settings.hpp"

#include <cerrno>
#include <cinttypes>
#include <string>

#include <spa/param/props.h>
#include <spa/pod/iter.h>
#include <spa/utils/string.h>

#include <unistd.h>

#include "assert.hpp"
#include "conf.hpp"
#include "log.hpp"
#include "metrics.hpp"
#include "pcm-event.hpp"
#include "pcm.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "props.hpp"
#include "source.hpp"
#include "utf8.hpp"

namespace {

constexpr char enable_title[] = "Enable";
constexpr char transient_name[] = "IndicateTransientAudioDisturbance";
constexpr char default_suffix[] = ".default";

/** Adds what the configuration gives as defaults to the stored values that lack it. */
void add_defaults(pw_properties *stored, const pw_properties *info)
{
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(info, &state)) {
		const char *text = pw_properties_get(info, key);
		if (!spa_strendswith(key, default_suffix) || !text)
			continue;
		const hs_properties_ptr entry(pw_properties_new_string(text));
		const char *title = pw_properties_get(entry.get(), "title");
		const char *value = pw_properties_get(entry.get(), "value");
		if (!title || !value)
			continue;
		const std::string name = hs_setting_name(title);
		if (!pw_properties_get(stored, name.c_str()))
			pw_properties_set(stored, name.c_str(), value);
	}
}

/** Bare words of the file may be any bytes. */
void repair_values(pw_properties *stored)
{
	const spa_dict_item *item;
	spa_dict_for_each(item, &stored->dict) {
		if (!hs_utf8_is_valid(item->value))
			pw_properties_set(stored, item->key, hs_utf8_repair(item->value).c_str());
	}
}

hs_properties_ptr read_stored_values(const hs_source *source, const pw_properties *definition,
				     const char *settings_path)
{
	const hs_properties_ptr info = hs_plugin_get_info(source->plugin);
	if (definition)
		pw_properties_update(info.get(), &definition->dict);
	return hs_setting_read_stored(info.get(), settings_path);
}

void add_entry(pw_properties *settings, const hs_pod &description, const char *value)
{
	const std::string name = hs_setting_name(description.title->c_str());
	hs_props_add_object(settings, {
					      {"name", name.c_str()},
					      {"title", hs_c_str(description.title)},
					      {"description", hs_c_str(description.description)},
					      {"type", hs_c_str(description.type)},
					      {"value", value},
					      {"defaultValue", value},
				      });
}

void add_enable(hs_source *source, const pw_properties *stored)
{
	const hs_pod_ptr enable = hs_pod_new(enable_title, "Enable/Disable plugin", "boolean", "false");
	const char *value = pw_properties_get(stored, "enable");
	add_entry(source->settings, *enable, value ? value : enable->value);
	source->enabled = spa_streq(value, "true");
}

void add_plugin_setting(hs_source *source, uint32_t index, const pw_properties *stored)
{
	hs_pod_buffer buffer;
	const hs_pod_ptr setting = hs_pod_parse(hs_plugin_fetch_setting(source->interface, index, &buffer));
	if (!setting || !setting->title)
		return;
	const char *value = pw_properties_get(stored, hs_setting_name(setting->title->c_str()).c_str());
	if (!value) {
		add_entry(source->settings, *setting, hs_pod_value_text(*setting));
		return;
	}
	add_entry(source->settings, *setting, value);
	hs_source_handle_settings(source, nullptr, hs_c_str(setting->title), value, hs_c_str(setting->type));
}

void mark_report_events(hs_source *source)
{
	const int n_events = hs_plugin_count_events(source->interface);
	for (int i = 0; i < n_events && source->pcm; ++i) {
		const auto index = static_cast<uint32_t>(i);
		if (hs_source_has_report(source->interface, index))
			hs_pcm_handle_event(source->pcm, index, true);
	}
}

void enable(hs_source *source)
{
	source->enabled = true;
	pw_log_info("Enable plugin %s on %s", source->interface->name ? source->interface->name : "(null)",
		    source->name.c_str());
	hs_metrics_increment_counter(source->metrics, "enabled_count");
	mark_report_events(source);
	hs_pcm_start_stream(source->pcm);
}

void disable(hs_source *source)
{
	source->enabled = false;
	pw_log_info("Disable plugin %s on %s", source->interface->name ? source->interface->name : "(null)",
		    source->name.c_str());
	hs_metrics_increment_counter(source->metrics, "disabled_count");
	if (!source->pcm)
		return;
	if (source->pcm->stream_active)
		hs_pcm_stop_stream(source->pcm);
	else
		mark_report_events(source);
}

void handle_enable(hs_source *source, pw_properties *settings, const char *value)
{
	if (!value)
		return;
	if (settings) {
		hs_props_set_value(settings, enable_title, value);
		hs_settings_write(settings);
	}
	if (spa_streq(value, "true") && !source->enabled)
		enable(source);
	else if (spa_streq(value, "false") && source->enabled)
		disable(source);
}

bool get_number(const spa_pod *pod, int64_t *number)
{
	int32_t i = 0;
	uint32_t id = 0;
	if (spa_pod_get_long(pod, number) == 0)
		return true;
	if (spa_pod_get_int(pod, &i) == 0) {
		*number = i;
		return true;
	}
	if (spa_pod_get_id(pod, &id) == 0) {
		*number = id;
		return true;
	}
	return false;
}

/** A setting described as by get_setting: an object with its name and its typed value. */
bool find_number_in_object(const spa_pod *pod, const char *name, int64_t *number)
{
	const spa_pod_prop *title = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_name);
	const spa_pod_prop *value = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_type);
	const char *text = nullptr;
	return title && value && spa_pod_get_string(&title->value, &text) == 0 && spa_streq(text, name) &&
	       get_number(&value->value, number);
}

/** Finds the number that stands after the String `name` in a Struct, however the plug-in nests its settings. */
bool find_number(const spa_pod *pod, const char *name, int64_t *number, int depth)
{
	if (spa_pod_is_object(pod))
		return find_number_in_object(pod, name, number);
	if (!spa_pod_is_struct(pod) || depth == 0)
		return false;

	const void *body = SPA_POD_BODY_CONST(pod);
	const uint32_t size = SPA_POD_BODY_SIZE(pod);
	bool named = false;
	for (const auto *member = static_cast<const spa_pod *>(body); spa_pod_is_inside(body, size, member);
	     member = static_cast<const spa_pod *>(spa_pod_next(member))) {
		if ((named && get_number(member, number)) || find_number(member, name, number, depth - 1))
			return true;
		const char *text = nullptr;
		named = spa_pod_get_string(member, &text) == 0 && spa_streq(text, name);
	}
	return false;
}

/** The counter is the plug-in's own: its value one higher as text, empty where the plug-in has none. */
std::string next_count(hs_source *source, const char *name)
{
	constexpr int max_depth = 4;
	hs_pod_buffer buffer;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, static_cast<uint32_t>(sizeof(buffer.data)));
	if (hs_plugin_get_settings(source->interface, &builder) < 0)
		return "";

	const auto *settings = static_cast<const spa_pod *>(
		spa_pod_from_data(buffer.data, sizeof(buffer.data), 0, builder.state.offset));
	int64_t count = 0;
	if (!settings || !find_number(settings, name, &count, max_depth))
		return "";
	return std::to_string(static_cast<int64_t>(static_cast<uint64_t>(count) + 1));
}

} // namespace

std::string hs_setting_name(const char *title)
{
	std::string name = title;
	for (char &c : name) {
		if (c >= 'A' && c <= 'Z')
			c = static_cast<char>(c - 'A' + 'a');
	}
	return name;
}

hs_properties_ptr hs_setting_read_stored(const pw_properties *info, const char *settings_path)
{
	hs_properties_ptr stored(pw_properties_new(nullptr, nullptr));
	HS_ASSERT(stored);
	if (settings_path && access(settings_path, R_OK) == 0)
		hs_conf_load_conf(settings_path, stored.get());
	add_defaults(stored.get(), info);
	repair_values(stored.get());
	return stored;
}

bool hs_setting_hand_over(hs_plugin_interface *interface, const char *name, const char *value, const char *type)
{
	const hs_malloc_ptr<spa_pod> pod = hs_pod_build(name, value, type, nullptr);
	return pod && hs_plugin_set_settings(interface, pod.get()) >= 0;
}

void hs_source_add_global_settings(hs_source *source, const pw_properties *definition, const char *settings_path)
{
	const hs_properties_ptr stored = read_stored_values(source, definition, settings_path);
	const std::string schema = hs_plugin_get_settings_schema(source->plugin);
	source->settings = pw_properties_new("$schema", schema.c_str(), "path", settings_path, nullptr);
	HS_ASSERT(source->settings);

	add_enable(source, stored.get());
	const int n_settings = hs_plugin_count_settings(source->interface);
	if (n_settings == HS_PLUGIN_MAX_DESCRIPTIONS)
		pw_log_warn("Plug-in %s has %d settings or more: those beyond are left out", source->plugin->name,
			    n_settings);
	for (int i = 0; i < n_settings; ++i)
		add_plugin_setting(source, static_cast<uint32_t>(i), stored.get());
	hs_settings_write(source->settings);
}

bool hs_source_handle_settings(hs_source *source, pw_properties *settings, const char *name, const char *value,
			       const char *type)
{
	if (!type && value) {
		pw_log_warn("Setting value %s exists but is missing type for source:%s setting:%s.", value,
			    source->name.c_str(), name ? name : "(null)");
		return false;
	}
	if (spa_streq(type, "array") || spa_streq(type, "struct")) {
		pw_log_warn("Tried to handle complex type settings which are not supported.");
		return false;
	}
	if (!name) {
		pw_log_warn("Setting name for source:%s missing.", source->name.c_str());
		return false;
	}
	if (spa_streq(name, enable_title)) {
		handle_enable(source, settings, value);
		return true;
	}

	std::string count;
	if (spa_streq(name, transient_name)) {
		count = next_count(source, name);
		if (count.empty()) {
			pw_log_debug("No IndicateTransientAudioDisturbance counter to update");
			return true;
		}
		pw_log_debug("%s counter is now %s", name, count.c_str());
		value = count.c_str();
		type = "int64";
	}
	if (!hs_setting_hand_over(source->interface, name, value, type))
		return false;
	if (settings) {
		hs_props_set_value(settings, name, value);
		hs_settings_write(settings);
	}
	return true;
}

bool hs_source_has_report(hs_plugin_interface *interface, uint32_t index)
{
	hs_pod_buffer buffer;
	const spa_pod *pod = hs_plugin_fetch_event(interface, index, &buffer);
	if (!pod) {
		pw_log_error("Event index %d out of range", static_cast<int>(index));
		return false;
	}
	const hs_pod_ptr event = hs_pod_parse(pod);
	if (!event) {
		pw_log_error("Could not parse pod for event index %d", static_cast<int>(index));
		return false;
	}
	const hs_schema_type *type = hs_schema_type_by_name(hs_c_str(event->type));
	if (!type || type->id != SPA_TYPE_Struct)
		return false;
	const hs_properties_ptr members(pw_properties_new_string(event->json));
	return pw_properties_get(members.get(), "Report") != nullptr;
}
