#include "format.hpp"

#include <algorithm>
#include <cstdio>

#include <pipewire/keys.h>
#include <pipewire/properties.h>

#include "audio-buffer.hpp"
#include "failure.hpp"
#include "owned.hpp"
#include "pcm-format.hpp"

namespace hs_tool {

spa_audio_info_raw wanted_format(const pw_properties *info, uint32_t rate, uint32_t channels)
{
	const hs_properties_ptr props(pw_properties_new(PW_KEY_AUDIO_FORMAT, HS_PCM_DEFAULT_FORMAT, nullptr));
	for (const char *key : {PW_KEY_AUDIO_FORMAT, PW_KEY_AUDIO_RATE, PW_KEY_AUDIO_CHANNELS, "audio.position"}) {
		if (const char *value = pw_properties_get(info, key))
			pw_properties_set(props.get(), key, value);
	}

	spa_audio_info_raw format{};
	hs_pcm_format_from_props(props.get(), &format);
	/* PipeWire is free to choose where it knows no such format. */
	if (format.format == SPA_AUDIO_FORMAT_UNKNOWN)
		format.format = static_cast<spa_audio_format>(hs_pcm_format_from_name(HS_PCM_DEFAULT_FORMAT));
	if (!sample_format_is_known(format.format))
		throw failure(std::string("The configuration asks for the sample format ") +
			      pw_properties_get(props.get(), PW_KEY_AUDIO_FORMAT) +
			      ", which is not made here. F32P, F32, F64P, S16P, S16, S32P and the like are.");
	if (format.rate == 0)
		format.rate = rate;
	if (format.channels == 0)
		format.channels = channels;
	if (format.channels > SPA_AUDIO_MAX_CHANNELS)
		throw failure("A stream of " + std::to_string(format.channels) +
			      " channels cannot be made, only of up to " + std::to_string(SPA_AUDIO_MAX_CHANNELS) +
			      ". Set audio.channels in the configuration.");
	if (format.position[0] == SPA_AUDIO_CHANNEL_UNKNOWN)
		set_usual_positions(&format);
	return format;
}

void set_usual_positions(spa_audio_info_raw *format)
{
	static constexpr uint32_t surround[] = {SPA_AUDIO_CHANNEL_FL,  SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_FC,
						SPA_AUDIO_CHANNEL_LFE, SPA_AUDIO_CHANNEL_RL, SPA_AUDIO_CHANNEL_RR,
						SPA_AUDIO_CHANNEL_SL,  SPA_AUDIO_CHANNEL_SR};
	static constexpr uint32_t quad[] = {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR, SPA_AUDIO_CHANNEL_RL,
					    SPA_AUDIO_CHANNEL_RR};
	if (format->channels == 1)
		format->position[0] = SPA_AUDIO_CHANNEL_MONO;
	else if (format->channels == 4)
		std::copy(std::begin(quad), std::end(quad), format->position);
	else if (format->channels <= std::size(surround))
		std::copy_n(surround, format->channels, format->position);
	else
		for (uint32_t i = 0; i < std::min<uint32_t>(format->channels, SPA_AUDIO_MAX_CHANNELS); ++i)
			format->position[i] = SPA_AUDIO_CHANNEL_START_Aux + i;
}

hs_stream_info stream_info(const spa_audio_info_raw &format, const std::string &source)
{
	hs_stream_info stream{};
	stream.info = format;
	std::snprintf(stream.source_name, sizeof(stream.source_name), "%s", source.c_str());
	return stream;
}

std::string describe(const spa_audio_info_raw &format)
{
	return sample_format_name(format.format) + ", " + std::to_string(format.channels) +
	       (format.channels == 1 ? " channel, " : " channels, ") + std::to_string(format.rate) + " Hz";
}

} // namespace hs_tool
