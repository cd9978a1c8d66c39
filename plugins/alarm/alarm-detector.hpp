/* SPDX-License-Identifier: MIT */
/*
 * Hearing alarms: is a smoke or a carbon-monoxide alarm sounding?
 *
 * The detector looks for the rhythms of both in the last seconds of each of a few dozen tones. A round of beeps
 * that fits is remembered; an alarm is one that comes again when it is due.
 *
 * Units: frequencies in Hz, levels in dBFS (a full-scale sine has -3.01), ratios in dB. Memory is taken by the
 * constructor only.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include <hear-sense/sdk/hold.hpp>
#include <hear-sense/sdk/rhythm.hpp>
#include <hear-sense/sdk/tones.hpp>

constexpr double alarm_floor_dbfs = -120.0;

/** Indexes of what is told of each. */
enum alarm_kind : uint32_t {
	ALARM_SMOKE,
	ALARM_CARBON_MONOXIDE,
};

struct alarm_tone {
	double frequency = 0.0;
	/** While it sounds. */
	double level = alarm_floor_dbfs;
	/** Against what is heard in the third of an octave around it between the beeps. */
	double signal_to_noise = 0.0;
};

/** What is known of one kind of alarm; as it stands here, what is known in silence. */
struct alarm_state {
	bool is_sounding = false;
	/** Of the beeps that were recognised last. */
	alarm_tone tone;
};

class alarm_detector
{
public:
	/** Throws std::invalid_argument for a rate below 8 kHz. */
	alarm_detector(uint32_t rate, size_t n_channels);

	/** What hear() takes at a time: 8 ms. */
	size_t hop_frames() const
	{
		return bands[0].hop_frames();
	}

	/** Tones below `minimum_level` are not heard. */
	void hear(std::span<const std::span<const float>> heard, double minimum_level);

	const alarm_state &state(alarm_kind kind) const
	{
		return kinds[kind].now;
	}

private:
	/** The last round of beeps at some tone; hop 0 where there was none. */
	struct last_round {
		uint32_t hop = 0;
		double frequency = 0.0;
	};
	/** What there is of one kind of alarm. */
	struct listener {
		double cycle_seconds;
		hear_sense::rhythm rhythm;
		/** By band and tone. */
		std::array<std::vector<last_round>, 2> rounds{};
		hear_sense::hold sounding{};
		double hold_time = 0.0;
		alarm_state now{};
	};

	bool is_due(listener &kind, size_t band, size_t tone, const hear_sense::rhythm::round &found);

	std::array<hear_sense::tone_bank, 2> bands;
	double hop_seconds;
	std::array<listener, 2> kinds;
	uint32_t hop = 0;
};
