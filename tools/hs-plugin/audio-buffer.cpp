#include "audio-buffer.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include <spa/debug/types.h>
#include <spa/param/audio/type-info.h>

#include <sys/mman.h>
#include <unistd.h>

#include "failure.hpp"

namespace hs_tool {

namespace {

struct sample_format {
	spa_audio_format planar;
	spa_audio_format interleaved;
	/** Bytes of a sample. */
	size_t size;
	/** Largest sample of an integer; 0 for floating point. */
	double peak;
};

/* In the machine's own byte order. */
constexpr sample_format sample_formats[] = {
	{SPA_AUDIO_FORMAT_F32P, SPA_AUDIO_FORMAT_F32, 4, 0},
	{SPA_AUDIO_FORMAT_F64P, SPA_AUDIO_FORMAT_F64, 8, 0},
	{SPA_AUDIO_FORMAT_S16P, SPA_AUDIO_FORMAT_S16, 2, 32767},
	{SPA_AUDIO_FORMAT_S32P, SPA_AUDIO_FORMAT_S32, 4, 2147483647},
	{SPA_AUDIO_FORMAT_S24_32P, SPA_AUDIO_FORMAT_S24_32, 4, 8388607},
	{SPA_AUDIO_FORMAT_S24P, SPA_AUDIO_FORMAT_S24, 3, 8388607},
	{SPA_AUDIO_FORMAT_U8P, SPA_AUDIO_FORMAT_U8, 1, 127},
};

/** As streams have it, so that nobody's vector instructions fail here alone. */
constexpr size_t alignment = 16;

const sample_format *find_format(spa_audio_format format)
{
	for (const sample_format &known : sample_formats) {
		if (known.planar == format || known.interleaved == format)
			return &known;
	}
	return nullptr;
}

} // namespace

std::vector<spa_audio_format> known_sample_formats()
{
	std::vector<spa_audio_format> formats;
	for (const sample_format &known : sample_formats) {
		formats.push_back(known.planar);
		formats.push_back(known.interleaved);
	}
	return formats;
}

bool sample_format_is_known(spa_audio_format format)
{
	return find_format(format);
}

std::string sample_format_name(spa_audio_format format)
{
	const char *full_name = spa_debug_type_find_name(spa_type_audio_format, format);
	if (!full_name)
		return "format " + std::to_string(format);
	/* Configurations say F32 for the byte order of the machine. */
	std::string name = spa_debug_type_short_name(full_name);
	if (sample_format_is_known(format) &&
	    name.ends_with((std::endian::native == std::endian::little ? "LE" : "BE")))
		name.erase(name.size() - 2);
	return name;
}

audio_buffer::audio_buffer(spa_audio_format sample_format, uint32_t channels, size_t max_frames)
    : format(sample_format), n_channels(channels)
{
	const auto *known = find_format(format);
	const bool is_planar = known->planar == format;
	const size_t n_blocks = is_planar ? channels : 1;
	const size_t stride = known->size * (is_planar ? 1 : channels);
	const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	const size_t size = (max_frames * stride + alignment + page - 1) / page * page;

	for (size_t i = 0; i < n_blocks; ++i) {
		void *memory = mmap(nullptr, size + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
		if (memory == MAP_FAILED)
			throw failure("There is no memory for a buffer of " + std::to_string(max_frames) + " frames.");
		auto *bytes = static_cast<uint8_t *>(memory);
		mprotect(bytes + size, page, PROT_NONE);
		blocks.push_back({bytes, size + page, bytes + size});
	}
	chunks.resize(n_blocks);
	datas.resize(n_blocks);
	copies.resize(n_blocks);
	for (size_t i = 0; i < n_blocks; ++i) {
		chunks[i].stride = static_cast<int32_t>(stride);
		datas[i].type = SPA_DATA_MemPtr;
		datas[i].fd = -1;
		datas[i].flags = SPA_DATA_FLAG_READABLE;
		datas[i].chunk = &chunks[i];
	}
	buffer.n_datas = static_cast<uint32_t>(n_blocks);
	buffer.datas = datas.data();
}

audio_buffer::~audio_buffer()
{
	for (const block &b : blocks)
		munmap(b.memory, b.size);
}

void audio_buffer::put(uint8_t *to, float sample) const
{
	const auto *known = find_format(format);
	if (known->peak == 0) {
		const auto real = static_cast<double>(sample);
		std::memcpy(to, known->size == 4 ? static_cast<const void *>(&sample) : &real, known->size);
		return;
	}
	const double clean = std::isnan(sample) ? 0.0 : std::clamp(static_cast<double>(sample), -1.0, 1.0);
	auto number = static_cast<int32_t>(std::lround(clean * known->peak));
	if (known->size == 1)
		number += 128;
	std::memcpy(to, &number, known->size);
}

spa_buffer *audio_buffer::fill(const float *samples, size_t n_frames)
{
	const auto *known = find_format(format);
	const bool is_planar = known->planar == format;
	const size_t per_frame = is_planar ? 1 : n_channels;
	const size_t size = n_frames * per_frame * known->size;
	for (size_t i = 0; i < blocks.size(); ++i) {
		uint8_t *begin = blocks[i].end - (size + alignment - 1) / alignment * alignment;
		for (size_t frame = 0; frame < n_frames; ++frame) {
			for (size_t k = 0; k < per_frame; ++k)
				put(begin + (frame * per_frame + k) * known->size, samples[frame * n_channels + i + k]);
		}
		copies[i].assign(begin, begin + size);
		datas[i].data = begin;
		datas[i].maxsize = static_cast<uint32_t>(size);
		chunks[i].offset = 0;
		chunks[i].size = static_cast<uint32_t>(size);
	}
	return &buffer;
}

bool audio_buffer::was_written() const
{
	for (size_t i = 0; i < blocks.size(); ++i) {
		if (!copies[i].empty() && std::memcmp(datas[i].data, copies[i].data(), copies[i].size()) != 0)
			return true;
	}
	return false;
}

} // namespace hs_tool
