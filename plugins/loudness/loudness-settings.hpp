/* SPDX-License-Identifier: MIT */
/*
 * What the plug-in can be told: its settings, and how they look as PODs.
 */
#pragma once

#include <cstdint>

struct spa_pod;
struct spa_pod_builder;

struct loudness_settings {
	/** LUFS. */
	double threshold = -20.0;
	/** Seconds. */
	double hold_time = 2.0;
};

constexpr uint32_t loudness_n_settings = 2;

/** Builds the description POD of one setting; null where it does not fit the builder. */
spa_pod *loudness_build_setting(const loudness_settings &settings, uint32_t index, spa_pod_builder *builder);

/** Builds all settings as a Struct of names and values; null where it does not fit the builder. */
spa_pod *loudness_build_settings(const loudness_settings &settings, spa_pod_builder *builder);

/** Takes a Struct of a name and a value. -EINVAL, and nothing is changed, where it is not one of ours. */
int loudness_take_setting(loudness_settings &settings, const spa_pod *pod);
