/* What the session manager writes into the "virtual-nodes" metadata. */
#include "fuzz.hpp"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/utils/string.h>

#include "context.hpp"
#include "metadata.hpp"
#include "registry.hpp"
#include "owned.hpp"

namespace {

/** What the daemon listens with; the metadata object itself is of paper. */
struct listener {
	const pw_metadata_events *events = nullptr;
	void *data = nullptr;
	spa_interface metadata{};
	spa_interface registry{};
};

int add_listener(void *object, spa_hook *hook, const pw_metadata_events *events, void *data)
{
	auto *self = static_cast<listener *>(object);
	*hook = {};
	self->events = events;
	self->data = data;
	return 0;
}

void *bind(void *object, uint32_t, const char *, uint32_t, size_t)
{
	return &static_cast<listener *>(object)->metadata;
}

constexpr pw_metadata_methods metadata_methods = [] {
	pw_metadata_methods methods{};
	methods.version = PW_VERSION_METADATA_METHODS;
	methods.add_listener = add_listener;
	return methods;
}();

constexpr pw_registry_methods registry_methods = [] {
	pw_registry_methods methods{};
	methods.version = PW_VERSION_REGISTRY_METHODS;
	methods.bind = bind;
	return methods;
}();

/** The first connection whose device the node's name begins with decides. */
std::string expected(const pw_properties *connections, const std::string &node, const char *key)
{
	const spa_dict_item *item;
	spa_dict_for_each(item, &connections->dict) {
		if (!node.starts_with(item->key))
			continue;
		const hs_properties_ptr values{pw_properties_new_string(item->value)};
		const char *value = pw_properties_get(values.get(), key);
		return value ? value : "";
	}
	return "";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	listener self;
	self.metadata = SPA_INTERFACE_INIT(PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, &metadata_methods, &self);
	self.registry = SPA_INTERFACE_INIT(PW_TYPE_INTERFACE_Registry, PW_VERSION_REGISTRY, &registry_methods, &self);
	hs_registry registry{};
	registry.registry = reinterpret_cast<pw_registry *>(&self.registry);
	registry.metadata = hs_metadata_new();
	hs_metadata *metadata = registry.metadata;
	hs_context *context = hs_context_new(nullptr, nullptr, nullptr, &registry, nullptr);
	HS_REQUIRE(context->registry == &registry);

	const spa_dict_item name{PW_KEY_METADATA_NAME, "virtual-nodes"};
	const spa_dict props = SPA_DICT_INIT(&name, 1);
	hs_metadata_setup_listener(metadata, 1, PW_TYPE_INTERFACE_Metadata, &props);
	HS_REQUIRE(metadata->proxy && self.events);

	hs_fuzz_input input{data, size};
	const std::string node = input.text();
	while (!input.at_end()) {
		const uint8_t shape = input.byte();
		const std::string key = ((shape & 1) ? "virtual_node_connection.AudioDevice" : "") + input.text();
		const std::string value = input.text();
		self.events->property(self.data, 0, (shape & 2) ? nullptr : key.c_str(),
				      (shape & 4) ? nullptr : "Spa:String:JSON", (shape & 8) ? nullptr : value.c_str());
		for (const char *wanted : {"connection_type", "acoustic_id"})
			HS_REQUIRE(hs_metadata_get(metadata, node.c_str(), wanted) ==
				   expected(metadata->connections, node, wanted));
	}

	metadata->proxy = nullptr;
	hs_metadata_destroy(metadata);
	hs_context_destroy();
	return 0;
}
