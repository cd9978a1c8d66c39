#include "plugin.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>
#include <type_traits>

#include <pipewire/context.h>
#include <pipewire/pipewire.h>

#include <regex.h>

#include "assert.hpp"
#include "conf.hpp"
#include "context.hpp"
#include "log.hpp"
#include "pcm-event.hpp"
#include "pod.hpp"
#include "source.hpp"
#include "utf8.hpp"

static_assert(std::is_standard_layout_v<hs_plugin>);

namespace {

constexpr char conf_suffix[] = ".conf";
/** D-Bus takes no longer one. */
constexpr size_t max_interface_length = 255;

/** The daemon's block behind an interface's host_data. */
struct host_data {
	hs_source *source;
	/** A notification is being served: the plug-in's get_event may not notify in turn. */
	bool serving;
};

/** The base name without ".conf"; null where the file's last "." does not begin exactly that. */
std::optional<std::string> name_from_file(const char *config_file)
{
	const char *slash = std::strrchr(config_file, '/');
	const std::string base = slash ? slash + 1 : config_file;
	const size_t dot = base.rfind('.');
	if (dot == std::string::npos || base.compare(dot, std::string::npos, conf_suffix) != 0)
		return std::nullopt;
	return base.substr(0, dot);
}

/*
 * PipeWire takes a factory name for an unanchored regular expression and asks the libraries in the order
 * they were added, so a plug-in whose name begins with an earlier one's is looked for in the wrong library.
 */
void warn_if_shadowed(const hs_plugin *plugin)
{
	hs_plugin *earlier;
	spa_list_for_each(earlier, &plugin->context->plugins, link) {
		regex_t pattern;
		if (regcomp(&pattern, earlier->factory_name, REG_EXTENDED | REG_NOSUB) != 0)
			continue;
		const bool shadowed = regexec(&pattern, plugin->factory_name, 0, nullptr, 0) == 0;
		regfree(&pattern);
		if (shadowed) {
			pw_log_warn(
				"The plug-in of %s.conf can not be loaded: its name is taken for that of %s.conf. Rename one of them.",
				plugin->name, earlier->name);
			return;
		}
	}
}

void load_spa_plugin(hs_plugin *plugin)
{
	const std::string lib = std::string("libspa-hs-") + plugin->name;
	const std::string lib_path = "hear-sense/" + lib;
	std::snprintf(plugin->factory_name, sizeof(plugin->factory_name), HS_PLUGIN_FACTORY_PREFIX "%s", plugin->name);

	hs_malloc_ptr<char> short_name_uc(strdup(plugin->name));
	HS_ASSERT(short_name_uc);
	for (char *c = short_name_uc.get(); *c != '\0'; ++c)
		*c = static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
	std::snprintf(plugin->interface_type, sizeof(plugin->interface_type), HS_PLUGIN_INTERFACE_TYPE_PREFIX "%s",
		      short_name_uc.get());

	warn_if_shadowed(plugin);
	if (pw_context_add_spa_lib(plugin->context->pipewire, plugin->factory_name, lib_path.c_str()) < 0)
		pw_log_error("Could not add spa lib '%s': %m", lib.c_str());
}

pw_properties *new_config(const hs_plugin *plugin)
{
	const char *text = pw_properties_get(plugin->props, "plugin.config");
	pw_properties *config = text ? pw_properties_new_string(text) : pw_properties_new(nullptr, nullptr);
	HS_ASSERT(config);
	pw_properties_set(config, "preview", plugin->context->preview_enabled ? "true" : "false");
	return config;
}

void on_notify_event(hs_plugin_interface *interface, uint32_t index)
{
	if (!interface || !interface->host_data)
		return;
	auto *data = static_cast<host_data *>(interface->host_data);
	if (data->serving || !data->source || !data->source->pcm)
		return;
	data->serving = true;
	hs_pcm_handle_event(data->source->pcm, index, false);
	data->serving = false;
}

using get_description = int (*)(void *, uint32_t, spa_pod **, spa_pod_builder *);

const hs_plugin_methods &methods_of(const hs_plugin_interface *interface)
{
	static constexpr hs_plugin_methods none{};
	return interface->funcs ? *interface->funcs : none;
}

int count_descriptions(hs_plugin_interface *interface, get_description get)
{
	return get ? std::min(get(interface->data, 0, nullptr, nullptr), HS_PLUGIN_MAX_DESCRIPTIONS) : -EOPNOTSUPP;
}

const spa_pod *fetch_description(hs_plugin_interface *interface, get_description get, uint32_t index,
				 hs_pod_buffer *buffer)
{
	if (!get)
		return nullptr;

	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer->data, static_cast<uint32_t>(sizeof(buffer->data)));
	spa_pod *pod = nullptr;
	get(interface->data, index, &pod, &builder);
	if (!pod || reinterpret_cast<uintptr_t>(pod) % alignof(uint64_t) != 0)
		return nullptr;

	const auto *start = reinterpret_cast<const uint8_t *>(pod);
	const uint8_t *end = buffer->data + sizeof(buffer->data);
	const bool in_buffer = start >= buffer->data && start < end;
	if (in_buffer && (static_cast<size_t>(end - start) < sizeof(spa_pod) ||
			  SPA_POD_SIZE(pod) > static_cast<size_t>(end - start)))
		return nullptr;
	return pod;
}

const hs_plugin_interface *first_interface(const hs_plugin *plugin)
{
	if (spa_list_is_empty(&plugin->sources))
		return nullptr;
	return spa_list_first(&plugin->sources, hs_source, link)->interface;
}

std::string schema_file(const hs_plugin *plugin, const char *file)
{
	if (!file)
		return "";
	char path[4096];
	std::snprintf(path, sizeof(path), "%s/%s", plugin->schema_path, file);
	return hs_utf8_repair(path);
}

const char *last_element(const char *dotted)
{
	const char *dot = dotted ? std::strrchr(dotted, '.') : nullptr;
	return dot ? dot + 1 : "";
}

const hs_event_info *find_event(const hs_plugin *plugin, const char *event_interface)
{
	const hs_plugin_interface *interface = first_interface(plugin);
	if (!interface || !interface->events)
		return nullptr;
	const char *name = last_element(event_interface);
	for (uint64_t i = 0; i < interface->n_events; ++i) {
		const hs_event_info *event = interface->events[i];
		if (event && event->name && std::strcmp(event->name, name) == 0)
			return event;
	}
	return nullptr;
}

std::string text_or_empty(const char *text)
{
	return text ? hs_utf8_repair(text) : "";
}

} // namespace

hs_plugin *hs_plugin_new(hs_context *context, const char *config_file, const char *schema_path,
			 const char *settings_path)
{
	HS_ASSERT(context);
	HS_ASSERT(config_file);
	HS_ASSERT(schema_path);
	HS_ASSERT(settings_path);

	std::unique_ptr<hs_plugin, hs_release<hs_plugin_destroy>> plugin(new (std::nothrow) hs_plugin{});
	HS_ASSERT(plugin);
	spa_list_init(&plugin->link);
	spa_list_init(&plugin->sources);
	plugin->context = context;

	plugin->props = pw_properties_new(nullptr, nullptr);
	if (!hs_conf_load_conf(config_file, plugin->props)) {
		pw_log_warn("Could not load plugin config file: %s", config_file);
		return nullptr;
	}

	const std::optional<std::string> name = name_from_file(config_file);
	std::snprintf(plugin->name, sizeof(plugin->name), "%s", name ? name->c_str() : "(null)");
	plugin->schema_path = schema_path;
	plugin->settings_path = settings_path;
	plugin->config = new_config(plugin.get());

	load_spa_plugin(plugin.get());
	spa_list_append(&context->plugins, &plugin->link);
	return plugin.release();
}

void hs_plugin_destroy(hs_plugin *plugin)
{
	if (!plugin)
		return;
	pw_log_debug("%p: destroy plugin '%s'", static_cast<void *>(plugin), plugin->name);

	while (!spa_list_is_empty(&plugin->sources))
		hs_source_destroy(spa_list_first(&plugin->sources, hs_source, link));
	spa_list_remove(&plugin->link);
	pw_properties_free(plugin->props);
	pw_properties_free(plugin->config);
	delete plugin;
}

hs_properties_ptr hs_plugin_get_info(const hs_plugin *plugin)
{
	const char *info = pw_properties_get(plugin->props, "plugin.info");
	hs_properties_ptr table(pw_properties_new_string(info ? info : ""));
	HS_ASSERT(table);
	return table;
}

bool hs_plugin_load_spa_handle(hs_plugin *plugin, spa_handle **handle, hs_plugin_interface **interface)
{
	*handle = nullptr;
	*interface = nullptr;

	std::unique_ptr<spa_handle, hs_release<pw_unload_spa_handle>> loaded(
		pw_context_load_spa_handle(plugin->context->pipewire, plugin->factory_name, &plugin->config->dict));
	if (!loaded) {
		pw_log_error("Could not load spa handle for '%s': %m", plugin->factory_name);
		return false;
	}

	void *found = nullptr;
	spa_handle_get_interface(loaded.get(), plugin->interface_type, &found);
	if (!found) {
		loaded.reset();
		pw_log_error("Plugin interface '%s' not found: %m", plugin->interface_type);
		return false;
	}

	auto *plugin_interface = static_cast<hs_plugin_interface *>(found);
	if (plugin_interface->version < HS_PLUGIN_INTERFACE_VERSION_MIN) {
		pw_log_error(
			"Can not load plugin '%s': Plugin interface version '%d' not supported. Minimum required version: %d",
			plugin_interface->name ? plugin_interface->name : "(null)",
			static_cast<int>(plugin_interface->version), HS_PLUGIN_INTERFACE_VERSION_MIN);
		return false;
	}

	auto *data = new (std::nothrow) host_data{};
	HS_ASSERT(data);
	plugin_interface->notify_event = on_notify_event;
	plugin_interface->host_data = data;
	*handle = loaded.release();
	*interface = plugin_interface;
	return true;
}

void hs_plugin_set_source(hs_plugin_interface *interface, hs_source *source)
{
	static_cast<host_data *>(interface->host_data)->source = source;
}

void hs_plugin_unload_spa_handle(spa_handle *handle, hs_plugin_interface *interface)
{
	if (interface) {
		/* The plug-in may still notify while its handle is cleared. */
		auto *data = static_cast<host_data *>(interface->host_data);
		interface->host_data = nullptr;
		delete data;
	}
	if (handle)
		pw_unload_spa_handle(handle);
}

int hs_plugin_init(hs_plugin_interface *interface, const hs_stream_info *info, const spa_dict *config)
{
	const auto init = methods_of(interface).init;
	return init ? init(interface->data, info, config) : -EOPNOTSUPP;
}

void hs_plugin_deinit(hs_plugin_interface *interface)
{
	if (const auto deinit = methods_of(interface).deinit)
		deinit(interface->data);
}

int hs_plugin_activate(hs_plugin_interface *interface)
{
	const auto activate = methods_of(interface).activate;
	return activate ? activate(interface->data) : -EOPNOTSUPP;
}

void hs_plugin_deactivate(hs_plugin_interface *interface)
{
	if (const auto deactivate = methods_of(interface).deactivate)
		deactivate(interface->data);
}

int hs_plugin_get_settings(hs_plugin_interface *interface, spa_pod_builder *builder)
{
	const auto get_settings = methods_of(interface).get_settings;
	return get_settings ? get_settings(interface->data, builder) : -EOPNOTSUPP;
}

int hs_plugin_set_settings(hs_plugin_interface *interface, const spa_pod *settings)
{
	const auto set_settings = methods_of(interface).set_settings;
	return set_settings ? set_settings(interface->data, settings) : -EOPNOTSUPP;
}

void hs_plugin_process(hs_plugin_interface *interface, spa_buffer *buffer)
{
	if (const auto process = methods_of(interface).process)
		process(interface->data, buffer);
}

int hs_plugin_count_settings(hs_plugin_interface *interface)
{
	return count_descriptions(interface, methods_of(interface).get_setting);
}

int hs_plugin_count_events(hs_plugin_interface *interface)
{
	return count_descriptions(interface, methods_of(interface).get_event);
}

const spa_pod *hs_plugin_fetch_setting(hs_plugin_interface *interface, uint32_t index, hs_pod_buffer *buffer)
{
	return fetch_description(interface, methods_of(interface).get_setting, index, buffer);
}

const spa_pod *hs_plugin_fetch_event(hs_plugin_interface *interface, uint32_t index, hs_pod_buffer *buffer)
{
	return fetch_description(interface, methods_of(interface).get_event, index, buffer);
}

std::string hs_plugin_get_schema(const hs_plugin *plugin)
{
	const hs_plugin_interface *interface = first_interface(plugin);
	return interface ? schema_file(plugin, interface->schema) : "";
}

std::string hs_plugin_get_settings_schema(const hs_plugin *plugin)
{
	const hs_plugin_interface *interface = first_interface(plugin);
	return interface ? schema_file(plugin, interface->settings_schema) : "";
}

std::string hs_plugin_get_interface_name(const hs_plugin *plugin)
{
	const hs_plugin_interface *interface = first_interface(plugin);
	return interface ? text_or_empty(interface->interface_name) : "";
}

std::string hs_plugin_get_event_name(const hs_plugin *, const char *event_interface)
{
	return last_element(event_interface);
}

std::string hs_plugin_get_event_nice_name(const hs_plugin *plugin, const char *event_interface)
{
	const hs_event_info *event = find_event(plugin, event_interface);
	return event ? text_or_empty(event->nice_name) : last_element(event_interface);
}

std::string hs_plugin_get_topic(const hs_plugin *plugin, const char *event_interface, hs_plugin_topic_selector selector)
{
	const hs_event_info *event = find_event(plugin, event_interface);
	const unsigned int index = selector / 3;
	if (!event || !event->topics || event->n_topics <= index || !event->topics[index])
		return "";

	const hs_event_topic &topic = *event->topics[index];
	const char *const texts[] = {topic.name, topic.namespace_, topic.nice_name};
	return text_or_empty(texts[selector % 3]);
}

bool hs_plugin_get_event_flag(const hs_plugin *plugin, const char *event_interface, hs_plugin_event_flag which)
{
	const hs_event_info *event = find_event(plugin, event_interface);
	if (!event)
		return false;
	switch (which) {
	case HS_PLUGIN_EVENT_IS_DEPRECATED:
		return event->isDeprecated;
	case HS_PLUGIN_EVENT_IS_APPLICATION_DATA:
		return event->isApplicationData;
	case HS_PLUGIN_EVENT_IS_PROPERTY_STATE:
		return event->isPropertyState;
	}
	HS_UNREACHABLE();
}

hs_properties_ptr hs_plugin_get_event_data_types(const hs_plugin *plugin, const char *event_interface)
{
	const hs_event_info *event = find_event(plugin, event_interface);
	/* Where the event's name is cut off, nothing of it is known; with an error here nobody could read the tree. */
	const bool is_cut = event_interface && std::strlen(event_interface) == max_interface_length;
	if (!event && !is_cut)
		return nullptr;
	const uint32_t bits = event ? event->data_types : 0;
	hs_properties_ptr data_types(pw_properties_new("complexType", "(bb)", nullptr));
	pw_properties_setf(data_types.get(), "value", "{\"Stats\": \"%s\", \"Event\": \"%s\"}",
			   (bits & HS_EVENT_DATA_STATS) ? "true" : "false",
			   (bits & HS_EVENT_DATA_EVENT) ? "true" : "false");
	return data_types;
}

bool hs_plugin_event_is_public(const hs_plugin *plugin, const char *event_interface)
{
	const hs_event_info *event = find_event(plugin, event_interface);
	if (!event)
		return false;
	return first_interface(plugin)->version > 2 ? event->is_public : event->isPropertyState;
}
