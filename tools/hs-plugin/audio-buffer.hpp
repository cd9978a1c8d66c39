/*
 * Buffers as a stream hands them to a plug-in, in every sample format that this tool makes.
 *
 * Behind the audio of each channel lies memory that nobody may touch: a plug-in that reads on dies.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <spa/buffer/buffer.h>
#include <spa/param/audio/raw.h>

namespace hs_tool {

/** All sample formats that an audio_buffer can have. */
std::vector<spa_audio_format> known_sample_formats();
bool sample_format_is_known(spa_audio_format format);
/** "F32P" and the like. */
std::string sample_format_name(spa_audio_format format);

class audio_buffer
{
public:
	/** `format` is a known one. */
	audio_buffer(spa_audio_format format, uint32_t channels, size_t max_frames);
	~audio_buffer();

	audio_buffer(const audio_buffer &) = delete;
	audio_buffer &operator=(const audio_buffer &) = delete;

	/** Holds these interleaved frames, at most `max_frames`, from now on. */
	spa_buffer *fill(const float *samples, size_t n_frames);

	/** Whether somebody else has written into what fill put there. */
	bool was_written() const;

private:
	struct block {
		/** The mapping, the forbidden page included. */
		uint8_t *memory;
		size_t size;
		/** Where the forbidden page begins. */
		uint8_t *end;
	};

	/** A sample as its bytes. */
	void put(uint8_t *to, float sample) const;

	spa_audio_format format;
	uint32_t n_channels;
	std::vector<block> blocks;
	std::vector<spa_data> datas;
	std::vector<spa_chunk> chunks;
	/** What each block was filled with. */
	std::vector<std::vector<uint8_t>> copies;
	spa_buffer buffer{};
};

} // namespace hs_tool
