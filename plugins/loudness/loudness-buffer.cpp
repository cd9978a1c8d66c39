/* SPDX-License-Identifier: MIT */
#include "loudness-buffer.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace {

bool has_flag(const spa_data &data, uint32_t flag)
{
	return (static_cast<uint32_t>(data.chunk->flags) & flag) != 0;
}

/** The valid bytes of a block. Its offset and size are another program's word and may be anything. */
std::span<const std::byte> bytes_of(const spa_data &data)
{
	if (!data.data || !data.chunk || data.maxsize == 0 || has_flag(data, SPA_CHUNK_FLAG_CORRUPTED))
		return {};
	const size_t offset = data.chunk->offset % data.maxsize;
	const size_t size = std::min<size_t>(data.chunk->size, data.maxsize - offset);
	return {static_cast<const std::byte *>(data.data) + offset, size};
}

} // namespace

bool loudness_format_is_known(spa_audio_format format)
{
	return format == SPA_AUDIO_FORMAT_F32P || format == SPA_AUDIO_FORMAT_F32;
}

size_t loudness_find_samples(spa_audio_format format, const spa_buffer &buffer,
			     std::span<loudness_channel> channels)
{
	if (!buffer.datas)
		return 0;
	const size_t per_block = format == SPA_AUDIO_FORMAT_F32P ? 1 : channels.size();
	const size_t step = per_block * sizeof(float);
	const size_t n_blocks = std::min<size_t>(buffer.n_datas, channels.size() / per_block);

	size_t n_frames = n_blocks > 0 ? std::numeric_limits<size_t>::max() : 0;
	for (size_t block = 0; block < n_blocks; block++) {
		const std::span<const std::byte> bytes = bytes_of(buffer.datas[block]);
		n_frames = std::min(n_frames, bytes.size() / step);
		if (n_frames == 0)
			return 0;
		if (has_flag(buffer.datas[block], SPA_CHUNK_FLAG_EMPTY))
			continue;
		for (size_t c = 0; c < per_block; c++)
			channels[block * per_block + c] = {bytes.data() + c * sizeof(float), step};
	}
	return n_frames;
}
