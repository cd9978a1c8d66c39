/*
 * The audio that a plug-in is to hear, as its configuration asks for it.
 */
#pragma once

#include <string>

#include <hear-sense/plugin.h>

struct pw_properties;

namespace hs_tool {

/**
 * The format of "plugin.info": "audio.format", "audio.rate", "audio.channels" and "audio.position". What it
 * does not tell is planar float and `rate` and `channels`. Throws a failure for a format that cannot be made.
 */
spa_audio_info_raw wanted_format(const pw_properties *info, uint32_t rate, uint32_t channels);

/** What init is told of such a stream. */
hs_stream_info stream_info(const spa_audio_info_raw &format, const std::string &source);

/** "F32P, 2 channels, 48000 Hz". */
std::string describe(const spa_audio_info_raw &format);

/** Usual positions for that number of channels. */
void set_usual_positions(spa_audio_info_raw *format);

} // namespace hs_tool
