#include "metadata.hpp"

#include <string>
#include <vector>

#include <pipewire/extensions/metadata.h>

#include <gtest/gtest.h>

#include "daemon-bed.hpp"
#include "pcm.hpp"
#include "proxy-watch.hpp"
#include "source.hpp"

namespace
{

using calls = std::vector<std::string>;

constexpr char device_key[] = "virtual_node_connection.AudioDevice0Input0";
constexpr char internal_a1[] = "{ \"connection_type\": \"internal\", \"acoustic_id\": \"a1\" }";

/** The daemon with the metadata object bound. */
struct Metadata : testing::Test {
	Metadata()
	{
		hs_registry_add_listener(bed.registry);
		bed.settle();
		object = bed.add_metadata("virtual-nodes");
		watch = bed.registry->metadata;
	}

	~Metadata() override
	{
		bed.remove_metadata(object);
	}

	void set(const char *key, const char *value) const
	{
		const char *type = value ? "Spa:String:JSON" : nullptr;
		spa_callbacks_call(&watch->listener.cb, pw_metadata_events, property, 0, 0, key, type, value);
	}

	std::string get(const char *node, const char *key) const
	{
		return hs_metadata_get(watch, node, key);
	}

	std::string connection(const char *device) const
	{
		const char *text = pw_properties_get(watch->connections, device);
		return text ? text : "(none)";
	}

	/** A source whose stream has a format; its plug-in's calls are recorded from here on. */
	hs_source *add_source(const std::string &name, uint64_t consumers)
	{
		if (!plugin)
			plugin = bed.add_plugin("motion", "plugin.info = { node.pattern = AudioDevice }");
		bed.add_node(name, "Audio/Source");
		hs_source *source = spa_list_last(&plugin->sources, hs_source, link);
		EXPECT_EQ(source->name, name);
		source->enabled = true;
		source->consumers = consumers;
		source->pcm->format_ready = true;
		return source;
	}

	const calls &calls_of(size_t instance) const
	{
		return bed.host.plugins.at(instance)->calls;
	}

	hs_daemon_bed bed;
	pw_impl_metadata *object;
	hs_metadata *watch;
	hs_plugin *plugin = nullptr;
};

using MetadataDeathTest = Metadata;

/** What the registry was last asked to bind. */
struct {
	uint32_t id;
	std::string type;
	uint32_t version;
	size_t user_data_size;
} bound;

spa_callbacks real_registry;

void *note_and_bind(void *object, uint32_t id, const char *type, uint32_t version, size_t user_data_size)
{
	bound = {id, type, version, user_data_size};
	const auto *methods = static_cast<const pw_registry_methods *>(real_registry.funcs);
	return methods->bind(object, id, type, version, user_data_size);
}

} // namespace

TEST_F(Metadata, ValueIsThatOfTheDeviceTheNodeBeginsWith)
{
	set(device_key, internal_a1);
	EXPECT_EQ(get("AudioDevice0Input0.Unprocessed", "connection_type"), "internal");
	EXPECT_EQ(get("AudioDevice0Input0", "acoustic_id"), "a1");
}

TEST_F(Metadata, ValueThatIsNotThereIsEmpty)
{
	set(device_key, internal_a1);
	EXPECT_EQ(get("AudioDevice1Input0.Unprocessed", "connection_type"), "");
	EXPECT_EQ(get("AudioDevice0", "connection_type"), "");
	EXPECT_EQ(get("AudioDevice0Input0.Unprocessed", "colour"), "");
	EXPECT_EQ(get(nullptr, "connection_type"), "");
}

TEST_F(Metadata, ConnectionThatIsNoObjectHasNoValues)
{
	set(device_key, "");
	EXPECT_EQ(get("AudioDevice0Input0.Unprocessed", "connection_type"), "");
	set(device_key, "[ 1, 2");
	EXPECT_EQ(get("AudioDevice0Input0.Unprocessed", "connection_type"), "");
}

TEST_F(Metadata, FirstDeviceOfTheTableThatFitsCounts)
{
	set("virtual_node_connection.AudioDevice0Input1", "{ acoustic_id = one }");
	set("virtual_node_connection.AudioDevice0Input10", "{ acoustic_id = ten, connection_type = x }");
	EXPECT_EQ(get("AudioDevice0Input10.Unprocessed", "acoustic_id"), "one");
	EXPECT_EQ(get("AudioDevice0Input10.Unprocessed", "connection_type"), "");
}

TEST_F(MetadataDeathTest, NullWatchAborts)
{
	EXPECT_DEATH(hs_metadata_get(nullptr, "a", "b"),
	             "'metadata' failed at .*metadata.cpp:[0-9]+ hs_metadata_get\\(\\)");
	EXPECT_DEATH(hs_metadata_setup_listener(nullptr, 1, PW_TYPE_INTERFACE_Metadata, nullptr),
	             "'metadata' failed at .*metadata.cpp:[0-9]+ hs_metadata_setup_listener\\(\\)");
	bed.context->registry->metadata = nullptr;
	EXPECT_DEATH(spa_callbacks_call(&watch->listener.cb, pw_metadata_events, property, 0, 0, device_key,
	                                "", "{ }"),
	             "'metadata' failed at .*metadata.cpp:[0-9]+ property_changed\\(\\)");
	bed.context->registry->metadata = watch;
}

TEST_F(MetadataDeathTest, ChangeWithoutAContextAborts)
{
	const auto *events = static_cast<const pw_metadata_events *>(watch->listener.cb.funcs);
	const auto change_without_context = [&] {
		hs_context_destroy();
		events->property(watch, 0, device_key, "", "{ }");
	};
	EXPECT_DEATH(change_without_context(), "'context' failed at .*metadata.cpp:[0-9]+ property_changed\\(\\)");
}

TEST(MetadataWithoutContextDeathTest, Aborts)
{
	hs_metadata *watch = hs_metadata_new();
	EXPECT_DEATH(hs_metadata_setup_listener(watch, 1, PW_TYPE_INTERFACE_Metadata, nullptr),
	             "'context' failed at .*metadata.cpp:[0-9]+ hs_metadata_setup_listener\\(\\)");
	hs_metadata_destroy(watch);
	hs_metadata_destroy(nullptr);
}

TEST_F(Metadata, ChangeOfTheObjectReachesTheTable)
{
	const hs_log_capture capture;
	pw_impl_metadata_set_property(object, 3, device_key, "Spa:String:JSON", internal_a1);
	bed.settle();
	EXPECT_EQ(connection("AudioDevice0Input0"), internal_a1);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, std::string{"Got metadata - id: 3, key: "} + device_key +
	                                                     ", type: Spa:String:JSON"),
	          1u)
	        << capture.text();
	pw_impl_metadata_set_property(object, 3, device_key, nullptr, nullptr);
	bed.settle();
	EXPECT_EQ(connection("AudioDevice0Input0"), "(none)");
}

TEST_F(Metadata, EventsResultIsZero)
{
	const auto *events = static_cast<const pw_metadata_events *>(watch->listener.cb.funcs);
	EXPECT_EQ(events->property(watch, 0, device_key, "t", "{ }"), 0);
	EXPECT_EQ(events->property(watch, 0, nullptr, nullptr, nullptr), 0);
}

TEST_F(Metadata, EveryChangeIsToldOf)
{
	const auto *events = static_cast<const pw_metadata_events *>(watch->listener.cb.funcs);
	const hs_log_capture capture;
	events->property(watch, 7, "colour", "Spa:String", "red");
	events->property(watch, UINT32_MAX, nullptr, nullptr, nullptr);
	ASSERT_EQ(capture.lines().size(), 2u) << capture.text();
	EXPECT_EQ(capture.lines()[0].text, "Got metadata - id: 7, key: colour, type: Spa:String");
	EXPECT_EQ(capture.lines()[1].text, "Got metadata - id: -1, key: (null), type: (null)");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG), 2u) << capture.text();
}

TEST_F(Metadata, IsBoundAsVersion3OfWhatWasAnnounced)
{
	hs_metadata_unbind(watch);
	bound = {};
	auto *interface = reinterpret_cast<spa_interface *>(bed.registry->registry);
	const spa_callbacks real = interface->cb;
	real_registry = real;
	pw_registry_methods methods = *static_cast<const pw_registry_methods *>(real.funcs);
	methods.bind = note_and_bind;
	interface->cb.funcs = &methods;
	const hs_properties_ptr props(pw_properties_new("metadata.name", "virtual-nodes", nullptr));
	hs_metadata_setup_listener(watch, watch->id, PW_TYPE_INTERFACE_Metadata, &props->dict);
	interface->cb = real;
	EXPECT_NE(watch->proxy, nullptr);
	EXPECT_EQ(bound.id, watch->id);
	EXPECT_EQ(bound.type, PW_TYPE_INTERFACE_Metadata);
	EXPECT_EQ(bound.version, 3u);
	EXPECT_EQ(bound.user_data_size, 0u);
}

TEST_F(Metadata, NullValueRemovesTheConnection)
{
	set(device_key, internal_a1);
	set(device_key, nullptr);
	EXPECT_EQ(connection("AudioDevice0Input0"), "(none)");
}

TEST_F(Metadata, OtherKeysAreIgnored)
{
	for (const char *key :
	     {"virtual_node_connection.audioDevice0", "virtual_node_connection", "",
	      "xvirtual_node_connection.AudioDevice0", "virtual_node_connection.AudioDevic"})
		set(key, internal_a1);
	set(nullptr, internal_a1);
	set(nullptr, nullptr);
	EXPECT_EQ(watch->connections->dict.n_items, 0u);
}

TEST_F(Metadata, DeviceIsTheTextAfterTheKeysLastDot)
{
	set("virtual_node_connection.AudioDevice0Input0.Unprocessed", internal_a1);
	set("virtual_node_connection.AudioDevice", internal_a1);
	EXPECT_EQ(connection("Unprocessed"), internal_a1);
	EXPECT_EQ(connection("AudioDevice"), internal_a1);
}

TEST_F(Metadata, UnknownNameIsNotBound)
{
	hs_metadata_unbind(watch);
	const hs_properties_ptr other(pw_properties_new("metadata.name", "virtual-nodes2", nullptr));
	const hs_properties_ptr none(pw_properties_new("name", "virtual-nodes", nullptr));
	const spa_dict *const dicts[] = {&other->dict, &none->dict, nullptr};
	for (const spa_dict *props : dicts) {
		hs_metadata_setup_listener(watch, watch->id, PW_TYPE_INTERFACE_Metadata, props);
		EXPECT_EQ(watch->proxy, nullptr);
	}
}

TEST_F(Metadata, SortedDictionaryIsSearchedInHalves)
{
	hs_metadata_unbind(watch);
	const spa_dict_item unsorted[] = {
	        {"z", "1"}, {"y", "1"}, {"x", "1"}, {"metadata.name", "virtual-nodes"}};
	const spa_dict_item sorted[] = {{"a", "1"}, {"metadata.name", "virtual-nodes"}, {"x", "1"}};
	spa_dict props = SPA_DICT_INIT_ARRAY(unsorted);
	props.flags = SPA_DICT_FLAG_SORTED;
	hs_metadata_setup_listener(watch, watch->id, PW_TYPE_INTERFACE_Metadata, &props);
	EXPECT_EQ(watch->proxy, nullptr);
	props.flags = 0;
	hs_metadata_setup_listener(watch, watch->id, PW_TYPE_INTERFACE_Metadata, &props);
	EXPECT_NE(watch->proxy, nullptr);

	hs_metadata_unbind(watch);
	props = SPA_DICT_INIT_ARRAY(sorted);
	props.flags = SPA_DICT_FLAG_SORTED;
	hs_metadata_setup_listener(watch, watch->id, PW_TYPE_INTERFACE_Metadata, &props);
	EXPECT_NE(watch->proxy, nullptr);
}

TEST_F(Metadata, ObjectThatCanNotBeBoundIsAnError)
{
	hs_metadata_unbind(watch);
	const hs_properties_ptr props(pw_properties_new("metadata.name", "virtual-nodes", nullptr));
	const hs_log_capture capture;
	hs_metadata_setup_listener(watch, watch->id, "No:Such:Interface", &props->dict);
	EXPECT_EQ(watch->proxy, nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Unable to bind virtual-nodes metadata"), 1u)
	        << capture.text();
}

TEST_F(Metadata, UnbindingTwiceIsOnce)
{
	hs_metadata_unbind(watch);
	hs_metadata_unbind(watch);
	EXPECT_EQ(watch->proxy, nullptr);
}

TEST_F(Metadata, UnbindingDestroysTheProxy)
{
	const hs_proxy_watch proxy{watch->proxy};
	hs_metadata_unbind(watch);
	EXPECT_TRUE(proxy.is_destroyed());
}

TEST_F(Metadata, ChangeRestartsTheDevicesPluginsWithTheNewTexts)
{
	hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 1);
	source->is_initialized = true;
	source->is_active = true;
	source->pcm->stream_active = false;
	set(device_key, internal_a1);
	EXPECT_EQ(calls_of(0), (calls{"deactivate", "deinit", "init", "activate"}));
	EXPECT_STREQ(bed.host.plugins[0]->stream.source_name, "AudioDevice0Input0.Unprocessed");
	EXPECT_STREQ(bed.host.plugins[0]->stream.connection_type, "internal");
	EXPECT_STREQ(bed.host.plugins[0]->stream.acoustic_id, "a1");
	EXPECT_TRUE(source->is_active);
	EXPECT_TRUE(source->pcm->stream_active);
}

TEST_F(Metadata, StreamStartsAfterThePluginIsActive)
{
	const hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 1);
	std::vector<bool> active;
	bed.host.plugins[0]->at_call = [&](const std::string &) { active.push_back(source->pcm->stream_active); };
	set(device_key, internal_a1);
	EXPECT_EQ(calls_of(0), (calls{"init", "activate"}));
	bed.host.plugins[0]->at_call = nullptr;
	EXPECT_EQ(active, (std::vector<bool>{false, false}));
	EXPECT_TRUE(source->pcm->stream_active);
}

TEST_F(Metadata, ConsumersAreCountedBeforeThePluginIsStopped)
{
	hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 1);
	source->is_initialized = true;
	source->is_active = true;
	bed.host.plugins[0]->at_call = [source](const std::string &method) {
		if (method == "deactivate")
			source->consumers = 0;
	};
	set(device_key, internal_a1);
	EXPECT_EQ(calls_of(0), (calls{"deactivate", "deinit", "init", "activate"}));
}

TEST_F(Metadata, PluginWithoutConsumersIsStoppedAndInitialisedAnew)
{
	hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 0);
	source->is_initialized = true;
	source->is_active = true;
	set(device_key, internal_a1);
	EXPECT_EQ(calls_of(0), (calls{"deactivate", "deinit", "init"}));
	EXPECT_STREQ(bed.host.plugins[0]->stream.connection_type, "internal");
	EXPECT_FALSE(source->is_active);
}

TEST_F(Metadata, SourcesOfAPluginAreRestartedInTheirOrder)
{
	std::vector<size_t> order;
	for (const char *name : {"AudioDevice0Input0.B", "AudioDevice0Input0.A", "AudioDevice0Input0.C"})
		add_source(name, 1);
	for (size_t i = 0; i < 3; ++i)
		bed.host.plugins[i]->at_call = [&order, i](const std::string &method) {
			if (method == "init")
				order.push_back(i);
		};
	set(device_key, internal_a1);
	EXPECT_EQ(order, (std::vector<size_t>{0, 1, 2}));
}

TEST_F(Metadata, InstanceHasItsOldTextsUntilItIsDeinitialised)
{
	hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 1);
	set(device_key, internal_a1);
	std::string at_deinit;
	bed.host.plugins[0]->at_call = [&](const std::string &method) {
		if (method == "deinit")
			at_deinit = source->pcm->info.connection_type;
	};
	set(device_key, "{ connection_type = other }");
	bed.host.plugins[0]->at_call = nullptr;
	EXPECT_EQ(at_deinit, "internal");
	EXPECT_STREQ(source->pcm->info.connection_type, "other");
}

TEST_F(Metadata, TextsAreCutAt127BytesAndAbsentOnesAreEmpty)
{
	const hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 1);
	for (const size_t length : {126u, 127u, 128u, 200u}) {
		const std::string connection_type(length, 't');
		const std::string acoustic_id(length, 'a');
		set(device_key,
		    ("{ acoustic_id = " + acoustic_id + ", connection_type = " + connection_type + " }").c_str());
		EXPECT_EQ(source->pcm->info.connection_type, connection_type.substr(0, 127));
		EXPECT_EQ(source->pcm->info.acoustic_id, acoustic_id.substr(0, 127));
	}
	set(device_key, "{ connection_type = short }");
	EXPECT_STREQ(source->pcm->info.connection_type, "short");
	EXPECT_STREQ(source->pcm->info.acoustic_id, "");
	set(device_key, nullptr);
	EXPECT_STREQ(source->pcm->info.connection_type, "");
}

TEST_F(Metadata, PluginWithoutConsumersIsInitialisedButItsStreamStops)
{
	hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 0);
	source->pcm->stream_active = true;
	set(device_key, internal_a1);
	EXPECT_EQ(calls_of(0), calls{"init"});
	EXPECT_TRUE(source->is_initialized);
	EXPECT_FALSE(source->is_active);
	EXPECT_FALSE(source->pcm->stream_active);
}

TEST_F(Metadata, PluginThatFailsToInitialiseIsNotActivatedAndItsStreamStops)
{
	hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 1);
	source->pcm->stream_active = true;
	bed.host.plugins[0]->init_result = -EIO;
	set(device_key, internal_a1);
	EXPECT_EQ(calls_of(0), calls{"init"});
	EXPECT_FALSE(source->pcm->stream_active);
}

TEST_F(Metadata, OnlyThatDevicesPluginsWithAFormatAreRestarted)
{
	add_source("AudioDevice0Input0.Unprocessed", 1)->pcm->format_ready = false;
	add_source("AudioDevice1Input0.Unprocessed", 1);
	add_source("AudioDevice0Input0.Other", 1);
	set(device_key, internal_a1);
	EXPECT_TRUE(calls_of(0).empty());
	EXPECT_TRUE(calls_of(1).empty());
	EXPECT_EQ(calls_of(2), (calls{"init", "activate"}));
}

TEST_F(Metadata, DeviceWhoseNameBeginsAnotherRestartsThatToo)
{
	add_source("AudioDevice0Input10.Unprocessed", 1);
	set("virtual_node_connection.AudioDevice0Input1", internal_a1);
	EXPECT_EQ(calls_of(0), (calls{"init", "activate"}));
	EXPECT_STREQ(bed.host.plugins[0]->stream.acoustic_id, "a1");
}

TEST_F(Metadata, EqualValueRestartsAgain)
{
	add_source("AudioDevice0Input0.Unprocessed", 1);
	set(device_key, internal_a1);
	set(device_key, internal_a1);
	EXPECT_EQ(calls_of(0), (calls{"init", "activate", "deactivate", "deinit", "init", "activate"}));
}

TEST_F(Metadata, SourceWithoutAPipelineIsPassedOver)
{
	hs_source *source = add_source("AudioDevice0Input0.Unprocessed", 1);
	hs_pcm *pcm = std::exchange(source->pcm, nullptr);
	set(device_key, internal_a1);
	EXPECT_TRUE(calls_of(0).empty());
	source->pcm = pcm;
}

TEST_F(Metadata, PluginsAreRestartedInOrderOfCreation)
{
	std::vector<std::string> order;
	bed.host.prepare = [this, &order](hs_handmade_plugin &p) {
		const std::string type = bed.host.types.back();
		p.at_call = [&order, type](const std::string &method) {
			if (method == "init")
				order.push_back(type.substr(type.rfind(':') + 1));
		};
		p.interface.interface_name = type.ends_with("SOUND") ? "Hearer" : "Mover";
	};
	hs_plugin *sound = bed.add_plugin("sound");
	hs_plugin *motion = bed.add_plugin("motion");
	bed.add_node("AudioDevice0Input0.Unprocessed", "Audio/Source");
	for (hs_plugin *record : {motion, sound})
		spa_list_first(&record->sources, hs_source, link)->pcm->format_ready = true;
	set(device_key, internal_a1);
	EXPECT_EQ(order, (calls{"SOUND", "MOTION"}));
}
