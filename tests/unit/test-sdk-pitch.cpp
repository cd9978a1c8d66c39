/*
 * Measuring pitch: that of voices and other sounds, at any rate.
 */
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include <hear-sense/sdk/pitch.hpp>

#include "counting-new.hpp"
#include "voice-sounds.hpp"

namespace {

using hear_sense::pitch;
using hear_sense::pitch_meter;

/** Of each 10 ms, from where the first 40 ms have been heard. */
std::vector<pitch> pitches(const samples &sound, uint32_t rate = 16000)
{
	pitch_meter meter{rate};
	std::vector<pitch> found;
	const size_t hop = rate / 100;
	for (size_t at = 0; at + hop <= sound.size(); at += hop) {
		const pitch now = meter.look(std::span{sound}.subspan(at, hop));
		if (at / hop >= 3)
			found.push_back(now);
	}
	return found;
}

} // namespace

TEST(PitchMeter, IsThatOfAVowel)
{
	for (const double hertz : {75.0, 100.0, 123.4, 160.0, 220.0, 300.0, 330.0, 350.0, 380.0, 410.0}) {
		for (const pitch &found : pitches(held_vowel(hertz, 0.5))) {
			EXPECT_NEAR(found.frequency, hertz, 0.01 * hertz);
			EXPECT_GT(found.periodicity, 0.7F) << hertz;
		}
	}
}

TEST(PitchMeter, StaysUnderNoise)
{
	const samples sound = held_vowel(100.0, 4.0);
	const std::vector<pitch> all = pitches(mixed(sound, scaled(noise(4.0), rms(sound) / 0.1 / std::sqrt(10.0))));
	for (const pitch &found : all) {
		EXPECT_GT(found.periodicity, 0.5F);
		EXPECT_NEAR(found.frequency, 100.0, 2.0);
	}
}

TEST(PitchMeter, FollowsAGlide)
{
	double phase = 0.0;
	/* From 120 Hz, by an octave a second. */
	const std::vector<pitch> all = pitches(make_sound(1.0, 16000, [&phase](double t) {
		const double hertz = 120.0 * std::exp2(t);
		phase += hertz / 16000.0;
		return vowel(phase, hertz);
	}));
	for (size_t i = 1; i < all.size(); i++) {
		EXPECT_GT(all[i].frequency, all[i - 1].frequency) << i;
		/* What is heard is the middle of the 40 ms. */
		EXPECT_NEAR(all[i].frequency, 120.0 * std::exp2(0.02 + 0.01 * static_cast<double>(i)), 4.0) << i;
	}
}

TEST(PitchMeter, IsSeldomInNoise)
{
	for (const samples &sound : {noise(20.0), swelling_noise(20.0)}) {
		const std::vector<pitch> all = pitches(sound);
		const auto has_pitch = [](const pitch &one) { return one.periodicity > 0.35F; };
		EXPECT_LT(static_cast<size_t>(std::count_if(all.begin(), all.end(), has_pitch)), all.size() * 5 / 100);
	}
}

TEST(PitchMeter, SpreadTellsHowMuchOfTheSpectrumSounds)
{
	for (const pitch &found : pitches(held_vowel(120.0, 0.5)))
		EXPECT_GT(found.spread, 562.5F);
	for (const samples &sound : {sine(150.0, 1.0), sine(1000.0, 1.0), mixed(sine(200.0, 1.0), sine(400.0, 1.0))}) {
		for (const pitch &found : pitches(sound)) {
			EXPECT_GT(found.spread, 0.0F);
			EXPECT_LT(found.spread, 250.0F);
		}
	}
}

TEST(PitchMeter, WorksAtAllRates)
{
	for (const uint32_t rate : {8000U, 11025U, 44100U, 48000U, 96000U}) {
		for (const double hertz : {80.0, 150.0, 400.0}) {
			const samples sound =
				make_sound(0.3, rate, [hertz](double t) { return vowel(hertz * t, hertz); });
			for (const pitch &found : pitches(sound, rate)) {
				EXPECT_NEAR(found.frequency, hertz, 0.015 * hertz) << rate;
				EXPECT_GT(found.periodicity, 0.6F) << rate;
			}
		}
	}
}

TEST(PitchMeter, FindsPitchesOfItsRangeOnly)
{
	const samples sound = held_vowel(220.0, 0.2);
	pitch_meter low{16000, 60.0, 150.0};
	pitch_meter high{16000, 150.0, 600.0};
	const std::span<const float> heard{sound};
	pitch of_low, of_high;
	for (size_t at = 0; at + 160 <= heard.size(); at += 160) {
		of_low = low.look(heard.subspan(at, 160));
		of_high = high.look(heard.subspan(at, 160));
	}
	EXPECT_NEAR(of_high.frequency, 220.0F, 2.0F);
	/* Two periods are one as well. */
	EXPECT_NEAR(of_low.frequency, 110.0F, 2.0F);
}

TEST(PitchMeter, RefusesWhatItCannotMeasure)
{
	EXPECT_THROW(pitch_meter{7999}, std::invalid_argument);
	EXPECT_THROW((pitch_meter{16000, 40.0, 400.0}), std::invalid_argument);
	EXPECT_THROW((pitch_meter{16000, 400.0, 100.0}), std::invalid_argument);
	EXPECT_THROW((pitch_meter{16000, 100.0, 2000.0}), std::invalid_argument);
}

TEST(PitchMeter, TakesNoMemoryWhileItHears)
{
	pitch_meter meter{16000};
	const samples sound = held_vowel(120.0, 0.01);
	const size_t before = hs_count_allocations();
	float heard = 0.0F;
	for (int i = 0; i < 20; i++)
		heard += meter.look(sound).level;
	EXPECT_EQ(hs_count_allocations(), before);
	EXPECT_NE(heard, 0.0F);
}

TEST(PitchMeter, LevelIsInDecibels)
{
	const float full = pitches(sine(500.0, 0.1)).back().level;
	EXPECT_NEAR(pitches(scaled(sine(500.0, 0.1), 0.1)).back().level, full - 20.0F, 0.01F);
	/* Outside of the band. */
	EXPECT_LT(pitches(sine(6000.0, 0.1)).back().level, full - 60.0F);
}

TEST(PitchMeter, OfSilenceIsNone)
{
	for (const pitch &found : pitches(silence(0.2))) {
		EXPECT_EQ(found.periodicity, 0.0F);
		EXPECT_EQ(found.level, -60.0F);
	}
}
