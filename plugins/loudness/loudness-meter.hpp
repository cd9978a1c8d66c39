/* SPDX-License-Identifier: MIT */
/*
 * Measuring: how loud was the last tenth of a second?
 *
 * Units: loudness in LUFS by EBU R128 (libebur128), never below -70; peak and level in dBFS, never below -120.
 * Samples are finite, and so are all values. Memory is taken by create() only.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <ebur128.h>

/** What silence measures. */
constexpr double loudness_floor_lufs = -70.0;
constexpr double loudness_floor_dbfs = -120.0;

struct loudness_values {
	/** Of the last 400 ms. */
	double momentary = loudness_floor_lufs;
	/** Of the last 3 s. */
	double short_term = loudness_floor_lufs;
	/** Largest sample of any channel in the last 100 ms. */
	double peak = loudness_floor_dbfs;
	/** RMS of the last 100 ms over all channels, unweighted; a full-scale sine has -3.01. */
	double level = loudness_floor_dbfs;
};

class loudness_meter
{
public:
	/** One SPA position for each channel. Null where the rate or number of channels cannot be measured. */
	static std::unique_ptr<loudness_meter> create(uint32_t rate, std::span<const uint32_t> positions);

	/** Frames from one look to the next: 100 ms, rounded as libebur128 rounds its windows. */
	size_t look_frames() const
	{
		return (state->samplerate + 5) / 10;
	}

	/** Hears the next look_frames() samples of each channel. */
	loudness_values look(std::span<const std::span<const float>> channels);

private:
	const float *interleave(std::span<const std::span<const float>> channels);

	struct destroy {
		void operator()(ebur128_state *s) const noexcept
		{
			ebur128_destroy(&s);
		}
	};

	std::unique_ptr<ebur128_state, destroy> state;
	/** The frames of one look, interleaved; a lone channel needs none. */
	std::unique_ptr<float[]> block;
	/** Power of the last 3 s, look by look: to add up their samples again would cost several times as much. */
	std::array<double, 30> powers{};
};
