#include "source.hpp"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "daemon-bed.hpp"
#include "dbus.hpp"
#include "failing-new.hpp"
#include "pcm.hpp"
#include "pod.hpp"
#include "props.hpp"

namespace {

/** Setting this one in a table fails. */
std::string key_without_memory;

} // namespace

extern "C" {
int __real_pw_properties_set(pw_properties *properties, const char *key, const char *value);
int __wrap_pw_properties_set(pw_properties *properties, const char *key, const char *value)
{
	return key && key == key_without_memory ? -ENOMEM : __real_pw_properties_set(properties, key, value);
}
}

namespace
{

using items = std::vector<std::pair<std::string, std::string>>;

items items_of(const pw_properties *table)
{
	items result;
	const spa_dict_item *item;
	spa_dict_for_each(item, &table->dict) result.emplace_back(item->key, item->value);
	return result;
}

std::string address(const void *p)
{
	char text[32];
	std::snprintf(text, sizeof(text), "%p", p);
	return text;
}

/** Sources of a plug-in on nodes that only their records know. */
struct Source : testing::Test {
	Source()
	{
		node.name = node_name;
		node.media_class = "Audio/Source";
	}

	void load_plugin(const std::string &rest = "")
	{
		plugin = bed.add_plugin("motion", rest);
	}

	/** A source on a node of that name. */
	hs_source *make(const char *name = node_name, const pw_properties *definition = nullptr)
	{
		if (!plugin)
			load_plugin();
		const std::string path = bed.settings + "/x.conf";
		return hs_source_new(plugin, name, definition, path.c_str(), &node);
	}

	hs_handmade_plugin &made() const
	{
		return *bed.host.plugins.back();
	}

	void describe_events(std::vector<hs_description> descriptions)
	{
		bed.host.prepare = [descriptions](hs_handmade_plugin &p) { p.events = descriptions; };
	}

	/** What is kept of the event at that position. */
	static items event_at(const hs_source *source, size_t position)
	{
		if (position >= source->events.size())
			return {};
		const hs_event &event = source->events[position];
		return {{"title", event.title},
		        {"type", event.type->name},
		        {"complexType", event.complex_type},
		        {"value", event.value}};
	}

	static std::vector<uint32_t> indices_of(const hs_source *source)
	{
		std::vector<uint32_t> indices;
		for (const hs_event &event : source->events)
			indices.push_back(event.index);
		return indices;
	}

	static items pcm_properties(const hs_source *source)
	{
		return items_of(hs_source_get_pcm_properties(source).get());
	}

	static constexpr char node_name[] = "AudioDevice0Input0.Unprocessed";
	hs_pw_source node{};
	hs_daemon_bed bed;
	hs_plugin *plugin = nullptr;
};

using SourceDeathTest = Source;

} // namespace

TEST_F(Source, NamesComeFromTheNodeAndThePluginsInterfaceName)
{
	describe_events({hs_describe_int("Level", 1), hs_describe_int("Alarm", 2)});
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->name, "AudioDevice0Input0.Unprocessed");
	EXPECT_EQ(source->device_name, "AudioDevice0Input0");
	EXPECT_EQ(source->settings_interface, "com.orvel.HearSense.Settings.Mover");
	const std::vector<std::string> interfaces = {"com.orvel.HearSense.Events.Mover.Level",
	                                             "com.orvel.HearSense.Events.Mover.Alarm"};
	EXPECT_EQ(source->event_interfaces, interfaces);
	EXPECT_EQ(source->object_path, "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Mover");
	EXPECT_EQ(source->node_path, "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed");
	EXPECT_EQ(source->device_path, "/com/orvel/HearSense/AudioDevice0Input0");
}

TEST_F(Source, NodeWithoutADotIsProcessed)
{
	const hs_source *source = make("AudioDevice0Input0");
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->object_path, "/com/orvel/HearSense/AudioDevice0Input0/Processed/Mover");
	EXPECT_EQ(source->node_path, "/com/orvel/HearSense/AudioDevice0Input0/Processed");
	EXPECT_EQ(source->device_path, "/com/orvel/HearSense/AudioDevice0Input0");
	EXPECT_EQ(source->device_name, "AudioDevice0Input0");
}

TEST_F(Source, HyphensStayInTheDevicePathOnly)
{
	const hs_source *source = make("Mic-1.Raw-x");
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->device_name, "Mic-1");
	EXPECT_EQ(source->device_path, "/com/orvel/HearSense/Mic-1");
	EXPECT_EQ(source->node_path, "/com/orvel/HearSense/Mic_1/Raw_x");
	EXPECT_EQ(source->object_path, "/com/orvel/HearSense/Mic_1/Raw_x/Mover");
}

TEST_F(Source, NamesAreCutAt255Bytes)
{
	const std::string interface_name(300, 'p');
	const std::string title(300, 't');
	bed.host.prepare = [&](hs_handmade_plugin &p) {
		p.interface.interface_name = interface_name.c_str();
		p.events = {hs_describe_int(title, 1)};
	};
	const std::string name = std::string(300, 'n') + ".x";
	const hs_source *source = make(name.c_str());
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->name, name);
	EXPECT_EQ(source->device_name, std::string(300, 'n'));
	EXPECT_EQ(source->settings_interface,
	          ("com.orvel.HearSense.Settings." + interface_name).substr(0, 255));
	EXPECT_EQ(source->event_interfaces[0],
	          ("com.orvel.HearSense.Events." + interface_name).substr(0, 255));
	const std::string path = ("/com/orvel/HearSense/" + name).substr(0, 255);
	EXPECT_EQ(source->object_path, path);
	EXPECT_EQ(source->node_path, path);
	EXPECT_EQ(source->device_path, path);
}

TEST_F(Source, ConvertedNameIsCutBeforeThePluginsNameIsAdded)
{
	/* 21 bytes of root, 233 of the name, a slash and nothing of the plug-in's name. */
	const std::string name = std::string(231, 'n') + ".x";
	const hs_source *source = make(name.c_str());
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->object_path, "/com/orvel/HearSense/" + std::string(231, 'n') + "/x/");
	EXPECT_EQ(source->node_path, "/com/orvel/HearSense/" + std::string(231, 'n') + "/x");
}

TEST_F(Source, AbsentInterfaceNameIsEmpty)
{
	describe_events({hs_describe_int("Level", 1)});
	const auto describe = bed.host.prepare;
	bed.host.prepare = [&](hs_handmade_plugin &p) {
		describe(p);
		p.interface.interface_name = nullptr;
	};
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->settings_interface, "com.orvel.HearSense.Settings.");
	EXPECT_EQ(source->event_interfaces[0], "com.orvel.HearSense.Events..Level");
	EXPECT_EQ(source->object_path, "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/");
}

TEST_F(Source, AbsentNodeNameIsEmpty)
{
	const hs_source *source = make(nullptr);
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->name, "");
	EXPECT_EQ(source->node_path, "/com/orvel/HearSense//Processed");
}

TEST_F(Source, StartsSwitchedOffAndUnused)
{
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_FALSE(source->enabled);
	EXPECT_FALSE(source->is_initialized);
	EXPECT_FALSE(source->is_active);
	EXPECT_FALSE(source->holds_paths);
	EXPECT_EQ(hs_source_get_n_consumers(source), 0u);
	EXPECT_EQ(source->plugin, plugin);
	EXPECT_EQ(source->pcm->source, source);
	EXPECT_EQ(source->pcm->node, &node);
	EXPECT_EQ(source->interface, &made().interface);
	EXPECT_EQ(spa_list_first(&plugin->sources, hs_source, link), source);
	EXPECT_TRUE(made().calls.empty());
}

TEST_F(Source, IsWhatThePluginsNotificationsAreFor)
{
	const hs_source *source = make();
	hs_source *held;
	std::memcpy(&held, made().interface.host_data, sizeof(held));
	EXPECT_EQ(held, source);
}

TEST_F(Source, HasAMetricsFileFromTheStart)
{
	const hs_source *source = make();
	ASSERT_NE(source->metrics, nullptr);
	EXPECT_TRUE(source->metrics->active);
	EXPECT_NE(hs_read_text(bed.directory /
	                       "metrics/motion_AudioDevice0Input0_Unprocessed_source_metrics.json"),
	          "");
}

TEST_F(Source, PluginsSourcesStandInOrderOfCreation)
{
	hs_source *a = make("a");
	hs_source *b = make("b");
	EXPECT_EQ(spa_list_first(&plugin->sources, hs_source, link), a);
	EXPECT_EQ(spa_list_last(&plugin->sources, hs_source, link), b);
	EXPECT_NE(a->handle, b->handle);
	EXPECT_NE(a->interface, b->interface);
}

TEST_F(Source, PluginThatDoesNotLoadGivesNone)
{
	bed.host.prepare = [](hs_handmade_plugin &p) { p.interface.version = 1; };
	EXPECT_EQ(make(), nullptr);
	EXPECT_TRUE(spa_list_is_empty(&plugin->sources));
	EXPECT_EQ(bed.host.n_cleared, 1u);
	EXPECT_TRUE(made().calls.empty());
}

TEST_F(Source, EventsAreDescribedOnceAtCreation)
{
	describe_events({
	        hs_describe_int("Level", 5),
	        hs_describe_ints("Bins", {1, 2}),
	        hs_describe_flags("Alarm", {{"Detected", true}, {"Report", false}}),
	});
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(made().count("get_event"), 3u);
	EXPECT_EQ(event_at(source, 0),
	          (items{{"title", "Level"}, {"type", "int32"}, {"complexType", ""}, {"value", "5"}}));
	EXPECT_EQ(
	        event_at(source, 1),
	        (items{{"title", "Bins"}, {"type", "array"}, {"complexType", "ai"}, {"value", "[ 1, 2 ]"}}));
	EXPECT_EQ(event_at(source, 2),
	          (items{{"title", "Alarm"},
	                 {"type", "struct"},
	                 {"complexType", "(bb)"},
	                 {"value", "{\n  \"Detected\": \"true\",\n  \"Report\": \"false\"\n }"}}));
	EXPECT_EQ(indices_of(source), (std::vector<uint32_t>{0, 1, 2}));
}

TEST_F(Source, PluginWithoutEventsHasNoTable)
{
	for (const int n : {0, -1}) {
		bed.host.prepare = [n](hs_handmade_plugin &p) {
			p.n_events = n;
			if (n < 0)
				p.methods.get_event = nullptr;
		};
		const hs_source *source = make();
		ASSERT_NE(source, nullptr);
		EXPECT_TRUE(source->events.empty());
		EXPECT_TRUE(source->event_interfaces.empty());
	}
}

TEST_F(Source, EventThatCanNotBeDescribedIsLeftOutAndTheLastSlotStaysEmpty)
{
	describe_events({hs_describe_int("A", 1), hs_describe_nothing, hs_describe_nonsense,
	                 hs_describe_int("D", 4)});
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->events.size(), 2u);
	EXPECT_EQ(indices_of(source), (std::vector<uint32_t>{0, 3}));
	const std::vector<std::string> interfaces = {"com.orvel.HearSense.Events.Mover.A",
	                                             "com.orvel.HearSense.Events.Mover.D", "", ""};
	EXPECT_EQ(source->event_interfaces, interfaces);
}

TEST_F(Source, EventWhoseTitleLeavesNoPlaceForItsValueIsLeftOut)
{
	const std::string title(HS_PROPS_OBJECT_SIZE, 'B');
	describe_events({hs_describe_int("A", 1), hs_describe_int(title.c_str(), 2), hs_describe_int("C", 3)});
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(indices_of(source), (std::vector<uint32_t>{0, 2}));
}

TEST_F(Source, DescriptionOf4096BytesIsTakenAndALongerOneIsNot)
{
	describe_events({hs_describe_of_size("A", 4096), hs_describe_of_size("B", 4104)});
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(indices_of(source), std::vector<uint32_t>{0});
}

TEST_F(Source, EventWhoseTextTakes1023BytesIsKeptAndALongerOneIsWarnedOf)
{
	const auto describe = [](const char *title, size_t n) {
		return hs_describe(title, [n](spa_pod_builder *b) {
			spa_pod_frame frame{};
			spa_pod_builder_push_struct(b, &frame);
			for (const auto &[name, length] : {std::pair{"a", size_t{511}}, std::pair{"b", n}}) {
				spa_pod_builder_string(b, name);
				spa_pod_builder_string(b, std::string(length, 'x').c_str());
			}
			spa_pod_builder_pop(b, &frame);
		});
	};
	const auto rendered_size = [](const hs_event &event) {
		const hs_properties_ptr object(pw_properties_new("title", event.title.c_str(), "type", "struct",
								 "complexType", event.complex_type.c_str(), "value",
								 event.value.c_str(), nullptr));
		char text[4096];
		EXPECT_EQ(hs_props_to_json(object.get(), text, sizeof(text)), 0);
		return std::strlen(text);
	};
	describe_events({describe("A", 1)});
	const size_t left = 1023 - rendered_size(make()->events.at(0));
	ASSERT_LT(left, 500u);

	describe_events({describe("A", 1 + left), describe("B", 2 + left)});
	const hs_log_capture capture;
	const hs_source *source = make();
	EXPECT_EQ(indices_of(source), std::vector<uint32_t>{0});
	EXPECT_EQ(rendered_size(source->events.at(0)), 1023u);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "B is left out, it is too long"), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 1u) << capture.text();
}

TEST_F(Source, SecondEventOfATitleIsLeftOut)
{
	describe_events({hs_describe_int("A", 1), hs_describe_int("A", 2), hs_describe_int("B", 3)});
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->events.size(), 2u);
	EXPECT_EQ(event_at(source, 0).back().second, "1");
	EXPECT_EQ(indices_of(source), (std::vector<uint32_t>{0, 2}));
}

TEST_F(Source, MoreEventsThanDescribedAreLeftOut)
{
	bed.host.prepare = [](hs_handmade_plugin &p) {
		p.events = {hs_describe_int("A", 1)};
		p.n_events = 3;
	};
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(source->events.size(), 1u);
	EXPECT_EQ(source->event_interfaces.size(), 3u);
}

TEST_F(Source, EventsBeyond1024AreLeftOutWithAWarning)
{
	bed.host.prepare = [](hs_handmade_plugin &p) {
		p.events = {hs_describe_int("A", 1)};
		p.n_events = INT32_MAX;
	};
	const hs_log_capture capture;
	const hs_source *source = make();
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Plug-in motion has 1024 events or more: those beyond are left out"),
	          1u)
	        << capture.text();
	EXPECT_EQ(made().count("get_event"), 1024u);
}

TEST_F(Source, EventsAreFoundByTheirExactTitle)
{
	describe_events({hs_describe_int("Level", 1), hs_describe_int("Alarm", 2)});
	const hs_source *source = make();
	EXPECT_EQ(hs_events_find(source->events, "Level"), &source->events[0]);
	EXPECT_EQ(hs_events_find(source->events, "Alarm"), &source->events[1]);
	EXPECT_EQ(hs_events_find(source->events, "alarm"), nullptr);
	EXPECT_EQ(hs_events_find(source->events, "Nothing"), nullptr);
	EXPECT_EQ(hs_events_find(source->events, nullptr), nullptr);
}

TEST_F(Source, StreamConfigIsWhatTheDefinitionHas)
{
	const hs_properties_ptr definition(
	        pw_properties_new_string("{ node.name = n, audio.rate = 8000, audio.format = S16, "
	                                 "audio.channels = 2, audio.position = [ FL FR ], x = y }"));
	const hs_source *source = make(node_name, definition.get());
	ASSERT_NE(source, nullptr);
	EXPECT_EQ(items_of(source->stream_config), (items{{"name", "n"},
	                                                  {"rate", "8000"},
	                                                  {"format", "S16"},
	                                                  {"channels", "2"},
	                                                  {"position", "[ FL FR ]"}}));

	const hs_properties_ptr bare(pw_properties_new_string("{ node.name = n }"));
	EXPECT_EQ(items_of(make(node_name, bare.get())->stream_config), (items{{"name", "n"}}));
	EXPECT_EQ(make()->stream_config, nullptr);
}

TEST_F(Source, StreamHearsTheNodeInF32PWithoutFurtherWishes)
{
	EXPECT_EQ(pcm_properties(make()), (items{{"media.type", "Audio"},
	                                         {"media.category", "Capture"},
	                                         {"audio.format", "F32P"},
	                                         {"node.name", "hs-motion-AudioDevice0Input0.Unprocessed"},
	                                         {"target.object", "AudioDevice0Input0.Unprocessed"}}));
}

TEST_F(Source, StreamTakesItsWishesFromTheConfiguration)
{
	load_plugin("plugin.info = { node.name = other, audio.rate = 16000, audio.format = S16LE, "
	            "audio.channels = 2, audio.position = [ FL FR ] }");
	EXPECT_EQ(pcm_properties(make()), (items{{"media.type", "Audio"},
	                                         {"media.category", "Capture"},
	                                         {"audio.format", "S16LE"},
	                                         {"node.name", "hs-motion-other"},
	                                         {"target.object", "other"},
	                                         {"audio.channels", "2"},
	                                         {"audio.position", "[ FL FR ]"},
	                                         {"audio.rate", "16000"}}));
}

TEST_F(Source, DefinitionComesBeforeTheConfiguration)
{
	load_plugin("plugin.info = { node.name = other, audio.rate = 16000, audio.format = S16LE, "
	            "audio.channels = 2, audio.position = [ FL FR ] }");
	const hs_properties_ptr definition(
	        pw_properties_new_string("{ node.name = mine, audio.rate = 8000, audio.format = S32LE, "
	                                 "audio.channels = 1, audio.position = MONO }"));
	EXPECT_EQ(pcm_properties(make(node_name, definition.get())), (items{{"media.type", "Audio"},
	                                                                    {"media.category", "Capture"},
	                                                                    {"audio.format", "S32LE"},
	                                                                    {"node.name", "hs-motion-mine"},
	                                                                    {"target.object", "mine"},
	                                                                    {"audio.channels", "1"},
	                                                                    {"audio.position", "MONO"},
	                                                                    {"audio.rate", "8000"}}));
}

TEST_F(Source, WishThatCanNotBeNotedIsWarnedOfAndTheOthersAreKept)
{
	load_plugin("plugin.info = { audio.rate = 16000, audio.channels = 2, audio.position = [ FL FR ] }");
	const hs_source *source = make();
	const hs_log_capture capture;
	key_without_memory = "audio.position";
	const items properties = pcm_properties(source);
	key_without_memory.clear();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not add audio.position = [ FL FR ] to pcm props."), 1u)
		<< capture.text();
	EXPECT_EQ(capture.lines().size(), 1u) << capture.text();
	EXPECT_EQ(items(properties.begin() + 5, properties.end()),
		  (items{{"audio.channels", "2"}, {"audio.rate", "16000"}}));
}

TEST_F(Source, StreamWithoutAnyNodeNameHearsTheDefault)
{
	node.name.clear();
	const items properties = pcm_properties(make());
	EXPECT_EQ(properties.at(3), (std::pair<std::string, std::string>{"node.name", "hs-motion-default"}));
	EXPECT_EQ(properties.at(4), (std::pair<std::string, std::string>{"target.object", "default"}));
}

TEST_F(Source, StreamNameIsCutAt127Bytes)
{
	node.name = std::string(200, 'n');
	const items properties = pcm_properties(make());
	EXPECT_EQ(properties.at(3).second, "hs-motion-" + std::string(117, 'n'));
	EXPECT_EQ(properties.at(4).second, node.name);
}

TEST_F(Source, EveryConsumerStartsTheStream)
{
	hs_source *source = make();
	source->enabled = true;
	hs_source_inc_consumers(source);
	EXPECT_EQ(hs_source_get_n_consumers(source), 1u);
	EXPECT_TRUE(source->pcm->stream_active);
	source->pcm->stream_active = false;
	hs_source_inc_consumers(source);
	EXPECT_EQ(hs_source_get_n_consumers(source), 2u);
	EXPECT_TRUE(source->pcm->stream_active);
}

TEST_F(Source, OnlyTheLastConsumerStopsTheStream)
{
	hs_source *source = make();
	source->enabled = true;
	hs_source_inc_consumers(source);
	hs_source_inc_consumers(source);
	hs_source_dec_consumers(source);
	EXPECT_EQ(hs_source_get_n_consumers(source), 1u);
	EXPECT_TRUE(source->pcm->stream_active);
	hs_source_dec_consumers(source);
	EXPECT_EQ(hs_source_get_n_consumers(source), 0u);
	EXPECT_FALSE(source->pcm->stream_active);
}

TEST_F(Source, ConsumersStayAtZeroAndTheStreamIsStopped)
{
	hs_source *source = make();
	source->pcm->stream_active = true;
	hs_source_dec_consumers(source);
	EXPECT_EQ(hs_source_get_n_consumers(source), 0u);
	EXPECT_FALSE(source->pcm->stream_active);
}

TEST_F(Source, ConsumersAreCountedWithoutAStreamToo)
{
	hs_source source{};
	hs_source_inc_consumers(&source);
	EXPECT_EQ(hs_source_get_n_consumers(&source), 1u);
	hs_source_dec_consumers(&source);
	hs_source_dec_consumers(&source);
	EXPECT_EQ(hs_source_get_n_consumers(&source), 0u);
}

TEST_F(SourceDeathTest, NoMemoryAborts)
{
	load_plugin();
	const auto make_without_memory = [this](int call) {
		hs_fail_call("new", call, ENOMEM);
		make();
	};
	EXPECT_DEATH(make_without_memory(1), "'source' failed at .*source.cpp:[0-9]+ hs_source_new\\(\\)");
	/* Two are the metrics', one stands behind the interface. */
	EXPECT_DEATH(make_without_memory(5), "'pcm' failed at .*pcm.cpp:[0-9]+ hs_pcm_new\\(\\)");
}

TEST_F(SourceDeathTest, NullSourceHasNoConsumers)
{
	EXPECT_DEATH(hs_source_inc_consumers(nullptr),
	             "'source' failed at .*source.cpp:[0-9]+ hs_source_inc_consumers\\(\\)");
	EXPECT_DEATH(hs_source_dec_consumers(nullptr),
	             "'source' failed at .*source.cpp:[0-9]+ hs_source_dec_consumers\\(\\)");
	EXPECT_DEATH(hs_source_get_n_consumers(nullptr),
	             "'source' failed at .*source.cpp:[0-9]+ hs_source_get_n_consumers\\(\\)");
}

TEST_F(Source, TextsForPeopleComeFromTheName)
{
	const hs_source *source = make();
	EXPECT_EQ(hs_source_get_device_name(source), "AudioDevice0Input0");
	EXPECT_EQ(hs_source_get_direction(source), "Input");
	EXPECT_EQ(hs_source_get_display_name(source), "Audio Device 0 Input 0");
}

TEST_F(Source, DestroyingUnloadsThePluginAfterItsStream)
{
	hs_source *source = make();
	bed.settle();
	source->is_initialized = true;
	hs_handmade_plugin &p = made();
	const size_t counts_before = p.n_event_counts;
	std::string expected = address(source) + ": destroy source configuration";
	size_t cleared_at_deinit = 1;
	p.at_call = [&](const std::string &) { cleared_at_deinit = bed.host.n_cleared; };
	const hs_log_capture capture;
	hs_source_destroy(source);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, expected), 1u) << capture.text();
	EXPECT_EQ(p.calls, std::vector<std::string>{"deinit"});
	EXPECT_EQ(cleared_at_deinit, 0u);
	EXPECT_EQ(bed.host.n_cleared, 1u);
	EXPECT_GT(p.n_event_counts, counts_before);
	EXPECT_TRUE(spa_list_is_empty(&plugin->sources));
}

TEST_F(Source, DestroyingForgetsItsEventsOnEveryBus)
{
	describe_events({hs_describe_int("Level", 1)});
	hs_source *source = make();
	hs_bed_bus &bus = bed.add_private_bus();
	hs_loop_bus_set_event_status(bed.loop, bus.bus(), "Level", source, true);
	hs_source_destroy(source);
	bool enabled = true;
	EXPECT_TRUE(hs_loop_bus_get_event_status(bed.loop, bus.bus(), source, "Level", &enabled));
	EXPECT_FALSE(enabled);
}

TEST_F(Source, ABusThatGoesLeavesTheSourcesInTheOrderInWhichItCameToThem)
{
	hs_source *first = make("first");
	hs_source *second = make("second");
	const std::vector<std::vector<hs_source *>> orders = {{first, second}, {second, first}};
	for (const std::vector<hs_source *> &order : orders) {
		hs_bed_bus &bus = bed.add_private_bus();
		std::vector<std::string> expected;
		for (hs_source *source : order) {
			hs_loop_bus_set_event_status(bed.loop, bus.bus(), "Level", source, true);
			expected.push_back(address(source->pcm) + ": stop pcm");
		}
		const hs_log_capture capture;
		hs_loop_do_quit(bed.loop, 0);
		std::vector<std::string> stopped;
		for (const hs_log_capture::line &line : capture.lines()) {
			if (line.text.ends_with(": stop pcm"))
				stopped.push_back(line.text);
		}
		EXPECT_EQ(stopped, expected) << capture.text();
	}
}

TEST_F(Source, ABusThatGoesLeavesTheSourcesBeforeItsObjectsGo)
{
	hs_source *source = make();
	hs_bed_bus &bus = bed.add_private_bus();
	ASSERT_TRUE(hs_dbus_setup_source_interface(source, bus.bus()));
	hs_loop_bus_set_event_status(bed.loop, bus.bus(), "Level", source, true);
	const hs_log_capture capture;
	hs_loop_do_quit(bed.loop, 0);
	std::vector<std::string> steps;
	for (const hs_log_capture::line &line : capture.lines()) {
		for (const char *step : {"Destroy bus event data: ", ": stop pcm", ": destroy dbus "}) {
			if (line.text.find(step) != std::string::npos)
				steps.emplace_back(step);
		}
	}
	EXPECT_EQ(steps, (std::vector<std::string>{"Destroy bus event data: ", ": stop pcm", ": destroy dbus ",
						   ": destroy dbus "}))
		<< capture.text();
}

TEST_F(Source, DestroyingBearsAPluginThatDescribesMoreEventsThanBefore)
{
	describe_events({hs_describe_int("Level", 1)});
	hs_source *source = make();
	made().n_events = 1000;
	hs_source_destroy(source);
	EXPECT_EQ(bed.host.n_cleared, 1u);
}

TEST_F(Source, DestroyingNullDoesNothing)
{
	const hs_log_capture capture;
	hs_source_destroy(nullptr);
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}
