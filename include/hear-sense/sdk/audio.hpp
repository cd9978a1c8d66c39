/* SPDX-License-Identifier: MIT */
/*
 * From PipeWire's buffers to the channels that a plug-in hears.
 *
 * Samples are copied, whatever their format, into memory that is taken once for each stream. So a plug-in
 * always sees aligned, finite samples, side by side for each channel, in blocks of the size it asked for.
 *
 * Units: float samples are from -1 to 1, int16_t samples from -32768 to 32767, both at full scale.
 */
#ifndef HEAR_SENSE_SDK_AUDIO_HPP
#define HEAR_SENSE_SDK_AUDIO_HPP

#include <algorithm>
#include <array>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <vector>

#include <spa/buffer/buffer.h>
#include <spa/param/audio/raw.h>

namespace hear_sense {

/** What a plug-in can have its samples as. */
template <typename T>
concept sample = std::same_as<T, float> || std::same_as<T, int16_t>;

/** The samples of one channel in a buffer, which may lie apart and need no alignment. */
struct channel_samples {
	/** Null for a channel that is silent. */
	const std::byte *first = nullptr;
	/** Bytes from one sample to the next. */
	size_t step = 0;
};

/** Whether samples of this format can be read: 32-bit float or signed 16-bit, planar or interleaved. */
constexpr bool is_known_format(spa_audio_format format)
{
	return format == SPA_AUDIO_FORMAT_F32P || format == SPA_AUDIO_FORMAT_F32 || format == SPA_AUDIO_FORMAT_S16P ||
	       format == SPA_AUDIO_FORMAT_S16;
}

namespace detail {

constexpr bool is_float(spa_audio_format format)
{
	return format == SPA_AUDIO_FORMAT_F32P || format == SPA_AUDIO_FORMAT_F32;
}

constexpr bool is_planar(spa_audio_format format)
{
	return format == SPA_AUDIO_FORMAT_F32P || format == SPA_AUDIO_FORMAT_S16P;
}

inline bool has_flag(const spa_data &data, uint32_t flag)
{
	return (static_cast<uint32_t>(data.chunk->flags) & flag) != 0;
}

/** The valid bytes of a block. Its offset and size are another program's word and may be anything. */
inline std::span<const std::byte> bytes_of(const spa_data &data)
{
	if (!data.data || !data.chunk || data.maxsize == 0 || has_flag(data, SPA_CHUNK_FLAG_CORRUPTED))
		return {};
	const size_t offset = data.chunk->offset % data.maxsize;
	const size_t size = std::min<size_t>(data.chunk->size, data.maxsize - offset);
	return {static_cast<const std::byte *>(data.data) + offset, size};
}

template <sample To, sample From>
To convert(From value)
{
	if constexpr (std::same_as<From, float>) {
		/* One that is no number would stay in a filter for ever. */
		if (!std::isfinite(value))
			return 0;
		if constexpr (std::same_as<To, int16_t>)
			return static_cast<int16_t>(std::lrint(std::clamp(value * 32768.0F, -32768.0F, 32767.0F)));
		else
			return value;
	} else if constexpr (std::same_as<To, float>) {
		return static_cast<float>(value) / 32768.0F;
	} else {
		return value;
	}
}

/** With silence for what is no number; eight at a time, which compilers do side by side. */
inline void copy_numbers(const std::byte *from, std::span<float> to)
{
	constexpr size_t width = 8;
	const auto copy = [&](size_t first, size_t n) {
		std::array<float, width> some;
		std::memcpy(some.data(), from + first * sizeof(float), n * sizeof(float));
		for (size_t i = 0; i < n; i++)
			some[i] = std::abs(some[i]) <= std::numeric_limits<float>::max() ? some[i] : 0.0F;
		std::memcpy(&to[first], some.data(), n * sizeof(float));
	};
	size_t i = 0;
	for (; i + width <= to.size(); i += width)
		copy(i, width);
	for (; i < to.size(); i++)
		copy(i, 1);
}

template <sample From, sample To>
void copy_samples(const channel_samples &from, size_t frame, std::span<To> to)
{
	if (!from.first) {
		std::fill(to.begin(), to.end(), To{0});
		return;
	}
	const std::byte *at = from.first + frame * from.step;
	if constexpr (std::same_as<From, To>) {
		if (from.step == sizeof(From)) {
			if constexpr (std::same_as<To, float>)
				copy_numbers(at, to);
			else
				std::memcpy(to.data(), at, to.size_bytes());
			return;
		}
	}
	for (To &out : to) {
		From value;
		std::memcpy(&value, at, sizeof(value));
		out = convert<To>(value);
		at += from.step;
	}
}

} // namespace detail

/**
 * Points `channels`, all silent before, at the samples of a buffer of this format; returns its number of
 * frames: as many as every channel has in full. A buffer without usable samples has none; one with too few
 * blocks leaves channels silent.
 */
inline size_t find_samples(spa_audio_format format, const spa_buffer &buffer, std::span<channel_samples> channels)
{
	if (!buffer.datas || channels.empty())
		return 0;
	const size_t sample_size = detail::is_float(format) ? sizeof(float) : sizeof(int16_t);
	const size_t per_block = detail::is_planar(format) ? 1 : channels.size();
	const size_t step = per_block * sample_size;
	const size_t n_blocks = std::min<size_t>(buffer.n_datas, channels.size() / per_block);

	size_t n_frames = n_blocks > 0 ? std::numeric_limits<size_t>::max() : 0;
	for (size_t block = 0; block < n_blocks; block++) {
		const std::span<const std::byte> bytes = detail::bytes_of(buffer.datas[block]);
		n_frames = std::min(n_frames, bytes.size() / step);
		if (n_frames == 0)
			return 0;
		if (detail::has_flag(buffer.datas[block], SPA_CHUNK_FLAG_EMPTY))
			continue;
		for (size_t c = 0; c < per_block; c++)
			channels[block * per_block + c] = {bytes.data() + c * sample_size, step};
	}
	return n_frames;
}

/** Cuts a stream of buffers into blocks. */
template <sample Sample>
class block_cutter
{
public:
	using channels = std::span<const std::span<const Sample>>;

	/**
	 * Takes the memory for `n_channels` (up to SPA_AUDIO_MAX_CHANNELS). With `frames` 0 blocks are as long as
	 * the buffers, but not longer than most_frames; else exactly that long, each `hop` frames (1 to `frames`)
	 * after the last one. What was heard before is forgotten.
	 */
	void prepare(spa_audio_format stream_format, size_t n_channels, size_t frames, size_t hop)
	{
		format = stream_format;
		is_exact = frames > 0;
		block_frames = is_exact ? frames : most_frames;
		kept_frames = is_exact ? frames - hop : 0;
		memory.assign(n_channels * block_frames, Sample{0});
		views.assign(n_channels, {});
		rows.clear();
		for (size_t c = 0; c < n_channels; c++)
			rows.push_back(row(c));
		n_filled = 0;
		n_before = 0;
	}

	/** Where the samples of each channel of a block begin. */
	const Sample *const *data() const
	{
		return rows.data();
	}

	/** Frames of the stream before the block that `process` hears. */
	uint64_t begin() const
	{
		return n_before;
	}

	/** Calls `process` with the channels of each block that is complete; takes no memory. */
	template <typename Process>
	void hear(const spa_buffer &buffer, const Process &process)
	{
		std::array<channel_samples, SPA_AUDIO_MAX_CHANNELS> all;
		const std::span<channel_samples> found{all.data(), views.size()};
		const size_t n_frames = find_samples(format, buffer, found);
		for (size_t frame = 0; frame < n_frames;) {
			const size_t n = std::min(n_frames - frame, block_frames - n_filled);
			for (size_t c = 0; c < found.size(); c++)
				copy(found[c], frame, {row(c) + n_filled, n});
			frame += n;
			n_filled += n;
			if (is_exact && n_filled < block_frames)
				return;
			for (size_t c = 0; c < views.size(); c++)
				views[c] = {row(c), n_filled};
			process(channels{views});
			for (size_t c = 0; c < views.size(); c++)
				std::copy_n(row(c) + n_filled - kept_frames, kept_frames, row(c));
			n_before += n_filled - kept_frames;
			n_filled = kept_frames;
		}
	}

	/** Longest block of those that are as long as the buffers. */
	static constexpr size_t most_frames = 1024;

private:
	void copy(const channel_samples &from, size_t frame, std::span<Sample> to) const
	{
		if (detail::is_float(format))
			detail::copy_samples<float>(from, frame, to);
		else
			detail::copy_samples<int16_t>(from, frame, to);
	}

	Sample *row(size_t channel)
	{
		return memory.data() + channel * block_frames;
	}

	spa_audio_format format = SPA_AUDIO_FORMAT_UNKNOWN;
	bool is_exact = false;
	size_t block_frames = 0;
	size_t kept_frames = 0;
	size_t n_filled = 0;
	uint64_t n_before = 0;
	/** One row of `block_frames` for each channel. */
	std::vector<Sample> memory;
	std::vector<std::span<const Sample>> views;
	std::vector<const Sample *> rows;
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_AUDIO_HPP */
