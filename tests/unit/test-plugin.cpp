#include "plugin.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "daemon-bed.hpp"
#include "failing-new.hpp"
#include "pcm.hpp"
#include "pod.hpp"
#include "source.hpp"

extern "C" {
pw_properties *__real_pw_properties_new_string(const char *text);
char *__real_strdup(const char *text);

pw_properties *__wrap_pw_properties_new_string(const char *text)
{
	return hs_must_fail("pw_properties_new_string") ? nullptr : __real_pw_properties_new_string(text);
}

char *__wrap_strdup(const char *text)
{
	return hs_must_fail("strdup") ? nullptr : __real_strdup(text);
}
}

namespace {

using texts = std::map<std::string, std::string>;

texts texts_of(const pw_properties *table)
{
	texts result;
	const spa_dict_item *item;
	spa_dict_for_each(item, &table->dict)
		result[item->key] = item->value;
	return result;
}

hs_plugin *load(hs_daemon_bed &bed, const std::string &path)
{
	return hs_plugin_new(bed.context, path.c_str(), bed.schemas.c_str(), bed.settings.c_str());
}

/** A handle and its interface, taken back at the end. */
struct loaded {
	explicit loaded(hs_plugin *plugin) : ok{hs_plugin_load_spa_handle(plugin, &handle, &interface)}
	{
	}

	~loaded()
	{
		hs_plugin_unload_spa_handle(handle, interface);
	}

	loaded(const loaded &) = delete;
	loaded &operator=(const loaded &) = delete;

	spa_handle *handle = nullptr;
	hs_plugin_interface *interface = nullptr;
	bool ok;
};

/** A plug-in record with one source, made by hand: what the read-only getters look at. */
struct PluginTexts : testing::Test {
	PluginTexts()
	{
		spa_list_init(&plugin.sources);
		plugin.schema_path = "/schemas";
		source.interface = &handmade.interface;
		spa_list_append(&plugin.sources, &source.link);
		first.name = "Level";
		first.nice_name = "Sound level";
		second.name = "Alarm";
		second.nice_name = "Alarm bell";
		second.topics = second_topics;
		second.n_topics = std::size(second_topics);
		handmade.interface.events = events;
		handmade.interface.n_events = std::size(events);
	}

	std::string topic(const char *interface, int selector) const
	{
		return hs_plugin_get_topic(&plugin, interface, static_cast<hs_plugin_topic_selector>(selector));
	}

	hs_plugin plugin{};
	hs_source source{};
	hs_handmade_plugin handmade;
	hs_event_topic topics[3] = {
		{.name = "n0", .nice_name = "Nice 0", .namespace_ = "space0"},
		{.name = "n1", .nice_name = "Nice 1", .namespace_ = "space1"},
		{.name = "n2", .nice_name = "Nice 2", .namespace_ = "space2"},
	};
	const hs_event_topic *second_topics[2] = {&topics[0], &topics[1]};
	hs_event_info first{};
	hs_event_info second{};
	const hs_event_info *events[3] = {&first, nullptr, &second};
};

constexpr char level[] = "com.orvel.HearSense.Events.Mover.Level";
constexpr char alarm_bell[] = "com.orvel.HearSense.Events.Mover.Alarm";
constexpr char unknown[] = "com.orvel.HearSense.Events.Mover.Nothing";

} // namespace

static_assert(sizeof(hs_stream_info) == 656);
static_assert(offsetof(hs_stream_info, source_name) == 272);
static_assert(sizeof(hs_plugin_interface) == 96);
static_assert(offsetof(hs_plugin_interface, events) == 64);
static_assert(offsetof(hs_plugin_interface, notify_event) == 80);
static_assert(offsetof(hs_plugin_interface, host_data) == 88);
static_assert(offsetof(hs_plugin_methods, init) == 8);
static_assert(offsetof(hs_plugin_methods, process) == 72);
static_assert(offsetof(hs_event_info, isDeprecated) == 16);
static_assert(offsetof(hs_event_info, topics) == 24);
static_assert(offsetof(hs_event_info, is_public) == 40);
static_assert(offsetof(hs_event_info, data_types) == 44);
static_assert(offsetof(hs_event_topic, namespace_) == 16);

TEST(Plugin, TakesItsNamesFromTheConfigurationFile)
{
	hs_daemon_bed bed;
	const hs_plugin *plugin = bed.add_plugin("motion");
	ASSERT_NE(plugin, nullptr);
	EXPECT_STREQ(plugin->name, "motion");
	EXPECT_STREQ(plugin->factory_name, "hear-sense.motion");
	EXPECT_STREQ(plugin->interface_type, "Spa:Pointer:Interface:HearSense:MOTION");
	EXPECT_EQ(plugin->schema_path, bed.schemas.c_str());
	EXPECT_EQ(plugin->settings_path, bed.settings.c_str());
	EXPECT_EQ(plugin->context, bed.context);
}

TEST(Plugin, KeepsTheDotsBeforeTheLastOne)
{
	hs_daemon_bed bed;
	EXPECT_STREQ(bed.add_plugin("motion.v-2")->name, "motion.v-2");
}

TEST(Plugin, CutsItsNameAt63Characters)
{
	hs_daemon_bed bed;
	const hs_plugin *plugin = bed.add_plugin(std::string(70, 'x'));
	EXPECT_EQ(plugin->name, std::string(63, 'x'));
	EXPECT_EQ(plugin->factory_name, "hear-sense." + std::string(63, 'x'));
	EXPECT_EQ(plugin->interface_type, "Spa:Pointer:Interface:HearSense:" + std::string(63, 'X'));
}

TEST(Plugin, FileThatDoesNotEndInConfGivesThePrintedNullAsName)
{
	hs_daemon_bed bed;
	for (const char *name : {"motion", "motion.conf.bak", "motion.CONF", "motion.conf2"}) {
		const std::string path = bed.directory / name;
		hs_write_text(path, "a = 1\n");
		const hs_plugin *plugin = load(bed, path);
		ASSERT_NE(plugin, nullptr) << name;
		EXPECT_STREQ(plugin->name, "(null)") << name;
	}
}

TEST(Plugin, DotsOfItsFolderAreNoPartOfItsName)
{
	hs_daemon_bed bed;
	std::filesystem::create_directory(bed.directory / "some.conf");
	hs_write_text(bed.directory / "some.conf/sound.conf", "a = 1\n");
	EXPECT_STREQ(load(bed, bed.directory / "some.conf/sound.conf")->name, "sound");
}

TEST(Plugin, FileOfTheWorkingFolderNeedsNoSlash)
{
	hs_daemon_bed bed;
	bed.write_conf("motion");
	const std::filesystem::path before = std::filesystem::current_path();
	std::filesystem::current_path(bed.directory / "confs");
	const hs_plugin *plugin = load(bed, "motion.conf");
	std::filesystem::current_path(before);
	ASSERT_NE(plugin, nullptr);
	EXPECT_STREQ(plugin->name, "motion");
}

TEST(PluginDeathTest, NullArgumentsAbort)
{
	hs_daemon_bed bed;
	const std::string path = bed.write_conf("motion");
	const char *conf = path.c_str();
	EXPECT_DEATH(hs_plugin_new(nullptr, conf, "s", "t"),
		     "'context' failed at .*plugin.cpp:[0-9]+ hs_plugin_new\\(\\)");
	EXPECT_DEATH(hs_plugin_new(bed.context, nullptr, "s", "t"), "'config_file' failed at ");
	EXPECT_DEATH(hs_plugin_new(bed.context, conf, nullptr, "t"), "'schema_path' failed at ");
	EXPECT_DEATH(hs_plugin_new(bed.context, conf, "s", nullptr), "'settings_path' failed at ");
}

TEST(PluginDeathTest, NoMemoryAborts)
{
	hs_daemon_bed bed;
	const std::string path = bed.write_conf("motion");
	hs_plugin *plugin = load(bed, path);
	const auto load_without_memory = [&](const char *function) {
		hs_fail_call(function, 1, ENOMEM);
		load(bed, path);
	};
	const auto load_handle_without_memory = [plugin] {
		hs_fail_call("new", 1, ENOMEM);
		const loaded unused(plugin);
	};
	EXPECT_DEATH(load_without_memory("new"), "'plugin' failed at .*plugin.cpp:[0-9]+ hs_plugin_new\\(\\)");
	EXPECT_DEATH(load_without_memory("pw_properties_new_string"),
		     "'config' failed at .*plugin.cpp:[0-9]+ new_config\\(\\)");
	EXPECT_DEATH(load_without_memory("strdup"),
		     "'short_name_uc' failed at .*plugin.cpp:[0-9]+ load_spa_plugin\\(\\)");
	EXPECT_DEATH(load_handle_without_memory(),
		     "'data' failed at .*plugin.cpp:[0-9]+ hs_plugin_load_spa_handle\\(\\)");
}

TEST(Plugin, FileThatCanNotBeReadGivesNoRecord)
{
	hs_daemon_bed bed;
	const std::string path = bed.directory / "nothing.conf";
	const hs_log_capture capture;
	EXPECT_EQ(load(bed, path), nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not load plugin config file: " + path), 1u)
		<< capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, ": destroy plugin ''"), 1u) << capture.text();
	EXPECT_TRUE(spa_list_is_empty(&bed.context->plugins));
}

TEST(Plugin, KeepsEveryKeyOfTheFile)
{
	hs_daemon_bed bed;
	const hs_plugin *plugin = bed.add_plugin("motion", "plugin.info = { a = 1 }\nother = text");
	const texts props = texts_of(plugin->props);
	EXPECT_EQ(props.size(), 3u);
	EXPECT_EQ(props.at("plugin.info"), "{ a = 1 }");
	EXPECT_EQ(props.at("other"), "text");
	EXPECT_EQ(props.count("plugin.config"), 1u);
}

TEST(Plugin, ConfigIsThePluginsOwnPartAndThePreviewFlag)
{
	hs_daemon_bed bed;
	bed.context->preview_enabled = true;
	texts config =
		texts_of(bed.add_plugin("motion", "plugin.info = { a = 1 }", "depth = 3 preview = maybe")->config);
	config.erase(HS_LIBRARY_HOST_KEY);
	EXPECT_EQ(config, (texts{{"depth", "3"}, {"preview", "true"}}));
}

TEST(Plugin, ConfigWithoutThePluginsPartHoldsOnlyThePreviewFlag)
{
	hs_daemon_bed bed;
	const std::string path = bed.directory / "sound.conf";
	hs_write_text(path, "plugin.info = { a = 1 }\n");
	EXPECT_EQ(texts_of(load(bed, path)->config), (texts{{"preview", "false"}}));
}

TEST(Plugin, ConfigIsFrozenAtCreation)
{
	hs_daemon_bed bed;
	const hs_plugin *plugin = bed.add_plugin("motion");
	bed.context->preview_enabled = true;
	EXPECT_EQ(texts_of(plugin->config).at("preview"), "false");
}

TEST(Plugin, ContextListsPluginsInOrderOfCreation)
{
	hs_daemon_bed bed;
	hs_plugin *sound = bed.add_plugin("sound");
	hs_plugin *motion = bed.add_plugin("motion");
	EXPECT_EQ(spa_list_first(&bed.context->plugins, hs_plugin, link), sound);
	EXPECT_EQ(spa_list_last(&bed.context->plugins, hs_plugin, link), motion);
}

TEST(Plugin, LibraryThatCanNotBeAddedIsAnErrorButTheRecordStays)
{
	hs_daemon_bed bed;
	const hs_log_capture capture;
	const hs_plugin *plugin = bed.add_plugin("a(b");
	ASSERT_NE(plugin, nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not add spa lib 'libspa-hs-a(b': "), 1u) << capture.text();
	EXPECT_EQ(spa_list_first(&bed.context->plugins, hs_plugin, link), plugin);
}

TEST(Plugin, NameThatBeginsWithAnEarlierOneIsWarnedOf)
{
	hs_daemon_bed bed;
	const hs_log_capture capture;
	bed.add_plugin("motion");
	bed.add_plugin("sound");
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	bed.add_plugin("motion2");
	EXPECT_EQ(capture.complaints(), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "motion2.conf"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "that of motion.conf"), 1u) << capture.text();
}

TEST(Plugin, DestroyingUnlinksAndSaysSo)
{
	hs_daemon_bed bed;
	hs_plugin *motion = bed.add_plugin("motion");
	hs_plugin *sound = bed.add_plugin("sound");
	char expected[64];
	std::snprintf(expected, sizeof(expected), "%p: destroy plugin 'motion'", static_cast<void *>(motion));
	const hs_log_capture capture;
	hs_plugin_destroy(motion);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, expected), 1u) << capture.text();
	EXPECT_EQ(spa_list_first(&bed.context->plugins, hs_plugin, link), sound);
	EXPECT_EQ(spa_list_last(&bed.context->plugins, hs_plugin, link), sound);
}

TEST(Plugin, DestroyingNullDoesNothing)
{
	const hs_log_capture capture;
	hs_plugin_destroy(nullptr);
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST(Plugin, DestroyingTakesItsSourcesAlong)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	hs_pw_source node{};
	const std::string path = bed.settings + "/x.conf";
	ASSERT_NE(hs_source_new(plugin, "a", nullptr, path.c_str(), &node), nullptr);
	ASSERT_NE(hs_source_new(plugin, "b", nullptr, path.c_str(), &node), nullptr);
	EXPECT_EQ(bed.host.n_handles, 2u);
	hs_plugin_destroy(plugin);
	EXPECT_EQ(bed.host.n_cleared, 2u);
	EXPECT_TRUE(spa_list_is_empty(&bed.context->plugins));
}

TEST(Plugin, DestroyingIsToldBeforeItsSourcesGo)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	hs_pw_source node{};
	ASSERT_NE(hs_source_new(plugin, "a", nullptr, (bed.settings + "/x.conf").c_str(), &node), nullptr);
	const hs_log_capture capture;
	size_t n_told = 0;
	bed.host.at_clear = [&](const hs_handmade_plugin *) {
		n_told = capture.count(SPA_LOG_LEVEL_DEBUG, ": destroy plugin 'motion'");
		EXPECT_FALSE(spa_list_is_empty(&bed.context->plugins));
	};
	hs_plugin_destroy(plugin);
	EXPECT_EQ(n_told, 1u) << capture.text();
}

TEST(Plugin, LoadsTheLibraryOfItsNameAndGivesItTheConfig)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion", "", "depth = 3");
	const hs_log_capture capture;
	const loaded motion(plugin);
	ASSERT_TRUE(motion.ok) << capture.text();
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	ASSERT_EQ(bed.host.plugins.size(), 1u);
	EXPECT_EQ(motion.interface, &bed.host.plugins[0]->interface);
	EXPECT_NE(motion.handle, nullptr);
	EXPECT_EQ(bed.host.types, std::vector<std::string>{"Spa:Pointer:Interface:HearSense:MOTION"});
	const texts config(bed.host.config.begin(), bed.host.config.end());
	EXPECT_EQ(config.at("depth"), "3");
	EXPECT_EQ(config.at("preview"), "false");
}

TEST(Plugin, MissingLibraryIsAnErrorWithTheFactorysName)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("absent");
	const hs_log_capture capture;
	const loaded absent(plugin);
	EXPECT_FALSE(absent.ok);
	EXPECT_EQ(absent.handle, nullptr);
	EXPECT_EQ(absent.interface, nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR,
				"Could not load spa handle for 'hear-sense.absent': No such file or directory"),
		  1u)
		<< capture.text();
}

TEST(Plugin, HandleWhoseInitFailsIsAnError)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	bed.host.init_result = -EIO;
	const hs_log_capture capture;
	EXPECT_FALSE(loaded(plugin).ok);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not load spa handle for 'hear-sense.motion': "), 1u)
		<< capture.text();
	EXPECT_TRUE(bed.host.types.empty());
}

TEST(Plugin, HandleWithoutTheInterfaceIsUnloaded)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	bed.host.has_interface = false;
	const hs_log_capture capture;
	bed.host.at_clear = [&](const hs_handmade_plugin *) { EXPECT_EQ(capture.complaints(), 0u) << capture.text(); };
	const loaded motion(plugin);
	EXPECT_FALSE(motion.ok);
	EXPECT_EQ(motion.handle, nullptr);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR,
				"Plugin interface 'Spa:Pointer:Interface:HearSense:MOTION' not found: "),
		  1u)
		<< capture.text();
	EXPECT_EQ(bed.host.n_cleared, 1u);
}

TEST(Plugin, InterfaceCountsEvenWhereItsQueryFails)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	bed.host.get_interface_result = -EIO;
	EXPECT_TRUE(loaded(plugin).ok);
}

TEST(Plugin, InterfaceOfVersion1IsRefusedAndItsHandleUnloaded)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	for (const uint32_t version : {0u, 1u}) {
		bed.host.prepare = [version](hs_handmade_plugin &made) { made.interface.version = version; };
		bed.host.n_cleared = 0;
		const hs_log_capture capture;
		size_t n_errors_at_clear = 0;
		bed.host.at_clear = [&](const hs_handmade_plugin *) {
			n_errors_at_clear = capture.count(SPA_LOG_LEVEL_ERROR);
		};
		const loaded motion(plugin);
		EXPECT_FALSE(motion.ok);
		EXPECT_EQ(motion.handle, nullptr);
		EXPECT_EQ(motion.interface, nullptr);
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR,
					"Can not load plugin 'Motion Detector': Plugin interface version '" +
						std::to_string(version) +
						"' not supported. Minimum required version: 2"),
			  1u)
			<< capture.text();
		EXPECT_EQ(bed.host.n_cleared, 1u);
		EXPECT_EQ(n_errors_at_clear, 1u);
		EXPECT_EQ(bed.host.plugins.back()->interface.host_data, nullptr);
	}
}

TEST(Plugin, RefusedInterfaceMayHaveNoName)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	bed.host.prepare = [](hs_handmade_plugin &made) {
		made.interface.version = 1;
		made.interface.name = nullptr;
	};
	const hs_log_capture capture;
	EXPECT_FALSE(loaded(plugin).ok);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Can not load plugin '(null)': "), 1u) << capture.text();
}

TEST(Plugin, InterfacesFromVersion2OnAreTaken)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	for (const uint32_t version : {2u, 3u, 4u}) {
		bed.host.prepare = [version](hs_handmade_plugin &made) { made.interface.version = version; };
		EXPECT_TRUE(loaded(plugin).ok) << version;
	}
}

TEST(Plugin, EachHandleHasItsOwnInterfaceAndHostBlock)
{
	hs_daemon_bed bed;
	hs_plugin *plugin = bed.add_plugin("motion");
	const loaded a(plugin);
	const loaded b(plugin);
	ASSERT_TRUE(a.ok && b.ok);
	EXPECT_NE(a.handle, b.handle);
	EXPECT_NE(a.interface, b.interface);
	EXPECT_NE(a.interface->notify_event, nullptr);
	EXPECT_NE(a.interface->host_data, nullptr);
	EXPECT_NE(a.interface->host_data, b.interface->host_data);
	hs_source *none;
	std::memcpy(&none, a.interface->host_data, sizeof(none));
	EXPECT_EQ(none, nullptr);
}

TEST(Plugin, HostBlockHoldsTheSource)
{
	hs_daemon_bed bed;
	const loaded motion(bed.add_plugin("motion"));
	hs_source source{};
	hs_plugin_set_source(motion.interface, &source);
	hs_source *held;
	std::memcpy(&held, motion.interface->host_data, sizeof(held));
	EXPECT_EQ(held, &source);
}

TEST(Plugin, UnloadsWhatIsThere)
{
	hs_daemon_bed bed;
	hs_plugin_unload_spa_handle(nullptr, nullptr);

	spa_handle *handle;
	hs_plugin_interface *interface;
	ASSERT_TRUE(hs_plugin_load_spa_handle(bed.add_plugin("motion"), &handle, &interface));
	hs_plugin_unload_spa_handle(nullptr, interface);
	EXPECT_EQ(interface->host_data, nullptr);
	EXPECT_EQ(bed.host.n_cleared, 0u);
	hs_plugin_unload_spa_handle(handle, nullptr);
	EXPECT_EQ(bed.host.n_cleared, 1u);
}

TEST(Plugin, NotificationFetchesTheEventWithoutForce)
{
	hs_daemon_bed bed;
	bed.host.prepare = [](hs_handmade_plugin &made) {
		made.events = {hs_describe_int("A", 1), hs_describe_int("B", 2)};
	};
	const loaded motion(bed.add_plugin("motion"));
	ASSERT_TRUE(motion.ok);
	hs_handmade_plugin &made = *bed.host.plugins[0];

	hs_pcm pcm{};
	hs_source source{};
	source.events = {{1, {}, "B", hs_schema_type_by_name("int32"), "", "0"}};
	source.interface = motion.interface;
	source.pcm = &pcm;
	pcm.source = &source;
	hs_plugin_set_source(motion.interface, &source);

	made.interface.notify_event(motion.interface, 1);
	EXPECT_EQ(made.calls, std::vector<std::string>{"get_event"});
	EXPECT_EQ(source.events[0].value, "2");
}

TEST(Plugin, NotificationFromWithinGetEventIsDropped)
{
	hs_daemon_bed bed;
	bed.host.prepare = [](hs_handmade_plugin &p) { p.events = {hs_describe_int("A", 1)}; };
	const loaded motion(bed.add_plugin("motion"));
	hs_handmade_plugin &made = *bed.host.plugins[0];
	hs_pcm pcm{};
	hs_source source{};
	source.interface = motion.interface;
	source.pcm = &pcm;
	pcm.source = &source;
	hs_plugin_set_source(motion.interface, &source);

	made.at_call = [&made](const std::string &) { made.interface.notify_event(&made.interface, 0); };
	made.interface.notify_event(&made.interface, 0);
	EXPECT_EQ(made.count("get_event"), 1u);
	made.at_call = nullptr;
	made.interface.notify_event(&made.interface, 0);
	EXPECT_EQ(made.count("get_event"), 2u);
}

TEST(Plugin, NotificationBeforeThereIsASourceOrAStreamIsIgnored)
{
	hs_daemon_bed bed;
	const loaded motion(bed.add_plugin("motion"));
	hs_handmade_plugin &made = *bed.host.plugins[0];
	made.interface.notify_event(motion.interface, 0);
	hs_source source{};
	hs_plugin_set_source(motion.interface, &source);
	made.interface.notify_event(motion.interface, 0);
	EXPECT_TRUE(made.calls.empty());
}

TEST(Plugin, NotificationWhileTheHandleIsClearedIsIgnored)
{
	hs_daemon_bed bed;
	bool notified = false;
	bed.host.at_clear = [&notified](hs_handmade_plugin *made) {
		made->interface.notify_event(&made->interface, 0);
		notified = true;
	};
	{
		const loaded motion(bed.add_plugin("motion"));
	}
	EXPECT_TRUE(notified);
	EXPECT_TRUE(bed.host.plugins[0]->calls.empty());
}

TEST(Plugin, InfoIsTheObjectOfTheConfiguration)
{
	hs_daemon_bed bed;
	const hs_properties_ptr info =
		hs_plugin_get_info(bed.add_plugin("motion", "plugin.info = { a = 1, b = { c = 2 } }"));
	EXPECT_EQ(texts_of(info.get()), (texts{{"a", "1"}, {"b", "{ c = 2 }"}}));
	EXPECT_TRUE(texts_of(hs_plugin_get_info(bed.add_plugin("sound")).get()).empty());
}

TEST(Plugin, ConfigurationThatIsNoObjectIsBorne)
{
	hs_daemon_bed bed;
	for (const char *text :
	     {"nonsense", "\"\"", "[ a b ]", "[ [ ] { ] }", "{ a", "\"{ a = \\\"\"", "1.5", "null"}) {
		const std::string path = bed.directory / "sound.conf";
		hs_write_text(path, "plugin.info = " + std::string{text});
		EXPECT_NE(hs_plugin_get_info(load(bed, path)), nullptr) << text;
		hs_write_text(path, "plugin.config = " + std::string{text});
		EXPECT_EQ(texts_of(load(bed, path)->config).at("preview"), "false") << text;
	}
}

TEST(PluginMethods, AreCalledWithThePluginsData)
{
	hs_handmade_plugin plugin;
	hs_plugin_interface *interface = &plugin.interface;
	plugin.init_result = 5;
	plugin.activate_result = 6;
	plugin.set_settings_result = 7;
	plugin.get_settings_result = 8;
	spa_dict config = SPA_DICT_INIT(nullptr, 0);
	spa_pod pod = SPA_POD_INIT_None();
	spa_pod_builder builder{};
	spa_buffer buffer{};
	const hs_stream_info info{};

	EXPECT_EQ(hs_plugin_init(interface, &info, &config), 5);
	EXPECT_EQ(hs_plugin_activate(interface), 6);
	EXPECT_EQ(hs_plugin_get_settings(interface, &builder), 8);
	EXPECT_EQ(hs_plugin_set_settings(interface, &pod), 7);
	hs_plugin_process(interface, &buffer);
	hs_plugin_deactivate(interface);
	hs_plugin_deinit(interface);
	EXPECT_EQ(plugin.heard, &buffer);
	const std::vector<std::string> expected = {"init",    "activate",   "get_settings", "set_settings",
						   "process", "deactivate", "deinit"};
	EXPECT_EQ(plugin.calls, expected);
}

TEST(PluginMethods, AbsentOnesAnswerNotSupported)
{
	hs_handmade_plugin plugin;
	hs_plugin_interface *interface = &plugin.interface;
	plugin.settings = {hs_describe_int("A", 1)};
	plugin.events = {hs_describe_int("A", 1)};
	hs_pod_buffer buffer;
	const hs_plugin_methods none{};
	for (const hs_plugin_methods *funcs : {static_cast<const hs_plugin_methods *>(nullptr), &none}) {
		interface->funcs = funcs;
		EXPECT_EQ(hs_plugin_init(interface, nullptr, nullptr), -95);
		EXPECT_EQ(hs_plugin_activate(interface), -95);
		EXPECT_EQ(hs_plugin_get_settings(interface, nullptr), -95);
		EXPECT_EQ(hs_plugin_set_settings(interface, nullptr), -95);
		EXPECT_EQ(hs_plugin_count_settings(interface), -95);
		EXPECT_EQ(hs_plugin_count_events(interface), -95);
		EXPECT_EQ(hs_plugin_fetch_setting(interface, 0, &buffer), nullptr);
		EXPECT_EQ(hs_plugin_fetch_event(interface, 0, &buffer), nullptr);
		hs_plugin_deinit(interface);
		hs_plugin_deactivate(interface);
		hs_plugin_process(interface, nullptr);
	}
	EXPECT_TRUE(plugin.calls.empty());
}

TEST(PluginMethods, CountsAreAskedWithNullPointers)
{
	hs_handmade_plugin plugin;
	plugin.n_events = 12;
	plugin.n_settings = 0;
	EXPECT_EQ(hs_plugin_count_events(&plugin.interface), 12);
	EXPECT_EQ(hs_plugin_count_settings(&plugin.interface), 0);
	EXPECT_TRUE(plugin.calls.empty());
}

TEST(PluginMethods, CountsOfMoreThan1024AreAPluginsMistake)
{
	hs_handmade_plugin plugin;
	plugin.n_events = INT32_MAX;
	plugin.n_settings = 1025;
	EXPECT_EQ(hs_plugin_count_events(&plugin.interface), 1024);
	EXPECT_EQ(hs_plugin_count_settings(&plugin.interface), 1024);
	plugin.n_events = 1023;
	EXPECT_EQ(hs_plugin_count_events(&plugin.interface), 1023);
}

TEST(PluginMethods, DescriptionsAreBuiltIntoTheBuffer)
{
	hs_handmade_plugin plugin;
	plugin.settings = {hs_describe_int("Gain", 3)};
	plugin.events = {hs_describe_int("A", 1), hs_describe_int("B", 2)};
	hs_pod_buffer buffer;
	const spa_pod *pod = hs_plugin_fetch_event(&plugin.interface, 1, &buffer);
	EXPECT_EQ(static_cast<const void *>(pod), buffer.data);
	EXPECT_EQ(hs_pod_parse(pod)->title, "B");
	EXPECT_EQ(hs_pod_parse(hs_plugin_fetch_setting(&plugin.interface, 0, &buffer))->title, "Gain");
}

TEST(PluginMethods, NoDescriptionIsNull)
{
	hs_handmade_plugin plugin;
	plugin.events = {hs_describe_nothing};
	hs_pod_buffer buffer;
	EXPECT_EQ(hs_plugin_fetch_event(&plugin.interface, 0, &buffer), nullptr);
	EXPECT_EQ(hs_plugin_fetch_event(&plugin.interface, 1, &buffer), nullptr);
	EXPECT_EQ(hs_plugin_fetch_setting(&plugin.interface, 0, &buffer), nullptr);
}

TEST(PluginMethods, DescriptionThatOutgrowsItsBufferIsNull)
{
	hs_handmade_plugin plugin;
	plugin.events = {
		hs_describe_string("Long", std::string(5000, 'x')),
		[](spa_pod_builder *builder) {
			/* Claims more than there is. */
			auto *pod = static_cast<spa_pod *>(builder->data);
			*pod = {builder->size - 7, SPA_TYPE_Object};
			return pod;
		},
		[](spa_pod_builder *builder) {
			auto *pod = static_cast<spa_pod *>(builder->data);
			*pod = {UINT32_MAX, SPA_TYPE_Object};
			return pod;
		},
		[](spa_pod_builder *builder) {
			/* Begins where even its header does not fit any more. */
			return reinterpret_cast<spa_pod *>(static_cast<uint8_t *>(builder->data) + builder->size - 4);
		},
		[](spa_pod_builder *builder) {
			return reinterpret_cast<spa_pod *>(static_cast<uint8_t *>(builder->data) + 1);
		},
	};
	hs_pod_buffer buffer;
	for (uint32_t i = 0; i < plugin.events.size(); ++i)
		EXPECT_EQ(hs_plugin_fetch_event(&plugin.interface, i, &buffer), nullptr) << i;
}

TEST(PluginMethods, DescriptionThatFillsItsBufferIsTaken)
{
	hs_handmade_plugin plugin;
	plugin.events = {[](spa_pod_builder *builder) {
		EXPECT_EQ(builder->size, 4096u);
		auto *pod = static_cast<spa_pod *>(builder->data);
		*pod = {builder->size - 8, SPA_TYPE_Object};
		return pod;
	}};
	hs_pod_buffer buffer;
	EXPECT_NE(hs_plugin_fetch_event(&plugin.interface, 0, &buffer), nullptr);
}

TEST(PluginMethods, DescriptionMayLieInThePluginsOwnMemory)
{
	alignas(8) static uint8_t own[8192];
	spa_pod_builder own_builder = SPA_POD_BUILDER_INIT(own, sizeof(own));
	spa_pod *pod = hs_describe_string("Long", std::string(5000, 'x'))(&own_builder);
	ASSERT_NE(pod, nullptr);
	hs_handmade_plugin plugin;
	plugin.events = {[pod](spa_pod_builder *) { return pod; }};
	hs_pod_buffer buffer;
	EXPECT_EQ(hs_plugin_fetch_event(&plugin.interface, 0, &buffer), pod);
}

TEST_F(PluginTexts, SchemasAreFilesOfTheSchemaFolder)
{
	EXPECT_EQ(hs_plugin_get_schema(&plugin), "/schemas/motion.schema.json");
	EXPECT_EQ(hs_plugin_get_settings_schema(&plugin), "/schemas/motion.settings.json");
}

TEST_F(PluginTexts, SchemasAreCutAt4095Bytes)
{
	const std::string longest(5000, 'x');
	handmade.interface.schema = longest.c_str();
	EXPECT_EQ(hs_plugin_get_schema(&plugin), "/schemas/" + std::string(4095 - 9, 'x'));
}

TEST_F(PluginTexts, NullTextsAreEmpty)
{
	handmade.interface.schema = nullptr;
	handmade.interface.settings_schema = nullptr;
	handmade.interface.interface_name = nullptr;
	EXPECT_EQ(hs_plugin_get_schema(&plugin), "");
	EXPECT_EQ(hs_plugin_get_settings_schema(&plugin), "");
	EXPECT_EQ(hs_plugin_get_interface_name(&plugin), "");
}

TEST_F(PluginTexts, AreThoseOfTheFirstSource)
{
	hs_handmade_plugin other;
	other.interface.version = 2;
	other.interface.interface_name = "Other";
	other.interface.schema = "other.json";
	other.interface.settings_schema = "other.json";
	hs_source later{};
	later.interface = &other.interface;
	spa_list_append(&plugin.sources, &later.link);
	first.is_public = true;
	EXPECT_EQ(hs_plugin_get_interface_name(&plugin), "Mover");
	EXPECT_EQ(hs_plugin_get_schema(&plugin), "/schemas/motion.schema.json");
	EXPECT_EQ(hs_plugin_get_settings_schema(&plugin), "/schemas/motion.settings.json");
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, level), "Sound level");
	EXPECT_TRUE(hs_plugin_event_is_public(&plugin, level));
}

TEST_F(PluginTexts, TextsThatAreNoUtf8AreRepaired)
{
	handmade.interface.interface_name = "M\xffver";
	handmade.interface.schema = "a\xc3";
	first.nice_name = "L\xfevel";
	topics[0].name = "\xff";
	EXPECT_EQ(hs_plugin_get_interface_name(&plugin), "M\uFFFDver");
	EXPECT_EQ(hs_plugin_get_schema(&plugin), "/schemas/a\uFFFD");
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, level), "L\uFFFDvel");
	EXPECT_EQ(topic(alarm_bell, HS_PLUGIN_TOPIC0_NAME), "\uFFFD");
}

TEST_F(PluginTexts, InterfaceNameIsThatOfThePlugin)
{
	EXPECT_EQ(hs_plugin_get_interface_name(&plugin), "Mover");
}

TEST_F(PluginTexts, EventNameIsWhatStandsAfterTheLastDot)
{
	EXPECT_EQ(hs_plugin_get_event_name(&plugin, level), "Level");
	EXPECT_EQ(hs_plugin_get_event_name(&plugin, "a."), "");
	EXPECT_EQ(hs_plugin_get_event_name(&plugin, "nodot"), "");
	EXPECT_EQ(hs_plugin_get_event_name(&plugin, nullptr), "");
}

TEST_F(PluginTexts, NiceNameOfAnUnknownEventIsItsName)
{
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, level), "Sound level");
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, alarm_bell), "Alarm bell");
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, unknown), "Nothing");
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, "a.b.level"), "level");
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, "nodot"), "");
}

TEST_F(PluginTexts, NullNiceNameIsEmpty)
{
	first.nice_name = nullptr;
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, level), "");
}

TEST_F(PluginTexts, EventWithoutANameIsPassedOver)
{
	first.name = nullptr;
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, alarm_bell), "Alarm bell");
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, "nodot"), "");
}

TEST_F(PluginTexts, EventWhoseInterfaceIsCutHasNoDataTypes)
{
	const std::string interface = "com.orvel.HearSense.Events." + std::string(300, 'x');
	const hs_properties_ptr data_types = hs_plugin_get_event_data_types(&plugin, interface.substr(0, 255).c_str());
	EXPECT_EQ(texts_of(data_types.get()),
		  (texts{{"complexType", "(bb)"}, {"value", "{\"Stats\": \"false\", \"Event\": \"false\"}"}}));
	EXPECT_EQ(hs_plugin_get_event_data_types(&plugin, interface.substr(0, 254).c_str()), nullptr);
}

TEST_F(PluginTexts, PluginWithoutAnEventTableKnowsNoEvent)
{
	handmade.interface.events = nullptr;
	EXPECT_EQ(hs_plugin_get_event_nice_name(&plugin, level), "Level");
	EXPECT_EQ(topic(level, 0), "");
	EXPECT_EQ(hs_plugin_get_event_data_types(&plugin, level), nullptr);
}

TEST_F(PluginTexts, TopicsAreSelectedByNameNamespaceAndNiceName)
{
	const char *const expected[] = {"n0", "space0", "Nice 0", "n1", "space1", "Nice 1", "", "", ""};
	for (int selector = 0; selector < 9; ++selector)
		EXPECT_EQ(topic(alarm_bell, selector), expected[selector]) << selector;
}

TEST_F(PluginTexts, ThirdTopicIsSelectedToo)
{
	const hs_event_topic *three[] = {&topics[0], &topics[1], &topics[2]};
	second.topics = three;
	second.n_topics = 3;
	EXPECT_EQ(topic(alarm_bell, HS_PLUGIN_TOPIC2_NAME), "n2");
	EXPECT_EQ(topic(alarm_bell, HS_PLUGIN_TOPIC2_NAMESPACE), "space2");
	EXPECT_EQ(topic(alarm_bell, HS_PLUGIN_TOPIC2_NICE_NAME), "Nice 2");
}

TEST_F(PluginTexts, MissingTopicIsEmpty)
{
	second.n_topics = 1;
	EXPECT_EQ(topic(alarm_bell, 4), "");
	EXPECT_EQ(topic(alarm_bell, 1), "space0");

	second.n_topics = 2;
	second_topics[1] = nullptr;
	EXPECT_EQ(topic(alarm_bell, 4), "");

	topics[0].namespace_ = nullptr;
	EXPECT_EQ(topic(alarm_bell, 1), "");
	EXPECT_EQ(topic(level, 0), "");
	EXPECT_EQ(topic(unknown, 0), "");

	second.topics = nullptr;
	EXPECT_EQ(topic(alarm_bell, 0), "");
}

TEST_F(PluginTexts, FlagsAreThoseOfTheEvent)
{
	first.isDeprecated = true;
	second.isApplicationData = true;
	second.isPropertyState = true;
	EXPECT_TRUE(hs_plugin_get_event_flag(&plugin, level, HS_PLUGIN_EVENT_IS_DEPRECATED));
	EXPECT_FALSE(hs_plugin_get_event_flag(&plugin, level, HS_PLUGIN_EVENT_IS_APPLICATION_DATA));
	EXPECT_FALSE(hs_plugin_get_event_flag(&plugin, level, HS_PLUGIN_EVENT_IS_PROPERTY_STATE));
	EXPECT_FALSE(hs_plugin_get_event_flag(&plugin, alarm_bell, HS_PLUGIN_EVENT_IS_DEPRECATED));
	EXPECT_TRUE(hs_plugin_get_event_flag(&plugin, alarm_bell, HS_PLUGIN_EVENT_IS_APPLICATION_DATA));
	EXPECT_TRUE(hs_plugin_get_event_flag(&plugin, alarm_bell, HS_PLUGIN_EVENT_IS_PROPERTY_STATE));
	EXPECT_FALSE(hs_plugin_get_event_flag(&plugin, unknown, HS_PLUGIN_EVENT_IS_PROPERTY_STATE));
}

TEST_F(PluginTexts, DataTypesAreTheEventsTwoBits)
{
	const char *const expected[] = {
		"{\"Stats\": \"false\", \"Event\": \"false\"}",
		"{\"Stats\": \"true\", \"Event\": \"false\"}",
		"{\"Stats\": \"false\", \"Event\": \"true\"}",
		"{\"Stats\": \"true\", \"Event\": \"true\"}",
	};
	for (uint32_t bits = 0; bits < 4; ++bits) {
		first.data_types = bits | 0x10;
		const hs_properties_ptr data_types = hs_plugin_get_event_data_types(&plugin, level);
		EXPECT_EQ(texts_of(data_types.get()), (texts{{"complexType", "(bb)"}, {"value", expected[bits]}}));
	}
	EXPECT_EQ(hs_plugin_get_event_data_types(&plugin, unknown), nullptr);
}

TEST_F(PluginTexts, FromVersion3OnAnEventIsPublicWhereItSaysSo)
{
	first.is_public = true;
	second.isPropertyState = true;
	for (const uint32_t version : {3u, 4u}) {
		handmade.interface.version = version;
		EXPECT_TRUE(hs_plugin_event_is_public(&plugin, level));
		EXPECT_FALSE(hs_plugin_event_is_public(&plugin, alarm_bell));
		EXPECT_FALSE(hs_plugin_event_is_public(&plugin, unknown));
	}
}

TEST_F(PluginTexts, InVersion2AnEventIsPublicWhereItIsAState)
{
	handmade.interface.version = 2;
	first.is_public = true;
	second.isPropertyState = true;
	EXPECT_FALSE(hs_plugin_event_is_public(&plugin, level));
	EXPECT_TRUE(hs_plugin_event_is_public(&plugin, alarm_bell));
	EXPECT_FALSE(hs_plugin_event_is_public(&plugin, unknown));
}
