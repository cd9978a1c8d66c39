/* SPDX-License-Identifier: MIT */
/*
 * Hearing alarms: is a smoke or a carbon-monoxide alarm sounding?
 *
 * The detector follows how strong each of a few dozen frequencies is, every 8 ms, and looks for the rhythms of
 * both alarms in the last seconds of each. It makes no difference in what portions the samples come.
 *
 * Units: frequencies in Hz, levels in dBFS (a full-scale sine has -3.01), ratios in dB. All values are finite, also
 * where the samples are not: those count as 0.
 *
 * Threads: none of its own. Memory is taken by create() only.
 */
#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

constexpr double alarm_floor_dbfs = -120.0;
constexpr double alarm_default_minimum = -70.0;

/** Indexes of what is told of each. */
enum alarm_kind : uint32_t {
	ALARM_SMOKE,
	ALARM_CARBON_MONOXIDE,
};
constexpr size_t alarm_n_kinds = 2;

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
	/** Null for a rate below 8 kHz or above 192 kHz, and without memory. */
	static std::unique_ptr<alarm_detector> create(uint32_t rate, size_t n_channels);

	/** Frames from one look at the sound to the next, 8 ms; the state changes at looks only. */
	size_t hop_frames() const
	{
		return 2 * block_frames;
	}

	/** Hears what there is for each channel, which is of one length. */
	void hear(std::span<const std::span<const float>> heard);

	const alarm_state &state(alarm_kind kind) const
	{
		return now[kind];
	}

	/** Tones below this are not heard. */
	double minimum_level = alarm_default_minimum;

private:
	/** A range of hops, counted back from the present one. */
	struct range {
		int from, to;
	};
	/** A part of a rhythm, in which the tone is to be there or away; `level` is what is sure to lie in it. */
	struct part {
		range hops, level;
		bool is_beep;
	};
	/** Beeps with silence around them, at one speed. */
	struct rhythm {
		std::vector<part> parts;
		/** From just before the first beep to where the last one has died away. */
		range beeps;
		/** Where the last beep ends, and where the whole begins. */
		int end, length;
	};
	/** Neighbouring frequencies, with a bin more at each end; tones of alarms lie from `lowest` to `highest`. */
	struct band {
		size_t first_bin, end_bin;
		double begin, lowest, highest;
		/** Bins around an alarm's in which nothing may be while it pauses: a note with vibrato comes and goes. */
		size_t reach;
	};
	/** Beeps that were recognised last at one frequency; hop 0 for never. */
	struct recognition {
		uint32_t hop = 0;
		alarm_tone tone;
	};

	static constexpr size_t n_bins = 52, n_blocks = 8, n_speeds = 9, n_kept = 1024;
	static constexpr std::array<band, 2> bands{
		{{1, 17, 300.0, 460.0, 580.0, 0}, {19, n_bins - 1, 2690.0, 2780.0, 3520.0, 2}}};

	struct channel {
		std::array<float, n_bins> last{}, before{};
		std::array<std::array<std::complex<float>, n_bins>, n_blocks> blocks{};
	};

	alarm_detector(uint32_t rate, size_t n_channels);
	void hear(channel &heard, std::span<const float> samples);
	void end_block();
	void end_hop();
	void look_for(alarm_kind kind);
	bool stands_out(size_t bin, const band &around, const rhythm &speed, double level) const;
	bool keeps_time(alarm_kind kind, size_t bin, const band &around, const rhythm &speed, double level) const;
	alarm_tone tone_of(size_t bin, const rhythm &speed) const;
	void recognise(alarm_kind kind, size_t bin, const rhythm &speed, const alarm_tone &found);
	bool is_expected(alarm_kind kind, const alarm_tone &found) const;
	double mean(size_t bin, range hops) const;
	double mean_of(bool is_beep, size_t bin, const rhythm &speed) const;
	double share_above(double level, size_t bin, range hops, int smoothing) const;

	double spacing, hop_seconds;
	size_t block_frames, heard_frames = 0, block = 0;
	std::array<float, n_bins> coefficients;
	std::array<std::complex<float>, n_bins> turns;
	/** The frequency of each bin, in steps of `spacing`. */
	std::array<size_t, n_bins> harmonics;
	std::array<std::complex<float>, n_blocks> roots;
	std::vector<channel> channels;

	uint32_t hop = 0;
	/** Levels above the floor in hundredths, summed up from the beginning of time, modulo 2^32. */
	std::array<std::array<uint32_t, n_kept>, n_bins> sums{};

	std::array<std::array<rhythm, n_speeds>, alarm_n_kinds> rhythms;
	std::array<std::array<recognition, n_bins>, alarm_n_kinds> recognised{};
	std::array<alarm_state, alarm_n_kinds> now;
	/** Of each alarm, in hops: its cycle, when it was heard last, and when it is over unless it is heard again. */
	std::array<uint32_t, alarm_n_kinds> cycles{}, heard_hops{}, ends{};
};
