/* SPDX-License-Identifier: MIT */
/*
 * Measuring pitch: does the last 40 ms repeat itself as a voice or an instrument does, and how often?
 *
 * A sound that repeats itself has peaks in the autocorrelation of its spectrum, of which the part from 100 to 3400 Hz
 * is heard. The spectrum is compressed to two thirds of its decibels, which evens out formants and slopes, so that
 * neither a strong harmonic nor the slope of a noise decides.
 *
 *     hear_sense::pitch_meter meter{rate};
 *     hear_in_blocks(rate / 100);
 *     ...
 *     const hear_sense::pitch now = meter.look(heard[0]);
 *
 * Samples are finite, and none is far beyond full scale. Memory is taken by the constructor only.
 */
#ifndef HEAR_SENSE_SDK_PITCH_HPP
#define HEAR_SENSE_SDK_PITCH_HPP

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <numbers>
#include <span>
#include <stdexcept>
#include <vector>

#include <hear-sense/sdk/peak.hpp>

namespace hear_sense {

struct pitch {
	/** How well it repeats itself: 0 for silence, below 0.35 for most noise, about 1 for a clean vowel. */
	float periodicity = 0.0F;
	/** How often, in Hz; 0 where the periodicity is 0. */
	float frequency = 0.0F;
	/** Power in the band, in decibels above some constant. */
	float level = 0.0F;
	/** Hz over which the spectrum is spread: that of a flute over some 170, an organ 470, a clean vowel 620 and more. */
	float spread = 0.0F;
};

class pitch_meter
{
public:
	/** Of pitches from `lowest` to `highest` Hz. Throws std::invalid_argument for a rate below 8 kHz. */
	explicit pitch_meter(uint32_t rate, double lowest = 70.0, double highest = 440.0)
	    : heard(rate / 25), spectrum(std::bit_ceil(heard.size()))
	{
		if (rate < 8000 || lowest < 50.0 || highest > 1000.0 || lowest >= highest)
			throw std::invalid_argument("pitches are from 50 to 1000 Hz, at rates from 8 kHz on");
		bin_width = static_cast<double>(rate) / static_cast<double>(spectrum.size());
		lowest_bin = static_cast<size_t>(std::ceil(100.0 / bin_width));
		highest_bin = static_cast<size_t>(3400.0 / bin_width);
		/* What lies above the band is left out, so that a lag may be several samples long. */
		magnitudes.resize(std::bit_ceil(2 * highest_bin));
		lag_rate = bin_width * static_cast<double>(magnitudes.size());
		shortest_lag = static_cast<size_t>(lag_rate / highest);
		longest_lag = static_cast<size_t>(std::ceil(lag_rate / lowest));

		constexpr float circle = 2.0F * std::numbers::pi_v<float>;
		roots.resize(spectrum.size() / 2);
		for (size_t i = 0; i < roots.size(); i++)
			roots[i] =
				std::polar(1.0F, -circle * static_cast<float>(i) / static_cast<float>(spectrum.size()));
		window.resize(heard.size());
		for (size_t i = 0; i < window.size(); i++)
			window[i] = 0.5F - 0.5F * std::cos(circle * static_cast<float>(i) /
							   static_cast<float>(window.size() - 1));
		windowed.resize(spectrum.size());
		by_lag.resize(longest_lag + 1);
		peaks.resize(longest_lag);

		std::fill(heard.begin(), heard.end(), 1.0F);
		find_magnitudes(0, magnitudes.size() / 2);
		correlate();
		of_window = by_lag;
		std::fill(heard.begin(), heard.end(), 0.0F);
	}

	/** Hears the next samples, 40 ms of them at most, and looks at the last 40 ms. */
	pitch look(std::span<const float> samples)
	{
		const auto n = static_cast<std::ptrdiff_t>(samples.size());
		std::shift_left(heard.begin(), heard.end(), n);
		std::copy(samples.begin(), samples.end(), heard.end() - n);
		std::fill(magnitudes.begin(), magnitudes.end(), 0.0F);
		find_magnitudes(lowest_bin, highest_bin);
		float power = 0.0F, sum = 0.0F, square_sum = 0.0F;
		for (size_t bin = lowest_bin; bin <= highest_bin; bin++) {
			power += std::norm(spectrum[bin]);
			sum += magnitudes[bin];
			square_sum += magnitudes[bin] * magnitudes[bin];
		}
		pitch found{.level = 10.0F * std::log10(std::max(power, least_power))};
		if (power <= least_power)
			return found;
		found.spread = static_cast<float>(bin_width) * sum * sum / square_sum;
		correlate();
		find_period(found);
		return found;
	}

private:
	using complex = std::complex<float>;

	/** Less is silence. */
	static constexpr float least_power = 1e-6F;
	/** A peak this close to the highest is as good: it may be the period, and the highest a multiple of it. */
	static constexpr float good_peak = 0.85F;

	/** The Fourier transform of every `stride`th of `in`; `out` has a power of two of values. */
	void transform(const float *in, size_t stride, std::span<complex> out) const
	{
		const size_t half = out.size() / 2;
		if (half == 0) {
			out[0] = *in;
			return;
		}
		transform(in, 2 * stride, out.first(half));
		transform(in + stride, 2 * stride, out.last(half));
		for (size_t i = 0; i < half; i++) {
			const complex even = out[i];
			const complex odd = out[half + i] * roots[i * roots.size() / half];
			out[i] = even + odd;
			out[half + i] = even - odd;
		}
	}

	void find_magnitudes(size_t first_bin, size_t last_bin)
	{
		std::transform(heard.begin(), heard.end(), window.begin(), windowed.begin(), std::multiplies{});
		transform(windowed.data(), 1, spectrum);
		const size_t n = magnitudes.size();
		for (size_t bin = first_bin; bin <= last_bin; bin++)
			magnitudes[bin] = magnitudes[(n - bin) % n] = std::cbrt(std::norm(spectrum[bin]));
	}

	void correlate()
	{
		transform(magnitudes.data(), 1, std::span{spectrum}.first(magnitudes.size()));
		std::transform(spectrum.begin(), spectrum.begin() + static_cast<std::ptrdiff_t>(by_lag.size()),
			       by_lag.begin(), [](const complex &value) { return value.real(); });
	}

	/** Between two lags as well: a high voice has its periods there. */
	void find_period(pitch &found)
	{
		std::fill(peaks.begin(), peaks.end(), peak<float>{});
		float highest = 0.0F;
		for (size_t lag = shortest_lag; lag < longest_lag; lag++) {
			const float before = by_lag[lag - 1], here = by_lag[lag], after = by_lag[lag + 1];
			if (here < before || here <= after)
				continue;
			peaks[lag] = find_peak(before, here, after);
			/* The window takes more of it the longer the lag is. */
			peaks[lag].height *= of_window[0] / of_window[lag] / by_lag[0];
			highest = std::max(highest, peaks[lag].height);
		}
		for (size_t lag = shortest_lag; lag < longest_lag; lag++) {
			if (peaks[lag].height <= 0.0F || peaks[lag].height < good_peak * highest)
				continue;
			found.periodicity = peaks[lag].height;
			found.frequency = static_cast<float>(lag_rate) / (static_cast<float>(lag) + peaks[lag].offset);
			return;
		}
	}

	/** The last 40 ms. */
	std::vector<float> heard;
	std::vector<complex> spectrum;
	/** Hz from one bin to the next, and lags in a second. */
	double bin_width = 0.0, lag_rate = 0.0;
	size_t lowest_bin = 0, highest_bin = 0;
	size_t shortest_lag = 0, longest_lag = 0;
	std::vector<complex> roots;
	std::vector<float> window, windowed;
	/** Of the spectrum, compressed: the lower part, and its mirror image. */
	std::vector<float> magnitudes;
	/** Autocorrelation; and that of the window of a sound that repeats itself for ever. */
	std::vector<float> by_lag, of_window;
	std::vector<peak<float>> peaks;
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_PITCH_HPP */
