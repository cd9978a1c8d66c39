#include "source.hpp"

#include <new>
#include <type_traits>

#include <pipewire/keys.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "context.hpp"
#include "dbus.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "metrics.hpp"
#include "pcm-format.hpp"
#include "pcm.hpp"
#include "plugin.hpp"
#include "pw-source.hpp"
#include "source-name.hpp"
#include "source-settings.hpp"

static_assert(std::is_standard_layout_v<hs_source>);

namespace {

/* sd-bus takes no longer names, and clients know paths of this length. */
constexpr size_t name_size = 256;
constexpr size_t stream_name_size = 128;

using source_ptr = std::unique_ptr<hs_source, hs_release<hs_source_destroy>>;

pw_properties *new_stream_config(const pw_properties *definition)
{
	pw_properties *config = pw_properties_new(nullptr, nullptr);
	pw_properties_set(config, "name", pw_properties_get(definition, "node.name"));
	pw_properties_set(config, "rate", pw_properties_get(definition, "audio.rate"));
	pw_properties_set(config, "format", pw_properties_get(definition, "audio.format"));
	pw_properties_set(config, "channels", pw_properties_get(definition, "audio.channels"));
	pw_properties_set(config, "position", pw_properties_get(definition, "audio.position"));
	return config;
}

void add_events(hs_source *source)
{
	const int n_events = hs_plugin_count_events(source->interface);
	if (n_events < 1)
		return;
	if (n_events == HS_PLUGIN_MAX_DESCRIPTIONS)
		pw_log_warn("Plug-in %s has %d events or more: those beyond are left out", source->plugin->name,
			    n_events);
	source->events = hs_events_describe(source->interface, n_events);
	source->event_interfaces.resize(static_cast<size_t>(n_events));
	source->event_public.resize(static_cast<size_t>(n_events));
	source->event_published.resize(static_cast<size_t>(n_events));
}

void add_names(hs_source *source)
{
	const std::string service = HS_DBUS_SERVICE;
	const std::string root = HS_DBUS_ROOT_PATH;
	const std::string plugin_name = hs_plugin_get_interface_name(source->plugin);
	const std::string element = hs_source_name_to_path(source->name);

	source->settings_interface = hs_source_name_cut(service + ".Settings." + plugin_name, name_size);

	for (size_t i = 0; i < source->events.size(); ++i) {
		std::string &interface = source->event_interfaces[i];
		interface = hs_source_name_cut(service + ".Events." + plugin_name + "." + source->events[i].title,
					       name_size);
		source->event_public[i] = hs_plugin_event_is_public(source->plugin, interface.c_str());
	}

	source->object_path = hs_source_name_cut(root + "/" + element + "/" + plugin_name, name_size);
	source->node_path = hs_source_name_cut(root + "/" + element, name_size);
	source->device_name = hs_source_name_to_device(source->name);
	source->device_path = hs_source_name_cut(root + "/" + source->device_name, name_size);
}

const char *first_of(const char *a, const char *b, const char *c = nullptr, const char *d = nullptr)
{
	for (const char *text : {a, b, c, d}) {
		if (text)
			return text;
	}
	return nullptr;
}

void set_if_known(pw_properties *props, const char *key, const char *value)
{
	if (value && pw_properties_set(props, key, value) < 0)
		pw_log_warn("Could not add %s = %s to pcm props.", key, value);
}

} // namespace

hs_source *hs_source_new(hs_plugin *plugin, const char *node_name, const pw_properties *definition,
			 const char *settings_path, hs_pw_source *node)
{
	source_ptr source(new (std::nothrow) hs_source{});
	HS_ASSERT(source);
	spa_list_init(&source->link);
	spa_list_init(&source->dbus_objects);
	source->metrics = hs_metrics_create(HS_METRICS_TYPE_SOURCE, source.get());
	source->plugin = plugin;
	if (node_name)
		source->name = node_name;
	if (definition)
		source->stream_config = new_stream_config(definition);

	if (!hs_plugin_load_spa_handle(plugin, &source->handle, &source->interface))
		return nullptr;
	hs_plugin_set_source(source->interface, source.get());
	spa_list_append(&plugin->sources, &source->link);

	source->pcm = hs_pcm_new(source.get(), node);
	add_events(source.get());
	add_names(source.get());
	hs_source_add_global_settings(source.get(), definition, settings_path);
	hs_metrics_set_active(source->metrics, true);
	return source.release();
}

void hs_source_destroy(hs_source *source)
{
	if (!source)
		return;
	hs_pcm_destroy(source->pcm);
	source->pcm = nullptr;
	spa_list_remove(&source->link);
	hs_dbus_disown(source);
	if (hs_context *context = hs_context_get(); context && context->loop)
		hs_loop_remove_event_status(context->loop, source);
	pw_log_debug("%p: destroy source configuration", static_cast<void *>(source));

	if (source->interface)
		hs_plugin_count_events(source->interface);
	hs_metrics_destroy(source->metrics);
	hs_plugin_unload_spa_handle(source->handle, source->interface);
	pw_properties_free(source->settings);
	pw_properties_free(source->stream_config);
	delete source;
}

void hs_source_inc_consumers(hs_source *source)
{
	HS_ASSERT(source);
	++source->consumers;
	if (source->consumers != 0 && source->pcm)
		hs_pcm_start_stream(source->pcm);
}

void hs_source_dec_consumers(hs_source *source)
{
	HS_ASSERT(source);
	if (source->consumers > 0)
		--source->consumers;
	if (source->consumers == 0 && source->pcm)
		hs_pcm_stop_stream(source->pcm);
}

uint64_t hs_source_get_n_consumers(const hs_source *source)
{
	HS_ASSERT(source);
	return source->consumers;
}

hs_properties_ptr hs_source_get_pcm_properties(const hs_source *source)
{
	const hs_properties_ptr plugin_info = hs_plugin_get_info(source->plugin);
	const auto info = [&plugin_info](const char *key) { return pw_properties_get(plugin_info.get(), key); };
	const auto definition = [source](const char *key) {
		return source->stream_config ? pw_properties_get(source->stream_config, key) : nullptr;
	};

	const hs_pw_source *node = source->pcm ? source->pcm->node : nullptr;
	const char *node_name = node && !node->name.empty() ? node->name.c_str() : nullptr;
	const char *target = first_of(definition("name"), info("node.name"), node_name, "default");
	const char *format = first_of(definition("format"), info("audio.format"), HS_PCM_DEFAULT_FORMAT);

	char stream_name[stream_name_size];
	spa_scnprintf(stream_name, sizeof(stream_name), "hs-%s-%s", source->plugin->name, target);

	hs_properties_ptr props(pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
						  PW_KEY_AUDIO_FORMAT, format, PW_KEY_NODE_NAME, stream_name,
						  PW_KEY_TARGET_OBJECT, target, nullptr));
	HS_ASSERT(props);
	set_if_known(props.get(), PW_KEY_AUDIO_CHANNELS, first_of(definition("channels"), info("audio.channels")));
	set_if_known(props.get(), SPA_KEY_AUDIO_POSITION, first_of(definition("position"), info("audio.position")));
	set_if_known(props.get(), PW_KEY_AUDIO_RATE, first_of(definition("rate"), info("audio.rate")));
	return props;
}

std::string hs_source_get_device_name(const hs_source *source)
{
	return source->device_name;
}

std::string hs_source_get_direction(const hs_source *source)
{
	return hs_source_name_to_direction(source->name);
}

std::string hs_source_get_display_name(const hs_source *source)
{
	return hs_source_name_to_display(source->device_name);
}
