/*
 * The loudness plug-in as the daemon has it: what it tells of what it hears.
 */
#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "loudness-host.hpp"

TEST(LoudnessPluginAudio, TellsWhatItHears)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(sine(48000, 4.0, -20.0));
	EXPECT_EQ(plugin.event(loudness_event)["Momentary"], -23.0);
	EXPECT_NEAR(plugin.event(loudness_event)["ShortTerm"], -23.0, 0.9);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -20.0);
	EXPECT_EQ(plugin.event(level_event)[""], -23.0);
	EXPECT_EQ(plugin.event(alarm_event)["Detected"], false);
}

TEST(LoudnessPluginAudio, RoundsToTenths)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(steady_noise(3.0));
	ASSERT_GT(plugin.told.size(), 10U);
	for (const told_event &event : plugin.told) {
		for (const auto &[name, value] : event.value.members) {
			if (value.type == SPA_TYPE_Double) {
				EXPECT_EQ(value.number, std::round(value.number * 10.0) / 10.0) << name;
			}
		}
	}
}

TEST(LoudnessPluginAudio, ToldValuesAreAUnitApart)
{
	plugin plugin;
	plugin.start();
	/* Up by 0.3 dB each 400 ms. */
	std::vector<float> signal;
	for (int i = 0; i < 50; i++)
		signal = signal + sine(48000, 0.4, -50.0 + 0.3 * i);
	plugin.hear_mono(signal);
	ASSERT_GT(plugin.count(loudness_event), 10U);
	EXPECT_LT(plugin.count(loudness_event), 60U);
	const description *last = nullptr;
	for (const told_event &event : plugin.told) {
		if (event.index != loudness_event)
			continue;
		if (last) {
			const double moves[] = {event.value["Momentary"] - (*last)["Momentary"],
						event.value["ShortTerm"] - (*last)["ShortTerm"],
						event.value["Peak"] - (*last)["Peak"]};
			EXPECT_TRUE(std::any_of(std::begin(moves), std::end(moves),
						[](double move) { return std::abs(move) > 0.95; }));
		}
		last = &event.value;
	}
}

TEST(LoudnessPluginAudio, SaysNothingOfASteadyTone)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(sine(48000, 4.0, -40.0));
	plugin.told.clear();
	plugin.hear_mono(sine(48000, 20.0, -40.0));
	EXPECT_TRUE(plugin.told.empty());
}

TEST(LoudnessPluginAudio, LeavesTheBusAloneInASteadyRoom)
{
	plugin plugin;
	plugin.start();
	const std::vector<float> noise = steady_noise(64.0);
	const auto settled = noise.begin() + 4 * 48000;
	plugin.hear_mono({noise.begin(), settled});
	plugin.told.clear();
	plugin.hear_mono({settled, noise.end()});
	EXPECT_LE(plugin.count(loudness_event), 2U);
	EXPECT_EQ(plugin.count(alarm_event), 0U);
	/* Private clients have their meter all the same. */
	EXPECT_GT(plugin.count(level_event), 60U);
}

TEST(LoudnessPluginAudio, TellsOfAPeakAndOfItsEnd)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(steady_noise(5.0));
	const double before = plugin.event(loudness_event)["Peak"];
	plugin.told.clear();

	std::vector<float> click = steady_noise(0.1);
	click[1000] = 0.05F;
	plugin.hear_mono(click);
	EXPECT_NEAR(plugin.event(loudness_event)["Peak"], -26.0, 0.05);
	plugin.hear_mono(steady_noise(1.0));
	EXPECT_NEAR(plugin.event(loudness_event)["Peak"], before, 3.0);
}

TEST(LoudnessPluginAudio, TellsEveryLookOfALongBuffer)
{
	plugin plugin;
	plugin.start();
	const std::vector<float> signal = silence(1.0) + sine(48000, 0.5, -10.0) + silence(4.0);
	plugin.hear_mono(signal, signal.size());
	/* Up within the buffer and down again. */
	EXPECT_GE(plugin.count(loudness_event), 10U);
	EXPECT_EQ(plugin.count(alarm_event), 2U);
	EXPECT_EQ(plugin.count(level_event), 2U);
	double loudest = -120.0;
	for (const told_event &event : plugin.told) {
		if (event.index == level_event)
			loudest = std::max(loudest, event.value[""]);
	}
	EXPECT_EQ(loudest, -13.0);
	EXPECT_EQ(plugin.event(level_event)[""], -120.0);
}

TEST(LoudnessPluginAudio, TellsTheSameInBuffersOfAnySize)
{
	const std::vector<float> signal = silence(0.35) + sine(48000, 0.77, -12.0) + steady_noise(1.3) +
					  sine(48000, 0.51, -25.0) + silence(3.0);
	plugin expected;
	expected.start();
	expected.hear_mono(signal);
	ASSERT_GT(expected.told.size(), 20U);
	EXPECT_EQ(expected.count(alarm_event), 2U);
	for (const size_t size : {1UL, 3UL, 37UL, 479UL, 4799UL, 4800UL, 10'007UL, 1'000'000UL}) {
		plugin plugin;
		plugin.start();
		plugin.hear_mono(signal, size);
		EXPECT_EQ(texts(plugin.told), texts(expected.told)) << size;
	}
}

TEST(LoudnessPluginAudio, RaisesTheAlarmAtOnceAndClearsItAfterTheHoldTime)
{
	plugin plugin;
	plugin.start();
	ASSERT_EQ(plugin.set("Threshold", -20.0), 0);
	ASSERT_EQ(plugin.set("HoldTime", 1.5), 0);
	const std::vector<float> signal =
		sine(48000, 2.0, -40.0) + sine(48000, 1.0, -10.0) + sine(48000, 4.0, -40.0);
	plugin.hear_mono(signal, 480);

	std::vector<told_event> alarms;
	std::copy_if(plugin.told.begin(), plugin.told.end(), std::back_inserter(alarms),
		     [](const told_event &event) { return event.index == alarm_event; });
	ASSERT_EQ(alarms.size(), 2U);
	EXPECT_EQ(alarms[0].value["Detected"], true);
	EXPECT_EQ(alarms[0].value["Report"], true);
	/* A tenth of -13 LUFS among four makes -19. */
	EXPECT_EQ(alarms[0].frames, 48000U * 21 / 10);
	EXPECT_EQ(alarms[1].value["Detected"], false);
	EXPECT_EQ(alarms[1].value["Report"], false);
	/* Loud until the last loud tenth has left the 400 ms; the first quiet look counts as held. */
	EXPECT_EQ(alarms[1].frames, 48000U * (30 + 3 + 15) / 10);
}

TEST(LoudnessPluginAudio, TakesNewSettingsWhileItRuns)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(sine(48000, 1.0, -40.0));
	EXPECT_EQ(plugin.event(alarm_event)["Detected"], false);
	ASSERT_EQ(plugin.set("Threshold", -50.0), 0);
	plugin.hear_mono(sine(48000, 0.1, -40.0), 480);
	EXPECT_EQ(plugin.event(alarm_event)["Detected"], true);
	ASSERT_EQ(plugin.set("Threshold", -30.0), 0);
	ASSERT_EQ(plugin.set("HoldTime", 0.2), 0);
	plugin.hear_mono(sine(48000, 0.1, -40.0), 480);
	EXPECT_EQ(plugin.event(alarm_event)["Detected"], true);
	plugin.hear_mono(sine(48000, 0.1, -40.0), 480);
	EXPECT_EQ(plugin.event(alarm_event)["Detected"], false);
}

TEST(LoudnessPluginAudio, StaysFiniteWhateverItHears)
{
	plugin plugin;
	plugin.start();
	std::vector<float> signal = sine(48000, 1.0, 0.0);
	for (size_t i = 0; i < signal.size(); i += 5)
		signal[i] = i % 2 == 0 ? std::numeric_limits<float>::quiet_NaN()
				       : -std::numeric_limits<float>::infinity();
	plugin.hear_mono(signal + silence(5.0) + std::vector<float>(9600, std::numeric_limits<float>::max()));
	ASSERT_FALSE(plugin.told.empty());
	for (const told_event &event : plugin.told) {
		for (const auto &[name, value] : event.value.members)
			ASSERT_TRUE(std::isfinite(value.number)) << name;
	}
}

TEST(LoudnessPluginAudio, ComesBackToTheFloorInSilence)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(sine(48000, 1.0, -10.0) + silence(6.0));
	expect_rest(plugin);
}

TEST(LoudnessPluginAudio, RunsAtAllRatesAndChannelNumbers)
{
	for (const uint32_t rate : {8000U, 16000U, 44100U, 48000U, 96000U, 192000U}) {
		for (uint32_t n = 1; n <= 8; n++) {
			plugin plugin;
			std::vector<uint32_t> positions;
			for (uint32_t c = 0; c < n; c++)
				positions.push_back(SPA_AUDIO_CHANNEL_AUX0 + c);
			ASSERT_EQ(plugin.init(rate, positions), 0) << rate << " " << n;
			ASSERT_EQ(plugin.interface->funcs->activate(plugin.interface->data), 0);
			plugin.hear(std::vector<std::vector<float>>(n, sine(rate, 0.6, -30.0)));
			EXPECT_NEAR(plugin.event(loudness_event)["Momentary"], -33.01 + 10.0 * std::log10(n),
				    1.3)
				<< rate << " " << n;
			EXPECT_EQ(plugin.event(level_event)[""], -33.0) << rate << " " << n;
		}
	}
}

TEST(LoudnessPluginAudio, ReadsInterleavedSamples)
{
	plugin plugin;
	ASSERT_EQ(plugin.init(48000, {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR}, SPA_AUDIO_FORMAT_F32), 0);
	ASSERT_EQ(plugin.interface->funcs->activate(plugin.interface->data), 0);
	std::vector<float> samples;
	for (const float sample : sine(48000, 1.0, -23.0)) {
		samples.push_back(sample);
		samples.push_back(sample);
	}
	plugin.hear_mono(samples, 1000);
	EXPECT_NEAR(plugin.event(loudness_event)["Momentary"], -23.0, 0.1);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -23.0);
	EXPECT_EQ(plugin.event(level_event)[""], -26.0);
}

TEST(LoudnessPluginAudio, HearsTheValidPartOfABlockOnly)
{
	plugin plugin;
	plugin.start();
	/* 100 ms of a tone between loud rests of earlier use. */
	std::vector<float> block(3 * 4800, 1.0F);
	const std::vector<float> tone = sine(48000, 0.1, -20.0);
	std::copy(tone.begin(), tone.end(), block.begin() + 4800);
	buffer buffer{{block}};
	buffer.chunks[0].offset = 4800 * sizeof(float);
	buffer.chunks[0].size = 4800 * sizeof(float);
	plugin.process(buffer);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -20.0);
}

TEST(LoudnessPluginAudio, StaysInsideABlockWhateverItsChunkSays)
{
	/* Of four equal bytes, so that a sample is the same at any offset in the block, and only there. */
	const float inside = std::bit_cast<float>(0x3c3c3c3c);
	const float outside = std::bit_cast<float>(0x47474747);
	const uint32_t all = 4800 * sizeof(float);
	const struct {
		uint32_t offset;
		uint32_t size;
		bool has_samples;
	} chunks[] = {
		{0, 0xffffffff, true},	  {0, all + 4, true},	     {4, all, true},
		{all, all, true},	  {all + 4, all, true},	     {3, all, true},
		{all / 2 + 1, all, true}, {0xffffffff, all, true},   {0x80000000, all, true},
		{all - 1, all, false},	  {2 * all - 3, all, false}, {4, 3, false},
	};
	for (const auto &chunk : chunks) {
		plugin plugin;
		plugin.start();
		std::vector<float> memory(3 * 4800, outside);
		std::fill_n(memory.begin() + 4800, 4800, inside);
		buffer buffer{{std::move(memory)}};
		buffer.datas[0].data = &buffer.samples[0][4800];
		buffer.datas[0].maxsize = all;
		buffer.chunks[0].offset = chunk.offset;
		buffer.chunks[0].size = chunk.size;
		for (int i = 0; i < 10; i++)
			plugin.process(buffer);
		EXPECT_EQ(plugin.event(loudness_event)["Peak"], chunk.has_samples ? -38.8 : -120.0)
			<< chunk.offset << " " << chunk.size;
	}
}

TEST(LoudnessPluginAudio, IgnoresBuffersWithoutSamples)
{
	plugin plugin;
	plugin.start();
	const std::vector<float> tone = sine(48000, 0.1, -20.0);

	buffer none{{}};
	none.raw.datas = nullptr;
	plugin.process(none);
	none.raw.n_datas = 1;
	plugin.process(none);

	buffer empty{{tone}};
	empty.chunks[0].size = 0;
	plugin.process(empty);
	empty.chunks[0].size = 3;
	plugin.process(empty);

	buffer no_room{{tone}};
	no_room.datas[0].maxsize = 0;
	plugin.process(no_room);

	buffer no_data{{tone}};
	no_data.datas[0].data = nullptr;
	plugin.process(no_data);

	buffer no_chunk{{tone}};
	no_chunk.datas[0].chunk = nullptr;
	plugin.process(no_chunk);

	buffer corrupted{{tone}};
	corrupted.chunks[0].flags = SPA_CHUNK_FLAG_CORRUPTED;
	plugin.process(corrupted);

	EXPECT_TRUE(plugin.told.empty());
	/* None of them took any time. */
	buffer good{{tone}};
	plugin.process(good);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -20.0);
}

TEST(LoudnessPluginAudio, HearsAChunkThatIsMarkedEmptyAsSilence)
{
	plugin plugin;
	plugin.start();
	plugin.hear_mono(sine(48000, 1.0, -20.0));
	buffer empty{{sine(48000, 0.5, -20.0)}};
	empty.chunks[0].flags = SPA_CHUNK_FLAG_EMPTY;
	plugin.process(empty);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -120.0);
	EXPECT_EQ(plugin.event(loudness_event)["Momentary"], -70.0);
}

TEST(LoudnessPluginAudio, TakesBuffersWithTooFewOrTooManyBlocks)
{
	const std::vector<float> tone = sine(48000, 1.0, -20.0);
	plugin too_few;
	ASSERT_EQ(too_few.init(48000, {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR}), 0);
	too_few.hear({tone});
	EXPECT_NEAR(too_few.event(loudness_event)["Momentary"], -23.01, 0.1);

	plugin too_many;
	too_many.start();
	too_many.hear({tone, sine(48000, 1.0, 0.0), tone});
	EXPECT_EQ(too_many.event(loudness_event)["Peak"], -20.0);
}

TEST(LoudnessPluginAudio, HearsAsFarAsAllChannelsGo)
{
	plugin plugin;
	ASSERT_EQ(plugin.init(48000, {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR}), 0);
	std::vector<float> longer = sine(48000, 0.2, -20.0);
	std::fill(longer.begin() + 4800, longer.end(), 1.0F);
	buffer buffer{{longer, sine(48000, 0.1, -20.0)}};
	plugin.process(buffer);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -20.0);
	EXPECT_EQ(plugin.count(level_event), 1U);
}
