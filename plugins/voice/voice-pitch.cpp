/* SPDX-License-Identifier: MIT */
#include "voice-pitch.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>

namespace {

/** The band, in bins of 15.6 Hz. */
constexpr size_t lowest_bin = 7;
constexpr size_t highest_bin = 217;
/** Bins among which the sound must be spread. A flute fills 11, an organ 30, a clean vowel 40 and more. */
constexpr float fewest_bins = 36.0F;
/** Less is silence. */
constexpr float least_power = 1e-6F;
/** A peak this close to the highest is as good: it may be the period, and the highest a multiple of it. */
constexpr float good_peak = 0.85F;

} // namespace

voice_pitch_meter::voice_pitch_meter()
{
	constexpr float circle = 2.0F * std::numbers::pi_v<float>;
	for (size_t i = 0; i < roots.size(); i++)
		roots[i] = std::polar(1.0F, -circle * static_cast<float>(i) / spectrum_size);
	for (size_t i = 0; i < window.size(); i++)
		window[i] = 0.5F - 0.5F * std::cos(circle * static_cast<float>(i) / (window_frames - 1));
	heard.fill(1.0F);
	find_magnitudes(0, correlation_size / 2);
	window_correlation = correlate();
	heard.fill(0.0F);
}

/** The Fourier transform of every `stride`th of `in`; `out` has a power of two of values. */
void voice_pitch_meter::transform(const float *in, size_t stride, std::span<complex> out) const
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

void voice_pitch_meter::find_magnitudes(size_t first_bin, size_t last_bin)
{
	std::transform(heard.begin(), heard.end(), window.begin(), windowed.begin(), std::multiplies{});
	transform(windowed.data(), 1, spectrum);
	for (size_t bin = first_bin; bin <= last_bin; bin++)
		magnitudes[bin] = magnitudes[(correlation_size - bin) % correlation_size] =
			std::cbrt(std::norm(spectrum[bin]));
}

voice_pitch_meter::correlation voice_pitch_meter::correlate()
{
	transform(magnitudes.data(), 1, std::span{spectrum}.first(correlation_size));
	correlation by_lag;
	std::transform(spectrum.begin(), spectrum.begin() + by_lag.size(), by_lag.begin(),
		       [](const complex &value) { return value.real(); });
	return by_lag;
}

voice_pitch voice_pitch_meter::look(std::span<const float, voice_hop> samples)
{
	std::shift_left(heard.begin(), heard.end(), voice_hop);
	std::copy(samples.begin(), samples.end(), heard.end() - voice_hop);
	magnitudes.fill(0.0F);
	find_magnitudes(lowest_bin, highest_bin);
	float power = 0.0F, sum = 0.0F, square_sum = 0.0F;
	for (size_t bin = lowest_bin; bin <= highest_bin; bin++) {
		power += std::norm(spectrum[bin]);
		sum += magnitudes[bin];
		square_sum += magnitudes[bin] * magnitudes[bin];
	}
	voice_pitch pitch{.level = 10.0F * std::log10(std::max(power, least_power))};
	if (power <= least_power || sum * sum < fewest_bins * square_sum)
		return pitch;

	const correlation by_lag = correlate();
	/* Each the highest point of a parabola through three lags: a high voice has its periods between them. */
	struct peak {
		float height = 0.0F;
		float period = 1.0F;
	};
	std::array<peak, longest_lag> peaks{};
	float highest = 0.0F;
	for (size_t lag = shortest_lag; lag < longest_lag; lag++) {
		const float before = by_lag[lag - 1], here = by_lag[lag], after = by_lag[lag + 1];
		if (here < before || here <= after)
			continue;
		const float offset = 0.5F * (before - after) / (before - 2.0F * here + after);
		const float height = (here - 0.25F * (before - after) * offset) / by_lag[0];
		peaks[lag] = {height * window_correlation[0] / window_correlation[lag],
			      static_cast<float>(lag) + offset};
		highest = std::max(highest, peaks[lag].height);
	}
	const auto first = std::find_if(peaks.begin(), peaks.end(), [=](const peak &one) {
		return one.height > 0.0F && one.height >= good_peak * highest;
	});
	if (first != peaks.end()) {
		pitch.periodicity = first->height;
		pitch.log_period = std::log(first->period);
	}
	return pitch;
}
