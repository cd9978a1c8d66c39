#include "audio-file.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <cstdio>
#include <sstream>
#include <string_view>

#include <sys/stat.h>

#include "failure.hpp"

namespace hs_tool {

namespace {

constexpr size_t frames_at_a_time = 4096;

/** Sizes from here on are what programs write that did not know the size beforehand. */
constexpr unsigned long long unknown_size = 0x7fff0000;

/** What the library's notes call the part of a file that holds the audio. */
constexpr std::string_view audio_chunks[] = {"data", "SSND", "Data Size", "riff"};

/** Whether the line notes that such a part is announced longer than it is. */
bool tells_of_cut(const std::string &line)
{
	std::array<char, 32> label{};
	unsigned long long announced = 0;
	unsigned long long real = 0;
	if (std::sscanf(line.c_str(), " %31[a-zA-Z ]: %llu (should be %llu)", label.data(), &announced, &real) != 3)
		return false;
	std::string_view name = label.data();
	name = name.substr(0, name.find_last_not_of(' ') + 1);
	return std::find(std::begin(audio_chunks), std::end(audio_chunks), name) != std::end(audio_chunks) &&
	       announced > real && announced < unknown_size;
}

/** Whether the library noted, when it opened the file, that there is less than the file claims. */
bool is_cut(SNDFILE *file)
{
	std::array<char, 16384> notes{};
	sf_command(file, SFC_GET_LOG_INFO, notes.data(), notes.size());
	std::istringstream lines(notes.data());
	for (std::string line; std::getline(lines, line);) {
		if (tells_of_cut(line))
			return true;
	}
	return false;
}

void check_file(const std::string &path)
{
	struct stat status;
	if (stat(path.c_str(), &status) < 0)
		throw failure(path + ": " + std::strerror(errno) + ".");
	if (S_ISDIR(status.st_mode))
		throw failure(path + " is a folder. Name audio files.");
	if (S_ISREG(status.st_mode) && status.st_size == 0)
		throw failure(path + " is empty.");
}

std::string reason_of(SNDFILE *file)
{
	std::string reason = sf_strerror(file);
	while (!reason.empty() && (reason.back() == '.' || reason.back() == '\n'))
		reason.pop_back();
	return reason;
}

} // namespace

audio_file::audio_file(const std::string &file_path) : path(file_path)
{
	check_file(path);
	file.reset(sf_open(path.c_str(), SFM_READ, &info));
	if (!file)
		throw failure(path + " is no audio file that can be read: " + reason_of(nullptr) +
			      ". WAV, FLAC, Ogg and the like can.");
	if (info.channels < 1 || info.samplerate < 1)
		throw failure(path + " tells no channels or no rate.");
	/* Without its last page an Ogg file has no known end. */
	const bool is_endless = info.frames == SF_COUNT_MAX && info.seekable;
	if (is_cut(file.get()) || is_endless)
		throw failure(path + " is truncated: it ends before the audio that its header announces.");
	if (info.frames == 0)
		throw failure(path + " holds no audio.");
}

size_t audio_file::read(float *samples, size_t n)
{
	const sf_count_t result = sf_readf_float(file.get(), samples, static_cast<sf_count_t>(n));
	n_read += std::max<sf_count_t>(result, 0);
	if (result < static_cast<sf_count_t>(n)) {
		if (sf_error(file.get()) != SF_ERR_NO_ERROR)
			throw failure(path + " is damaged after " + std::to_string(n_read) +
				      " frames: " + reason_of(file.get()) + ".");
		/* What a file announces of compressed audio may be an estimate. */
		const bool is_exact = (info.format & SF_FORMAT_TYPEMASK) != SF_FORMAT_MPEG;
		if (is_exact && n_read < info.frames && info.frames != SF_COUNT_MAX)
			throw failure(path + " is truncated: it ends after " + std::to_string(n_read) + " of " +
				      std::to_string(info.frames) + " frames.");
	}
	return static_cast<size_t>(std::max<sf_count_t>(result, 0));
}

audio_stream::audio_stream(audio_file *from, uint32_t rate, uint32_t channels)
    : file(from), n_channels(channels), ratio(static_cast<double>(rate) / from->rate()),
      from_file(frames_at_a_time * from->channels()), remixed(frames_at_a_time * channels)
{
	if (rate == from->rate())
		return;
	int error = 0;
	if (src_is_valid_ratio(ratio))
		converter.reset(src_new(SRC_SINC_MEDIUM_QUALITY, static_cast<int>(channels), &error));
	if (!converter)
		throw failure("Audio of " + std::to_string(from->rate()) + " Hz cannot be converted to " +
			      std::to_string(rate) + " Hz with " + std::to_string(channels) + " channels" +
			      (error ? std::string(": ") + src_strerror(error) : "") + ".");
}

void audio_stream::remix(size_t n_frames)
{
	const size_t n_in = file->channels();
	for (size_t frame = 0; frame < n_frames; ++frame) {
		const float *in = &from_file[frame * n_in];
		float *out = &remixed[frame * n_channels];
		if (n_channels == 1) {
			double sum = 0;
			for (size_t i = 0; i < n_in; ++i)
				sum += static_cast<double>(in[i]);
			out[0] = static_cast<float>(sum / static_cast<double>(n_in));
			continue;
		}
		for (size_t i = 0; i < n_channels; ++i)
			out[i] = n_in == 1 ? in[0] : (i < n_in ? in[i] : 0.0F);
	}
}

bool audio_stream::fill()
{
	const size_t n_frames = file->read(from_file.data(), frames_at_a_time);
	at_end = n_frames == 0;
	remix(n_frames);
	if (!converter) {
		waiting.insert(waiting.end(), remixed.begin(),
			       remixed.begin() + static_cast<std::ptrdiff_t>(n_frames * n_channels));
		return !at_end;
	}

	SRC_DATA data{};
	data.data_in = remixed.data();
	data.input_frames = static_cast<long>(n_frames);
	data.src_ratio = ratio;
	data.end_of_input = at_end ? 1 : 0;
	const auto room = static_cast<long>(static_cast<double>(frames_at_a_time) * ratio) + 64;
	do {
		const size_t before = waiting.size();
		waiting.resize(before + static_cast<size_t>(room) * n_channels);
		data.data_out = &waiting[before];
		data.output_frames = room;
		const int error = src_process(converter.get(), &data);
		if (error)
			throw failure(std::string("The audio cannot be converted: ") + src_strerror(error) + ".");
		waiting.resize(before + static_cast<size_t>(data.output_frames_gen) * n_channels);
		data.data_in += data.input_frames_used * static_cast<long>(n_channels);
		data.input_frames -= data.input_frames_used;
	} while (data.input_frames > 0 || data.output_frames_gen == room);
	return !at_end;
}

const std::vector<float> &audio_stream::next(size_t n)
{
	const size_t wanted = n * n_channels;
	while (!at_end && waiting.size() < wanted) {
		if (!fill())
			break;
	}
	const auto end = waiting.begin() + static_cast<std::ptrdiff_t>(std::min(wanted, waiting.size()));
	block.assign(waiting.begin(), end);
	waiting.erase(waiting.begin(), end);
	return block;
}

} // namespace hs_tool
