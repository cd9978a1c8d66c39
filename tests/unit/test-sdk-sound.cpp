/*
 * What the layer for plug-ins offers to measure sounds with: tones, rhythms, peaks, and what is held for a while.
 */
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <numbers>
#include <random>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <hear-sense/sdk/hold.hpp>
#include <hear-sense/sdk/peak.hpp>
#include <hear-sense/sdk/rhythm.hpp>
#include <hear-sense/sdk/tones.hpp>

#include "counting-new.hpp"

namespace {

using namespace hear_sense;
using samples = std::vector<float>;

samples sine(double frequency, double seconds, uint32_t rate = 16000, double amplitude = 0.1)
{
	samples made(static_cast<size_t>(seconds * rate));
	for (size_t i = 0; i < made.size(); i++) {
		const double turns = frequency * static_cast<double>(i) / rate;
		made[i] = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * turns));
	}
	return made;
}

void hear(tone_bank &bank, const std::vector<samples> &signals)
{
	const size_t n = bank.hop_frames();
	std::vector<std::span<const float>> heard(signals.size());
	for (size_t frame = 0; frame + n <= signals[0].size(); frame += n) {
		for (size_t c = 0; c < signals.size(); c++)
			heard[c] = std::span{signals[c]}.subspan(frame, n);
		bank.hear(heard);
	}
}

double last(const tone_bank &bank, size_t tone)
{
	return bank.level(tone).mean({1, 0});
}

size_t strongest(const tone_bank &bank)
{
	size_t found = 0;
	for (size_t tone = 1; tone < bank.size(); tone++)
		found = last(bank, tone) > last(bank, found) ? tone : found;
	return found;
}

/** Of each step, so many values: 0 for a beep and -40 for silence. */
std::vector<double> levels_of(std::string_view steps, size_t n)
{
	std::vector<double> made;
	for (const char step : steps)
		made.insert(made.end(), n, step == '1' ? 0.0 : -40.0);
	return made;
}

/** Rounds that are found in levels, of which one comes each 10 ms; each where it fits first. */
size_t count_rounds(const rhythm &wanted, const std::vector<double> &levels)
{
	level_history heard{1000};
	size_t n = 0, hop = 0, found_last = 0;
	for (const double level : levels) {
		heard.add(level);
		hop++;
		const auto found = wanted.find(heard);
		if (found && (n == 0 || hop - found_last >= found->beeps)) {
			found_last = hop;
			n++;
		}
	}
	return n;
}

constexpr rhythm_info knocks{.steps = "0001010000", .step_seconds = 0.2};

} // namespace

/*
 * Hold.
 */

TEST(Hold, IsOnAtOnceAndOffOnceItWasNotSeenForTheTime)
{
	for (const double time : {0.3, 1.0, 2.0, 3600.0}) {
		hold held;
		EXPECT_FALSE(held.update(false, 0.1, time));
		EXPECT_TRUE(held.update(true, 0.1, time));
		/* At 0.1 s each: a sum of these would drift. */
		for (long i = 1; i < std::lround(time * 10.0); i++)
			ASSERT_TRUE(held.update(false, 0.1, time)) << time << " " << i;
		EXPECT_FALSE(held.update(false, 0.1, time)) << time;
		EXPECT_FALSE(held.is_on());
	}
}

TEST(Hold, BridgesPausesThatAreShorter)
{
	hold held;
	for (int i = 0; i < 100; i++)
		ASSERT_TRUE(held.update(i % 10 == 0, 0.1, 1.0)) << i;
	EXPECT_FALSE(held.update(false, 0.1, 1.0));
}

TEST(Hold, OfNoTimeFollows)
{
	hold held;
	EXPECT_TRUE(held.update(true, 0.1, 0.0));
	EXPECT_FALSE(held.update(false, 0.1, 0.0));
}

TEST(Hold, DoesNotComeBackWhenTheTimeGrows)
{
	hold held;
	held.update(true, 0.1, 0.1);
	EXPECT_FALSE(held.update(false, 0.1, 0.1));
	EXPECT_FALSE(held.update(false, 0.1, 10.0));
}

/*
 * Peaks.
 */

TEST(Peak, OfAParabolaIsItsTop)
{
	const auto parabola = [](double x) { return 3.0 - 2.0 * (x - 0.3) * (x - 0.3); };
	const peak top = find_peak(parabola(-1.0), parabola(0.0), parabola(1.0));
	EXPECT_NEAR(top.offset, 0.3, 1e-12);
	EXPECT_NEAR(top.height, 3.0, 1e-12);
}

TEST(Peak, OfWhatIsNoneIsTheMiddle)
{
	EXPECT_EQ(find_peak(1.0F, 1.0F, 1.0F).offset, 0.0F);
	EXPECT_EQ(find_peak(1.0F, 1.0F, 1.0F).height, 1.0F);
	EXPECT_EQ(find_peak(3.0F, 1.0F, 2.0F).offset, 0.0F);
	EXPECT_EQ(find_peak(1.0F, 2.0F, 3.0F).offset, 0.0F);
}

/*
 * The history of a level.
 */

TEST(LevelHistory, TellsTheMeanOfAnyRange)
{
	level_history heard{100};
	/* Several times around. */
	for (int i = 0; i < 1000; i++)
		heard.add(-i % 100);
	/* The last ones are -99, -98 and so on, back in time. */
	EXPECT_NEAR(heard.mean({1, 0}), -99.0, 0.01);
	EXPECT_NEAR(heard.mean({11, 1}), -93.5, 0.01);
	EXPECT_NEAR(heard.mean({100, 0}), -49.5, 0.01);
	const std::vector<level_history::range> both{{1, 0}, {4, 1}};
	EXPECT_NEAR(heard.mean(both), -97.5, 0.01);
}

TEST(LevelHistory, IsAtItsFloorBeforeAndBelow)
{
	level_history heard{10, -80.0};
	EXPECT_EQ(heard.mean({10, 0}), -80.0);
	heard.add(-std::numeric_limits<double>::infinity());
	heard.add(-90.0);
	EXPECT_EQ(heard.mean({10, 0}), -80.0);
	heard.add(-70.0);
	EXPECT_NEAR(heard.mean({10, 0}), -79.0, 0.01);
}

TEST(LevelHistory, StaysExactHoweverLongItHears)
{
	level_history heard{10};
	/* The sum of these goes round several times. */
	for (int i = 0; i < 4000000; i++)
		heard.add(20.0);
	EXPECT_EQ(heard.mean({10, 0}), 20.0);
}

TEST(LevelHistory, TellsHowMuchIsAboveALevel)
{
	level_history heard{10};
	for (const double level : {-10.0, -30.0, -10.0, -30.0, -10.0})
		heard.add(level);
	EXPECT_DOUBLE_EQ(heard.share_above(-20.0, {5, 0}), 0.6);
	EXPECT_DOUBLE_EQ(heard.share_above(-20.0, {4, 0}), 0.5);
	EXPECT_DOUBLE_EQ(heard.share_above(-21.0, {5, 0}, 2), 1.0);
	EXPECT_DOUBLE_EQ(heard.share_above(-19.0, {5, 0}, 2), 0.0);
	/* Too short for that. */
	EXPECT_DOUBLE_EQ(heard.share_above(-100.0, {1, 0}, 2), 0.0);
}

/*
 * Tones.
 */

TEST(ToneBank, CoversItsRange)
{
	const tone_bank bank{16000, 1, {.lowest = 1000.0, .highest = 2000.0}};
	EXPECT_EQ(bank.hop_frames(), 128U);
	EXPECT_DOUBLE_EQ(bank.frequency_step(), 31.25);
	EXPECT_LE(bank.frequency(0), 1000.0);
	EXPECT_GE(bank.frequency(bank.size() - 1), 2000.0);
	EXPECT_DOUBLE_EQ(bank.frequency(1) - bank.frequency(0), 31.25);
}

TEST(ToneBank, TellsTheLevelOfASine)
{
	for (const uint32_t rate : {8000U, 11025U, 44100U, 48000U, 192000U}) {
		tone_bank bank{rate, 1, {.lowest = 1000.0, .highest = 2000.0}};
		for (const size_t tone : {size_t{0}, size_t{7}, bank.size() - 1}) {
			hear(bank, {sine(bank.frequency(tone), 0.1, rate)});
			EXPECT_EQ(strongest(bank), tone) << rate;
			EXPECT_NEAR(last(bank, tone), -23.01, 0.05) << rate;
			/* The window is a raised cosine: neighbours have half of it, the next ones nothing. */
			EXPECT_NEAR(last(bank, tone == 0 ? 1 : tone - 1), -29.03, 0.1) << rate;
			EXPECT_LT(last(bank, tone < 7 ? tone + 3 : tone - 3), -70.0) << rate;
		}
	}
}

TEST(ToneBank, HearsTheLastFourHops)
{
	tone_bank bank{16000, 1, {.lowest = 1000.0, .highest = 2000.0}};
	const double frequency = bank.frequency(3);
	hear(bank, {sine(frequency, 4 * 128 / 16000.0)});
	EXPECT_NEAR(last(bank, 3), -23.01, 0.05);
	hear(bank, {samples(3 * 128)});
	EXPECT_GT(last(bank, 3), -60.0);
	hear(bank, {samples(128)});
	EXPECT_EQ(last(bank, 3), -120.0);
	EXPECT_NEAR(bank.level(3).mean({5, 4}), -23.01, 0.05);
}

TEST(ToneBank, KeepsWhatItIsToldTo)
{
	tone_bank bank{16000, 1, {.lowest = 1000.0, .highest = 1100.0, .kept_seconds = 2.0}};
	hear(bank, {sine(bank.frequency(1), 2.5)});
	EXPECT_NEAR(bank.level(1).mean({250, 0}), -23.01, 0.05);
}

TEST(ToneBank, TakesTheMeanOfThePowersOfAllChannels)
{
	tone_bank bank{16000, 2, {.lowest = 1000.0, .highest = 2000.0}};
	const samples one = sine(bank.frequency(3), 0.1);
	hear(bank, {one, samples(one.size())});
	EXPECT_NEAR(last(bank, 3), -26.02, 0.05);
	/* Opposite phases do not cancel. */
	hear(bank, {one, sine(bank.frequency(3), 0.1, 16000, -0.1)});
	EXPECT_NEAR(last(bank, 3), -23.01, 0.05);
}

TEST(ToneBank, ForgetsWhatIsNoNumber)
{
	tone_bank bank{16000, 1, {.lowest = 1000.0, .highest = 2000.0}};
	samples bad(1280, std::numeric_limits<float>::quiet_NaN());
	for (size_t i = 0; i < bad.size(); i += 2)
		bad[i] = std::numeric_limits<float>::max();
	hear(bank, {bad});
	EXPECT_TRUE(std::isfinite(last(bank, 3)));
	hear(bank, {sine(bank.frequency(3), 0.1)});
	EXPECT_NEAR(last(bank, 3), -23.01, 0.05);
}

TEST(ToneBank, RefusesRatesThatAreTooLow)
{
	EXPECT_THROW((tone_bank{16000, 1, {.lowest = 1000.0, .highest = 8000.0}}), std::invalid_argument);
	EXPECT_THROW((tone_bank{100, 1, {.lowest = 10.0, .highest = 20.0}}), std::invalid_argument);
	EXPECT_THROW((tone_bank{0, 1, {.lowest = 10.0, .highest = 20.0}}), std::invalid_argument);
	EXPECT_THROW((tone_bank{16000, 1, {.lowest = 20.0, .highest = 10.0}}), std::invalid_argument);
}

TEST(ToneBank, TakesNoMemoryWhileItHears)
{
	tone_bank bank{16000, 1, {.lowest = 1000.0, .highest = 2000.0}};
	const samples signal = sine(1500.0, 0.008);
	const std::span<const float> heard{signal};
	const size_t before = hs_count_allocations();
	for (int i = 0; i < 2000; i++)
		bank.hear({&heard, 1});
	EXPECT_EQ(hs_count_allocations(), before);
}

/*
 * Rhythms.
 */

TEST(Rhythm, IsFoundOnceItIsOver)
{
	const rhythm wanted{knocks, 0.01};
	level_history heard{1000};
	size_t hop = 0, at = 0;
	for (const double level : levels_of("00000001010000000", 20)) {
		heard.add(level);
		hop++;
		const auto found = wanted.find(heard);
		if (!found || at != 0)
			continue;
		at = hop;
		EXPECT_NEAR(found->level, 0.0, 0.5);
		EXPECT_NEAR(found->silence, -40.0, 0.5);
		EXPECT_NEAR(static_cast<double>(found->since_end), static_cast<double>(hop - 200), 10.0);
		EXPECT_NEAR(static_cast<double>(found->beeps), 60.0, 8.0);
		EXPECT_NEAR(static_cast<double>(found->length), 200.0, 25.0);
	}
	/* The steps end at 280 when it is as fast as it is due. */
	EXPECT_GT(at, 240U);
	EXPECT_LE(at, 290U);
}

TEST(Rhythm, IsFoundAtOtherSpeeds)
{
	const rhythm wanted{knocks, 0.01};
	for (const size_t n : {18U, 19U, 20U, 21U, 22U})
		EXPECT_EQ(count_rounds(wanted, levels_of("0000000101000000000010100000", n)), 2U) << n;
	for (const size_t n : {14U, 15U, 26U, 28U})
		EXPECT_EQ(count_rounds(wanted, levels_of("0000000101000000000010100000", n)), 0U) << n;
}

TEST(Rhythm, IsNoOther)
{
	const rhythm wanted{knocks, 0.01};
	for (const char *other : {"0000000100000000000", "0000000111000000000", "0000000101010000000",
				  "0000000011000000000", "0000000100100000000", "0000000000000000000",
				  "1111111111111111111", "0101010101010101010", "1111111010111111111"})
		EXPECT_EQ(count_rounds(wanted, levels_of(other, 20)), 0U) << other;
}

TEST(Rhythm, TakesItsContrast)
{
	for (const double contrast : {4.0, 6.0}) {
		std::vector<double> levels = levels_of("0000000101000000000", 20);
		for (double &level : levels)
			level *= contrast / 40.0;
		EXPECT_EQ(count_rounds(rhythm{knocks, 0.01}, levels), contrast > 5.0 ? 1U : 0U);
		rhythm_info strict = knocks;
		strict.least_contrast = 10.0;
		EXPECT_EQ(count_rounds(rhythm{strict, 0.01}, levels), 0U);
	}
}

TEST(Rhythm, IsFoundInNoise)
{
	std::mt19937 generator{1};
	rhythm_info smooth = knocks;
	smooth.smoothing = 4;
	std::vector<double> levels = levels_of("00000001010000000000", 20);
	for (double &level : levels)
		level = level * 0.4 + static_cast<double>(generator() % 1000) / 50.0;
	EXPECT_EQ(count_rounds(rhythm{smooth, 0.01}, levels), 1U);
}

TEST(Rhythm, LetsRoomsRing)
{
	/* Each beep is a third of a step longer. */
	std::vector<double> levels = levels_of("0000000101000000000", 24);
	for (size_t i = levels.size() - 1; i >= 8; i--)
		levels[i] = std::max(levels[i], levels[i - 8]);
	rhythm_info slow = knocks;
	slow.step_seconds = 0.24;
	EXPECT_EQ(count_rounds(rhythm{slow, 0.01}, levels), 0U);
	slow.most_beeps = 1.5;
	slow.ringing = 0.5;
	EXPECT_EQ(count_rounds(rhythm{slow, 0.01}, levels), 1U);
}

TEST(Rhythm, TellsWhatElseSoundsDuringItsBeeps)
{
	const rhythm wanted{knocks, 0.01};
	level_history heard{1000}, inverse{1000};
	for (const double level : levels_of("00000001010000", 20)) {
		heard.add(level);
		inverse.add(-40.0 - level);
	}
	const auto found = wanted.find(heard);
	ASSERT_TRUE(found);
	EXPECT_NEAR(wanted.level_during(*found, heard), 0.0, 0.5);
	EXPECT_NEAR(wanted.level_during(*found, inverse), -40.0, 0.5);
}

TEST(Rhythm, RefusesStepsThatAreNone)
{
	for (const char *steps : {"", "0", "000", "1", "010101", "1010"})
		EXPECT_THROW((rhythm{{.steps = steps, .step_seconds = 0.2}, 0.01}), std::invalid_argument) << steps;
	EXPECT_THROW((rhythm{{.steps = "010", .step_seconds = 0.02}, 0.01}), std::invalid_argument);
}
