#include "pcm-format.hpp"

#include <cerrno>
#include <cstring>
#include <string>

#include <pipewire/properties.h>
#include <spa/debug/types.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/audio/type-info.h>
#include <spa/utils/json.h>
#include <spa/utils/string.h>

#include "log.hpp"
#include "pod.hpp"

namespace {

constexpr uint32_t max_aux_channels = 4096;

uint32_t decimal_property(const pw_properties *props, const char *key)
{
	uint32_t value = 0;
	return spa_atou32(pw_properties_get(props, key), &value, 10) ? value : 0;
}

} // namespace

uint32_t hs_pcm_format_from_name(const char *name)
{
	char full_name[512];
	std::snprintf(full_name, sizeof(full_name), "%s%s", SPA_TYPE_INFO_AudioFormat ":", name ? name : "(null)");
	const uint32_t format = spa_debug_type_find_type(spa_type_audio_format, full_name);
	return format == SPA_ID_INVALID ? static_cast<uint32_t>(SPA_AUDIO_FORMAT_UNKNOWN) : format;
}

uint32_t hs_pcm_channel_from_name(const char *name)
{
	for (const spa_type_info *info = spa_type_audio_channel; info->name; ++info) {
		if (std::strcmp(spa_debug_type_short_name(info->name), name) == 0)
			return info->type;
	}
	/* SPA's table ends at AUX63. */
	uint32_t aux = 0;
	if (std::strncmp(name, "AUX", 3) == 0 && spa_atou32(name + 3, &aux, 10) && aux < max_aux_channels)
		return SPA_AUDIO_CHANNEL_START_Aux + aux;
	return SPA_AUDIO_CHANNEL_UNKNOWN;
}

int hs_pcm_parse_position(const char *text, uint32_t position[SPA_AUDIO_MAX_CHANNELS])
{
	spa_json outer;
	spa_json elements;
	spa_json_init(&outer, text, std::strlen(text));
	if (spa_json_enter_array(&outer, &elements) <= 0)
		spa_json_init(&elements, text, std::strlen(text));

	int count = 0;
	char name[256];
	const char *token = nullptr;
	int length;
	while ((length = spa_json_next(&elements, &token)) > 0) {
		if (spa_json_parse_stringn(token, length, name, sizeof(name)) <= 0)
			return -EINVAL;
		if (count < static_cast<int>(SPA_AUDIO_MAX_CHANNELS))
			position[count] = hs_pcm_channel_from_name(name);
		++count;
	}
	return length < 0 ? length : count;
}

void hs_pcm_format_from_props(pw_properties *props, spa_audio_info_raw *info)
{
	*info = {};
	info->format = static_cast<spa_audio_format>(hs_pcm_format_from_name(pw_properties_get(props, "audio.format")));
	info->rate = decimal_property(props, "audio.rate");
	info->channels = decimal_property(props, "audio.channels");

	const char *position = pw_properties_get(props, "audio.position");
	if (!position)
		return;
	const int count = hs_pcm_parse_position(position, info->position);
	if (count <= 0)
		pw_log_warn("Can not parse audio.position.");
	else if (static_cast<uint32_t>(count) == info->channels)
		pw_properties_set(props, "stream.dont-remix", "true");
	else
		pw_log_warn("Number of audio positions do not match number of channels.");
}

const spa_pod *hs_pcm_build_format(const spa_audio_info_raw &info, hs_pod_buffer *buffer)
{
	/* SPA builds as many positions as there are channels, whatever the array holds. */
	spa_audio_info_raw offer = info;
	if (offer.channels > SPA_AUDIO_MAX_CHANNELS)
		offer.flags |= SPA_AUDIO_FLAG_UNPOSITIONED;

	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer->data, static_cast<uint32_t>(sizeof(buffer->data)));
	return spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &offer);
}

bool hs_pcm_parse_format(const spa_pod *param, spa_audio_info_raw *info)
{
	spa_audio_info_raw parsed{};
	if (spa_format_audio_raw_parse(param, &parsed) < 0 || parsed.channels > SPA_AUDIO_MAX_CHANNELS)
		return false;
	parsed.flags = 0;
	*info = parsed;
	return true;
}
