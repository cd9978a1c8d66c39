/* SPDX-License-Identifier: MIT */
#include "loudness-settings.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/pod/parser.h>

#include "loudness-meter.hpp"
#include "loudness-pod.hpp"

namespace {

struct setting_info {
	std::string_view name;
	const char *description;
	double loudness_settings::*value;
	double minimum;
	double maximum;
};

constexpr std::array<setting_info, loudness_n_settings> setting_infos{{
	{
		.name = "Threshold",
		.description = "Momentary loudness in LUFS above which the alarm is raised",
		.value = &loudness_settings::threshold,
		.minimum = loudness_floor_lufs,
		.maximum = 0.0,
	},
	{
		.name = "HoldTime",
		.description = "Seconds without too loud a sound after which the alarm is cleared",
		.value = &loudness_settings::hold_time,
		.minimum = 0.0,
		.maximum = 3600.0,
	},
}};

/** What the daemon tells every plug-in on a device: switches that mean nothing for loudness. */
constexpr std::array<std::string_view, 2> indications{
	"IndicateInternalSpeakerActive",
	"IndicateContinuousAudioDisturbance",
};

} // namespace

spa_pod *loudness_build_setting(const loudness_settings &settings, uint32_t index, spa_pod_builder *builder)
{
	const setting_info &info = setting_infos[index];
	spa_pod_frame object;
	loudness_begin_description(builder, &object, info.name.data(), info.description);
	spa_pod_builder_double(builder, settings.*info.value);
	return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &object));
}

spa_pod *loudness_build_settings(const loudness_settings &settings, spa_pod_builder *builder)
{
	spa_pod_frame members;
	spa_pod_builder_push_struct(builder, &members);
	for (const setting_info &info : setting_infos) {
		spa_pod_builder_string(builder, info.name.data());
		spa_pod_builder_double(builder, settings.*info.value);
	}
	return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &members));
}

int loudness_take_setting(loudness_settings &settings, const spa_pod *pod)
{
	if (!pod)
		return -EINVAL;
	spa_pod_parser parser;
	spa_pod_frame members;
	const char *name;
	spa_pod *value;
	spa_pod_parser_pod(&parser, pod);
	if (spa_pod_parser_push_struct(&parser, &members) < 0 ||
	    spa_pod_parser_get_string(&parser, &name) < 0 || spa_pod_parser_get_pod(&parser, &value) < 0 ||
	    spa_pod_parser_current(&parser))
		return -EINVAL;

	/* Taken all the same: the daemon tells no further plug-in once one has refused. */
	if (std::find(indications.begin(), indications.end(), name) != indications.end())
		return spa_pod_is_bool(value) ? 0 : -EINVAL;

	const auto info =
		std::find_if(setting_infos.begin(), setting_infos.end(),
			     [name](const setting_info &candidate) { return candidate.name == name; });
	double number;
	if (info == setting_infos.end() || spa_pod_get_double(value, &number) < 0)
		return -EINVAL;
	/* So put that it also refuses what is no number. */
	if (!(number >= info->minimum && number <= info->maximum))
		return -EINVAL;
	settings.*info->value = number;
	return 0;
}
