/* SPDX-License-Identifier: MIT */
/*
 * Measuring pitch: does the last 40 ms repeat itself as a voice does, and how often?
 *
 * A sound that repeats itself 70 to 440 times a second has peaks in the autocorrelation of its spectrum, of which
 * the part from 100 to 3400 Hz is heard. The spectrum is compressed to two thirds of its decibels, which evens
 * out formants and slopes, so that neither a strong harmonic nor the slope of a noise decides.
 *
 * Samples are finite, and none is far beyond full scale. Nothing is allocated after the construction.
 */
#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <span>

constexpr int voice_rate = 16000;
/** Frames from one look to the next: 10 ms. */
constexpr size_t voice_hop = 160;

struct voice_pitch {
	/** 0 for a sound that does not repeat itself or has too few partials; about 1 for a clean vowel. */
	float periodicity = 0.0F;
	/** Natural logarithm of the period; differences say how far the pitch has moved. */
	float log_period = 0.0F;
	/** Power in the band, in decibels above some constant. */
	float level = 0.0F;
};

class voice_pitch_meter
{
public:
	voice_pitch_meter();

	/** Hears the next 10 ms. */
	voice_pitch look(std::span<const float, voice_hop> samples);

	/** Looks after which the first 40 ms have been heard. */
	static constexpr size_t full_looks = 4;

private:
	static constexpr size_t window_frames = full_looks * voice_hop;
	static constexpr size_t spectrum_size = 1024;
	/** The upper half of the spectrum is left out, so a lag is two samples long. */
	static constexpr size_t correlation_size = spectrum_size / 2;
	static constexpr size_t shortest_lag = 18;
	static constexpr size_t longest_lag = 115;

	using complex = std::complex<float>;
	/** Autocorrelation by lag. */
	using correlation = std::array<float, longest_lag + 1>;

	void transform(const float *in, size_t stride, std::span<complex> out) const;
	void find_magnitudes(size_t first_bin, size_t last_bin);
	correlation correlate();

	std::array<complex, spectrum_size / 2> roots{};
	std::array<float, window_frames> window{};
	/** What the window does to the autocorrelation of a sound that repeats itself for ever. */
	correlation window_correlation{};
	std::array<float, window_frames> heard{};
	std::array<float, spectrum_size> windowed{};
	std::array<complex, spectrum_size> spectrum{};
	/** Of the spectrum, compressed: the lower half, and its mirror image. */
	std::array<float, correlation_size> magnitudes{};
};
