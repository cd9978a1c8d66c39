/* SPDX-License-Identifier: MIT */
#include "loudness-events.hpp"

#include <array>
#include <cmath>
#include <cstdlib>

#include <spa/pod/builder.h>

#include "loudness-pod.hpp"

namespace {

constexpr hs_event_topic audio_topic{.name = "Audio", .nice_name = "Audio", .namespace_ = "com.orvel"};
constexpr hs_event_topic loudness_topic{
	.name = "Loudness", .nice_name = "Loudness", .namespace_ = "com.orvel"};
constexpr std::array<const hs_event_topic *, 2> topics{&audio_topic, &loudness_topic};

constexpr hs_event_info loudness_event{
	.name = "Loudness",
	.nice_name = "Loudness",
	.isDeprecated = false,
	.isApplicationData = false,
	.isPropertyState = true,
	.topics = topics.data(),
	.n_topics = topics.size(),
	.is_public = true,
	.data_types = HS_EVENT_DATA_STATS,
};
constexpr hs_event_info alarm_event{
	.name = "LoudnessAlarm",
	.nice_name = "Loudness alarm",
	.isDeprecated = false,
	.isApplicationData = false,
	.isPropertyState = true,
	.topics = topics.data(),
	.n_topics = topics.size(),
	.is_public = true,
	.data_types = HS_EVENT_DATA_EVENT,
};
constexpr hs_event_info level_event{
	.name = "Level",
	.nice_name = "Sound level",
	.isDeprecated = false,
	.isApplicationData = false,
	.isPropertyState = false,
	.topics = topics.data(),
	.n_topics = topics.size(),
	.is_public = false,
	.data_types = HS_EVENT_DATA_STATS,
};
constexpr std::array<const hs_event_info *, 3> events{&loudness_event, &alarm_event, &level_event};

constexpr std::array<const char *, events.size()> event_descriptions{
	"Momentary and short-term loudness in LUFS, sample peak in dBFS",
	"The momentary loudness is above the threshold",
	"RMS level of the last 100 ms in dBFS",
};

double from_tenths(loudness_tenths value)
{
	return static_cast<double>(value) / 10.0;
}

void add_member(spa_pod_builder *builder, const char *name, double value)
{
	spa_pod_builder_string(builder, name);
	spa_pod_builder_double(builder, value);
}

void add_member(spa_pod_builder *builder, const char *name, bool value)
{
	spa_pod_builder_string(builder, name);
	spa_pod_builder_bool(builder, value);
}

void add_event_value(const loudness_event_values &values, loudness_event_index index,
		     spa_pod_builder *builder)
{
	spa_pod_frame members;
	switch (index) {
	case LOUDNESS_EVENT_LOUDNESS:
		spa_pod_builder_push_struct(builder, &members);
		add_member(builder, "Momentary", from_tenths(values.loudness.momentary));
		add_member(builder, "ShortTerm", from_tenths(values.loudness.short_term));
		add_member(builder, "Peak", from_tenths(values.loudness.peak));
		spa_pod_builder_pop(builder, &members);
		return;
	case LOUDNESS_EVENT_ALARM:
		/* Every alarm is worth a report. */
		spa_pod_builder_push_struct(builder, &members);
		add_member(builder, "Detected", values.alarm.is_raised);
		add_member(builder, "Report", values.alarm.is_raised);
		spa_pod_builder_pop(builder, &members);
		return;
	case LOUDNESS_EVENT_LEVEL:
		spa_pod_builder_double(builder, from_tenths(values.level));
		return;
	}
}

} // namespace

std::span<const hs_event_info *const> loudness_events()
{
	return events;
}

loudness_tenths loudness_to_tenths(double value)
{
	return std::llround(value * 10.0);
}

bool loudness_published::is_outdated_by(const loudness_published &now) const
{
	/* In steady noise a peak jumps by some decibels from look to look: only a deep fall says something. */
	const loudness_tenths rise = now.peak - peak;
	return std::llabs(now.momentary - momentary) >= 10 || std::llabs(now.short_term - short_term) >= 10 ||
	       rise >= 10 || rise <= -100;
}

spa_pod *loudness_build_event(const loudness_event_values &values, loudness_event_index index,
			      spa_pod_builder *builder)
{
	spa_pod_frame object;
	loudness_begin_description(builder, &object, events[index]->name, event_descriptions[index]);
	add_event_value(values, index, builder);
	return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &object));
}
