/* SPDX-License-Identifier: MIT */
#include "loudness-meter.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

#include <spa/param/audio/raw.h>

namespace {

constexpr std::array unheard{SPA_AUDIO_CHANNEL_NA, SPA_AUDIO_CHANNEL_LFE, SPA_AUDIO_CHANNEL_LFE2,
			     SPA_AUDIO_CHANNEL_LLFE, SPA_AUDIO_CHANNEL_RLFE};
constexpr std::array sides{SPA_AUDIO_CHANNEL_SL, SPA_AUDIO_CHANNEL_SR};
constexpr std::array wide{SPA_AUDIO_CHANNEL_FLW, SPA_AUDIO_CHANNEL_FRW};
constexpr std::array rear{SPA_AUDIO_CHANNEL_RL, SPA_AUDIO_CHANNEL_RR};

bool is_among(std::span<const spa_audio_channel> places, uint32_t position)
{
	return std::find(places.begin(), places.end(), position) != places.end();
}

/** Of a channel among several: surround counts 1.41, low frequencies nothing; the rest, and what has no place, 1. */
int speaker(uint32_t position, bool has_sides)
{
	if (is_among(unheard, position))
		return EBUR128_UNUSED;
	/* With side channels the rear ones stand behind the listener, without them they are the surround. */
	if (is_among(sides, position) || is_among(wide, position) || (!has_sides && is_among(rear, position)))
		return EBUR128_LEFT_SURROUND;
	return EBUR128_CENTER;
}

/** Also for what is no number. */
double at_least(double floor, double value)
{
	return value > floor ? value : floor;
}

double to_dbfs(double amplitude)
{
	return at_least(loudness_floor_dbfs, 20.0 * std::log10(amplitude));
}

struct extent {
	float peak = 0.0F;
	double square_sum = 0.0;
};

/** Eight peaks and sums side by side: in a single one, each sample would wait for the last. */
extent extent_of(std::span<const float> samples)
{
	constexpr size_t width = 8;
	std::array<float, width> peaks{};
	std::array<double, width> sums{};
	const auto hear = [&](size_t lane, float sample) {
		peaks[lane] = std::max(peaks[lane], std::abs(sample));
		sums[lane] += static_cast<double>(sample) * sample;
	};
	size_t i = 0;
	for (; i + width <= samples.size(); i += width) {
		for (size_t lane = 0; lane < width; lane++)
			hear(lane, samples[i + lane]);
	}
	for (; i < samples.size(); i++)
		hear(0, samples[i]);
	return {.peak = *std::max_element(peaks.begin(), peaks.end()),
		.square_sum = std::accumulate(sums.begin(), sums.end(), 0.0)};
}

double loudness_of(std::span<const double> powers)
{
	const double sum = std::accumulate(powers.begin(), powers.end(), 0.0);
	return at_least(loudness_floor_lufs, 10.0 * std::log10(sum / static_cast<double>(powers.size())));
}

} // namespace

std::unique_ptr<loudness_meter> loudness_meter::create(uint32_t rate, std::span<const uint32_t> positions)
{
	/* The weighting filter has its shelf at 1.7 kHz and is unstable where that is above half the rate. */
	if (rate < 4000)
		return nullptr;
	auto meter = std::make_unique<loudness_meter>();
	meter->state.reset(ebur128_init(static_cast<unsigned int>(positions.size()), rate, EBUR128_MODE_M));
	if (!meter->state)
		return nullptr;
	if (positions.size() > 1)
		meter->block = std::make_unique<float[]>(meter->look_frames() * positions.size());
	const auto is_side = [](uint32_t position) { return is_among(sides, position); };
	const bool has_sides = std::any_of(positions.begin(), positions.end(), is_side);
	/* A lone channel is the whole sound, whatever place it is said to have. */
	for (unsigned int c = 0; c < positions.size(); c++)
		ebur128_set_channel(meter->state.get(), c,
				    positions.size() == 1 ? EBUR128_CENTER : speaker(positions[c], has_sides));
	return meter;
}

const float *loudness_meter::interleave(std::span<const std::span<const float>> channels)
{
	for (size_t c = 0; c < channels.size(); c++) {
		for (size_t frame = 0; frame < look_frames(); frame++)
			block[frame * channels.size() + c] = channels[c][frame];
	}
	return block.get();
}

loudness_values loudness_meter::look(std::span<const std::span<const float>> channels)
{
	const size_t n = look_frames();
	extent heard;
	for (const std::span<const float> &samples : channels) {
		const extent channel = extent_of(samples.first(n));
		heard.peak = std::max(heard.peak, channel.peak);
		heard.square_sum += channel.square_sum;
	}
	ebur128_add_frames_float(state.get(), channels.size() == 1 ? channels[0].data() : interleave(channels), n);

	double loudness = loudness_floor_lufs;
	ebur128_loudness_window(state.get(), 100, &loudness);
	std::shift_right(powers.begin(), powers.end(), 1);
	powers.front() = std::pow(10.0, loudness / 10.0);

	return {.momentary = loudness_of(std::span{powers}.first(4)),
		.short_term = loudness_of(powers),
		.peak = to_dbfs(heard.peak),
		.level = to_dbfs(std::sqrt(heard.square_sum / static_cast<double>(n * channels.size())))};
}
