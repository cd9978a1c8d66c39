#include "pw-source.hpp"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <spa/utils/dict.h>

#include <gtest/gtest.h>

#include "daemon-bed.hpp"
#include "dbus.hpp"
#include "failing-new.hpp"
#include "pcm.hpp"
#include "refcount.hpp"
#include "source.hpp"

namespace
{

using texts = std::vector<std::string>;
using items = std::vector<std::pair<const char *, const char *>>;

constexpr char unprocessed[] = "AudioDevice0Input0.Unprocessed";
constexpr char chain_path[] = "/com/orvel/HearSense/AudioDevice0Input0";
constexpr char source_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed";
constexpr char mover_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Mover";
constexpr char hearer_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Hearer";

/** The daemon without a registry: the tests say which nodes come and go. */
struct PwSource : testing::Test {
	static void add(uint32_t id, const items &properties, uint32_t flags = 0)
	{
		std::vector<spa_dict_item> dict_items;
		for (const auto &[key, value] : properties)
			dict_items.push_back({key, value});
		const spa_dict dict = {flags, static_cast<uint32_t>(dict_items.size()), dict_items.data()};
		hs_pw_source_register_source(id, &dict);
	}

	static void add_named(uint32_t id, const std::string &name)
	{
		add(id, {{"node.name", name.c_str()}, {"media.class", "Audio/Source"}});
	}

	/** The second plug-in's interface has another name. */
	void add_two_plugins()
	{
		bed.host.prepare = [this](hs_handmade_plugin &p) {
			if (std::string{bed.host.types.back()}.ends_with("SOUND"))
				p.interface.interface_name = "Hearer";
		};
		motion = bed.add_plugin("motion");
		sound = bed.add_plugin("sound");
	}

	std::vector<hs_pw_source *> nodes() const
	{
		std::vector<hs_pw_source *> result;
		hs_pw_source *node;
		spa_list_for_each (node, &bed.context->pw_sources, link)
			result.push_back(node);
		return result;
	}

	static std::vector<hs_source *> sources_of(hs_plugin *plugin)
	{
		std::vector<hs_source *> result;
		hs_source *source;
		spa_list_for_each (source, &plugin->sources, link)
			result.push_back(source);
		return result;
	}

	static texts names_of(hs_plugin *plugin)
	{
		texts names;
		for (const hs_source *source : sources_of(plugin))
			names.push_back(source->name);
		return names;
	}

	/** What was announced on the bus since the last call: "+path" or "-path". */
	static texts announced(hs_bed_bus &bus)
	{
		EXPECT_TRUE(bus.client.ping());
		texts result;
		for (const hs_bus_client::signal &signal : bus.client.signals()) {
			const std::string path = signal.content.substr(1, signal.content.find('"', 1) - 1);
			if (signal.member == "InterfacesAdded")
				result.push_back("+" + path);
			else if (signal.member == "InterfacesRemoved")
				result.push_back("-" + path);
		}
		bus.client.forget_signals();
		return result;
	}

	uint32_t count_of(const char *path) const
	{
		return hs_refcount_get(bed.context->object_path_counts, path);
	}

	hs_daemon_bed bed;
	hs_plugin *motion = nullptr;
	hs_plugin *sound = nullptr;
};

/** Whether a plug-in of that configuration runs on a node of that name. */
bool selects(const std::string &rest, const std::string &name)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion", rest);
	PwSource::add_named(1, name);
	return !spa_list_is_empty(&plugin->sources);
}

using PwSourceDeathTest = PwSource;

} // namespace

TEST(PwSourceConfig, IsTheFirstEntryOfThatNode)
{
	const hs_properties_ptr config(pw_properties_new(
	        "sources.x", "{ node.name = a, n = 0 }", "source.1", "{ node.name = b, n = 1 }", "source.2",
	        "{ node.name = a, n = 2 }", "source.3", "{ node.name = a, n = 3 }", nullptr));
	const hs_properties_ptr found = hs_pw_source_find_config("a", config.get());
	ASSERT_NE(found, nullptr);
	EXPECT_STREQ(pw_properties_get(found.get(), "n"), "2");
	EXPECT_EQ(hs_pw_source_find_config("c", config.get()), nullptr);
}

TEST(PwSourceConfig, WithoutANodeIsTheFirstEntryWithAnyName)
{
	const hs_properties_ptr config(
	        pw_properties_new("source.1", "{ n = 1 }", "source.2", "{ node.name = b, n = 2 }", nullptr));
	const hs_properties_ptr found = hs_pw_source_find_config(nullptr, config.get());
	ASSERT_NE(found, nullptr);
	EXPECT_STREQ(pw_properties_get(found.get(), "n"), "2");

	const hs_properties_ptr nameless(
	        pw_properties_new("source.1", "{ n = 1 }", "node.name", "x", nullptr));
	EXPECT_EQ(hs_pw_source_find_config(nullptr, nameless.get()), nullptr);
}

TEST(PwSourceConfig, IsAnEntryWhoseKeyBeginsWithSourceAndADot)
{
	const hs_properties_ptr others(pw_properties_new("source", "{ node.name = a }", "source1", "{ node.name = a }",
							 "Source.1", "{ node.name = a }", "xsource.1",
							 "{ node.name = a }", nullptr));
	EXPECT_EQ(hs_pw_source_find_config("a", others.get()), nullptr);
	EXPECT_EQ(hs_pw_source_find_config(nullptr, others.get()), nullptr);
	const hs_properties_ptr shortest(pw_properties_new("source.", "{ node.name = a }", nullptr));
	EXPECT_NE(hs_pw_source_find_config("a", shortest.get()), nullptr);
}

TEST(PwSourceConfig, IsACopy)
{
	const hs_properties_ptr config(pw_properties_new("source.1", "{ node.name = a, n = 1 }", nullptr));
	const hs_properties_ptr found = hs_pw_source_find_config("a", config.get());
	pw_properties_set(found.get(), "n", "2");
	EXPECT_STREQ(pw_properties_get(hs_pw_source_find_config("a", config.get()).get(), "n"), "1");
}

TEST(PwSourceSettingsPath, HasTheDeviceOfAnAudioDevice)
{
	EXPECT_EQ(hs_pw_source_settings_path("/dir", "motion", unprocessed),
	          "/dir/motion-AudioDevice0Input0.conf");
	EXPECT_EQ(hs_pw_source_settings_path("/dir", "motion", "AudioDevice.a.b"),
	          "/dir/motion-AudioDevice.conf");
}

TEST(PwSourceSettingsPath, HasTheWholeNameOfAnyOtherNode)
{
	EXPECT_EQ(hs_pw_source_settings_path("/dir", "motion", "mic.front.raw"),
	          "/dir/motion-mic.front.raw.conf");
	EXPECT_EQ(hs_pw_source_settings_path("/dir", "motion", "audioDevice0.x"),
	          "/dir/motion-audioDevice0.x.conf");
}

TEST(PwSourceSettingsPath, IsCutAt4095Bytes)
{
	EXPECT_EQ(hs_pw_source_settings_path("/dir", "motion", std::string(5000, 'x').c_str()),
	          "/dir/motion-" + std::string(4095 - 12, 'x'));
}

TEST_F(PwSource, RecordKeepsWhatTheNodeIs)
{
	add(7, {{"node.name", "mic"}, {"media.class", "Audio/Sink"}});
	ASSERT_EQ(nodes().size(), 1u);
	EXPECT_EQ(nodes()[0]->id, 7u);
	EXPECT_EQ(nodes()[0]->name, "mic");
	EXPECT_EQ(nodes()[0]->media_class, "Audio/Sink");
	EXPECT_TRUE(nodes()[0]->registered);
}

/* Paths and interfaces are cut, and so are valid; the whole name is told as the node's id. */
TEST_F(PwSource, NameThatTheBusRefusesIsRepaired)
{
	motion = bed.add_plugin("motion");
	const std::string name = std::string{unprocessed} + std::string(300, 'x');
	add_named(7, name + "\xff");
	ASSERT_EQ(nodes().size(), 1u);
	EXPECT_EQ(nodes()[0]->name, name + "\ufffd");
	EXPECT_EQ(names_of(motion), texts{name + "\ufffd"});
}

TEST_F(PwSource, NodeWithoutANameIsNone)
{
	add(7, {{"media.class", "Audio/Source"}});
	add(8, {});
	EXPECT_TRUE(nodes().empty());
}

TEST_F(PwSource, NodeWithoutAClassHasNone)
{
	add(7, {{"node.name", "mic"}});
	ASSERT_EQ(nodes().size(), 1u);
	EXPECT_EQ(nodes()[0]->media_class, "");
}

TEST_F(PwSource, SortedDictionaryIsSearchedInHalves)
{
	const items sorted = {{"a", "1"}, {"b", "2"}, {"media.class", "Audio/Sink"}, {"node.name", "mic"}};
	add(1, sorted, SPA_DICT_FLAG_SORTED);
	EXPECT_EQ(nodes().back()->media_class, "Audio/Sink");

	const items unsorted = {{"media.class", "Audio/Sink"}, {"node.name", "mic"}, {"b", "2"}, {"a", "1"}};
	add(2, unsorted);
	EXPECT_EQ(nodes().back()->media_class, "Audio/Sink");

	/* Only a binary search misses a class that stands in the wrong half. */
	add(3, unsorted, SPA_DICT_FLAG_SORTED);
	EXPECT_EQ(nodes().back()->id, 3u);
	EXPECT_EQ(nodes().back()->media_class, "");
}

TEST_F(PwSource, NodeIsRegisteredOnce)
{
	motion = bed.add_plugin("motion");
	add_named(7, unprocessed);
	add_named(7, unprocessed);
	add_named(7, "AudioDevice1Input0.Unprocessed");
	add(8, {{"node.name", "AudioDevice2Input0.Unprocessed"},
	        {"node.name", "AudioDevice3Input0.Unprocessed"}});
	EXPECT_EQ(names_of(motion), (texts{unprocessed, "AudioDevice2Input0.Unprocessed"}));
	EXPECT_EQ(nodes().size(), 2u);
}

TEST_F(PwSource, NodeCountsAsRegisteredOnlyAfterEveryPluginWasTried)
{
	std::vector<bool> registered;
	add_two_plugins();
	bed.host.prepare = [&](hs_handmade_plugin &) { registered.push_back(nodes().back()->registered); };
	add_named(7, unprocessed);
	EXPECT_EQ(registered, (std::vector<bool>{false, false}));
	EXPECT_TRUE(nodes()[0]->registered);
}

TEST_F(PwSourceDeathTest, NoMemoryForARecordAborts)
{
	const auto add_without_memory = [] {
		hs_fail_call("new", 1, ENOMEM);
		add_named(7, "mic");
	};
	EXPECT_DEATH(add_without_memory(), "'source' failed at .*pw-source.cpp:[0-9]+ new_source\\(\\)");
}

TEST(PwSourceSelection, DefaultPatternTakesRawMicrophones)
{
	EXPECT_TRUE(selects("", "AudioDevice0Input0.Unprocessed"));
	EXPECT_TRUE(selects("", "AudioDevice12Input345.Unprocessed"));
	EXPECT_TRUE(selects("", "xAudioDevice0Input0.Unprocessed.foo"));
	EXPECT_FALSE(selects("", "AudioDevice0Input0"));
	EXPECT_FALSE(selects("", "AudioDevice0Input0XUnprocessed"));
	EXPECT_FALSE(selects("", "AudioDeviceInput0.Unprocessed"));
	EXPECT_FALSE(selects("", "AudioDevice0Input.Unprocessed"));
	EXPECT_FALSE(selects("", "AudioDevice0Output0.Unprocessed"));
}

TEST(PwSourceSelection, PatternOfAnyObjectEntryReplacesTheDefault)
{
	EXPECT_TRUE(selects("plugin.info = { node.pattern = \"^mic\" }", "mic"));
	EXPECT_TRUE(selects("whatever = { node.pattern = \"^mic\" }", "mic"));
	EXPECT_FALSE(selects("plugin.info = { node.pattern = \"^mic\" }", unprocessed));
}

TEST(PwSourceSelection, PatternThatStandsInNoObjectIsNone)
{
	EXPECT_FALSE(selects("node.pattern = \"^mic\"", "mic"));
	EXPECT_TRUE(selects("node.pattern = \"^mic\"", unprocessed));
}

TEST(PwSourceSelection, FirstPatternOfTheFileCounts)
{
	EXPECT_TRUE(selects("b = { node.pattern = mic }\na = { node.pattern = ear }", "mic"));
	EXPECT_FALSE(selects("b = { node.pattern = mic }\na = { node.pattern = ear }", "ear"));
}

TEST_F(PwSource, BrokenPatternIsWarnedOfForEachNode)
{
	motion = bed.add_plugin("motion", "plugin.info = { node.pattern = \"(\" }");
	const hs_log_capture capture;
	add_named(1, unprocessed);
	add_named(2, "b");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not compile pattern"), 2u) << capture.text();
	EXPECT_TRUE(names_of(motion).empty());
	EXPECT_EQ(nodes().size(), 2u);
}

TEST_F(PwSource, PluginThatListsItsNodesRunsOnThoseOnly)
{
	motion = bed.add_plugin(
	        "motion", "source.0 = { node.name = AudioDevice1Input0.Unprocessed, audio.rate = 8000 }\n"
	                  "source.1 = { node.name = mic, audio.rate = 16000 }");
	add_named(1, unprocessed);
	add_named(2, "AudioDevice1Input0.Unprocessed");
	add_named(3, "mic");
	ASSERT_EQ(names_of(motion), (texts{"AudioDevice1Input0.Unprocessed", "mic"}));
	EXPECT_STREQ(pw_properties_get(sources_of(motion)[0]->stream_config, "rate"), "8000");
	EXPECT_STREQ(pw_properties_get(sources_of(motion)[1]->stream_config, "rate"), "16000");
}

TEST_F(PwSource, PatternIsNotEvenCompiledForAPluginThatListsItsNodes)
{
	motion = bed.add_plugin("motion",
	                        "source.0 = { node.name = mic }\nplugin.info = { node.pattern = \"(\" }");
	const hs_log_capture capture;
	add_named(1, unprocessed);
	add_named(2, "mic");
	EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_WARN, "Could not compile pattern")) << capture.text();
	EXPECT_EQ(names_of(motion), texts{"mic"});
}

TEST_F(PwSource, ListedNodeWithoutANameNeitherSelectsNorSuppresses)
{
	motion = bed.add_plugin("motion", "source.0 = { audio.rate = 8000 }");
	add_named(1, unprocessed);
	add_named(2, "mic");
	ASSERT_EQ(names_of(motion), texts{unprocessed});
	EXPECT_EQ(sources_of(motion)[0]->stream_config, nullptr);
}

TEST_F(PwSource, SettingsFileIsNamedAfterPluginAndDevice)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	EXPECT_NE(hs_read_text(bed.settings + "/motion-AudioDevice0Input0.conf"), "");
}

TEST_F(PwSource, EachSelectingPluginHasOneSourceOnTheNode)
{
	add_two_plugins();
	add_named(1, unprocessed);
	EXPECT_EQ(names_of(motion), texts{unprocessed});
	EXPECT_EQ(names_of(sound), texts{unprocessed});
	EXPECT_EQ(bed.host.types,
	          (texts{"Spa:Pointer:Interface:HearSense:MOTION", "Spa:Pointer:Interface:HearSense:SOUND"}));
	EXPECT_EQ(sources_of(motion)[0]->pcm->node, nodes()[0]);
}

TEST_F(PwSource, PluginThatFailsLeavesTheOthersAlone)
{
	add_two_plugins();
	bed.host.prepare = [this](hs_handmade_plugin &p) {
		if (bed.host.plugins.size() == 1)
			p.interface.version = 1;
	};
	const hs_log_capture capture;
	add_named(1, unprocessed);
	EXPECT_TRUE(names_of(motion).empty());
	EXPECT_EQ(names_of(sound), texts{unprocessed});
	EXPECT_TRUE(nodes()[0]->registered);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 1u) << capture.text();
	EXPECT_EQ(announced(bed.main_bus), (texts{std::string{"+"} + chain_path, std::string{"+"} + source_path,
						  std::string{"+"} + mover_path}));
}

TEST_F(PwSource, AnnouncesTheChainTheSourceAndThenTheInstanceOnEveryBus)
{
	motion = bed.add_plugin("motion");
	hs_bed_bus &first = bed.add_private_bus();
	hs_bed_bus &second = bed.add_private_bus();
	const hs_log_capture capture;
	add_named(1, unprocessed);
	const texts expected = {std::string{"+"} + chain_path, std::string{"+"} + source_path,
	                        std::string{"+"} + mover_path};
	EXPECT_EQ(announced(bed.main_bus), expected);
	EXPECT_EQ(announced(first), expected);
	EXPECT_EQ(announced(second), expected);
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_EQ(count_of(chain_path), 1u);
	EXPECT_EQ(count_of(source_path), 1u);
}

TEST_F(PwSource, MainBusComesFirstThenThePrivateOnesAndThePluginsInterfacesLast)
{
	motion = bed.add_plugin("motion", "plugin.info = { node.pattern = Mic }");
	bed.add_private_bus();
	bed.add_private_bus();
	const hs_log_capture capture;
	add_named(1, "Mic-1..Raw");
	texts errors;
	for (const hs_log_capture::line &line : capture.lines()) {
		if (line.level == SPA_LOG_LEVEL_ERROR && line.text.starts_with("Could not set up D-Bus "))
			errors.push_back(line.text.substr(std::strlen("Could not set up D-Bus ")));
	}
	std::erase_if(errors, [](const std::string &error) { return error.starts_with("Plugin Instance "); });
	const std::string node = " for source 'Mic-1..Raw'";
	EXPECT_EQ(errors,
		  (texts{"Audio Chain interface on system bus" + node, "Source interface on system bus" + node,
			 "Audio Chain interface on private bus" + node, "Source interface on private bus" + node,
			 "Audio Chain interface on private bus" + node, "Source interface on private bus" + node,
			 "plugin interfaces" + node}));
}

TEST_F(PwSource, ChainThatCanNotBePublishedIsAnErrorButTheSourceStays)
{
	motion = bed.add_plugin("motion", "plugin.info = { node.pattern = Mic }");
	bed.add_private_bus();
	const hs_log_capture capture;
	add_named(1, "Mic-1.Raw");
	for (const char *bus : {"system", "private"})
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR,
		                        "Could not set up D-Bus Audio Chain interface on " +
		                                std::string{bus} + " bus for source 'Mic-1.Raw'"),
		          1u)
		        << capture.text();
	ASSERT_EQ(names_of(motion), texts{"Mic-1.Raw"});
	EXPECT_TRUE(sources_of(motion)[0]->holds_paths);
	EXPECT_EQ(
	        bed.main_bus.client.get("/com/orvel/HearSense/Mic_1/Raw", "com.orvel.HearSense.Source", "Id"),
	        "s \"Mic-1.Raw\"");
}

TEST_F(PwSource, SourceThatCanNotBePublishedIsAnErrorAndHoldsNoPaths)
{
	motion = bed.add_plugin("motion", "plugin.info = { node.pattern = Mic }");
	bed.add_private_bus();
	const hs_log_capture capture;
	add_named(1, "Mic..Raw");
	for (const char *bus : {"system", "private"})
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not set up D-Bus Source interface on " +
		                                                     std::string{bus} +
		                                                     " bus for source 'Mic..Raw'"),
		          1u)
		        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR,
	                        "Could not set up D-Bus plugin interfaces for source 'Mic..Raw'"),
	          1u)
	        << capture.text();
	ASSERT_EQ(names_of(motion), texts{"Mic..Raw"});
	EXPECT_FALSE(sources_of(motion)[0]->holds_paths);

	hs_pw_source_unregister_source(1);
	EXPECT_TRUE(names_of(motion).empty());
	EXPECT_EQ(count_of("/com/orvel/HearSense/Mic"), UINT32_MAX);
}

TEST_F(PwSource, RemovingAnUnknownIdDoesNothing)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	announced(bed.main_bus);
	hs_pw_source_unregister_source(2);
	EXPECT_EQ(nodes().size(), 1u);
	EXPECT_EQ(names_of(motion).size(), 1u);
	EXPECT_TRUE(announced(bed.main_bus).empty());
}

TEST_F(PwSource, RemovingANodeTakesItsObjectsOffEveryBus)
{
	motion = bed.add_plugin("motion");
	hs_bed_bus &bus = bed.add_private_bus();
	add_named(1, unprocessed);
	announced(bed.main_bus);
	announced(bus);
	const hs_log_capture capture;
	hs_pw_source_unregister_source(1);
	const texts expected = {std::string{"-"} + mover_path, std::string{"-"} + chain_path,
	                        std::string{"-"} + source_path};
	EXPECT_EQ(announced(bed.main_bus), expected);
	EXPECT_EQ(announced(bus), expected);
	EXPECT_TRUE(spa_list_is_empty(&bed.context->dbus_objects));
	EXPECT_TRUE(names_of(motion).empty());
	EXPECT_TRUE(nodes().empty());
	EXPECT_EQ(bed.host.n_cleared, 1u);
	EXPECT_EQ(count_of(chain_path), 0u);
	EXPECT_EQ(count_of(source_path), 0u);
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG,
	                        "destroy pw-source AudioDevice0Input0.Unprocessed with id 1"),
	          1u)
	        << capture.text();
}

TEST_F(PwSource, StreamGoesBeforeTheObjects)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	bed.settle();
	hs_source *source = sources_of(motion)[0];
	source->is_initialized = true;
	announced(bed.main_bus);
	bool objects_were_there = false;
	texts announced_by_then;
	bed.host.plugins[0]->at_call = [&](const std::string &method) {
		objects_were_there = method == "deinit" && !spa_list_is_empty(&bed.context->dbus_objects);
		announced_by_then = announced(bed.main_bus);
	};
	hs_pw_source_unregister_source(1);
	EXPECT_TRUE(objects_were_there);
	EXPECT_EQ(announced_by_then, texts{});
	EXPECT_EQ(announced(bed.main_bus).size(), 3u);
}

TEST_F(PwSource, SharedPathsAreAnnouncedAsRemovedByTheLastSource)
{
	add_two_plugins();
	add_named(1, unprocessed);
	EXPECT_EQ(count_of(chain_path), 2u);
	EXPECT_EQ(announced(bed.main_bus),
	          (texts{std::string{"+"} + chain_path, std::string{"+"} + source_path,
	                 std::string{"+"} + mover_path, std::string{"+"} + hearer_path}));
	hs_pw_source_unregister_source(1);
	EXPECT_EQ(announced(bed.main_bus),
	          (texts{std::string{"-"} + mover_path, std::string{"-"} + hearer_path,
	                 std::string{"-"} + chain_path, std::string{"-"} + source_path}));
	EXPECT_TRUE(spa_list_is_empty(&bed.context->dbus_objects));
}

TEST_F(PwSource, ChainOutlivesTheNodeThatBroughtIt)
{
	motion = bed.add_plugin("motion", "plugin.info = { node.pattern = AudioDevice0 }");
	add_named(1, unprocessed);
	add_named(2, "AudioDevice0Input0.Other");
	announced(bed.main_bus);
	hs_pw_source_unregister_source(1);
	EXPECT_EQ(announced(bed.main_bus),
	          (texts{std::string{"-"} + mover_path, std::string{"-"} + source_path}));
	EXPECT_EQ(bed.main_bus.client.get(chain_path, "com.orvel.HearSense.AudioChain", "Id"),
	          "s \"AudioDevice0Input0\"");
	hs_pw_source_unregister_source(2);
	EXPECT_EQ(announced(bed.main_bus),
	          (texts{"-/com/orvel/HearSense/AudioDevice0Input0/Other/Mover",
	                 std::string{"-"} + chain_path, "-/com/orvel/HearSense/AudioDevice0Input0/Other"}));
}

TEST_F(PwSource, NodeThatComesBackIsPublishedAnew)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	hs_pw_source_unregister_source(1);
	announced(bed.main_bus);
	add_named(5, unprocessed);
	EXPECT_EQ(announced(bed.main_bus),
	          (texts{std::string{"+"} + chain_path, std::string{"+"} + source_path,
	                 std::string{"+"} + mover_path}));
	EXPECT_EQ(count_of(chain_path), 1u);
}

TEST_F(PwSource, OfTwoNodesWithOneNameTheRightSourceGoes)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	add_named(2, unprocessed);
	ASSERT_EQ(sources_of(motion).size(), 2u);
	hs_source *first = sources_of(motion)[0];
	EXPECT_TRUE(first->holds_paths);
	EXPECT_FALSE(sources_of(motion)[1]->holds_paths);
	EXPECT_EQ(count_of(chain_path), 1u);

	hs_pw_source_unregister_source(2);
	ASSERT_EQ(sources_of(motion), std::vector<hs_source *>{first});
	EXPECT_EQ(first->pcm->node, nodes()[0]);
	EXPECT_EQ(count_of(chain_path), 1u);

	hs_pw_source_unregister_source(1);
	EXPECT_TRUE(sources_of(motion).empty());
	EXPECT_EQ(count_of(chain_path), 0u);
}

TEST_F(PwSource, OfTwoNodesWithOneNameTheFirstMayGoFirst)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	add_named(2, unprocessed);
	hs_source *second = sources_of(motion)[1];
	hs_pw_source_unregister_source(1);
	ASSERT_EQ(sources_of(motion), std::vector<hs_source *>{second});
	EXPECT_EQ(second->pcm->node, nodes()[0]);
	hs_pw_source_unregister_source(2);
	EXPECT_TRUE(sources_of(motion).empty());
	EXPECT_TRUE(spa_list_is_empty(&bed.context->dbus_objects));
}

TEST_F(PwSource, SourceOfTheSameNameForgetsANodeThatGoes)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	hs_source *source = sources_of(motion)[0];
	/* A stray source that reads the node but does not belong to it. */
	source->name = "another";
	hs_pw_source_unregister_source(1);
	ASSERT_EQ(sources_of(motion), std::vector<hs_source *>{source});
	EXPECT_EQ(source->pcm->node, nullptr);
}

TEST_F(PwSource, SourceBelongsToTheNodeThatItsDefinitionNames)
{
	motion = bed.add_plugin("motion", "source.0 = { node.name = mic }");
	add_named(1, "mic");
	sources_of(motion)[0]->name = "another";
	hs_pw_source_unregister_source(1);
	EXPECT_TRUE(sources_of(motion).empty());
}

TEST_F(PwSource, RemovalThatCanNotBeAnnouncedIsWarnedOf)
{
	motion = bed.add_plugin("motion", "plugin.info = { node.pattern = Mic }");
	bed.add_private_bus();
	add_named(1, "Mic-1.Raw");
	ASSERT_TRUE(sources_of(motion)[0]->holds_paths);
	const hs_log_capture capture;
	hs_pw_source_unregister_source(1);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Could not emit object removed on system bus: Invalid argument"),
	          1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Could not emit object removed on private bus: Invalid argument"),
	          1u)
	        << capture.text();
	EXPECT_LT(capture.text().find("removed on system bus"), capture.text().find("removed on private bus"));
	EXPECT_TRUE(sources_of(motion).empty());
}

TEST_F(PwSource, MemberWithoutASourceIsWarnedOfUnlessItIsThePrivateBus)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	for (const char *name : {"Orphan", "GetPrivateBus"}) {
		auto *dbus = new hs_dbus{};
		dbus->name = name;
		dbus->context = bed.context;
		spa_list_init(&dbus->owner_link);
		spa_list_prepend(&bed.context->dbus_objects, &dbus->link);
	}
	const hs_log_capture capture;
	hs_pw_source_unregister_source(1);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "dbus has no source: Orphan"), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 1u) << capture.text();
}

TEST_F(PwSource, SourceWithoutAnObjectPathIsSimplyDestroyed)
{
	motion = bed.add_plugin("motion");
	add_named(1, unprocessed);
	announced(bed.main_bus);
	hs_source *source = sources_of(motion)[0];
	hs_dbus_remove_source(source);
	source->object_path.clear();
	hs_pw_source_unregister_source(1);
	EXPECT_TRUE(sources_of(motion).empty());
	EXPECT_TRUE(announced(bed.main_bus).empty());
	EXPECT_EQ(count_of(chain_path), 1u);
}

TEST_F(PwSource, DestroyingUnlinksAndSaysSo)
{
	add_named(7, "mic");
	char expected[96];
	std::snprintf(expected, sizeof(expected), "%p: destroy pw-source mic with id 7",
	              static_cast<void *>(nodes()[0]));
	const hs_log_capture capture;
	hs_pw_source_destroy(nodes()[0]);
	hs_pw_source_destroy(nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, expected), 1u) << capture.text();
	EXPECT_EQ(capture.lines().size(), 1u) << capture.text();
	EXPECT_TRUE(nodes().empty());
}

TEST_F(PwSource, IdsArePrintedWithASign)
{
	add_named(UINT32_MAX, "mic");
	const hs_log_capture capture;
	hs_pw_source_destroy(nodes()[0]);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "destroy pw-source mic with id -1"), 1u) << capture.text();
}
