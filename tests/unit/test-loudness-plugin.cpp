/*
 * The loudness plug-in as the daemon has it: its interface, settings and life.
 */
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <spa/utils/json.h>

#include "loudness-host.hpp"

TEST(LoudnessPlugin, HasOneFactoryWithOneInterface)
{
	plugin plugin;
	EXPECT_STREQ(plugin.factory->name, "hear-sense.loudness");
	const spa_interface_info *info = nullptr;
	uint32_t index = 0;
	EXPECT_EQ(plugin.factory->enum_interface_info(plugin.factory, &info, &index), 1);
	EXPECT_STREQ(info->type, "Spa:Pointer:Interface:HearSense:LOUDNESS");
	EXPECT_EQ(plugin.factory->enum_interface_info(plugin.factory, &info, &index), 0);
}

TEST(LoudnessPlugin, AnswersItsOwnInterfaceTypeOnly)
{
	plugin plugin;
	EXPECT_STREQ(plugin.interface->type, "Spa:Pointer:Interface:HearSense:LOUDNESS");
	EXPECT_EQ(plugin.interface->version, 3U);
	EXPECT_STREQ(plugin.interface->name, "Loudness");
	EXPECT_STREQ(plugin.interface->interface_name, "Loudness");
	EXPECT_STREQ(plugin.interface->schema, "loudness.json");
	EXPECT_STREQ(plugin.interface->settings_schema, "loudness-settings.json");

	auto *handle = static_cast<spa_handle *>(plugin.interface->data);
	void *other = nullptr;
	EXPECT_LT(handle->get_interface(handle, "Spa:Pointer:Interface:HearSense:MOTION", &other), 0);
	EXPECT_EQ(other, nullptr);
}

TEST(LoudnessPlugin, DescribesItsEvents)
{
	plugin plugin;
	const auto *funcs = plugin.interface->funcs;
	ASSERT_EQ(funcs->get_event(plugin.interface->data, 0, nullptr, nullptr), 3);
	ASSERT_EQ(plugin.interface->n_events, 3U);

	const char *names[] = {"Loudness", "LoudnessAlarm", "Level"};
	const bool is_public[] = {true, true, false};
	for (uint32_t i = 0; i < 3; i++) {
		const hs_event_info &info = *plugin.interface->events[i];
		EXPECT_STREQ(info.name, names[i]);
		EXPECT_EQ(info.is_public, is_public[i]) << info.name;
		EXPECT_EQ(plugin.event(i).name, info.name);
		EXPECT_FALSE(plugin.event(i).text.empty());
		EXPECT_STRNE(info.nice_name, "");
		ASSERT_EQ(info.n_topics, 2U);
		for (uint64_t topic = 0; topic < info.n_topics; topic++) {
			EXPECT_STRNE(info.topics[topic]->name, "");
			EXPECT_STRNE(info.topics[topic]->nice_name, "");
			EXPECT_STREQ(info.topics[topic]->namespace_, "com.orvel");
		}
	}
	EXPECT_EQ(plugin.interface->events[loudness_event]->data_types, HS_EVENT_DATA_STATS);
	EXPECT_EQ(plugin.interface->events[alarm_event]->data_types, HS_EVENT_DATA_EVENT);
	EXPECT_EQ(plugin.interface->events[level_event]->data_types, HS_EVENT_DATA_STATS);

	const description loudness = plugin.event(loudness_event);
	ASSERT_EQ(loudness.type, uint32_t{SPA_TYPE_Struct});
	ASSERT_EQ(loudness.members.size(), 3U);
	EXPECT_EQ(loudness.members[0].first, "Momentary");
	EXPECT_EQ(loudness.members[1].first, "ShortTerm");
	EXPECT_EQ(loudness.members[2].first, "Peak");
	for (const auto &member : loudness.members)
		EXPECT_EQ(member.second.type, uint32_t{SPA_TYPE_Double});

	const description alarm = plugin.event(alarm_event);
	ASSERT_EQ(alarm.type, uint32_t{SPA_TYPE_Struct});
	ASSERT_EQ(alarm.members.size(), 2U);
	EXPECT_EQ(alarm.members[0].first, "Detected");
	EXPECT_EQ(alarm.members[1].first, "Report");
	for (const auto &member : alarm.members)
		EXPECT_EQ(member.second.type, uint32_t{SPA_TYPE_Bool});

	EXPECT_EQ(plugin.event(level_event).type, uint32_t{SPA_TYPE_Double});
	expect_rest(plugin);
}

TEST(LoudnessPlugin, DescribesItsSettings)
{
	plugin plugin;
	ASSERT_EQ(plugin.interface->funcs->get_setting(plugin.interface->data, 0, nullptr, nullptr), 2);
	EXPECT_EQ(plugin.setting(0).name, "Threshold");
	EXPECT_EQ(plugin.setting(0)[""], -20.0);
	EXPECT_EQ(plugin.setting(1).name, "HoldTime");
	EXPECT_EQ(plugin.setting(1)[""], 2.0);
	for (uint32_t i = 0; i < 2; i++) {
		EXPECT_EQ(plugin.setting(i).type, uint32_t{SPA_TYPE_Double});
		EXPECT_FALSE(plugin.setting(i).text.empty());
	}
}

TEST(LoudnessPlugin, AnswersNothingForAnIndexThatIsNotThere)
{
	plugin plugin;
	alignas(8) std::array<uint8_t, 4096> memory;
	spa_pod_builder builder{};
	spa_pod_builder_init(&builder, memory.data(), memory.size());
	spa_pod pod{};
	for (const auto get : {plugin.interface->funcs->get_event, plugin.interface->funcs->get_setting}) {
		for (const uint32_t index : {3U, 4U, 0xffffffffU}) {
			spa_pod *result = &pod;
			EXPECT_EQ(get(plugin.interface->data, index, &result, &builder), -EINVAL);
			EXPECT_EQ(result, nullptr);
		}
		EXPECT_EQ(get(plugin.interface->data, 1, nullptr, nullptr), -EINVAL);
		spa_pod *result = nullptr;
		EXPECT_EQ(get(plugin.interface->data, 0, &result, nullptr), -EINVAL);
	}
}

TEST(LoudnessPlugin, AnswersNothingThatDoesNotFit)
{
	plugin plugin;
	alignas(8) std::array<uint8_t, 64> memory;
	for (const auto get : {plugin.interface->funcs->get_event, plugin.interface->funcs->get_setting}) {
		spa_pod_builder builder{};
		spa_pod_builder_init(&builder, memory.data(), memory.size());
		spa_pod *result = nullptr;
		EXPECT_EQ(get(plugin.interface->data, 0, &result, &builder), -ENOSPC);
		EXPECT_EQ(result, nullptr);
	}
	spa_pod_builder builder{};
	spa_pod_builder_init(&builder, memory.data(), 8);
	EXPECT_EQ(plugin.interface->funcs->get_settings(plugin.interface->data, &builder), -ENOSPC);
}

TEST(LoudnessPlugin, TakesItsSettings)
{
	plugin plugin;
	for (const double threshold : {-70.0, -35.5, 0.0}) {
		EXPECT_EQ(plugin.set("Threshold", threshold), 0);
		EXPECT_EQ(plugin.setting(0)[""], threshold);
		EXPECT_EQ(plugin.setting(1)[""], 2.0);
	}
	for (const double hold_time : {0.0, 0.5, 3600.0}) {
		EXPECT_EQ(plugin.set("HoldTime", hold_time), 0);
		EXPECT_EQ(plugin.setting(0)[""], 0.0);
		EXPECT_EQ(plugin.setting(1)[""], hold_time);
	}

	alignas(8) std::array<uint8_t, 4096> memory;
	spa_pod_builder builder{};
	spa_pod_builder_init(&builder, memory.data(), memory.size());
	ASSERT_GE(plugin.interface->funcs->get_settings(plugin.interface->data, &builder), 0);
	spa_pod_parser parser;
	spa_pod_frame frame;
	const char *names[2];
	double numbers[2];
	spa_pod_parser_init(&parser, memory.data(), builder.state.offset);
	ASSERT_EQ(spa_pod_parser_push_struct(&parser, &frame), 0);
	for (int i = 0; i < 2; i++) {
		ASSERT_EQ(spa_pod_parser_get_string(&parser, &names[i]), 0);
		ASSERT_EQ(spa_pod_parser_get_double(&parser, &numbers[i]), 0);
	}
	EXPECT_STREQ(names[0], "Threshold");
	EXPECT_EQ(numbers[0], 0.0);
	EXPECT_STREQ(names[1], "HoldTime");
	EXPECT_EQ(numbers[1], 3600.0);
	EXPECT_EQ(spa_pod_parser_current(&parser), nullptr);
}

TEST(LoudnessPlugin, RefusesSettingsThatAreNotItsOwn)
{
	plugin plugin;
	const double not_a_number = std::numeric_limits<double>::quiet_NaN();
	const double infinite = std::numeric_limits<double>::infinity();
	for (const double number : {-70.001, 0.001, 20.0, not_a_number, infinite, -infinite})
		EXPECT_EQ(plugin.set("Threshold", number), -EINVAL) << number;
	for (const double number : {-0.001, 3600.001, not_a_number, infinite, -infinite})
		EXPECT_EQ(plugin.set("HoldTime", number), -EINVAL) << number;
	for (const char *name : {"threshold", "Threshold ", "Enable", "Loudness", ""})
		EXPECT_EQ(plugin.set(name, -30.0), -EINVAL) << name;

	EXPECT_EQ(plugin.set_with("Threshold", [](spa_pod_builder &) {}), -EINVAL);
	EXPECT_EQ(plugin.set_with("HoldTime", [](spa_pod_builder &b) { spa_pod_builder_int(&b, 1); }),
		  -EINVAL);
	EXPECT_EQ(plugin.set_with("HoldTime", [](spa_pod_builder &b) { spa_pod_builder_float(&b, 1.0F); }),
		  -EINVAL);
	EXPECT_EQ(plugin.set_with("HoldTime", [](spa_pod_builder &b) { spa_pod_builder_bool(&b, true); }),
		  -EINVAL);
	EXPECT_EQ(plugin.set_with("HoldTime", [](spa_pod_builder &b) { spa_pod_builder_string(&b, "1"); }),
		  -EINVAL);
	EXPECT_EQ(plugin.set_with("HoldTime",
				  [](spa_pod_builder &b) {
					  spa_pod_builder_double(&b, 1.0);
					  spa_pod_builder_string(&b, "Threshold");
				  }),
		  -EINVAL);

	EXPECT_EQ(plugin.set(nullptr), -EINVAL);
	const spa_pod_double scalar = SPA_POD_INIT_Double(-30.0);
	EXPECT_EQ(plugin.set(&scalar.pod), -EINVAL);
	const spa_pod empty = SPA_POD_INIT(0, SPA_TYPE_Struct);
	EXPECT_EQ(plugin.set(&empty), -EINVAL);

	EXPECT_EQ(plugin.setting(0)[""], -20.0);
	EXPECT_EQ(plugin.setting(1)[""], 2.0);
}

TEST(LoudnessPlugin, LetsIndicationsForOthersPass)
{
	plugin plugin;
	for (const char *name : {"IndicateInternalSpeakerActive", "IndicateContinuousAudioDisturbance"}) {
		EXPECT_EQ(plugin.set_with(name, [](spa_pod_builder &b) { spa_pod_builder_bool(&b, true); }),
			  0);
		EXPECT_EQ(plugin.set(name, 1.0), -EINVAL);
	}
	EXPECT_EQ(plugin.setting(0)[""], -20.0);
	EXPECT_EQ(plugin.setting(1)[""], 2.0);
}

TEST(LoudnessPlugin, ShipsSchemasWithTheRangesThatItTakes)
{
	const char *const files[] = {LOUDNESS_SCHEMA, LOUDNESS_SETTINGS_SCHEMA};
	const char *const names[][2] = {{"Threshold", "HoldTime"}, {"threshold", "holdtime"}};
	for (int f = 0; f < 2; f++) {
		const std::unique_ptr<FILE, int (*)(FILE *)> file{std::fopen(files[f], "r"), std::fclose};
		ASSERT_TRUE(file) << files[f];
		std::string text(65536, '\0');
		text.resize(std::fread(text.data(), 1, text.size(), file.get()));

		std::map<std::string, std::map<std::string, float>> ranges;
		spa_json json[4];
		char key[128];
		char name[128];
		spa_json_init(&json[0], text.data(), text.size());
		ASSERT_GT(spa_json_enter_object(&json[0], &json[1]), 0);
		while (spa_json_get_string(&json[1], key, sizeof(key)) > 0 &&
		       std::string{key} != "properties")
			ASSERT_GT(spa_json_get_string(&json[1], key, sizeof(key)), 0);
		ASSERT_GT(spa_json_enter_object(&json[1], &json[2]), 0);
		while (spa_json_get_string(&json[2], name, sizeof(name)) > 0) {
			ASSERT_GT(spa_json_enter_object(&json[2], &json[3]), 0);
			const char *value;
			int length;
			while (spa_json_get_string(&json[3], key, sizeof(key)) > 0 &&
			       (length = spa_json_next(&json[3], &value)) > 0) {
				float number;
				if (spa_json_parse_float(value, length, &number))
					ranges[name][key] = number;
			}
		}

		for (uint32_t i = 0; i < 2; i++) {
			plugin plugin;
			const std::string setting = plugin.setting(i).name;
			auto &range = ranges[names[f][i]];
			ASSERT_EQ(range.size(), 3U) << names[f][i];
			EXPECT_EQ(plugin.setting(i)[""], double{range["default"]});
			EXPECT_EQ(plugin.set(setting.c_str(), double{range["minimum"]}), 0);
			EXPECT_EQ(plugin.set(setting.c_str(), double{range["maximum"]}), 0);
			EXPECT_EQ(plugin.set(setting.c_str(), double{range["minimum"]} - 0.1), -EINVAL);
			EXPECT_EQ(plugin.set(setting.c_str(), double{range["maximum"]} + 0.1), -EINVAL);
		}
		EXPECT_EQ(ranges.size(), 2U);
	}
}

TEST(LoudnessPlugin, KeepsSettingsOverANewStream)
{
	plugin plugin;
	ASSERT_EQ(plugin.set("Threshold", -44.0), 0);
	plugin.start();
	plugin.interface->funcs->deinit(plugin.interface->data);
	plugin.start();
	EXPECT_EQ(plugin.setting(0)[""], -44.0);
}

TEST(LoudnessPlugin, RefusesOtherFormatsAndSaysWhatToChange)
{
	plugin plugin;
	EXPECT_EQ(plugin.init(48000, {SPA_AUDIO_CHANNEL_MONO}, SPA_AUDIO_FORMAT_S16_LE), -ENOTSUP);
	ASSERT_EQ(plugin.log.lines.size(), 1U);
	EXPECT_EQ(plugin.log.lines[0].level, SPA_LOG_LEVEL_ERROR);
	EXPECT_EQ(plugin.log.lines[0].topic, "hear-sense.loudness");
	EXPECT_EQ(plugin.log.lines[0].text, "cannot hear AudioDevice0Input0.Unprocessed "
					    "(S16LE, 1 channel, 48000 Hz): "
					    "set audio.format to F32P in loudness.conf");
	EXPECT_EQ(plugin.init(48000, {SPA_AUDIO_CHANNEL_MONO}, static_cast<spa_audio_format>(77)), -ENOTSUP);
	EXPECT_EQ(plugin.log.lines.size(), 2U);
	plugin.hear_mono(sine(48000, 1.0, -20.0));
	EXPECT_TRUE(plugin.told.empty());
}

TEST(LoudnessPlugin, RefusesRatesAndChannelNumbersThatCannotBeMeasured)
{
	plugin plugin;
	const std::vector<uint32_t> mono{SPA_AUDIO_CHANNEL_MONO};
	EXPECT_EQ(plugin.init(0, mono), -EINVAL);
	EXPECT_EQ(plugin.init(1000, mono), -EINVAL);
	EXPECT_EQ(plugin.init(10'000'000, mono), -EINVAL);
	EXPECT_EQ(plugin.init(48000, {}), -EINVAL);
	EXPECT_EQ(plugin.init(48000, std::vector<uint32_t>(65, SPA_AUDIO_CHANNEL_AUX0)), -EINVAL);
	ASSERT_EQ(plugin.log.lines.size(), 5U);
	for (const log_line &line : plugin.log.lines)
		EXPECT_EQ(line.level, SPA_LOG_LEVEL_ERROR) << line.text;
	EXPECT_LT(plugin.interface->funcs->activate(plugin.interface->data), 0);
}

TEST(LoudnessPlugin, DoesWithoutALog)
{
	plugin plugin{false};
	EXPECT_EQ(plugin.init(1000, {SPA_AUDIO_CHANNEL_MONO}), -EINVAL);
	plugin.start();
}

TEST(LoudnessPlugin, DoesWithoutAnyoneToTell)
{
	plugin plugin;
	plugin.interface->notify_event = nullptr;
	plugin.start();
	plugin.hear_mono(sine(48000, 1.0, -10.0));
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -10.0);
	EXPECT_EQ(plugin.event(alarm_event)["Detected"], true);
}

TEST(LoudnessPlugin, RestsWhileItIsNotActive)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(sine(48000, 1.0, -10.0));
	ASSERT_EQ(plugin.event(alarm_event)["Detected"], true);
	plugin.interface->funcs->deactivate(plugin.interface->data);
	expect_rest(plugin);
	plugin.told.clear();
	plugin.hear_mono(sine(48000, 1.0, -10.0));
	EXPECT_TRUE(plugin.told.empty());

	/* The tone of before the pause is forgotten. */
	ASSERT_EQ(plugin.interface->funcs->activate(plugin.interface->data), 0);
	plugin.hear_mono(silence(0.1));
	expect_rest(plugin);
}

TEST(LoudnessPlugin, StartsAfreshWithANewStream)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(sine(48000, 1.05, -10.0));
	plugin.interface->funcs->deactivate(plugin.interface->data);
	plugin.interface->funcs->deinit(plugin.interface->data);
	expect_rest(plugin);
	EXPECT_LT(plugin.interface->funcs->activate(plugin.interface->data), 0);

	ASSERT_EQ(plugin.init(44100, {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR}), 0);
	expect_rest(plugin);
	ASSERT_EQ(plugin.interface->funcs->activate(plugin.interface->data), 0);
	const std::vector<float> tone = sine(44100, 1.0, -33.0);
	plugin.hear({tone, tone});
	EXPECT_NEAR(plugin.event(loudness_event)["Momentary"], -33.0, 0.1);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -33.0);
}

TEST(LoudnessPlugin, KeepsToTheFormatThatItWasGiven)
{
	plugin plugin;
	plugin.start();
	/* As the daemon does just before it begins anew. */
	plugin.stream.info.channels = 64;
	plugin.stream.info.format = SPA_AUDIO_FORMAT_S16_LE;
	plugin.hear_mono(sine(48000, 1.0, -20.0));
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -20.0);
}

TEST(LoudnessPlugin, HandlesOfOneLibraryAreIndependent)
{
	plugin loud;
	plugin quiet;
	ASSERT_NE(loud.interface, quiet.interface);
	loud.start();
	quiet.start();
	ASSERT_EQ(quiet.set("Threshold", -70.0), 0);
	const std::vector<float> loud_tone = sine(48000, 0.01, -10.0);
	const std::vector<float> quiet_tone = sine(48000, 0.01, -50.0);
	for (int i = 0; i < 200; i++) {
		loud.hear_mono(loud_tone);
		quiet.hear_mono(quiet_tone);
	}
	EXPECT_EQ(loud.event(loudness_event)["Peak"], -10.0);
	EXPECT_EQ(quiet.event(loudness_event)["Peak"], -50.0);
	EXPECT_NEAR(loud.event(loudness_event)["Momentary"], -13.0, 0.1);
	EXPECT_NEAR(quiet.event(loudness_event)["Momentary"], -53.0, 0.1);
	EXPECT_EQ(loud.setting(0)[""], -20.0);
	for (const told_event &event : quiet.told) {
		if (event.index == level_event) {
			EXPECT_EQ(event.value[""], -53.0);
		}
	}
}
