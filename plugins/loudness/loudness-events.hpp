/* SPDX-License-Identifier: MIT */
/*
 * What the plug-in tells: its events, their present values, and how both look as PODs.
 */
#pragma once

#include <cstdint>
#include <span>

#include <hear-sense/plugin.h>

#include "loudness-alarm.hpp"
#include "loudness-meter.hpp"

/** Indexes of loudness_events(). */
enum loudness_event_index : uint32_t {
	LOUDNESS_EVENT_LOUDNESS,
	LOUDNESS_EVENT_ALARM,
	LOUDNESS_EVENT_LEVEL,
};

/** Static descriptions. */
std::span<const hs_event_info *const> loudness_events();

/** A published value, in tenths of its unit. */
using loudness_tenths = long long;
loudness_tenths loudness_to_tenths(double value);

struct loudness_published {
	loudness_tenths momentary = loudness_to_tenths(loudness_floor_lufs);
	loudness_tenths short_term = loudness_to_tenths(loudness_floor_lufs);
	loudness_tenths peak = loudness_to_tenths(loudness_floor_dbfs);

	/**
	 * Whether clients that know these values should hear of `now`: a loudness has moved by 1, or the peak
	 * has risen by 1 or fallen by 10.
	 */
	bool is_outdated_by(const loudness_published &now) const;
};

/** What the events say; as they stand here, what they say of silence. */
struct loudness_event_values {
	loudness_published loudness;
	loudness_alarm alarm;
	loudness_tenths level = loudness_to_tenths(loudness_floor_dbfs);
};

/** Builds the description POD of one event; null where it does not fit the builder. */
spa_pod *loudness_build_event(const loudness_event_values &values, loudness_event_index index,
			      spa_pod_builder *builder);
