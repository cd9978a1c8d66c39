#include "source-settings.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "conf.hpp"
#include "daemon-bed.hpp"
#include "pcm.hpp"
#include "props.hpp"
#include "source.hpp"

namespace
{

/** No table that begins with a schema can be made. */
bool tables_fail;

} // namespace

/* The real one takes its arguments one by one as well, so they are passed on as a list. */
extern "C" pw_properties *__wrap_pw_properties_new(const char *key, ...)
{
	if (tables_fail && key && std::string{key} == "$schema")
		return nullptr;
	const spa_dict nothing = SPA_DICT_INIT(nullptr, 0);
	pw_properties *table = pw_properties_new_dict(&nothing);
	va_list arguments;
	va_start(arguments, key);
	for (; key; key = va_arg(arguments, const char *))
		pw_properties_set(table, key, va_arg(arguments, const char *));
	va_end(arguments);
	return table;
}

namespace {

using items = std::vector<std::pair<std::string, std::string>>;
using texts = std::vector<std::string>;

constexpr char transient_name[] = "IndicateTransientAudioDisturbance";

items items_of(const pw_properties *table)
{
	items result;
	const spa_dict_item *item;
	spa_dict_for_each(item, &table->dict) result.emplace_back(item->key, item->value);
	return result;
}

/** A plug-in with a whole number "Gain", a switch "LowCut" and a text "Name". */
struct Settings : testing::Test {
	Settings()
	{
		node.name = "AudioDevice0Input0.Unprocessed";
		path = bed.settings + "/motion-AudioDevice0Input0.conf";
		bed.host.prepare = [this](hs_handmade_plugin &p) {
			p.settings = {hs_describe_int("Gain", 3), hs_describe_bool("LowCut", false),
			              hs_describe_string("Name", "ear")};
			if (prepare)
				prepare(p);
		};
	}

	/** Makes the source; `rest` goes into the plug-in's configuration. */
	hs_source *make(const std::string &rest = "", const pw_properties *definition = nullptr)
	{
		if (!record)
			record = bed.add_plugin("motion", rest);
		source = hs_source_new(record, node.name.c_str(), definition, path.c_str(), &node);
		if (!source)
			throw std::runtime_error{"no source"};
		plugin = bed.host.plugins.back().get();
		return source;
	}

	items entry(const char *key) const
	{
		const char *text = pw_properties_get(source->settings, key);
		return text ? items_of(hs_properties_ptr(pw_properties_new_string(text)).get()) : items{};
	}

	std::string member(const char *key, const std::string &name) const
	{
		for (const auto &[member_name, value] : entry(key)) {
			if (member_name == name)
				return value;
		}
		return "(none)";
	}

	std::string value(const char *key) const
	{
		return member(key, "value");
	}

	bool handle(const char *name, const char *new_value, const char *type)
	{
		return hs_source_handle_settings(source, source->settings, name, new_value, type);
	}

	/** The file's text behind "$schema". */
	std::string file() const
	{
		const std::string text = hs_read_text(path);
		const std::string start = "{\n \"$schema\": \"" + bed.schemas + "/motion.settings.json\"";
		return text.substr(0, start.size()) == start ? text.substr(start.size())
		                                             : "unexpected: " + text;
	}

	std::string metrics() const
	{
		return hs_read_text(bed.directory /
		                    "metrics/motion_AudioDevice0Input0_Unprocessed_source_metrics.json");
	}

	bool counts(const std::string &name, int n) const
	{
		return metrics().find("\"" + name + "\": " + std::to_string(n) + ",") != std::string::npos;
	}

	hs_pw_source node{};
	hs_daemon_bed bed;
	std::string path;
	std::function<void(hs_handmade_plugin &)> prepare;
	hs_plugin *record = nullptr;
	hs_source *source = nullptr;
	hs_handmade_plugin *plugin = nullptr;
};

hs_description report_event(const char *title)
{
	return hs_describe_flags(title, {{"Detected", false}, {"Report", true}});
}

/** The disturbance counter stands at `count`. */
hs_add_value counter(hs_add_value count)
{
	return [count](spa_pod_builder *b) {
		spa_pod_frame frame{};
		spa_pod_builder_push_struct(b, &frame);
		spa_pod_builder_string(b, "Gain");
		spa_pod_builder_int(b, 77);
		spa_pod_builder_string(b, transient_name);
		count(b);
		spa_pod_builder_pop(b, &frame);
	};
}

using SettingsDeathTest = Settings;

/** Where in the log the first line with that text stands; the number of lines where there is none. */
size_t position_of(const hs_log_capture &capture, std::string_view text)
{
	const auto &lines = capture.lines();
	const auto found = std::find_if(lines.begin(), lines.end(), [text](const hs_log_capture::line &line) {
		return line.text.find(text) != std::string::npos;
	});
	return static_cast<size_t>(found - lines.begin());
}

} // namespace

TEST_F(SettingsDeathTest, NoMemoryForTheTableAborts)
{
	make();
	const auto add_without_memory = [this] {
		tables_fail = true;
		hs_source_add_global_settings(source, nullptr, path.c_str());
	};
	EXPECT_DEATH(add_without_memory(), "'source->settings' failed at .*source-settings.cpp:[0-9]+ "
					   "hs_source_add_global_settings\\(\\)");
}

TEST_F(Settings, DescriptionOf4096BytesIsTakenAndALongerOneIsNot)
{
	prepare = [](hs_handmade_plugin &p) {
		p.settings = {hs_describe_of_size("Short", 4096), hs_describe_of_size("Long", 4104)};
	};
	make();
	EXPECT_EQ(value("short"), "1");
	EXPECT_TRUE(entry("long").empty());
}

TEST_F(Settings, TableHasTheSchemaThePathAndAnEntryPerLowerCasedTitle)
{
	make();
	texts keys;
	for (const auto &[key, text] : items_of(source->settings))
		keys.push_back(key);
	EXPECT_EQ(keys, (texts{"$schema", "path", "enable", "gain", "lowcut", "name"}));
	EXPECT_EQ(pw_properties_get(source->settings, "$schema"), bed.schemas + "/motion.settings.json");
	EXPECT_EQ(pw_properties_get(source->settings, "path"), path);
}

TEST(SettingName, IsTheTitleWithItsLatinCapitalsMadeSmall)
{
	EXPECT_EQ(hs_setting_name("@AZ[`az{ \u00c4"), "@az[`az{ \u00c4");
}

TEST_F(Settings, EntryHoldsThePluginsDefaultTwice)
{
	make();
	EXPECT_EQ(entry("gain"), (items{{"name", "gain"},
	                                {"title", "Gain"},
	                                {"description", "About Gain"},
	                                {"type", "int32"},
	                                {"value", "3"},
	                                {"defaultValue", "3"}}));
}

TEST_F(Settings, EntryHoldsTheStoredValueTwice)
{
	hs_write_text(path, "{ \"gain\": 7 }");
	make();
	EXPECT_EQ(value("gain"), "7");
	EXPECT_EQ(member("gain", "defaultValue"), "7");
	EXPECT_EQ(value("name"), "ear");
}

TEST_F(Settings, StoredTextThatTheBusRefusesIsRepaired)
{
	hs_write_text(path, "gain = K\xfc");
	make();
	EXPECT_EQ(value("gain"), "K\ufffd");
	EXPECT_EQ(member("gain", "defaultValue"), "K\ufffd");
}

TEST_F(Settings, WithoutAFileThePluginIsSwitchedOff)
{
	const hs_log_capture capture;
	make();
	EXPECT_FALSE(source->enabled);
	EXPECT_EQ(entry("enable"), (items{{"name", "enable"},
	                                  {"title", "Enable"},
	                                  {"description", "Enable/Disable plugin"},
	                                  {"type", "boolean"},
	                                  {"value", "false"},
	                                  {"defaultValue", "false"}}));
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, FileOfAPluginWithoutSettingsHasTheSchemaAndEnable)
{
	prepare = [](hs_handmade_plugin &p) { p.settings.clear(); };
	make();
	EXPECT_EQ(hs_read_text(path),
	          "{\n \"$schema\": \"" + bed.schemas + "/motion.settings.json\",\n \"enable\": false\n}");
}

TEST_F(Settings, FileIsWrittenWhenTheSourceIsMade)
{
	make();
	EXPECT_EQ(file(),
	          ",\n \"enable\": false,\n \"gain\": 3,\n \"lowcut\": false,\n \"name\": \"ear\"\n}");
	EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

TEST_F(Settings, StoredEnableSwitchesOnSilently)
{
	hs_write_text(path, "{ \"enable\": true }");
	prepare = [](hs_handmade_plugin &p) { p.events = {report_event("Alarm")}; };
	const hs_log_capture capture;
	make();
	EXPECT_TRUE(source->enabled);
	EXPECT_EQ(value("enable"), "true");
	EXPECT_EQ(member("enable", "defaultValue"), "true");
	EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_INFO, "Enable plugin")) << capture.text();
	EXPECT_TRUE(counts("enabled_count", 0)) << metrics();
	EXPECT_FALSE(source->pcm->stream_active);
}

TEST_F(Settings, StoredEnableOfAnyOtherTextDoesNotSwitchOn)
{
	hs_write_text(path, "{ \"enable\": \"TRUE\" }");
	make();
	EXPECT_FALSE(source->enabled);
	EXPECT_EQ(value("enable"), "TRUE");
}

TEST_F(Settings, StoredFileIsToldOf)
{
	hs_write_text(path, "{ \"gain\": 7, \"lowcut\": true }");
	const hs_log_capture capture;
	make();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO, "Loaded config '" + path + "' with 2 items"), 1u)
	        << capture.text();
}

TEST_F(Settings, FileThatCanNotBeReadIsNoError)
{
	path = bed.directory / "no/such/folder.conf";
	const hs_log_capture capture;
	make();
	EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_WARN, "Failed to load config")) << capture.text();
	EXPECT_EQ(value("gain"), "3");
}

TEST_F(Settings, FolderInPlaceOfTheFileIsWarnedOfAndTheDefaultsCount)
{
	std::filesystem::create_directory(path);
	hs_write_text(path + "/x", "");
	const hs_log_capture capture;
	make("plugin.info = { g.default = { title = Gain, value = 9 } }");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Failed to load config '" + path + "': "), 1u) << capture.text();
	EXPECT_EQ(value("gain"), "9");
	EXPECT_EQ(value("lowcut"), "false");
}

TEST_F(Settings, OnlyStoredValuesAreGivenToThePlugin)
{
	hs_write_text(path, "{ \"gain\": 7, \"name\": \"nose\", \"lowcut\": true, \"other\": 1 }");
	make();
	EXPECT_EQ(plugin->taken, (texts{"Gain = Int 7", "LowCut = Bool true", "Name = nose"}));
	EXPECT_EQ(plugin->count("init"), 0u);
}

TEST_F(Settings, StoredValueThatDoesNotFitIsKeptAndGivesThePluginTheNameAlone)
{
	hs_write_text(path, "{ \"gain\": \"loud\" }");
	const hs_log_capture capture;
	make();
	EXPECT_EQ(value("gain"), "loud");
	EXPECT_EQ(plugin->taken, texts{"Gain"});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Failed to parse \"Gain\"=\"loud\" as int32"), 1u)
	        << capture.text();
}

TEST_F(Settings, StoredValueThatThePluginRefusesIsKept)
{
	prepare = [](hs_handmade_plugin &p) { p.set_settings_result = -EINVAL; };
	hs_write_text(path, "{ \"gain\": 7 }");
	const hs_log_capture capture;
	make();
	EXPECT_EQ(value("gain"), "7");
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(Settings, DefaultsOfTheConfigurationCountAsStored)
{
	make("plugin.info = { g.default = { title = Gain, value = 9 }, e.default = { title = Enable, value = "
	     "true } }");
	EXPECT_EQ(value("gain"), "9");
	EXPECT_TRUE(source->enabled);
	EXPECT_EQ(plugin->taken, texts{"Gain = Int 9"});
	EXPECT_EQ(file(), ",\n \"enable\": true,\n \"gain\": 9,\n \"lowcut\": false,\n \"name\": \"ear\"\n}");
}

TEST_F(Settings, StoredValueComesBeforeADefaultThatDiffersOnlyInCase)
{
	hs_write_text(path, "{ \"gain\": 7 }");
	make("plugin.info = { g.default = { title = GAIN, value = 9 } }");
	EXPECT_EQ(value("gain"), "7");
}

TEST_F(Settings, TitlesOfDefaultsAreComparedWithoutCase)
{
	make("plugin.info = { g.default = { title = gAIN, value = 9 }, e.default = { title = ENABLE, value = "
	     "true } }");
	EXPECT_EQ(value("gain"), "9");
	EXPECT_TRUE(source->enabled);
}

TEST_F(Settings, FirstDefaultOfATitleCounts)
{
	make("plugin.info = { a.default = { title = Gain, value = 1 }, b.default = { title = gain, value = 2 "
	     "} }");
	EXPECT_EQ(value("gain"), "1");
}

TEST_F(Settings, OtherKeysAndBrokenDefaultsAreNoDefaults)
{
	make("plugin.info = { g.default.x = { title = Gain, value = 1 }, g = { title = Gain, value = 2 }, "
	     "a.default = { value = 3 }, b.default = { title = Gain }, c.default = 4 }");
	EXPECT_EQ(value("gain"), "3");
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, DefinitionsDefaultsReplaceThoseOfTheConfiguration)
{
	const hs_properties_ptr definition(
	        pw_properties_new_string("{ node.name = n, g.default = { title = Gain, value = 11 } }"));
	make("plugin.info = { g.default = { title = Gain, value = 9 }, l.default = { title = LowCut, value = "
	     "true } }",
	     definition.get());
	EXPECT_EQ(value("gain"), "11");
	EXPECT_EQ(value("lowcut"), "true");
}

TEST_F(Settings, SettingThatCanNotBeDescribedIsLeftOut)
{
	prepare = [](hs_handmade_plugin &p) {
		p.settings = {hs_describe_nothing, hs_describe_nonsense,
		              hs_describe_string("Long", std::string(5000, 'x')), hs_describe_int("Gain", 1)};
		p.n_settings = 6;
	};
	make();
	EXPECT_EQ(file(), ",\n \"enable\": false,\n \"gain\": 1\n}");
	EXPECT_EQ(plugin->count("get_setting"), 6u);
}

TEST_F(Settings, PluginWithoutSettingsHasOnlyEnable)
{
	prepare = [](hs_handmade_plugin &p) { p.methods.get_setting = nullptr; };
	make();
	EXPECT_EQ(file(), ",\n \"enable\": false\n}");
}

TEST_F(Settings, SettingsBeyond1024AreLeftOutWithAWarning)
{
	prepare = [](hs_handmade_plugin &p) { p.n_settings = INT32_MAX; };
	const hs_log_capture capture;
	make();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Plug-in motion has 1024 settings or more: those beyond are left out"),
	          1u)
	        << capture.text();
	EXPECT_EQ(plugin->count("get_setting"), 1024u);
	EXPECT_EQ(value("gain"), "3");
}

TEST_F(Settings, FirstSettingOfATitleStays)
{
	prepare = [](hs_handmade_plugin &p) {
		p.settings = {hs_describe_int("Gain", 1), hs_describe_bool("GAIN", true),
		              hs_describe_bool("ENABLE", true)};
	};
	make();
	EXPECT_EQ(member("gain", "title"), "Gain");
	EXPECT_EQ(value("gain"), "1");
	EXPECT_EQ(member("enable", "title"), "Enable");
	EXPECT_EQ(value("enable"), "false");
}

TEST_F(Settings, StoredComplexSettingIsNotGivenToThePlugin)
{
	prepare = [](hs_handmade_plugin &p) { p.settings = {hs_describe_ints("Bands", {1, 2})}; };
	hs_write_text(path, "{ \"bands\": [ 3, 4 ] }");
	const hs_log_capture capture;
	make();
	EXPECT_EQ(member("bands", "type"), "array");
	EXPECT_EQ(value("bands"), "[ 3, 4 ]");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Tried to handle complex type settings which are not supported."),
	          1u)
	        << capture.text();
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, ValueWithoutATypeIsRefused)
{
	make();
	const hs_log_capture capture;
	EXPECT_FALSE(handle("Gain", "5", nullptr));
	EXPECT_FALSE(handle(nullptr, "5", nullptr));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Setting value 5 exists but is missing type for "
	                                            "source:AudioDevice0Input0.Unprocessed setting:Gain."),
	          1u)
	        << capture.text();
	EXPECT_EQ(capture.complaints(), 2u) << capture.text();
	EXPECT_EQ(value("gain"), "3");
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, ComplexTypesAreRefused)
{
	make();
	for (const char *type : {"array", "struct"}) {
		const hs_log_capture capture;
		EXPECT_FALSE(handle("Gain", "[ 5 ]", type));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
		                        "Tried to handle complex type settings which are not supported."),
		          1u)
		        << capture.text();
	}
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, MissingTypeComesBeforeAComplexOneAndThatBeforeTheName)
{
	make();
	const hs_log_capture capture;
	EXPECT_FALSE(handle(nullptr, "5", nullptr));
	EXPECT_FALSE(handle(nullptr, "5", "array"));
	EXPECT_FALSE(handle("Enable", "true", "struct"));
	EXPECT_FALSE(handle("Enable", "true", nullptr));
	EXPECT_FALSE(handle(transient_name, "5", "array"));
	const texts expected = {
		"Setting value 5 exists but is missing type for source:AudioDevice0Input0.Unprocessed "
		"setting:(null).",
		"Tried to handle complex type settings which are not supported.",
		"Tried to handle complex type settings which are not supported.",
		"Setting value true exists but is missing type for source:AudioDevice0Input0.Unprocessed "
		"setting:Enable.",
		"Tried to handle complex type settings which are not supported.",
	};
	texts seen;
	for (const hs_log_capture::line &line : capture.lines()) {
		EXPECT_EQ(line.level, SPA_LOG_LEVEL_WARN);
		seen.push_back(line.text);
	}
	EXPECT_EQ(seen, expected);
	EXPECT_FALSE(source->enabled);
	EXPECT_EQ(plugin->count("get_settings"), 0u);
}

TEST_F(Settings, MissingNameIsRefused)
{
	make();
	const hs_log_capture capture;
	EXPECT_FALSE(handle(nullptr, "5", "int32"));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
	                        "Setting name for source:AudioDevice0Input0.Unprocessed missing."),
	          1u)
	        << capture.text();
}

TEST_F(Settings, SwitchingOnCountsAndMarksReportsAndStarts)
{
	prepare = [](hs_handmade_plugin &p) {
		p.events = {hs_describe_int("Level", 1), report_event("Alarm")};
	};
	make();
	source->consumers = 1;
	bool started_before_marking = false;
	plugin->at_call = [&](const std::string &) { started_before_marking |= source->pcm->stream_active; };
	plugin->calls.clear();
	const hs_log_capture capture;
	EXPECT_TRUE(handle("Enable", "true", "boolean"));
	EXPECT_TRUE(source->enabled);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO,
	                        "Enable plugin Motion Detector on AudioDevice0Input0.Unprocessed"),
	          1u)
	        << capture.text();
	EXPECT_TRUE(counts("enabled_count", 1)) << metrics();
	EXPECT_TRUE(counts("disabled_count", 0)) << metrics();
	/* Both are asked whether they report, and the one that does is then looked at. */
	EXPECT_EQ(plugin->calls, (texts{"get_event", "get_event", "get_event"}));
	EXPECT_FALSE(started_before_marking);
	EXPECT_TRUE(source->pcm->stream_active);
	EXPECT_EQ(value("enable"), "true");
	EXPECT_EQ(file(), ",\n \"enable\": true,\n \"gain\": 3,\n \"lowcut\": false,\n \"name\": \"ear\"\n}");
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, SwitchingOnIsToldStoredAndCountedBeforeThePluginIsAsked)
{
	prepare = [](hs_handmade_plugin &p) { p.events = {report_event("Alarm")}; };
	make();
	bool seen = false;
	const hs_log_capture capture;
	plugin->at_call = [&](const std::string &) {
		if (std::exchange(seen, true))
			return;
		EXPECT_TRUE(source->enabled);
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_INFO, "Enable plugin ")) << capture.text();
		EXPECT_TRUE(counts("enabled_count", 1)) << metrics();
		EXPECT_EQ(value("enable"), "true");
		EXPECT_NE(file().find("\"enable\": true"), std::string::npos) << file();
	};
	EXPECT_TRUE(handle("Enable", "true", "boolean"));
	EXPECT_TRUE(seen);
}

TEST_F(Settings, SwitchingOffIsToldAndCountedBeforeTheStreamStops)
{
	make();
	source->consumers = 1;
	handle("Enable", "true", "boolean");
	const hs_log_capture capture;
	EXPECT_TRUE(handle("Enable", "false", "boolean"));
	EXPECT_LT(position_of(capture, "Disable plugin "), position_of(capture, ": stop pcm")) << capture.text();
	EXPECT_LT(position_of(capture, ": stop pcm"), capture.lines().size()) << capture.text();
}

TEST_F(Settings, SwitchingOnTwiceCountsOnce)
{
	make();
	const hs_log_capture capture;
	EXPECT_TRUE(handle("Enable", "true", "boolean"));
	EXPECT_TRUE(handle("Enable", "true", "boolean"));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO, "Enable plugin "), 1u) << capture.text();
	EXPECT_TRUE(counts("enabled_count", 1)) << metrics();
}

TEST_F(Settings, SwitchingOffStopsARunningStream)
{
	prepare = [](hs_handmade_plugin &p) { p.events = {report_event("Alarm")}; };
	make();
	source->consumers = 1;
	handle("Enable", "true", "boolean");
	ASSERT_TRUE(source->pcm->stream_active);
	plugin->calls.clear();
	const hs_log_capture capture;
	EXPECT_TRUE(handle("Enable", "false", "boolean"));
	EXPECT_FALSE(source->enabled);
	EXPECT_FALSE(source->pcm->stream_active);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO,
	                        "Disable plugin Motion Detector on AudioDevice0Input0.Unprocessed"),
	          1u)
	        << capture.text();
	EXPECT_TRUE(counts("enabled_count", 1)) << metrics();
	EXPECT_TRUE(counts("disabled_count", 1)) << metrics();
	EXPECT_TRUE(plugin->calls.empty());
	EXPECT_EQ(value("enable"), "false");
	EXPECT_NE(file().find("\"enable\": false"), std::string::npos) << file();
}

TEST_F(Settings, SwitchingOffWithoutARunningStreamMarksReports)
{
	prepare = [](hs_handmade_plugin &p) { p.events = {report_event("Alarm"), report_event("Bell")}; };
	make();
	handle("Enable", "true", "boolean");
	ASSERT_FALSE(source->pcm->stream_active);
	plugin->calls.clear();
	const hs_log_capture capture;
	plugin->at_call = [&](const std::string &) {
		EXPECT_FALSE(source->enabled);
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_INFO, "Disable plugin ")) << capture.text();
		EXPECT_TRUE(counts("disabled_count", 1)) << metrics();
	};
	EXPECT_TRUE(handle("Enable", "false", "boolean"));
	EXPECT_EQ(plugin->calls, (texts{"get_event", "get_event", "get_event", "get_event"}));
	EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_DEBUG, "stop pcm")) << capture.text();
}

TEST_F(Settings, SwitchingWorksWithoutAPipeline)
{
	prepare = [](hs_handmade_plugin &p) { p.events = {report_event("Alarm")}; };
	make();
	hs_pcm *pcm = std::exchange(source->pcm, nullptr);
	EXPECT_TRUE(handle("Enable", "true", "boolean"));
	EXPECT_TRUE(source->enabled);
	EXPECT_TRUE(handle("Enable", "false", "boolean"));
	EXPECT_FALSE(source->enabled);
	source->pcm = pcm;
}

TEST_F(Settings, EnableOfTheSameOrAnyOtherValueIsKeptAndSwitchesNothing)
{
	make();
	plugin->calls.clear();
	const hs_log_capture capture;
	EXPECT_TRUE(handle("Enable", "false", "boolean"));
	EXPECT_TRUE(handle("Enable", "maybe", "boolean"));
	EXPECT_TRUE(handle("Enable", "TRUE", "boolean"));
	EXPECT_FALSE(source->enabled);
	EXPECT_EQ(value("enable"), "TRUE");
	EXPECT_NE(file().find("\"enable\": \"TRUE\""), std::string::npos) << file();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO), 0u) << capture.text();
	EXPECT_TRUE(plugin->calls.empty());
	EXPECT_TRUE(counts("enabled_count", 0)) << metrics();
}

TEST_F(Settings, EnableWithoutAValueIsTakenAndChangesNothing)
{
	make();
	std::filesystem::remove(path);
	EXPECT_TRUE(handle("Enable", nullptr, "boolean"));
	EXPECT_TRUE(handle("Enable", nullptr, nullptr));
	EXPECT_EQ(value("enable"), "false");
	EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Settings, EnableWithoutATableIsNotStored)
{
	make();
	std::filesystem::remove(path);
	EXPECT_TRUE(hs_source_handle_settings(source, nullptr, "Enable", "true", "boolean"));
	EXPECT_TRUE(source->enabled);
	EXPECT_EQ(value("enable"), "false");
	EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Settings, OnlyTheExactTitleSwitches)
{
	make();
	EXPECT_TRUE(handle("enable", "true", "boolean"));
	EXPECT_FALSE(source->enabled);
	EXPECT_EQ(plugin->taken, texts{"enable = Bool true"});
}

TEST_F(Settings, AcceptedValueReachesThePluginTheTableAndTheFile)
{
	make();
	EXPECT_TRUE(handle("Gain", "12", "int32"));
	EXPECT_EQ(plugin->taken, texts{"Gain = Int 12"});
	EXPECT_EQ(value("gain"), "12");
	EXPECT_EQ(member("gain", "defaultValue"), "3");
	EXPECT_EQ(file(),
	          ",\n \"enable\": false,\n \"gain\": 12,\n \"lowcut\": false,\n \"name\": \"ear\"\n}");
}

TEST_F(Settings, ResultAboveZeroIsAcceptedToo)
{
	make();
	plugin->set_settings_result = 2;
	EXPECT_TRUE(handle("Gain", "12", "int32"));
	EXPECT_EQ(value("gain"), "12");
}

TEST_F(Settings, RefusedValueChangesNothingAndIsNotTold)
{
	make();
	std::filesystem::remove(path);
	for (const bool absent : {false, true}) {
		plugin->set_settings_result = -EINVAL;
		if (absent)
			plugin->methods.set_settings = nullptr;
		const hs_log_capture capture;
		EXPECT_FALSE(handle("Gain", "12", "int32"));
		EXPECT_EQ(value("gain"), "3");
		EXPECT_FALSE(std::filesystem::exists(path));
		EXPECT_TRUE(capture.lines().empty()) << capture.text();
	}
}

TEST_F(Settings, WithoutATableOnlyThePluginIsTold)
{
	make();
	std::filesystem::remove(path);
	EXPECT_TRUE(hs_source_handle_settings(source, nullptr, "Gain", "12", "int32"));
	EXPECT_EQ(plugin->taken, texts{"Gain = Int 12"});
	EXPECT_EQ(value("gain"), "3");
	EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Settings, ValueThatTheTableCanNotHoldIsTakenButNotKept)
{
	make();
	std::filesystem::remove(path);
	const std::string text(1000, 'x');
	const hs_log_capture capture;
	EXPECT_TRUE(handle("Name", text.c_str(), "string"));
	EXPECT_EQ(plugin->taken, texts{"Name = " + text});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Failed to set value " + text + " for props title Name"), 1u)
		<< capture.text();
	EXPECT_EQ(value("name"), "ear");
	EXPECT_NE(file().find("\"name\": \"ear\""), std::string::npos) << file();
}

TEST_F(Settings, ValueThatIsTooLargeForAPodIsRefused)
{
	make();
	EXPECT_FALSE(handle("Name", std::string(5000, 'x').c_str(), "string"));
	EXPECT_TRUE(plugin->taken.empty());
	EXPECT_EQ(value("name"), "ear");
}

TEST_F(Settings, SettingsOutliveTheSource)
{
	make();
	handle("Gain", "12", "int32");
	handle("Enable", "true", "boolean");
	hs_source_destroy(source);
	make();
	EXPECT_EQ(value("gain"), "12");
	EXPECT_TRUE(source->enabled);
	EXPECT_EQ(plugin->taken, (texts{"Gain = Int 12", "LowCut = Bool false", "Name = ear"}));
}

TEST_F(Settings, DisturbanceIsCountedUpByThePluginsOwnNumber)
{
	make();
	const std::pair<hs_add_value, const char *> counts_and_next[] = {
	        {[](spa_pod_builder *b) { spa_pod_builder_long(b, 41); }, "42"},
	        {[](spa_pod_builder *b) { spa_pod_builder_int(b, -1); }, "0"},
	        {[](spa_pod_builder *b) { spa_pod_builder_id(b, UINT32_MAX); }, "4294967296"},
	};
	for (const auto &[count, next] : counts_and_next) {
		plugin->present_settings = counter(count);
		plugin->calls.clear();
		plugin->taken.clear();
		const hs_log_capture capture;
		plugin->at_call = [&](const std::string &call) {
			EXPECT_EQ(capture.contains(SPA_LOG_LEVEL_DEBUG, "counter is now"), call == "set_settings");
		};
		EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
		plugin->at_call = nullptr;
		EXPECT_EQ(plugin->calls, (texts{"get_settings", "set_settings"}));
		EXPECT_EQ(plugin->taken, texts{std::string{transient_name} + " = Long " + next});
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG,
		                        std::string{transient_name} + " counter is now " + next),
		          1u)
		        << capture.text();
	}
}

TEST_F(Settings, DisturbanceIsCountedInPlaceOfTheValueThatIsStoredOrWritten)
{
	prepare = [](hs_handmade_plugin &p) {
		p.settings = {hs_describe_int(transient_name, 0)};
		p.present_settings = counter([](spa_pod_builder *b) { spa_pod_builder_long(b, 41); });
	};
	const std::string key = hs_setting_name(transient_name);
	hs_write_text(path, "{ \"" + key + "\": 9 }");
	make();
	EXPECT_EQ(plugin->taken, texts{std::string{transient_name} + " = Long 42"});
	EXPECT_EQ(value(key.c_str()), "9");
	EXPECT_EQ(file(), ",\n \"enable\": false,\n \"" + key + "\": 9\n}");

	plugin->taken.clear();
	EXPECT_TRUE(handle(transient_name, "5", "int64"));
	EXPECT_EQ(plugin->taken, texts{std::string{transient_name} + " = Long 42"});
	EXPECT_EQ(value(key.c_str()), "42");
	EXPECT_EQ(file(), ",\n \"enable\": false,\n \"" + key + "\": 42\n}");
}

TEST_F(Settings, DisturbanceCounterMayBeNestedOrDescribed)
{
	make();
	plugin->present_settings = [](spa_pod_builder *b) {
		spa_pod_frame frame{};
		spa_pod_builder_push_struct(b, &frame);
		spa_pod_builder_string(b, "Group");
		counter([](spa_pod_builder *inner) { spa_pod_builder_long(inner, 1); })(b);
		spa_pod_builder_pop(b, &frame);
	};
	EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
	plugin->present_settings = [](spa_pod_builder *b) {
		spa_pod_frame frame{};
		spa_pod_builder_push_struct(b, &frame);
		hs_describe_int("Gain", 4)(b);
		hs_describe_int(transient_name, 8)(b);
		spa_pod_builder_pop(b, &frame);
	};
	EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
	EXPECT_EQ(plugin->taken, (texts{std::string{transient_name} + " = Long 2",
	                                std::string{transient_name} + " = Long 9"}));
}

TEST_F(Settings, WithoutADisturbanceCounterThereIsNothingToDo)
{
	make();
	const hs_add_value answers[] = {
	        nullptr,
	        [](spa_pod_builder *b) { spa_pod_builder_int(b, 3); },
	        counter([](spa_pod_builder *b) { spa_pod_builder_string(b, "many"); }),
	        [](spa_pod_builder *b) {
		        spa_pod_frame frame{};
		        spa_pod_builder_push_struct(b, &frame);
		        spa_pod_builder_string(b, "IndicateSomethingElse");
		        spa_pod_builder_long(b, 3);
		        spa_pod_builder_string(b, transient_name);
		        spa_pod_builder_pop(b, &frame);
	        },
	        [](spa_pod_builder *b) {
		        /* Claims to be larger than what was built. */
		        const spa_pod pod = {100000, SPA_TYPE_Struct};
		        spa_pod_builder_raw(b, &pod, sizeof(pod));
	        },
	};
	for (const hs_add_value &answer : answers) {
		plugin->present_settings = answer;
		const hs_log_capture capture;
		EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG,
		                        "No IndicateTransientAudioDisturbance counter to update"),
		          1u)
		        << capture.text();
	}
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, DisturbanceIsNotCountedWherePluginDoesNotTellItsSettings)
{
	make();
	plugin->present_settings = counter([](spa_pod_builder *b) { spa_pod_builder_long(b, 1); });
	plugin->get_settings_result = -EIO;
	EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
	plugin->methods.get_settings = nullptr;
	EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, DisturbanceThatThePluginRefusesIsNotTaken)
{
	make();
	plugin->present_settings = counter([](spa_pod_builder *b) { spa_pod_builder_long(b, 1); });
	plugin->set_settings_result = -EINVAL;
	EXPECT_FALSE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
}

TEST_F(Settings, CounterIsLookedForIn4096Bytes)
{
	make();
	/* The Struct's header, a text of its length and header, the name of 40 with its own, the number of 16. */
	constexpr size_t longest = 4096 - 8 - 8 - (8 + 40) - 16 - 1;
	for (const size_t length : {longest, longest + 1}) {
		plugin->present_settings = [length](spa_pod_builder *b) {
			spa_pod_frame frame{};
			spa_pod_builder_push_struct(b, &frame);
			spa_pod_builder_string(b, std::string(length, 'x').c_str());
			spa_pod_builder_string(b, transient_name);
			spa_pod_builder_long(b, 1);
			spa_pod_builder_pop(b, &frame);
		};
		EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
		EXPECT_EQ(plugin->taken, texts{std::string{transient_name} + " = Long 2"}) << length;
	}
}

TEST_F(Settings, SettingsThatTheBufferCanNotHoldHaveNoCounter)
{
	make();
	plugin->present_settings = [](spa_pod_builder *b) {
		spa_pod_frame frame{};
		spa_pod_builder_push_struct(b, &frame);
		spa_pod_builder_string(b, std::string(5000, 'x').c_str());
		spa_pod_builder_string(b, transient_name);
		spa_pod_builder_long(b, 1);
		spa_pod_builder_pop(b, &frame);
	};
	EXPECT_TRUE(hs_source_handle_settings(source, nullptr, transient_name, nullptr, nullptr));
	EXPECT_TRUE(plugin->taken.empty());
}

TEST_F(Settings, OnlyAStructureWithReportReports)
{
	prepare = [](hs_handmade_plugin &p) {
		p.events = {report_event("A"), hs_describe_flags("B", {{"Detected", true}}),
		            hs_describe_string("C", "{ \"Report\": \"true\" }"), hs_describe_ints("D", {1})};
	};
	make();
	const hs_log_capture capture;
	EXPECT_TRUE(hs_source_has_report(source->interface, 0));
	EXPECT_FALSE(hs_source_has_report(source->interface, 1));
	EXPECT_FALSE(hs_source_has_report(source->interface, 2));
	EXPECT_FALSE(hs_source_has_report(source->interface, 3));
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(Settings, EventIsAskedWhetherItReportsIn4096Bytes)
{
	prepare = [](hs_handmade_plugin &p) {
		p.events = {hs_describe_of_size("Short", 4096), hs_describe_of_size("Long", 4104)};
	};
	make();
	const hs_log_capture capture;
	EXPECT_FALSE(hs_source_has_report(source->interface, 0));
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_FALSE(hs_source_has_report(source->interface, 1));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Event index 1 out of range"), 1u) << capture.text();
}

TEST_F(Settings, EventThatCanNotBeAskedWhetherItReportsIsAnError)
{
	prepare = [](hs_handmade_plugin &p) { p.events = {hs_describe_nonsense, hs_describe_nothing}; };
	make();
	const hs_log_capture capture;
	EXPECT_FALSE(hs_source_has_report(source->interface, 0));
	EXPECT_FALSE(hs_source_has_report(source->interface, 1));
	EXPECT_FALSE(hs_source_has_report(source->interface, 2));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not parse pod for event index 0"), 1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Event index 1 out of range"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Event index 2 out of range"), 1u) << capture.text();
}
