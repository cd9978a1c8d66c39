/* SPDX-License-Identifier: MIT */
/*
 * Where the samples are in a buffer.
 */
#pragma once

#include <cstddef>
#include <span>

#include <spa/buffer/buffer.h>
#include <spa/param/audio/raw.h>

#include "loudness-meter.hpp"

/** Whether samples of this format are understood. */
bool loudness_format_is_known(spa_audio_format format);

/**
 * Points `channels`, all silent before, at the samples of a buffer of this format; returns its number of
 * frames. A buffer without usable samples has none; one with too few blocks leaves channels silent.
 */
size_t loudness_find_samples(spa_audio_format format, const spa_buffer &buffer,
			     std::span<loudness_channel> channels);
