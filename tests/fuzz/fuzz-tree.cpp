/* The properties of a node and all that a plug-in tells: nothing of it makes the object tree unreadable. */
#include "fuzz.hpp"

#include <csignal>
#include <deque>
#include <vector>

#include <pipewire/keys.h>
#include <pipewire/stream.h>
#include <spa/support/plugin.h>
#include <spa/utils/dict.h>

#include "bus.hpp"
#include "context.hpp"
#include "describe.hpp"
#include "loop.hpp"
#include "plugin.hpp"
#include "pw-source.hpp"
#include "source.hpp"
#include "utf8.hpp"

namespace {

constexpr uint32_t node_id = 7;

/** A plug-in without a library. */
struct ear {
	spa_handle handle{};
	hs_plugin_methods methods{};
	hs_plugin_interface interface {
	};
	std::deque<hs_pod_buffer> settings;
	std::deque<hs_pod_buffer> events;
	std::deque<std::string> texts;
	std::deque<hs_event_info> infos;
	std::deque<hs_event_topic> topics;
	std::vector<const hs_event_info *> info_pointers;
	std::vector<const hs_event_topic *> topic_pointers;

	const char *keep(std::string text)
	{
		return texts.emplace_back(std::move(text)).c_str();
	}
};

ear *the_ear;

int get_interface(spa_handle *, const char *, void **interface)
{
	*interface = &the_ear->interface;
	return 0;
}

int give(const std::deque<hs_pod_buffer> &built, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	if (!result)
		return static_cast<int>(built.size());
	std::memcpy(builder->data, built[index].data, hs_pod_buffer::size);
	*result = static_cast<spa_pod *>(builder->data);
	return 0;
}

int get_setting(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	return give(static_cast<const ear *>(object)->settings, index, result, builder);
}

int get_event(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	return give(static_cast<const ear *>(object)->events, index, result, builder);
}

void add_descriptions(hs_fuzz_input &input, std::deque<hs_pod_buffer> *built)
{
	for (unsigned int n = input.byte() % 4; n > 0; n--) {
		hs_pod_buffer buffer{};
		spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, static_cast<uint32_t>(sizeof(buffer.data)));
		if (hs_fuzz_describe(input, &builder, hs_fuzz_care::careful))
			built->push_back(buffer);
	}
}

void add_infos(hs_fuzz_input &input, ear *plugin)
{
	for (unsigned int n = input.byte() % 4; n > 0; n--) {
		const hs_event_topic topic{plugin->keep(input.text()), plugin->keep(input.text()),
					   plugin->keep(input.text())};
		plugin->topics.push_back(topic);
		plugin->topic_pointers.push_back(&plugin->topics.back());
	}
	/* Every event has to be described; others may be. */
	std::vector<std::string> names{input.text()};
	for (const hs_pod_buffer &event : plugin->events) {
		if (const hs_pod_ptr pod = hs_pod_parse(reinterpret_cast<const spa_pod *>(event.data));
		    pod && pod->title)
			names.push_back(*pod->title);
	}
	for (const std::string &name : names) {
		hs_event_info info{};
		info.name = plugin->keep(name);
		info.nice_name = plugin->keep(input.text());
		info.topics = plugin->topic_pointers.data();
		info.n_topics = plugin->topic_pointers.size();
		info.data_types = input.byte();
		plugin->infos.push_back(info);
		plugin->info_pointers.push_back(&plugin->infos.back());
	}
	plugin->interface.events = plugin->info_pointers.data();
	plugin->interface.n_events = plugin->info_pointers.size();
}

void add_plugin(hs_fuzz_input &input, ear *plugin, hs_context *context)
{
	plugin->handle.get_interface = get_interface;
	plugin->methods.get_setting = get_setting;
	plugin->methods.get_event = get_event;
	plugin->interface.version = HS_PLUGIN_INTERFACE_VERSION;
	plugin->interface.funcs = &plugin->methods;
	plugin->interface.data = plugin;
	plugin->interface.name = "Ear";
	plugin->interface.interface_name = plugin->keep(input.text());
	plugin->interface.schema = plugin->keep(input.text());
	plugin->interface.settings_schema = plugin->keep(input.text());
	add_descriptions(input, &plugin->settings);
	add_descriptions(input, &plugin->events);
	add_infos(input, plugin);
	the_ear = plugin;

	auto *record = new hs_plugin{};
	std::snprintf(record->name, sizeof(record->name), "ear");
	record->props = pw_properties_new("plugin.info", "{ node.pattern = \"\" }", nullptr);
	record->config = pw_properties_new(nullptr, nullptr);
	record->schema_path = "/schemas";
	record->settings_path = "/nowhere";
	record->context = context;
	spa_list_init(&record->sources);
	spa_list_append(&context->plugins, &record->link);
}

hs_loop *loop()
{
	static hs_loop *made = [] {
		hs_loop *created = hs_loop_new();
		/* A fuzzer is stopped by signals. */
		sigset_t signals;
		sigemptyset(&signals);
		sigaddset(&signals, SIGINT);
		sigaddset(&signals, SIGTERM);
		sigprocmask(SIG_UNBLOCK, &signals, nullptr);
		return created;
	}();
	return made;
}

/** Tells all values at the path, as a read of the whole tree does. */
void require_readable(sd_bus *bus, const std::string &path)
{
	if (sd_bus_object_path_is_valid(path.c_str()))
		HS_REQUIRE(sd_bus_emit_object_added(bus, path.c_str()) >= 0);
}

} // namespace

extern "C" {

spa_handle *__wrap_pw_context_load_spa_handle(pw_context *, const char *, const spa_dict *)
{
	return &the_ear->handle;
}

int __wrap_pw_unload_spa_handle(spa_handle *)
{
	return 0;
}

pw_stream *__wrap_pw_stream_new(pw_core *, const char *, pw_properties *props)
{
	pw_properties_free(props);
	errno = EHOSTDOWN;
	return nullptr;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	hs_fuzz_input input{data, size};
	const std::string name = input.text();
	const bool is_sink = (input.byte() & 1) != 0;

	hs_fuzz_bus main_bus;
	hs_fuzz_bus private_bus;
	sd_bus *const buses[] = {main_bus.get(), private_bus.get()};
	ear plugin;
	hs_context *context = hs_context_new(nullptr, nullptr, loop(), nullptr, main_bus.release());
	HS_REQUIRE(hs_loop_add_bus(loop(), private_bus.release()));
	add_plugin(input, &plugin, context);

	const spa_dict_item items[] = {{PW_KEY_NODE_NAME, name.c_str()},
				       {PW_KEY_MEDIA_CLASS, is_sink ? "Audio/Sink" : "Audio/Source"}};
	const spa_dict props = SPA_DICT_INIT(items, 2);
	hs_pw_source_register_source(node_id, &props);

	const hs_plugin *record = spa_list_first(&context->plugins, hs_plugin, link);
	HS_REQUIRE(!spa_list_is_empty(&record->sources));
	const hs_source *source = spa_list_first(&record->sources, hs_source, link);
	for (sd_bus *bus : buses) {
		require_readable(bus, source->object_path);
		require_readable(bus, source->node_path);
		require_readable(bus, source->device_path);
	}

	hs_pw_source_unregister_source(node_id);
	HS_REQUIRE(spa_list_is_empty(&context->dbus_objects));
	HS_REQUIRE(spa_list_is_empty(&record->sources));
	hs_loop_do_quit(loop(), 0);
	hs_context_destroy();
	return 0;
}
}
