/*
 * Audio files, in the rate and with the channels that a plug-in hears.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <samplerate.h>
#include <sndfile.h>

#include "owned.hpp"

namespace hs_tool {

/** A file that libsndfile reads. Everything about it that is wrong throws a failure. */
class audio_file
{
public:
	/** A file without audio, or shorter than it claims to be, is wrong from the start. */
	explicit audio_file(const std::string &path);

	uint32_t rate() const
	{
		return static_cast<uint32_t>(info.samplerate);
	}

	uint32_t channels() const
	{
		return static_cast<uint32_t>(info.channels);
	}

	/** Reads up to `n` frames, interleaved; returns how many, 0 at the end. */
	size_t read(float *samples, size_t n);

private:
	std::string path;
	SF_INFO info{};
	std::unique_ptr<SNDFILE, hs_release<sf_close>> file;
	sf_count_t n_read = 0;
};

/**
 * The file's audio, block by block. To one channel all are averaged, one channel goes to all; else each
 * goes to its own, further ones are left out and missing ones are silent.
 */
class audio_stream
{
public:
	/** The file is borrowed. */
	audio_stream(audio_file *from, uint32_t rate, uint32_t channels);

	/** The next `n` frames, interleaved, fewer at the end; valid until the next call. Empty at the end. */
	const std::vector<float> &next(size_t n);

private:
	void remix(size_t n_frames);
	/** Appends what one more block of the file gives; false at its end. */
	bool fill();

	audio_file *file;
	size_t n_channels;
	double ratio;
	std::unique_ptr<SRC_STATE, hs_release<src_delete>> converter;
	std::vector<float> from_file;
	std::vector<float> remixed;
	/** Converted and not handed out yet. */
	std::vector<float> waiting;
	std::vector<float> block;
	bool at_end = false;
};

} // namespace hs_tool
