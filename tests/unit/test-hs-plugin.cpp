#include <cmath>
#include <cstdlib>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <pipewire/pipewire.h>

#include <unistd.h>

#include "check-bench.hpp"
#include "check-description.hpp"
#include "check.hpp"
#include "event-json.hpp"
#include "failure.hpp"
#include "format.hpp"
#include "handmade-plugin.hpp"
#include "host.hpp"
#include "installation.hpp"
#include "temp-dir.hpp"

using namespace hs_tool;

namespace {

using json = nlohmann::ordered_json;

constexpr char good_library[] = HS_BROKEN_DIR "/libspa-hs-good.so";

std::string line_of(const char *type, const char *complex_type, const char *value)
{
	const std::optional<json> made = value_json(type, complex_type, value);
	return made ? to_line(*made) : "(nothing)";
}

/** What a rule finds of a description. */
std::vector<std::string> complaints(topic what, const hs_description &description)
{
	hs_pod_buffer buffer;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, static_cast<uint32_t>(sizeof(buffer.data)));
	const spa_pod *pod = description(&builder);
	const hs_pod_ptr parsed = hs_pod_parse(pod);
	char doing[8];
	report found(doing, sizeof(doing));
	std::set<std::string> titles;
	const raw_description raw = read_raw(pod);
	check_description(what, raw, &titles, &found);
	if (parsed)
		check_value(what, raw, *parsed, &found);
	else
		check_unreadable(what, 0, pod, &found);
	std::vector<std::string> texts;
	for (const finding &f : found.findings())
		texts.push_back(f.text);
	return texts;
}

hs_description describe_texts(std::vector<std::pair<std::string, std::string>> members)
{
	return hs_describe("E", [members](spa_pod_builder *b) {
		spa_pod_frame frame{};
		spa_pod_builder_push_struct(b, &frame);
		for (const auto &[name, value] : members) {
			spa_pod_builder_string(b, name.c_str());
			spa_pod_builder_string(b, value.c_str());
		}
		spa_pod_builder_pop(b, &frame);
	});
}

struct Installation : testing::Test {
	~Installation() override
	{
		unsetenv("SPA_PLUGIN_DIR");
	}

	hs_temp_dir folder;
};

struct HostTest : testing::Test {
	HostTest()
	{
		pw_init(nullptr, nullptr);
	}

	~HostTest() override
	{
		pw_deinit();
	}

	static spa_audio_info_raw mono()
	{
		spa_audio_info_raw format{};
		format.format = SPA_AUDIO_FORMAT_F32P;
		format.rate = 48000;
		format.channels = 1;
		set_usual_positions(&format);
		return format;
	}

	const subject good{{"good", good_library}, "", ""};
};

void look_well(const subject &, report *found)
{
	found->note("all well");
}

void look_and_find(const subject &checked, report *found)
{
	found->warn("warned of " + checked.plugin.name);
	found->warn("warned of " + checked.plugin.name);
	found->fail("failed");
}

void look_and_crash(const subject &, report *found)
{
	found->begin("the crash");
	std::abort();
}

void look_and_exit(const subject &, report *)
{
	_exit(3);
}

void look_and_hang(const subject &, report *found)
{
	found->begin("the wait");
	for (;;)
		pause();
}

void look_and_throw(const subject &, report *)
{
	throw failure("given up");
}

void look_and_talk(const subject &, report *found)
{
	std::fputs("a log line\n", stderr);
	for (int i = 0; i < 50; ++i)
		found->note("note " + std::to_string(i));
	found->fail("the last of all");
}

outcome outcome_of(void (*look)(const subject &, report *), double limit = 60)
{
	return do_apart({"test", "is tested", look}, {{"plug", "/nowhere"}, "", ""}, limit);
}

} // namespace

TEST(EventJson, ScalarsHaveTheirTypes)
{
	EXPECT_EQ(line_of("boolean", "", "true"), "true");
	EXPECT_EQ(line_of("uint32", "", "4294967295"), "4294967295");
	EXPECT_EQ(line_of("int32", "", "-5"), "-5");
	EXPECT_EQ(line_of("int64", "", "-9000000000"), "-9000000000");
	EXPECT_EQ(line_of("double", "", "-12.300000"), "-12.3");
	EXPECT_EQ(line_of("float", "", "0.100000"), "0.1");
	EXPECT_EQ(line_of("string", "", "a \"b\""), "\"a \\\"b\\\"\"");
	EXPECT_EQ(line_of("string", "", ""), "\"\"");
}

TEST(EventJson, WhatTheDaemonCannotPublishIsNothing)
{
	EXPECT_EQ(line_of("uint32", "", "-1294967296"), "(nothing)");
	EXPECT_EQ(line_of("int32", "", ""), "(nothing)");
	EXPECT_EQ(line_of("colour", "", "red"), "(nothing)");
	EXPECT_EQ(line_of("struct", "(ss)", "{ \"A\": \"a\", \"B\": \"\" }"), "(nothing)");
	EXPECT_EQ(line_of("array", "N/A", "[ 1 ]"), "(nothing)");
}

TEST(EventJson, NumbersThatJsonLacksAreNull)
{
	EXPECT_EQ(line_of("double", "", "nan"), "null");
	EXPECT_EQ(line_of("float", "", "-inf"), "null");
	EXPECT_EQ(line_of("array", "ad", "[ 1.5, inf ]"), "[1.5, null]");
}

TEST(EventJson, StructuresKeepTheOrderOfTheirMembers)
{
	EXPECT_EQ(
		line_of("struct", "(bdus)",
			"{\n  \"Zulu\": \"true\",\n  \"Alpha\": \"1.500000\",\n  \"N\": \"7\",\n  \"T\": \"x y\"\n }"),
		"{\"Zulu\": true, \"Alpha\": 1.5, \"N\": 7, \"T\": \"x y\"}");
}

TEST(EventJson, ArraysOfEveryType)
{
	EXPECT_EQ(line_of("array", "ab", "[ true, false ]"), "[true, false]");
	EXPECT_EQ(line_of("array", "au", "[ 1, 2 ]"), "[1, 2]");
	EXPECT_EQ(line_of("array", "ai", "[ -1, 2 ]"), "[-1, 2]");
	EXPECT_EQ(line_of("array", "ax", "[ -9000000000 ]"), "[-9000000000]");
	EXPECT_EQ(line_of("array", "as", "[ one, two ]"), "[\"one\", \"two\"]");
	EXPECT_EQ(line_of("array", "ai", " ]"), "[]");
}

TEST(EventJson, BytesThatAreNoUtf8AreReplaced)
{
	EXPECT_EQ(to_line(json("a\xff")), "\"a\xef\xbf\xbd\"");
}

TEST_F(Installation, NameIsThatOfTheLibrary)
{
	EXPECT_EQ(name_from_library("/a/libspa-hs-loud.so"), "loud");
	EXPECT_EQ(name_from_library("libspa-hs-a.b.so"), "a.b");
	for (const char *other : {"/a/loud.so", "libspa-hs-.so", "libspa-hs-loud.so.1", "libspa-hs-loud"})
		EXPECT_EQ(name_from_library(other), "") << other;
}

TEST_F(Installation, PluginIsFoundInTheFirstFolderThatHasIt)
{
	const std::string first = folder / "first";
	const std::string second = folder / "second";
	for (const std::string &path : {first, second}) {
		std::filesystem::create_directories(path + "/hear-sense");
		hs_write_text(path + "/hear-sense/libspa-hs-loud.so", "");
	}
	hs_write_text(second + "/hear-sense/libspa-hs-low.so", "");
	setenv("SPA_PLUGIN_DIR", ("/nowhere:" + first + "::" + second).c_str(), 1);
	EXPECT_EQ(find_plugin("loud").path, first + "/hear-sense/libspa-hs-loud.so");
	EXPECT_EQ(find_plugin("low").path, second + "/hear-sense/libspa-hs-low.so");
	EXPECT_THROW(find_plugin("lower"), failure);
	EXPECT_EQ(libraries_in(second + "/hear-sense"), (std::vector<std::string>{"loud", "low"}));
}

TEST_F(Installation, FileIsTakenWhereverItIs)
{
	const std::string path = folder / "libspa-hs-loud.so";
	EXPECT_THROW(find_plugin(path), failure);
	hs_write_text(path, "");
	EXPECT_EQ(find_plugin(path).name, "loud");
	EXPECT_THROW(find_plugin(folder.path()), failure);
}

TEST_F(Installation, ConfigurationBesideTheLibraryIsTaken)
{
	const plugin_file plugin{"loud", folder / "libspa-hs-loud.so"};
	EXPECT_EQ(find_configuration(plugin, "").path, "");
	hs_write_text(folder / "loud.conf", "plugin.info = { audio.rate = 16000 } plugin.config = { depth = 3 }");
	const configuration found = find_configuration(plugin, "");
	EXPECT_EQ(found.path, folder / "loud.conf");
	EXPECT_STREQ(pw_properties_get(found.info.get(), "audio.rate"), "16000");
	EXPECT_STREQ(pw_properties_get(found.config.get(), "depth"), "3");
	EXPECT_STREQ(pw_properties_get(found.config.get(), "preview"), "false");
}

TEST_F(Installation, NamedConfigurationGoesFirstAndMustBeThere)
{
	const plugin_file plugin{"loud", folder / "libspa-hs-loud.so"};
	hs_write_text(folder / "loud.conf", "plugin.info = { audio.rate = 16000 }");
	hs_write_text(folder / "other.conf", "plugin.info = { audio.rate = 8000 }");
	EXPECT_STREQ(pw_properties_get(find_configuration(plugin, folder / "other.conf").info.get(), "audio.rate"),
		     "8000");
	EXPECT_STREQ(pw_properties_get(find_configuration(plugin, folder.path()).info.get(), "audio.rate"), "16000");
	EXPECT_THROW(find_configuration(plugin, folder / "missing.conf"), failure);
}

TEST(Format, WhatTheConfigurationLeavesOpenIsTheFiles)
{
	const hs_properties_ptr info(pw_properties_new("audio.rate", "16000", nullptr));
	const spa_audio_info_raw format = wanted_format(info.get(), 44100, 2);
	EXPECT_EQ(format.format, SPA_AUDIO_FORMAT_F32P);
	EXPECT_EQ(format.rate, 16000u);
	EXPECT_EQ(format.channels, 2u);
	EXPECT_EQ(format.position[0], static_cast<uint32_t>(SPA_AUDIO_CHANNEL_FL));
	EXPECT_EQ(describe(format), "F32P, 2 channels, 16000 Hz");
}

TEST(Format, PositionsAreThoseOfTheConfiguration)
{
	const hs_properties_ptr info(pw_properties_new("audio.channels", "2", "audio.position", "[ AUX0 AUX1 ]",
						       "audio.format", "S16", nullptr));
	const spa_audio_info_raw format = wanted_format(info.get(), 48000, 1);
	EXPECT_EQ(format.format, SPA_AUDIO_FORMAT_S16);
	EXPECT_EQ(format.position[1], static_cast<uint32_t>(SPA_AUDIO_CHANNEL_AUX1));
}

TEST(Format, WhatCannotBeMadeIsToldOf)
{
	const hs_properties_ptr alaw(pw_properties_new("audio.format", "ALAW", nullptr));
	EXPECT_THROW(wanted_format(alaw.get(), 48000, 1), failure);
	const hs_properties_ptr many(pw_properties_new("audio.channels", "65", nullptr));
	EXPECT_THROW(wanted_format(many.get(), 48000, 1), failure);
	const hs_properties_ptr unknown(pw_properties_new("audio.format", "F99", nullptr));
	EXPECT_EQ(wanted_format(unknown.get(), 48000, 1).format, SPA_AUDIO_FORMAT_F32P);
}

TEST_F(HostTest, InstanceTellsWhatTheDaemonWouldPublish)
{
	const bench loaded(good);
	recorder record;
	const auto instance = loaded.make(&record);
	ASSERT_TRUE(start(instance.get(), mono()));
	instance->handle_events(true);
	EXPECT_EQ(record.lines.size(), 4u);
	EXPECT_EQ(record.lines[0], "0 Level -120.000000");
	record.lines.clear();

	signal_source silence(signal_source::SILENCE, mono());
	hear(instance.get(), &silence, mono(), 1.0, &record);
	EXPECT_TRUE(record.lines.empty());
	signal_source loud(signal_source::FULL_SCALE, mono());
	hear(instance.get(), &loud, mono(), 0.1, &record);
	ASSERT_EQ(record.lines.size(), 3u);
	EXPECT_EQ(record.lines[0], "55 Level 0.000000");
	EXPECT_EQ(record.lines[1].substr(0, 9), "55 Alarm ");
	EXPECT_EQ(record.lines[2].substr(0, 9), "55 State ");
	stop(instance.get());
	EXPECT_FALSE(instance->is_active());
	EXPECT_FALSE(instance->is_initialized());
}

TEST_F(HostTest, SettingsAreGivenAsTexts)
{
	const bench loaded(good);
	const auto instance = loaded.make();
	instance->set("Depth", "9");
	instance->set("Mode", "fast");
	EXPECT_EQ(instance->settings()[1].value, "9");
	EXPECT_EQ(instance->settings()[2].value, "fast");
	for (const auto &[title, value] : std::vector<std::pair<const char *, const char *>>{
		     {"Depth", "-1"}, {"Depth", "5000"}, {"LoudOnly", "yes"}, {"Gain", ""}, {"depth", "9"}})
		EXPECT_THROW(instance->set(title, value), failure) << title << value;
}

TEST_F(HostTest, DefaultsThatAreRefusedAreTold)
{
	const bench loaded(good);
	const auto instance = loaded.make();
	const hs_properties_ptr info(pw_properties_new("a.default", "{ title = depth value = 9 }", "b.default",
						       "{ title = Gain value = 99 }", nullptr));
	EXPECT_EQ(instance->set_defaults(info.get()).size(), 1u);
	EXPECT_EQ(instance->settings()[1].value, "9");
}

TEST_F(HostTest, LibraryWithoutInstanceIsToldOf)
{
	for (const char *mistake : {"unresolved", "no_entry", "factory_name", "no_interface", "version"}) {
		const subject broken{{mistake, std::string(HS_BROKEN_DIR) + "/libspa-hs-" + mistake + ".so"}, "", ""};
		EXPECT_THROW(bench(broken).make(), failure) << mistake;
	}
}

TEST(Description, GoodOnesAreNotComplainedOf)
{
	EXPECT_EQ(complaints(topic::setting, hs_describe_int("Gain", 3)), std::vector<std::string>{});
	EXPECT_EQ(complaints(topic::event, hs_describe_flags("Alarm", {{"Detected", true}, {"Report", false}})),
		  std::vector<std::string>{});
	EXPECT_EQ(complaints(topic::event, hs_describe_ints("Bands", {1, -2, 3})), std::vector<std::string>{});
	EXPECT_EQ(complaints(topic::event, hs_describe_string("Word", "a \"quoted\" word\n")),
		  std::vector<std::string>{});
	EXPECT_EQ(complaints(topic::event, describe_texts({{"A", "one, two"}})), std::vector<std::string>{});
	EXPECT_EQ(complaints(topic::event, hs_describe_string("Word", "{ open")), std::vector<std::string>{});
}

TEST(Description, EachMistakeIsComplainedOfOnce)
{
	for (const hs_description &wrong :
	     {hs_describe_int("2nd", 3), hs_describe_int("my-event", 3), hs_describe_int("NiceName", 3),
	      hs_describe_string("E", "\xc3"), hs_describe_string("E", std::string(600, 'x')),
	      describe_texts({{"A", ""}}), describe_texts({{"A", "1"}, {"A", "2"}}), describe_texts({{"", "1"}}),
	      hs_describe_flags("E", {}),
	      hs_describe("E", [](spa_pod_builder *b) { spa_pod_builder_id(b, 3000000000U); })})
		EXPECT_EQ(complaints(topic::event, wrong).size(), 1u)
			<< testing::PrintToString(complaints(topic::event, wrong));
	EXPECT_EQ(complaints(topic::setting, hs_describe_int("Enable", 3)).size(), 1u);
	EXPECT_EQ(complaints(topic::setting, hs_describe_string("Word", "{ open")).size(), 1u);
	EXPECT_EQ(complaints(topic::setting, hs_describe_ints("Bands", {1})).size(), 1u);
}

TEST(Description, NumbersThatAreNotFiniteShow)
{
	hs_pod_buffer buffer;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, static_cast<uint32_t>(sizeof(buffer.data)));
	const float numbers[] = {1.0F, INFINITY};
	const hs_description infinite = hs_describe("E", [&numbers](spa_pod_builder *b) {
		spa_pod_builder_array(b, sizeof(float), SPA_TYPE_Float, 2, numbers);
	});
	EXPECT_TRUE(read_raw(infinite(&builder)).has_non_finite);
}

TEST(CheckApart, FindingsComeBack)
{
	const outcome well = outcome_of(look_well);
	EXPECT_EQ(well.result, verdict::ok);
	ASSERT_EQ(well.findings.size(), 1u);
	const outcome found = outcome_of(look_and_find);
	EXPECT_EQ(found.result, verdict::error);
	ASSERT_EQ(found.findings.size(), 2u);
	EXPECT_EQ(found.findings[0].text, "warned of plug");
	EXPECT_EQ(outcome_of(look_and_throw).findings.at(0).text, "given up");
}

TEST(CheckApart, EndOfTheProcessIsAnErrorWithTheStep)
{
	const outcome crashed = outcome_of(look_and_crash);
	EXPECT_EQ(crashed.result, verdict::error);
	EXPECT_EQ(crashed.findings.at(0).text, "It died of Aborted, at this: the crash.");
	EXPECT_EQ(outcome_of(look_and_exit).findings.at(0).text, "It ended the whole process with status 3.");
}

TEST(CheckApart, HangEndsAtTheLimit)
{
	const outcome hung = outcome_of(look_and_hang, 0.2);
	EXPECT_EQ(hung.findings.at(0).text, "It did not end within 0.2 s, at this: the wait.");
	EXPECT_GE(hung.seconds, 0.2);
}

TEST(CheckApart, LogIsKeptAndManyFindingsAreCounted)
{
	const outcome talked = outcome_of(look_and_talk);
	EXPECT_EQ(talked.log, "a log line\n");
	EXPECT_EQ(talked.result, verdict::error);
	EXPECT_EQ(talked.findings.size(), 13u);
	EXPECT_EQ(talked.findings.back().text, "... and 39 more.");
}
