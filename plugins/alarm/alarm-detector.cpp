/* SPDX-License-Identifier: MIT */
#include "alarm-detector.hpp"

#include <algorithm>
#include <cmath>

#include <hear-sense/sdk/peak.hpp>

using namespace hear_sense;

namespace {

constexpr rhythm_info smoke{.steps = "001010100", .step_seconds = 0.5, .smoothing = 6};
/** Its beeps seem long: rooms ring. */
constexpr rhythm_info carbon_monoxide{
	.steps = "000010101010000", .step_seconds = 0.1, .most_beeps = 1.6, .ringing = 0.5, .smoothing = 2};

/** Tones at both ends of a band that are no alarm's, but are compared with them. */
constexpr size_t n_others = 5;
/** How far a cycle may be from its due length. */
constexpr double cycle_tolerance = 0.13;
/** Least difference in dB between a tone and those around it. */
constexpr double least_prominence = 5.0;

/** Whether beeps are a tone and not noise, and `tone` is where it is. */
bool stands_out(const tone_bank &band, size_t tone, const rhythm &rhythm, const rhythm::round &found)
{
	double others = 0.0, n = 0.0;
	for (size_t i = 0; i < band.size(); i++) {
		const double other = rhythm.level_during(found, band.level(i));
		const bool is_near = i + 2 >= tone && i <= tone + 2;
		if (is_near && other > found.level)
			return false;
		others += is_near ? 0.0 : other;
		n += is_near ? 0.0 : 1.0;
	}
	return found.level - others / n >= least_prominence;
}

alarm_tone tone_of(const tone_bank &band, size_t tone, const rhythm &rhythm, const rhythm::round &found)
{
	const peak top = find_peak(rhythm.level_during(found, band.level(tone - 1)), found.level,
				   rhythm.level_during(found, band.level(tone + 1)));
	const double step = band.frequency_step();
	const double frequency = band.frequency(tone) + top.offset * step;
	/* From the noise of one tone to that in a third of an octave; the mean of levels is 2.5 dB below that of powers. */
	const double noise = found.silence + 2.5 + 10.0 * std::log10(0.2316 * frequency / (1.5 * step));
	return {frequency, top.height, top.height - noise};
}

} // namespace

alarm_detector::alarm_detector(uint32_t rate, size_t n_channels)
    : bands{tone_bank{rate, n_channels, {.lowest = 330.0, .highest = 718.0}},
	    tone_bank{rate, n_channels, {.lowest = 2640.0, .highest = 3650.0}}},
      hop_seconds{static_cast<double>(hop_frames()) / rate}, kinds{{{4.0, rhythm{smoke, hop_seconds}},
								    {5.7, rhythm{carbon_monoxide, hop_seconds}}}}
{
	for (listener &kind : kinds) {
		for (size_t band = 0; band < bands.size(); band++)
			kind.rounds[band].resize(bands[band].size());
	}
}

void alarm_detector::hear(std::span<const std::span<const float>> heard, double minimum_level)
{
	for (tone_bank &band : bands)
		band.hear(heard);
	hop++;
	for (listener &kind : kinds) {
		bool is_heard = false;
		for (size_t i = 0; i < bands.size(); i++) {
			for (size_t tone = n_others; tone + n_others < bands[i].size(); tone++) {
				const auto found = kind.rhythm.find(bands[i].level(tone));
				if (found && found->level >= minimum_level &&
				    stands_out(bands[i], tone, kind.rhythm, *found))
					is_heard |= is_due(kind, i, tone, *found);
			}
		}
		kind.now.is_sounding = kind.sounding.update(is_heard, hop_seconds, kind.hold_time);
		if (!kind.now.is_sounding)
			kind.now = {};
	}
}

/** Whether a round comes a cycle after another one, with silence between. */
bool alarm_detector::is_due(listener &kind, size_t band, size_t tone, const rhythm::round &found)
{
	std::vector<last_round> &rounds = kind.rounds[band];
	/* One fits for several hops. */
	if (rounds[tone].hop != 0 && hop - rounds[tone].hop < found.beeps)
		return false;
	const alarm_tone heard = tone_of(bands[band], tone, kind.rhythm, found);
	bool is_second = false;
	for (size_t near = tone - 1; near <= tone + 1; near++) {
		const uint32_t cycle = hop - rounds[near].hop;
		if (rounds[near].hop == 0 ||
		    std::abs(cycle * hop_seconds / kind.cycle_seconds - 1.0) > cycle_tolerance ||
		    std::abs(rounds[near].frequency - heard.frequency) > 0.5 * bands[band].frequency_step() ||
		    bands[band].level(tone).share_above(heard.level - 6.0, {cycle, found.length}) >= 0.2)
			continue;
		is_second = true;
		kind.now.tone = heard;
		kind.hold_time = (1.9 * cycle - static_cast<double>(found.since_end)) * hop_seconds;
	}
	rounds[tone] = {hop, heard.frequency};
	return is_second;
}
