/* SPDX-License-Identifier: MIT */
/*
 * Deciding: is it speech, what the voice detector takes for it?
 *
 * A voice glides: its pitch never stays, nor does it jump from note to note. And its level rises and falls with
 * the syllables. Tones, chords and noise lack the one, the other, or both.
 */
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

#include <hear-sense/sdk/pitch.hpp>

constexpr int voice_rate = 16000;
/** Frames from one look to the next: 10 ms. */
constexpr size_t voice_hop = 160;

class voice_speech
{
public:
	/** What the last second is judged by. */
	static constexpr size_t second = voice_rate / voice_hop;

	/** Hears of the next 10 ms; whether they are speech, which takes `fewest_glides` in the last second. */
	bool update(const hear_sense::pitch &pitch, bool is_voice, size_t fewest_glides)
	{
		std::shift_left(recent.begin(), recent.end(), 1);
		recent.back() = pitch;
		n_heard++;
		/* The first window begins with silence that nobody heard. */
		if (n_heard <= full_looks)
			levels.fill(pitch.level);
		const size_t now = n_heard % second;
		levels[now] = pitch.level;
		glides[now] = is_voice && is_gliding();
		const auto [quietest, loudest] = std::minmax_element(levels.begin(), levels.end());
		const bool is_modulated = *loudest - *quietest > least_modulation;
		speech[now] = is_voice && is_modulated && count(glides) >= fewest_glides;
		return speech[now];
	}

	/** Share of the last second that was speech. */
	double activity() const
	{
		return static_cast<double>(count(speech)) / second;
	}

private:
	/** Looks after which the meter's first 40 ms have been heard. */
	static constexpr size_t full_looks = 4;
	/** Hz; a flute or a beep has a few partials only. */
	static constexpr float least_spread = 562.5F;
	static constexpr float least_periodicity = 0.35F;
	/** Of the logarithm of the frequency: in 10 ms, and in all 30 ms. */
	static constexpr float longest_step = 0.05F;
	static constexpr float shortest_glide = 0.01F;
	/** Share of all steps that leads onwards; that of a chord, which only trembles, is small. */
	static constexpr float least_straight = 0.9F;
	/** Decibels between the loudest and the quietest 40 ms of the last second. */
	static constexpr float least_modulation = 8.0F;

	static size_t count(const std::array<bool, second> &flags)
	{
		return static_cast<size_t>(std::count(flags.begin(), flags.end(), true));
	}

	static float distance(const hear_sense::pitch &from, const hear_sense::pitch &to)
	{
		return std::abs(std::log(to.frequency / from.frequency));
	}

	bool is_gliding() const
	{
		float path = 0.0F;
		for (size_t i = 0; i < recent.size(); i++) {
			if (recent[i].periodicity <= least_periodicity || recent[i].spread < least_spread)
				return false;
			const float step = i > 0 ? distance(recent[i - 1], recent[i]) : 0.0F;
			if (step >= longest_step)
				return false;
			path += step;
		}
		const float glide = distance(recent.front(), recent.back());
		return glide > shortest_glide && glide >= least_straight * path;
	}

	std::array<hear_sense::pitch, 4> recent{};
	size_t n_heard = 0;
	/* Rings of the last second. */
	std::array<float, second> levels{};
	std::array<bool, second> glides{};
	std::array<bool, second> speech{};
};
