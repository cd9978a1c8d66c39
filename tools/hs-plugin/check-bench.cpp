#include "check-bench.hpp"

#include <cmath>
#include <limits>

#include <pipewire/properties.h>

#include "failure.hpp"

namespace hs_tool {

namespace {

constexpr uint32_t blocks_per_second = 50;
/** Of the square wave. */
constexpr uint64_t square_hz = 440;

} // namespace

void recorder::on_event(const hs_event &event)
{
	lines.push_back(std::to_string(n_blocks) + " " + event.title + " " + event.value);
}

bench::bench(const subject &checked)
    : plugin(checked.plugin), conf(find_configuration({plugin.name(), plugin.path()}, checked.conf))
{
}

std::unique_ptr<host> bench::make(listener *to) const
{
	auto instance = std::make_unique<host>(plugin, conf.config.get(), to);
	instance->describe_events();
	instance->set_defaults(conf.info.get());
	return instance;
}

spa_audio_info_raw bench::format(uint32_t rate, uint32_t channels) const
{
	return wanted_format(conf.info.get(), rate, channels);
}

spa_audio_info_raw bench::usual_format() const
{
	for (const uint32_t channels : {1U, 2U}) {
		for (const uint32_t rate : {48000U, 16000U, 44100U, 32000U, 8000U}) {
			const spa_audio_info_raw candidate = format(rate, channels);
			const auto instance = make();
			if (start(instance.get(), candidate)) {
				stop(instance.get());
				return candidate;
			}
		}
	}
	throw failure("It takes no usual format, such as " + describe(format(48000, 1)) +
		      ", so nothing could be heard.");
}

bool start(host *instance, const spa_audio_info_raw &format)
{
	return instance->init(stream_info(format, "AudioDevice0Input0.Unprocessed")) >= 0 && instance->activate() >= 0;
}

void stop(host *instance)
{
	instance->deactivate();
	instance->deinit();
}

signal_source::signal_source(kind wanted, const spa_audio_info_raw &audio_format, uint32_t seed)
    : sound(wanted), format(audio_format), state(seed * 2654435761U + 1)
{
}

float signal_source::sample()
{
	const auto noise = [this] {
		state = state * 1664525U + 1013904223U;
		return static_cast<float>(static_cast<int32_t>(state)) / 2147483648.0F;
	};
	switch (sound) {
	case SILENCE:
		return 0.0F;
	case FULL_SCALE:
		return frame * 2 * square_hz / format.rate % 2 == 0 ? 1.0F : -1.0F;
	case NOISE:
		return noise() * 0.25F;
	case SCENE: {
		/* A second of each level, silence too. */
		static constexpr float levels[] = {0.01F, 0.9F, 0.0F, 0.1F, 0.5F, 0.0F, 0.03F};
		return noise() * levels[frame / format.rate % std::size(levels)];
	}
	case DENORMAL:
		return noise() < 0.0F ? -1e-40F : 1e-40F;
	case NOT_A_NUMBER:
		return std::numeric_limits<float>::quiet_NaN();
	case INFINITE:
		return std::numeric_limits<float>::infinity();
	}
	return 0.0F;
}

const std::vector<float> &signal_source::next(size_t n_frames)
{
	samples.resize(n_frames * format.channels);
	for (size_t i = 0; i < n_frames; ++i, ++frame) {
		for (uint32_t channel = 0; channel < format.channels; ++channel)
			samples[i * format.channels + channel] = sample();
	}
	return samples;
}

void hear(host *instance, signal_source *signal, const spa_audio_info_raw &format, double seconds, recorder *record)
{
	const size_t block = std::max(format.rate / blocks_per_second, 1U);
	audio_buffer buffer(format.format, format.channels, block);
	const auto n_blocks = static_cast<size_t>(seconds * blocks_per_second);
	for (size_t i = 0; i < n_blocks; ++i) {
		if (record)
			++record->n_blocks;
		instance->process(buffer.fill(signal->next(block).data(), block));
		instance->handle_events(false);
	}
}

void check_process_error(host *instance, const std::string &what, report *found)
{
	if (const std::optional<std::string> error = instance->take_process_error())
		found->fail("While it hears " + what + " it logs an error: " + *error + ".");
}

} // namespace hs_tool
