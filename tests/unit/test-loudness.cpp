/*
 * The meter of the loudness plug-in.
 */
#include "loudness-meter.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <memory>
#include <numbers>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include <spa/param/audio/raw.h>

namespace {

using positions = std::vector<uint32_t>;

const positions mono{SPA_AUDIO_CHANNEL_MONO};
const positions stereo{SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR};

float amplitude(double dbfs)
{
	return static_cast<float>(std::pow(10.0, dbfs / 20.0));
}

struct tone {
	double seconds;
	/** Of the sine's peak. */
	double dbfs;
};

/** Sines of 1 kHz, one after the other. */
std::vector<float> sines(uint32_t rate, const std::vector<tone> &tones, int times = 1)
{
	std::vector<float> samples;
	for (int i = 0; i < times; i++) {
		for (const tone &tone : tones) {
			const long n = std::lround(tone.seconds * rate);
			for (long k = 0; k < n; k++) {
				const double phase =
					2.0 * std::numbers::pi * 1000.0 * static_cast<double>(samples.size()) / rate;
				samples.push_back(amplitude(tone.dbfs) * static_cast<float>(std::sin(phase)));
			}
		}
	}
	return samples;
}

/** Hears one signal per channel; all looks. */
std::vector<loudness_values> hear(loudness_meter &meter, const std::vector<std::vector<float>> &signals)
{
	std::vector<loudness_values> looks;
	const size_t n = meter.look_frames();
	for (size_t first = 0; first + n <= signals[0].size(); first += n) {
		std::vector<std::span<const float>> channels;
		for (const std::vector<float> &signal : signals)
			channels.push_back(std::span{signal}.subspan(first, n));
		looks.push_back(meter.look(channels));
	}
	return looks;
}

/** What the same signal on all channels measures. */
std::vector<loudness_values> measure(uint32_t rate, const positions &channels, const std::vector<float> &signal)
{
	const auto meter = loudness_meter::create(rate, channels);
	EXPECT_TRUE(meter);
	if (!meter)
		return {{}};
	return hear(*meter, std::vector<std::vector<float>>(channels.size(), signal));
}

/** What a signal on one channel alone measures. */
loudness_values measure_one(const positions &channels, size_t which, const std::vector<float> &signal)
{
	const auto meter = loudness_meter::create(48000, channels);
	std::vector<std::vector<float>> signals(channels.size(), std::vector<float>(signal.size()));
	signals[which] = signal;
	return hear(*meter, signals).back();
}

void expect_floor(const loudness_values &values)
{
	EXPECT_EQ(values.momentary, -70.0);
	EXPECT_EQ(values.short_term, -70.0);
	EXPECT_EQ(values.peak, -120.0);
	EXPECT_EQ(values.level, -120.0);
}

void expect_finite(const loudness_values &values)
{
	EXPECT_TRUE(std::isfinite(values.momentary) && values.momentary >= -70.0) << values.momentary;
	EXPECT_TRUE(std::isfinite(values.short_term) && values.short_term >= -70.0) << values.short_term;
	EXPECT_TRUE(std::isfinite(values.peak) && values.peak >= -120.0) << values.peak;
	EXPECT_TRUE(std::isfinite(values.level) && values.level >= -120.0) << values.level;
}

} // namespace

class LoudnessMeterRates : public testing::TestWithParam<uint32_t>
{
};

/* The first two: EBU Tech 3341, cases 1 and 2, whose signals are the same but for the level. */
TEST_P(LoudnessMeterRates, MeasuresASteadyStereoTone)
{
	for (const double level : {-23.0, -33.0}) {
		const auto looks = measure(GetParam(), stereo, sines(GetParam(), {{20.0, level}}));
		ASSERT_EQ(looks.size(), 200U);
		for (size_t i = 4; i < looks.size(); i++)
			ASSERT_NEAR(looks[i].momentary, level, 0.1) << i;
		for (size_t i = 30; i < looks.size(); i++)
			ASSERT_NEAR(looks[i].short_term, level, 0.1) << i;
	}
}

/* EBU Tech 3341, case 9. */
TEST_P(LoudnessMeterRates, AveragesThreeSecondsForTheShortTerm)
{
	const auto looks = measure(GetParam(), stereo, sines(GetParam(), {{1.34, -20.0}, {1.66, -30.0}}, 5));
	ASSERT_EQ(looks.size(), 150U);
	for (size_t i = 30; i < looks.size(); i++)
		ASSERT_NEAR(looks[i].short_term, -23.0, 0.1) << i;
}

/* EBU Tech 3341, case 12. */
TEST_P(LoudnessMeterRates, AveragesFourTenthsForTheMomentary)
{
	const auto looks = measure(GetParam(), stereo, sines(GetParam(), {{0.18, -20.0}, {0.22, -30.0}}, 25));
	ASSERT_EQ(looks.size(), 100U);
	for (size_t i = 10; i < looks.size(); i++)
		ASSERT_NEAR(looks[i].momentary, -23.0, 0.1) << i;
}

INSTANTIATE_TEST_SUITE_P(Ebu, LoudnessMeterRates, testing::Values(48000U, 44100U, 96000U));

TEST(LoudnessMeter, MeasuresAtEveryUsualRate)
{
	for (const uint32_t rate : {8000U, 11025U, 16000U, 22050U, 32000U, 44100U, 48000U, 88200U, 96000U, 192000U}) {
		const auto looks = measure(rate, mono, sines(rate, {{4.0, -20.0}}));
		ASSERT_GE(looks.size(), 39U) << rate;
		ASSERT_LE(looks.size(), 40U) << rate;
		EXPECT_NEAR(looks.back().momentary, -23.01, 0.1) << rate;
		EXPECT_NEAR(looks.back().short_term, -23.01, 0.1) << rate;
		EXPECT_NEAR(looks.back().level, -23.01, 0.05) << rate;
		EXPECT_NEAR(looks.back().peak, -20.0, 0.2) << rate;
	}
}

TEST(LoudnessMeter, AgreesWithTheWindowsOfLibebur128)
{
	std::vector<float> signal = sines(48000, {{0.37, -12.0}, {0.93, -40.0}, {2.4, -20.0}, {1.3, -31.0}});
	const auto looks = measure(48000, mono, signal);
	ASSERT_EQ(looks.size(), 50U);
	ebur128_state *state = ebur128_init(1, 48000, EBUR128_MODE_S);
	for (size_t i = 0; i < looks.size(); i++) {
		double momentary;
		double short_term;
		ebur128_add_frames_float(state, &signal[i * 4800], 4800);
		ebur128_loudness_momentary(state, &momentary);
		ebur128_loudness_shortterm(state, &short_term);
		EXPECT_NEAR(looks[i].momentary, momentary, 1e-6) << i;
		EXPECT_NEAR(looks[i].short_term, short_term, 1e-6) << i;
	}
	ebur128_destroy(&state);
}

TEST(LoudnessMeter, LooksTenTimesASecondOfAudio)
{
	for (const uint32_t rate : {8000U, 11025U, 44100U, 48000U, 192000U}) {
		const auto frames = static_cast<double>(loudness_meter::create(rate, mono)->look_frames());
		EXPECT_NEAR(frames / rate, 0.1, 0.0001) << rate;
	}
}

TEST(LoudnessMeter, TakesMonoAsOneChannel)
{
	const std::vector<float> signal = sines(48000, {{4.0, -20.0}});
	for (const uint32_t position : {SPA_AUDIO_CHANNEL_MONO, SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_SL,
					SPA_AUDIO_CHANNEL_LFE, SPA_AUDIO_CHANNEL_AUX0, SPA_AUDIO_CHANNEL_UNKNOWN}) {
		const loudness_values values = measure(48000, {position}, signal).back();
		EXPECT_NEAR(values.momentary, -23.01, 0.05) << position;
		EXPECT_NEAR(values.short_term, -23.01, 0.05) << position;
	}
	/* The same twice is twice the power. */
	EXPECT_NEAR(measure(48000, stereo, signal).back().momentary, -20.0, 0.05);
}

TEST(LoudnessMeter, AddsThePowerOfUpToEightChannelsWithoutAPlace)
{
	const std::vector<float> signal = sines(48000, {{1.0, -20.0}});
	for (const uint32_t first : {uint32_t{SPA_AUDIO_CHANNEL_AUX0}, uint32_t{SPA_AUDIO_CHANNEL_UNKNOWN}}) {
		for (uint32_t n = 1; n <= 8; n++) {
			positions channels(n, first);
			for (uint32_t c = 0; first != SPA_AUDIO_CHANNEL_UNKNOWN && c < n; c++)
				channels[c] += c;
			const loudness_values values = measure(48000, channels, signal).back();
			EXPECT_NEAR(values.momentary, -23.01 + 10.0 * std::log10(n), 0.05) << n;
			/* Of all channels together, so the same for any number of them. */
			EXPECT_NEAR(values.level, -23.01, 0.01) << n;
			EXPECT_NEAR(values.peak, -20.0, 0.01) << n;
		}
	}
}

TEST(LoudnessMeter, WeighsChannelsByTheirPlace)
{
	const std::vector<float> signal = sines(48000, {{1.0, -20.0}});
	const positions five_one{SPA_AUDIO_CHANNEL_FL,	SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC,
				 SPA_AUDIO_CHANNEL_LFE, SPA_AUDIO_CHANNEL_RL, SPA_AUDIO_CHANNEL_RR};
	positions seven_one = five_one;
	seven_one.insert(seven_one.end(), {SPA_AUDIO_CHANNEL_SL, SPA_AUDIO_CHANNEL_SR});

	const double front = -23.01;
	const double surround = front + 10.0 * std::log10(1.41);
	const double expected_five_one[] = {front, front, front, -70.0, surround, surround};
	const double expected_seven_one[] = {front, front, front, -70.0, front, front, surround, surround};
	for (size_t c = 0; c < five_one.size(); c++)
		EXPECT_NEAR(measure_one(five_one, c, signal).momentary, expected_five_one[c], 0.05) << c;
	for (size_t c = 0; c < seven_one.size(); c++)
		EXPECT_NEAR(measure_one(seven_one, c, signal).momentary, expected_seven_one[c], 0.05) << c;
	EXPECT_NEAR(measure_one({SPA_AUDIO_CHANNEL_FLW, SPA_AUDIO_CHANNEL_FRW}, 1, signal).momentary, surround, 0.05);

	for (const uint32_t silent : {SPA_AUDIO_CHANNEL_NA, SPA_AUDIO_CHANNEL_LFE2, SPA_AUDIO_CHANNEL_LLFE})
		EXPECT_EQ(measure_one({SPA_AUDIO_CHANNEL_FL, silent}, 1, signal).momentary, -70.0) << silent;
	/* Weighing is for loudness: a clipping channel shows in the peak wherever it stands. */
	EXPECT_NEAR(measure_one(five_one, 3, signal).peak, -20.0, 0.01);
}

TEST(LoudnessMeter, TellsThePeakOfTheLastTenthOnly)
{
	std::vector<float> signal(4 * 4800, 0.001F);
	signal[4799] = -0.5F;
	signal[2 * 4800] = 0.25F;
	const auto looks = measure(48000, mono, signal);
	ASSERT_EQ(looks.size(), 4U);
	EXPECT_NEAR(looks[0].peak, -6.02, 0.01);
	EXPECT_NEAR(looks[1].peak, -60.0, 0.01);
	EXPECT_NEAR(looks[2].peak, -12.04, 0.01);
	EXPECT_NEAR(looks[3].peak, -60.0, 0.01);
}

TEST(LoudnessMeter, HearsEverySample)
{
	const auto meter = loudness_meter::create(44100, stereo);
	const size_t n = meter->look_frames();
	ASSERT_EQ(n % 8, 2U);
	std::vector<float> silence(n);
	std::vector<float> click(n);
	for (const size_t at : std::initializer_list<size_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 2000, 4406, 4407, 4408, 4409}) {
		click[at] = -0.5F;
		const loudness_values look = meter->look(std::array<std::span<const float>, 2>{silence, click});
		EXPECT_NEAR(look.peak, -6.0206, 1e-4) << at;
		EXPECT_NEAR(look.level, -6.0206 - 10.0 * std::log10(2.0 * static_cast<double>(n)), 1e-4) << at;
		click[at] = 0.0F;
	}
}

TEST(LoudnessMeter, StopsAtTheFloor)
{
	expect_floor(loudness_values{});
	for (const float sample : {0.0F, 1e-30F, std::numeric_limits<float>::denorm_min(), amplitude(-140.0)}) {
		for (const loudness_values &look : measure(48000, stereo, std::vector<float>(5 * 48000, sample)))
			expect_floor(look);
	}
	EXPECT_EQ(measure(48000, mono, sines(48000, {{5.0, -80.0}})).back().momentary, -70.0);
	EXPECT_NEAR(measure(48000, mono, sines(48000, {{5.0, -80.0}})).back().peak, -80.0, 0.01);
}

TEST(LoudnessMeter, RecoversFromHugeSamples)
{
	std::vector<float> signal = sines(48000, {{8.0, -20.0}});
	std::fill_n(signal.begin(), 4800, std::numeric_limits<float>::max());
	const auto looks = measure(48000, stereo, signal);
	for (const loudness_values &look : looks)
		expect_finite(look);
	EXPECT_NEAR(looks.back().short_term, -20.0, 0.1);
}

TEST(LoudnessMeter, RefusesWhatCannotBeMeasured)
{
	EXPECT_FALSE(loudness_meter::create(0, mono));
	EXPECT_FALSE(loudness_meter::create(3999, mono));
	EXPECT_FALSE(loudness_meter::create(10'000'000, mono));
	EXPECT_FALSE(loudness_meter::create(48000, {}));
	EXPECT_FALSE(loudness_meter::create(48000, positions(65, SPA_AUDIO_CHANNEL_AUX0)));
	EXPECT_TRUE(loudness_meter::create(4000, mono));
	EXPECT_TRUE(loudness_meter::create(8000, positions(64, SPA_AUDIO_CHANNEL_AUX0)));
}

TEST(LoudnessMeter, IsStableAtItsLowestRate)
{
	std::vector<float> signal(8000);
	signal[0] = 1.0F;
	EXPECT_EQ(measure(4000, mono, signal).back().momentary, -70.0);
}
