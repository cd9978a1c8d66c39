/*
 * What the voice plug-in goes by: how the pitch of a sound moves.
 */
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "voice-sounds.hpp"
#include "voice-speech.hpp"

namespace {

using hear_sense::pitch;

/** Looks in which it is speech, of 10 s of `pitch_at(look)` with a level that rises and falls. */
size_t speech_looks(const std::function<pitch(size_t)> &pitch_at, bool is_voice = true, double swing = 10.0)
{
	voice_speech speech;
	size_t count = 0;
	for (size_t look = 0; look < 1000; look++) {
		pitch now = pitch_at(look);
		now.level = static_cast<float>(look / 12 % 2 == 0 ? swing : 0.0);
		count += speech.update(now, is_voice, 5);
	}
	return count;
}

/** Of a voice: `rise` is the logarithm of how far it is above 100 Hz. */
pitch voiced(float rise)
{
	return {.periodicity = 0.7F, .frequency = 100.0F * std::exp(rise), .spread = 700.0F};
}

/** Up and down by a fifth, 2 % each 30 ms. */
pitch gliding(size_t look)
{
	const size_t at = look % 120;
	return voiced(0.0067F * static_cast<float>(std::min(at, 120 - at)));
}

pitch gliding_less(size_t look, float periodicity)
{
	pitch now = gliding(look);
	now.periodicity = periodicity;
	return now;
}

} // namespace

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
		pitch now = gliding(look);
		/* The first three windows are not full. */
		now.level = look < 3 ? 0.0F : 20.0F;
		EXPECT_FALSE(speech.update(now, true, 5)) << look;
	}
}

TEST(VoiceSpeech, TakesASoundThatRepeatsItself)
{
	EXPECT_EQ(speech_looks([](size_t look) { return gliding_less(look, 0.3F); }), 0U);
	/* Three looks in a row are no glide yet. */
	EXPECT_EQ(speech_looks([](size_t look) { return gliding_less(look, look % 4 == 0 ? 0.0F : 0.9F); }), 0U);
}

TEST(VoiceSpeech, TakesMoreThanAFewPartials)
{
	const auto flute = [](size_t look) {
		pitch now = gliding(look);
		now.spread = 170.0F;
		return now;
	};
	EXPECT_EQ(speech_looks(flute), 0U);
}

TEST(VoiceSpeech, IsNoTone)
{
	EXPECT_EQ(speech_looks([](size_t) { return voiced(0.0F); }), 0U);
}

TEST(VoiceSpeech, IsNoMelody)
{
	/* A semitone up or down every 80 ms. */
	EXPECT_EQ(speech_looks([](size_t look) { return voiced(0.0578F * static_cast<float>(look / 8 % 5)); }), 0U);
}

TEST(VoiceSpeech, IsNoTrembling)
{
	EXPECT_EQ(speech_looks([](size_t look) { return voiced(look % 2 == 0 ? 0.0F : 0.02F); }), 0U);
}

TEST(VoiceSpeech, TakesAsManyGlidesAsItIsTold)
{
	for (const size_t fewest : {2U, 5U, 8U}) {
		voice_speech speech;
		size_t look = 0;
		while (look < 100 && !speech.update(
					     [look] {
						     pitch now = gliding(look);
						     now.level = look > 3 ? 10.0F : 0.0F;
						     return now;
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
		pitch now = gliding(look);
		now.level = look % 20 < 10 ? 0.0F : 10.0F;
		n_speech += speech.update(now, true, 5);
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
		pitch now = gliding(look);
		now.level = look % 20 < 10 ? 0.0F : 10.0F;
		speech.update(now, true, 5);
	}
	size_t look = 0;
	while (look < 500 && speech.update({.level = look % 20 < 10 ? 0.0F : 10.0F}, true, 5))
		look++;
	EXPECT_GT(look, 80U);
	EXPECT_LE(look, 100U);
}
