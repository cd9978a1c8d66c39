#include "metadata.hpp"

#include <cstring>
#include <new>
#include <type_traits>

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/utils/dict.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "context.hpp"
#include "log.hpp"
#include "owned.hpp"
#include "pcm.hpp"
#include "plugin.hpp"
#include "registry.hpp"
#include "source.hpp"

static_assert(std::is_standard_layout_v<hs_metadata>);

namespace {

constexpr char metadata_name[] = "virtual-nodes";
constexpr char connection_prefix[] = "virtual_node_connection.AudioDevice";

/** Initialises the instance anew, so that it sees how its device is connected now. */
void restart(hs_source *source)
{
	hs_pcm *pcm = source->pcm;
	const uint64_t n_consumers = hs_source_get_n_consumers(source);

	hs_pcm_plugin_deactivate(pcm);
	hs_pcm_plugin_deinit(pcm);
	hs_pcm_update_description(pcm);
	if (hs_pcm_plugin_init(pcm) && n_consumers != 0) {
		hs_pcm_plugin_activate(pcm);
		hs_pcm_start_stream(pcm);
	} else {
		hs_pcm_stop_stream(pcm);
	}
}

void restart_device(const hs_context *context, const char *device)
{
	hs_plugin *plugin;
	spa_list_for_each(plugin, &context->plugins, link) {
		hs_source *source;
		spa_list_for_each(source, &plugin->sources, link) {
			if (source->pcm && source->pcm->format_ready && spa_strstartswith(source->name.c_str(), device))
				restart(source);
		}
	}
}

void property_changed(uint32_t subject, const char *key, const char *type, const char *value)
{
	pw_log_debug("Got metadata - id: %d, key: %s, type: %s", static_cast<int>(subject), key ? key : "(null)",
		     type ? type : "(null)");
	const hs_context *context = hs_context_get();
	HS_ASSERT(context);
	hs_metadata *metadata = context->registry->metadata;
	HS_ASSERT(metadata);

	if (!spa_strstartswith(key, connection_prefix))
		return;
	const char *device = std::strrchr(key, '.') + 1;
	pw_properties_set(metadata->connections, device, value);
	restart_device(context, device);
}

int metadata_event_property(void *, uint32_t subject, const char *key, const char *type, const char *value)
{
	property_changed(subject, key, type, value);
	return 0;
}

constexpr pw_metadata_events metadata_events = [] {
	pw_metadata_events events{};
	events.version = PW_VERSION_METADATA_EVENTS;
	events.property = metadata_event_property;
	return events;
}();

} // namespace

hs_metadata *hs_metadata_new()
{
	auto *metadata = new (std::nothrow) hs_metadata{};
	HS_ASSERT(metadata);
	metadata->connections = pw_properties_new(nullptr, nullptr);
	return metadata;
}

void hs_metadata_destroy(hs_metadata *metadata)
{
	if (!metadata)
		return;
	pw_properties_free(metadata->connections);
	hs_metadata_unbind(metadata);
	delete metadata;
}

void hs_metadata_unbind(hs_metadata *metadata)
{
	if (!metadata->proxy)
		return;
	spa_hook_remove(&metadata->listener);
	pw_proxy_destroy(reinterpret_cast<pw_proxy *>(metadata->proxy));
	metadata->proxy = nullptr;
}

void hs_metadata_setup_listener(hs_metadata *metadata, uint32_t id, const char *type, const spa_dict *props)
{
	const char *name = props ? spa_dict_lookup(props, PW_KEY_METADATA_NAME) : nullptr;
	const hs_context *context = hs_context_get();
	HS_ASSERT(context);
	HS_ASSERT(metadata);
	if (!spa_streq(name, metadata_name) || metadata->proxy)
		return;

	void *proxy = pw_registry_bind(context->registry->registry, id, type, PW_VERSION_METADATA, 0);
	if (!proxy) {
		pw_log_error("Unable to bind %s metadata", name);
		return;
	}
	metadata->proxy = static_cast<pw_metadata *>(proxy);
	metadata->id = id;
	pw_metadata_add_listener(metadata->proxy, &metadata->listener, &metadata_events, metadata);
}

std::string hs_metadata_get(const hs_metadata *metadata, const char *node_name, const char *key)
{
	HS_ASSERT(metadata);
	if (!node_name)
		return "";
	void *state = nullptr;
	while (const char *device = pw_properties_iterate(metadata->connections, &state)) {
		const char *connection = pw_properties_get(metadata->connections, device);
		if (!connection)
			return "";
		if (!spa_strstartswith(node_name, device))
			continue;
		const hs_properties_ptr values(pw_properties_new_string(connection));
		const char *value = values ? pw_properties_get(values.get(), key) : nullptr;
		return value ? value : "";
	}
	return "";
}
