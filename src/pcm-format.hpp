/*
 * Audio formats between texts, PODs and records.
 *
 * Pure: no stream, no graph.
 */
#pragma once

#include <cstdint>

struct pw_properties;
struct spa_audio_info_raw;
struct spa_pod;
struct hs_pod_buffer;

/** The sample format of a plug-in whose configuration tells none: planar 32-bit floats. */
inline constexpr char HS_PCM_DEFAULT_FORMAT[] = "F32P";

/** SPA id of a sample format's short name such as "F32P"; 0 where it is unknown or null. */
uint32_t hs_pcm_format_from_name(const char *name);

/** SPA id of a channel's short name such as "FL" or "AUX12"; SPA_AUDIO_CHANNEL_UNKNOWN for another. */
uint32_t hs_pcm_channel_from_name(const char *name);

/**
 * Reads "audio.position", a JSON array or a bare list of channel names, into the first 64 of `position`.
 * Returns how many there are in all, or a negative errno.
 */
int hs_pcm_parse_position(const char *text, uint32_t position[64]);

/**
 * Fills `info` from the "audio.*" values of `props`, with 0 for what is absent or no number, and sets
 * "stream.dont-remix" in `props` where every channel has a position.
 */
void hs_pcm_format_from_props(pw_properties *props, spa_audio_info_raw *info);

/** Builds the EnumFormat parameter that offers what is known in `info`; null where it cannot be built. */
const spa_pod *hs_pcm_build_format(const spa_audio_info_raw &info, hs_pod_buffer *buffer);

/**
 * Reads a raw audio format. False, with `info` untouched, where it has another form or more than 64
 * channels; flags are always 0 and positions 0 where the format has none.
 */
bool hs_pcm_parse_format(const spa_pod *param, spa_audio_info_raw *info);
