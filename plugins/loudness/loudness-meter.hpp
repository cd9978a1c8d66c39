/* SPDX-License-Identifier: MIT */
/*
 * Measuring: how loud was the last tenth of a second?
 *
 * The meter hears samples in whatever portions they come and gives one look for every 100 ms of audio, at
 * the same sample whatever the portions were. Loudness is EBU R128, by libebur128.
 *
 * Units: loudness in LUFS, never below -70; peak and level in dBFS, never below -120. All values are finite,
 * also where the samples are not: those count as 0.
 *
 * Threads: none of its own. Memory is taken by create() only.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
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

/** The 32-bit float samples of one channel, which may lie apart and need no alignment. */
struct loudness_channel {
	/** Null for a channel that is silent. */
	const std::byte *samples = nullptr;
	/** Bytes from one sample to the next. */
	size_t step = sizeof(float);
};

class loudness_meter {
public:
	/** One SPA position for each channel. Null where the rate or number of channels cannot be measured. */
	static std::unique_ptr<loudness_meter> create(uint32_t rate, std::span<const uint32_t> positions);

	/** Seconds of audio from one look to the next. */
	double look_interval() const;

	/**
	 * Hears frames from `first` up to `end`, but not past the next look; returns the frame it came to.
	 * There are as many `channels` as positions. A look that is due is to be taken before the next call.
	 */
	size_t hear(std::span<const loudness_channel> channels, size_t first, size_t end);

	/** The values, once for each 100 ms that were heard. */
	std::optional<loudness_values> look();

private:
	struct destroy {
		void operator()(ebur128_state *s) const noexcept
		{
			ebur128_destroy(&s);
		}
	};
	using state_ptr = std::unique_ptr<ebur128_state, destroy>;

	loudness_meter() = default;

	state_ptr state;
	/** The frames since the last look, interleaved. */
	std::unique_ptr<float[]> block;
	size_t block_frames = 0;
	/**
	 * Power of the last 3 s, look by look, the latest first. Asked for more than the last look, libebur128
	 * would add up every sample of that time again, which costs several times as much as its filters.
	 */
	std::array<double, 30> powers{};
};
