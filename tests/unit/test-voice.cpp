/*
 * What the voice plug-in goes by: the pitch of a sound, and how it moves.
 */
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <span>
#include <vector>

#include <gtest/gtest.h>

#include "voice-pitch.hpp"
#include "voice-sounds.hpp"
#include "voice-speech.hpp"

namespace {

/** Of each 10 ms, from where the first 40 ms have been heard. */
std::vector<voice_pitch> pitches(const samples &sound)
{
	voice_pitch_meter meter;
	std::vector<voice_pitch> found;
	for (size_t at = 0; at + voice_hop <= sound.size(); at += voice_hop) {
		const voice_pitch pitch = meter.look(std::span{sound}.subspan(at).first<voice_hop>());
		if (at / voice_hop + 1 >= voice_pitch_meter::full_looks)
			found.push_back(pitch);
	}
	return found;
}

/** A lag of the meter is two samples at 16 kHz. */
double frequency(const voice_pitch &pitch)
{
	return 8000.0 / std::exp(pitch.log_period);
}

/** Looks in which it is speech, of 10 s of `pitch(look)` with a level that rises and falls. */
size_t speech_looks(const std::function<voice_pitch(size_t)> &pitch, bool is_voice = true, double swing = 10.0)
{
	voice_speech speech;
	size_t count = 0;
	for (size_t look = 0; look < 1000; look++) {
		voice_pitch now = pitch(look);
		now.level = static_cast<float>(look / 12 % 2 == 0 ? swing : 0.0);
		count += speech.update(now, is_voice, 5);
	}
	return count;
}

/** Up and down by a fifth, 2 % each 30 ms. */
voice_pitch gliding(size_t look)
{
	const size_t at = look % 120;
	return {.periodicity = 0.7F, .log_period = 4.0F + 0.0067F * static_cast<float>(std::min(at, 120 - at))};
}

voice_pitch gliding_less(size_t look, float periodicity)
{
	voice_pitch pitch = gliding(look);
	pitch.periodicity = periodicity;
	return pitch;
}

} // namespace

/*
 * Pitch.
 */

TEST(VoicePitch, IsThatOfAVowel)
{
	for (const double hertz : {75.0, 100.0, 123.4, 160.0, 220.0, 300.0, 330.0, 350.0, 380.0, 410.0}) {
		for (const voice_pitch &pitch : pitches(held_vowel(hertz, 0.5))) {
			EXPECT_NEAR(frequency(pitch), hertz, 0.01 * hertz);
			EXPECT_GT(pitch.periodicity, 0.7F) << hertz;
		}
	}
}

TEST(VoicePitch, StaysUnderNoise)
{
	const samples sound = held_vowel(100.0, 4.0);
	const std::vector<voice_pitch> all =
		pitches(mixed(sound, scaled(noise(4.0), rms(sound) / 0.1 / std::sqrt(10.0))));
	for (const voice_pitch &pitch : all) {
		EXPECT_GT(pitch.periodicity, 0.5F);
		EXPECT_NEAR(frequency(pitch), 100.0, 2.0);
	}
}

TEST(VoicePitch, FollowsAGlide)
{
	double phase = 0.0;
	/* From 120 Hz, by an octave a second. */
	const std::vector<voice_pitch> all = pitches(make_sound(1.0, 16000, [&phase](double t) {
		const double hertz = 120.0 * std::exp2(t);
		phase += hertz / 16000.0;
		return vowel(phase, hertz);
	}));
	for (size_t i = 1; i < all.size(); i++) {
		EXPECT_LT(all[i].log_period, all[i - 1].log_period) << i;
		/* What is heard is the middle of the 40 ms. */
		EXPECT_NEAR(frequency(all[i]), 120.0 * std::exp2(0.02 + 0.01 * static_cast<double>(i)), 4.0) << i;
	}
}

TEST(VoicePitch, IsSeldomInNoise)
{
	for (const samples &sound : {noise(20.0), swelling_noise(20.0)}) {
		const std::vector<voice_pitch> all = pitches(sound);
		const auto has_pitch = [](const voice_pitch &pitch) { return pitch.periodicity > 0.35F; };
		EXPECT_LT(static_cast<size_t>(std::count_if(all.begin(), all.end(), has_pitch)), all.size() * 5 / 100);
	}
}

TEST(VoicePitch, TakesMoreThanAFewPartials)
{
	for (const samples &sound : {sine(150.0, 1.0), sine(1000.0, 1.0), mixed(sine(200.0, 1.0), sine(400.0, 1.0))}) {
		for (const voice_pitch &pitch : pitches(sound))
			EXPECT_EQ(pitch.periodicity, 0.0F);
	}
}

TEST(VoicePitch, LevelIsInDecibels)
{
	const float full = pitches(sine(500.0, 0.1)).back().level;
	EXPECT_NEAR(pitches(scaled(sine(500.0, 0.1), 0.1)).back().level, full - 20.0F, 0.01F);
	/* Outside of the band. */
	EXPECT_LT(pitches(sine(6000.0, 0.1)).back().level, full - 60.0F);
}

TEST(VoicePitch, OfSilenceIsNone)
{
	for (const voice_pitch &pitch : pitches(silence(0.2))) {
		EXPECT_EQ(pitch.periodicity, 0.0F);
		EXPECT_EQ(pitch.level, -60.0F);
	}
}

/*
 * Speech.
 */

TEST(VoiceSpeech, IsAVoiceThatGlidesInSyllables)
{
	EXPECT_GE(speech_looks(gliding), 950U);
}

TEST(VoiceSpeech, IsNothingThatTheDetectorDoesNotTakeForAVoice)
{
	EXPECT_EQ(speech_looks(gliding, false), 0U);
}

TEST(VoiceSpeech, TakesALevelThatRisesAndFalls)
{
	EXPECT_EQ(speech_looks(gliding, true, 7.9), 0U);
	EXPECT_GE(speech_looks(gliding, true, 8.1), 900U);
}

TEST(VoiceSpeech, DoesNotTakeItsOwnBeginningForARise)
{
	voice_speech speech;
	for (size_t look = 0; look < 200; look++) {
		voice_pitch pitch = gliding(look);
		/* The first three windows are not full. */
		pitch.level = look < 3 ? 0.0F : 20.0F;
		EXPECT_FALSE(speech.update(pitch, true, 5)) << look;
	}
}

TEST(VoiceSpeech, TakesASoundThatRepeatsItself)
{
	EXPECT_EQ(speech_looks([](size_t look) { return gliding_less(look, 0.3F); }), 0U);
	/* Three looks in a row are no glide yet. */
	EXPECT_EQ(speech_looks([](size_t look) { return gliding_less(look, look % 4 == 0 ? 0.0F : 0.9F); }), 0U);
}

TEST(VoiceSpeech, IsNoTone)
{
	EXPECT_EQ(speech_looks([](size_t) { return voice_pitch{0.9F, 4.0F, 0.0F}; }), 0U);
}

TEST(VoiceSpeech, IsNoMelody)
{
	/* A semitone up or down every 80 ms. */
	EXPECT_EQ(speech_looks([](size_t look) {
			  return voice_pitch{0.9F, 4.0F + 0.0578F * static_cast<float>(look / 8 % 5), 0.0F};
		  }),
		  0U);
}

TEST(VoiceSpeech, IsNoTrembling)
{
	EXPECT_EQ(speech_looks([](size_t look) { return voice_pitch{0.9F, look % 2 == 0 ? 4.0F : 4.02F, 0.0F}; }), 0U);
}

TEST(VoiceSpeech, TakesAsManyGlidesAsItIsTold)
{
	for (const size_t fewest : {2U, 5U, 8U}) {
		voice_speech speech;
		size_t look = 0;
		while (look < 100 && !speech.update(
					     [look] {
						     voice_pitch pitch = gliding(look);
						     pitch.level = look > 3 ? 10.0F : 0.0F;
						     return pitch;
					     }(),
					     true, fewest))
			look++;
		/* The glides before the level has risen count as well; the first takes four looks. */
		EXPECT_EQ(look, std::max<size_t>(2 + fewest, 4)) << fewest;
	}
}

TEST(VoiceSpeech, ActivityIsItsShareOfTheLastSecond)
{
	voice_speech speech;
	EXPECT_EQ(speech.activity(), 0.0);
	size_t n_speech = 0;
	for (size_t look = 0; look < 50; look++) {
		voice_pitch pitch = gliding(look);
		pitch.level = look % 20 < 10 ? 0.0F : 10.0F;
		n_speech += speech.update(pitch, true, 5);
	}
	EXPECT_GT(n_speech, 30U);
	EXPECT_DOUBLE_EQ(speech.activity(), static_cast<double>(n_speech) / 100.0);
	for (size_t look = 0; look < 70; look++)
		speech.update({}, false, 5);
	EXPECT_LT(speech.activity(), static_cast<double>(n_speech) / 100.0);
	EXPECT_GT(speech.activity(), 0.0);
	for (size_t look = 0; look < 30; look++)
		speech.update({}, false, 5);
	EXPECT_EQ(speech.activity(), 0.0);
}

TEST(VoiceSpeech, OutlivesItsGlidesByASecondAtMost)
{
	voice_speech speech;
	for (size_t look = 0; look < 200; look++) {
		voice_pitch pitch = gliding(look);
		pitch.level = look % 20 < 10 ? 0.0F : 10.0F;
		speech.update(pitch, true, 5);
	}
	size_t look = 0;
	while (look < 500 && speech.update({.level = look % 20 < 10 ? 0.0F : 10.0F}, true, 5))
		look++;
	EXPECT_GT(look, 80U);
	EXPECT_LE(look, 100U);
}
