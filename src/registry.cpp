#include "registry.hpp"

#include <new>
#include <type_traits>

#include <pipewire/core.h>
#include <pipewire/extensions/metadata.h>
#include <pipewire/keys.h>
#include <pipewire/node.h>
#include <pipewire/pipewire.h>
#include <spa/utils/dict.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "log.hpp"
#include "metadata.hpp"
#include "pw-source.hpp"

static_assert(std::is_standard_layout_v<hs_registry>);

namespace {

/** The item that makes a node one of audio; null for any other node. */
const spa_dict_item *find_audio_class(const spa_dict *props)
{
	const spa_dict_item *item;
	spa_dict_for_each(item, props) {
		if (spa_streq(item->key, PW_KEY_MEDIA_CLASS) &&
		    (spa_streq(item->value, "Audio/Source") || spa_streq(item->value, "Audio/Sink")))
			return item;
	}
	return nullptr;
}

void registry_event_global(void *data, uint32_t id, uint32_t, const char *type, uint32_t version, const spa_dict *props)
{
	auto *registry = static_cast<hs_registry *>(data);
	if (!type)
		return;
	if (spa_streq(type, PW_TYPE_INTERFACE_Metadata)) {
		hs_metadata_setup_listener(registry->metadata, id, type, props);
		return;
	}
	if (!spa_streq(type, PW_TYPE_INTERFACE_Node) || !props)
		return;
	const spa_dict_item *audio_class = find_audio_class(props);
	if (!audio_class)
		return;
	pw_log_debug("\t\t%s: \"%s\"", audio_class->key, audio_class->value);
	pw_log_debug("\n\nObject added - object: id:%u type:%s/%d", id, type, static_cast<int>(version));
	hs_pw_source_register_source(id, props);
}

void registry_event_global_remove(void *data, uint32_t id)
{
	hs_metadata *metadata = static_cast<hs_registry *>(data)->metadata;
	pw_log_debug("Object removed - object: id:%u", id);
	if (metadata->proxy && metadata->id == id)
		hs_metadata_unbind(metadata);
	hs_pw_source_unregister_source(id);
}

constexpr pw_registry_events registry_events = [] {
	pw_registry_events events{};
	events.version = PW_VERSION_REGISTRY_EVENTS;
	events.global = registry_event_global;
	events.global_remove = registry_event_global_remove;
	return events;
}();

} // namespace

hs_registry *hs_registry_new(pw_registry *registry)
{
	HS_ASSERT(registry);
	auto *watch = new (std::nothrow) hs_registry{};
	HS_ASSERT_TEXT(watch, "registry");
	watch->registry = registry;
	watch->metadata = hs_metadata_new();
	return watch;
}

void hs_registry_add_listener(hs_registry *registry)
{
	pw_registry_add_listener(registry->registry, &registry->listener, &registry_events, registry);
}

void hs_registry_destroy(hs_registry **registry)
{
	if (!*registry)
		return;
	hs_metadata_destroy((*registry)->metadata);
	spa_hook_remove(&(*registry)->listener);
	pw_proxy_destroy(reinterpret_cast<pw_proxy *>((*registry)->registry));
	delete *registry;
	*registry = nullptr;
}
