#include "pw-source.hpp"

#include <cstring>
#include <new>
#include <type_traits>

#include <pipewire/keys.h>
#include <spa/utils/dict.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "context.hpp"
#include "dbus.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "node-pattern.hpp"
#include "pcm.hpp"
#include "plugin.hpp"
#include "refcount.hpp"
#include "source-name.hpp"
#include "source.hpp"
#include "utf8.hpp"

static_assert(std::is_standard_layout_v<hs_pw_source>);

namespace {

constexpr char default_pattern[] = "AudioDevice[0-9][0-9]*Input[0-9][0-9]*\\.Unprocessed";
constexpr char source_prefix[] = "source.";
constexpr char device_prefix[] = "AudioDevice";
constexpr size_t settings_path_size = 4096;

hs_pw_source *find_by_id(hs_context *context, uint32_t id)
{
	hs_pw_source *pw_source;
	spa_list_for_each(pw_source, &context->pw_sources, link) {
		if (pw_source->id == id)
			return pw_source;
	}
	return nullptr;
}

hs_pw_source *new_source(hs_context *context, uint32_t id, const char *name, const char *media_class)
{
	auto *source = new (std::nothrow) hs_pw_source{};
	HS_ASSERT(source);
	source->id = id;
	if (name)
		source->name = hs_utf8_repair(name);
	if (media_class)
		source->media_class = media_class;
	spa_list_append(&context->pw_sources, &source->link);
	return source;
}

std::string pattern_of(const hs_plugin *plugin)
{
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(plugin->props, &state)) {
		const char *text = pw_properties_get(plugin->props, key);
		if (!text || text[0] != '{')
			continue;
		const hs_properties_ptr entry(pw_properties_new_string(text));
		if (const char *pattern = pw_properties_get(entry.get(), "node.pattern"))
			return pattern;
	}
	return default_pattern;
}

/** Whether the plug-in runs on the node; `definition` is its explicit entry for it, if any. */
bool selects_node(const hs_plugin *plugin, const char *node_name, hs_properties_ptr *definition)
{
	*definition = hs_pw_source_find_config(node_name, plugin->props);
	if (*definition)
		return true;
	const bool lists_its_nodes = hs_pw_source_find_config(nullptr, plugin->props) != nullptr;
	return !lists_its_nodes && hs_node_pattern_matches(pattern_of(plugin).c_str(), node_name);
}

void publish(hs_context *context, hs_source *source)
{
	const char *name = source->name.c_str();
	if (!hs_dbus_setup_audio_chain_interface(source, context->bus))
		pw_log_error("Could not set up D-Bus Audio Chain interface on system bus for source '%s'", name);
	if (!hs_dbus_setup_source_interface(source, context->bus))
		pw_log_error("Could not set up D-Bus Source interface on system bus for source '%s'", name);

	void *cursor = nullptr;
	while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor)) {
		if (!hs_dbus_setup_audio_chain_interface(source, bus))
			pw_log_error("Could not set up D-Bus Audio Chain interface on private bus for source '%s'",
				     name);
		if (!hs_dbus_setup_source_interface(source, bus))
			pw_log_error("Could not set up D-Bus Source interface on private bus for source '%s'", name);
	}
	if (!hs_dbus_setup_plugin_interfaces(source))
		pw_log_error("Could not set up D-Bus plugin interfaces for source '%s'", name);
}

void try_plugin(hs_context *context, hs_plugin *plugin, hs_pw_source *pw_source)
{
	const char *name = pw_source->name.c_str();
	hs_properties_ptr definition;
	if (!selects_node(plugin, name, &definition))
		return;
	const std::string path = hs_pw_source_settings_path(plugin->settings_path, plugin->name, name);
	hs_source *source = hs_source_new(plugin, name, definition.get(), path.c_str(), pw_source);
	if (source)
		publish(context, source);
}

bool belongs_to_node(const hs_source *source, const hs_pw_source *pw_source)
{
	const char *defined = source->stream_config ? pw_properties_get(source->stream_config, "name") : nullptr;
	return (defined && pw_source->name == defined) || source->name == pw_source->name;
}

/** Two nodes may have one name: the source that was made for this node comes first. */
hs_source *find_source(hs_plugin *plugin, const hs_pw_source *pw_source)
{
	hs_source *by_name = nullptr;
	hs_source *source;
	spa_list_for_each(source, &plugin->sources, link) {
		if (!belongs_to_node(source, pw_source))
			continue;
		if (source->pcm && source->pcm->node == pw_source)
			return source;
		if (!by_name)
			by_name = source;
	}
	return by_name;
}

void emit_removed(sd_bus *bus, const std::string &path, const char *kind)
{
	const int r = sd_bus_emit_object_removed(bus, path.c_str());
	if (r < 0)
		pw_log_warn("Could not emit object removed on %s bus: %s", kind, std::strerror(-r));
}

void announce_removal(const hs_context *context, const hs_source *source, sd_bus *bus, const char *kind)
{
	emit_removed(bus, source->object_path, kind);
	if (hs_refcount_get(context->object_path_counts, source->device_path.c_str()) == 0)
		emit_removed(bus, source->device_path, kind);
	if (hs_refcount_get(context->object_path_counts, source->node_path.c_str()) == 0)
		emit_removed(bus, source->node_path, kind);
}

void unpublish(hs_context *context, hs_source *source)
{
	if (source->holds_paths) {
		source->holds_paths = false;
		hs_refcount_dec(context->object_path_counts, source->device_path.c_str());
		hs_refcount_dec(context->object_path_counts, source->node_path.c_str());
	}
	announce_removal(context, source, context->bus, "system");
	void *cursor = nullptr;
	while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor))
		announce_removal(context, source, bus, "private");
	hs_dbus_remove_source(source);
}

void remove_source(hs_context *context, hs_source *source)
{
	hs_pcm_destroy(source->pcm);
	source->pcm = nullptr;
	if (!source->object_path.empty() && source->plugin)
		unpublish(context, source);
	hs_source_destroy(source);
}

/** No source may go on reading a node record that is about to be freed. */
void forget_node(hs_plugin *plugin, const hs_pw_source *pw_source)
{
	hs_source *source;
	spa_list_for_each(source, &plugin->sources, link) {
		if (source->pcm && source->pcm->node == pw_source)
			source->pcm->node = nullptr;
	}
}

} // namespace

hs_properties_ptr hs_pw_source_find_config(const char *node_name, const pw_properties *config)
{
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(config, &state)) {
		if (!spa_strstartswith(key, source_prefix))
			continue;
		const char *text = pw_properties_get(config, key);
		if (!text)
			break;
		hs_properties_ptr definition(pw_properties_new_string(text));
		const char *name = pw_properties_get(definition.get(), "node.name");
		if (name && (!node_name || spa_streq(name, node_name)))
			return definition;
	}
	return nullptr;
}

std::string hs_pw_source_settings_path(const char *settings_dir, const char *plugin_name, const char *node_name)
{
	std::string short_name = node_name;
	if (spa_strstartswith(node_name, device_prefix))
		short_name = hs_source_name_to_device(node_name);
	return hs_source_name_cut(std::string(settings_dir) + "/" + plugin_name + "-" + short_name + ".conf",
				  settings_path_size);
}

void hs_pw_source_register_source(uint32_t id, const spa_dict *props)
{
	hs_context *context = hs_context_get();
	const spa_dict_item *item;
	spa_dict_for_each(item, props) {
		if (!spa_streq(item->key, PW_KEY_NODE_NAME) || find_by_id(context, id))
			continue;
		const char *media_class = spa_dict_lookup(props, PW_KEY_MEDIA_CLASS);
		hs_pw_source *pw_source = new_source(context, id, item->value, media_class);
		hs_plugin *plugin;
		spa_list_for_each(plugin, &context->plugins, link)
			try_plugin(context, plugin, pw_source);
		pw_source->registered = true;
	}
}

void hs_pw_source_unregister_source(uint32_t id)
{
	hs_context *context = hs_context_get();
	hs_pw_source *pw_source = find_by_id(context, id);
	if (!pw_source)
		return;
	hs_plugin *plugin;
	spa_list_for_each(plugin, &context->plugins, link) {
		if (hs_source *source = find_source(plugin, pw_source))
			remove_source(context, source);
		forget_node(plugin, pw_source);
	}
	hs_pw_source_destroy(pw_source);
}

void hs_pw_source_destroy(hs_pw_source *pw_source)
{
	if (!pw_source)
		return;
	pw_log_debug("%p: destroy pw-source %s with id %d", static_cast<void *>(pw_source), pw_source->name.c_str(),
		     static_cast<int>(pw_source->id));
	spa_list_remove(&pw_source->link);
	delete pw_source;
}
