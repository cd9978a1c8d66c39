/* SPDX-License-Identifier: MIT */
#include "loudness-meter.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <numeric>

#include <spa/param/audio/raw.h>

namespace {

constexpr int ebur128_modes = EBUR128_MODE_M | EBUR128_MODE_SAMPLE_PEAK;

/** Of a look, in ms. */
constexpr unsigned long look_window = 100;

/** The weighting filter has its shelf at 1.7 kHz and is unstable where that is above half the rate. */
constexpr uint32_t lowest_rate = 4000;

size_t look_frames(const ebur128_state &state)
{
	/* As libebur128 rounds its own 100 ms, so that its windows end where ours do. */
	return (state.samplerate + 5) / 10;
}

/**
 * The loudspeaker that a channel is meant for, which decides its weight: surround counts 1.41, low-frequency
 * effects nothing, all others 1. So does a channel without a place, as of an array of microphones.
 */
int ebur128_channel(uint32_t position, bool has_sides)
{
	switch (position) {
	case SPA_AUDIO_CHANNEL_NA:
	case SPA_AUDIO_CHANNEL_LFE:
	case SPA_AUDIO_CHANNEL_LFE2:
	case SPA_AUDIO_CHANNEL_LLFE:
	case SPA_AUDIO_CHANNEL_RLFE:
		return EBUR128_UNUSED;
	case SPA_AUDIO_CHANNEL_FL:
		return EBUR128_LEFT;
	case SPA_AUDIO_CHANNEL_FR:
		return EBUR128_RIGHT;
	case SPA_AUDIO_CHANNEL_SL:
		return EBUR128_Mp090;
	case SPA_AUDIO_CHANNEL_SR:
		return EBUR128_Mm090;
	/* With side channels the rear ones stand behind the listener, without them they are the surround. */
	case SPA_AUDIO_CHANNEL_RL:
		return has_sides ? EBUR128_Mp135 : EBUR128_LEFT_SURROUND;
	case SPA_AUDIO_CHANNEL_RR:
		return has_sides ? EBUR128_Mm135 : EBUR128_RIGHT_SURROUND;
	case SPA_AUDIO_CHANNEL_FLW:
		return EBUR128_Mp060;
	case SPA_AUDIO_CHANNEL_FRW:
		return EBUR128_Mm060;
	default:
		return EBUR128_CENTER;
	}
}

void map_channels(ebur128_state *state, std::span<const uint32_t> positions)
{
	const bool has_sides = std::any_of(positions.begin(), positions.end(), [](uint32_t position) {
		return position == SPA_AUDIO_CHANNEL_SL || position == SPA_AUDIO_CHANNEL_SR;
	});
	for (unsigned int c = 0; c < positions.size(); c++) {
		/* A lone channel is the whole sound, whatever place it is said to have. */
		const int channel =
			positions.size() == 1 ? EBUR128_CENTER : ebur128_channel(positions[c], has_sides);
		ebur128_set_channel(state, c, channel);
	}
}

float sample_at(const loudness_channel &channel, size_t frame)
{
	if (!channel.samples)
		return 0.0F;
	float sample;
	std::memcpy(&sample, channel.samples + frame * channel.step, sizeof(sample));
	/* One of these would stay in the filters for ever. */
	return std::isfinite(sample) ? sample : 0.0F;
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

double loudness_of(std::span<const double> powers)
{
	const double sum = std::accumulate(powers.begin(), powers.end(), 0.0);
	return at_least(loudness_floor_lufs, 10.0 * std::log10(sum / static_cast<double>(powers.size())));
}

} // namespace

std::unique_ptr<loudness_meter> loudness_meter::create(uint32_t rate, std::span<const uint32_t> positions)
{
	if (rate < lowest_rate)
		return nullptr;
	std::unique_ptr<loudness_meter> meter{new (std::nothrow) loudness_meter};
	if (!meter)
		return nullptr;
	meter->state.reset(ebur128_init(static_cast<unsigned int>(positions.size()), rate, ebur128_modes));
	if (!meter->state)
		return nullptr;
	meter->block.reset(new (std::nothrow) float[look_frames(*meter->state) * positions.size()]);
	if (!meter->block)
		return nullptr;
	map_channels(meter->state.get(), positions);
	return meter;
}

double loudness_meter::look_interval() const
{
	return static_cast<double>(look_frames(*state)) / static_cast<double>(state->samplerate);
}

size_t loudness_meter::hear(std::span<const loudness_channel> channels, size_t first, size_t end)
{
	const size_t n_frames = std::min(end - first, look_frames(*state) - block_frames);
	for (size_t c = 0; c < channels.size(); c++) {
		float *out = &block[block_frames * channels.size() + c];
		for (size_t frame = first; frame < first + n_frames; frame++, out += channels.size())
			*out = sample_at(channels[c], frame);
	}
	block_frames += n_frames;
	return first + n_frames;
}

std::optional<loudness_values> loudness_meter::look()
{
	if (block_frames < look_frames(*state))
		return std::nullopt;
	/* Everything at once: the library tells the peak of the last portion only. */
	ebur128_add_frames_float(state.get(), block.get(), block_frames);
	const std::span<const float> samples{block.get(), block_frames * state->channels};
	block_frames = 0;

	double loudness = loudness_floor_lufs;
	ebur128_loudness_window(state.get(), look_window, &loudness);
	std::shift_right(powers.begin(), powers.end(), 1);
	powers.front() = std::pow(10.0, loudness / 10.0);

	double peak = 0.0;
	for (unsigned int c = 0; c < state->channels; c++) {
		double channel_peak = 0.0;
		ebur128_prev_sample_peak(state.get(), c, &channel_peak);
		peak = std::max(peak, channel_peak);
	}

	double square_sum = 0.0;
	for (const float sample : samples)
		square_sum += double{sample} * double{sample};
	const double rms = std::sqrt(square_sum / static_cast<double>(samples.size()));

	return loudness_values{
		.momentary = loudness_of(std::span{powers}.first(4)),
		.short_term = loudness_of(powers),
		.peak = to_dbfs(peak),
		.level = to_dbfs(rms),
	};
}
