#include "audio-file.hpp"

#include <cmath>
#include <cstring>
#include <numbers>

#include <gtest/gtest.h>

#include "audio-buffer.hpp"
#include "failure.hpp"
#include "temp-dir.hpp"

using namespace hs_tool;

namespace {

/** Writes interleaved samples as 32-bit floats. */
std::string write_file(const hs_temp_dir &folder, const std::vector<float> &samples, int rate, int channels,
		       int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT)
{
	const std::string path = folder / "sound";
	SF_INFO info{};
	info.samplerate = rate;
	info.channels = channels;
	info.format = format;
	SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
	EXPECT_EQ(sf_write_float(file, samples.data(), static_cast<sf_count_t>(samples.size())),
		  static_cast<sf_count_t>(samples.size()));
	sf_close(file);
	return path;
}

std::vector<float> sine(int rate, double hertz, double seconds)
{
	std::vector<float> samples;
	for (int i = 0; i < static_cast<int>(seconds * rate); ++i)
		samples.push_back(static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * hertz * i / rate)));
	return samples;
}

std::vector<float> read_all(audio_stream *stream, size_t block)
{
	std::vector<float> all;
	for (;;) {
		const std::vector<float> &part = stream->next(block);
		if (part.empty())
			return all;
		all.insert(all.end(), part.begin(), part.end());
	}
}

std::string complaint_about(const std::string &path)
{
	try {
		audio_file file(path);
		std::vector<float> samples(1024 * file.channels());
		while (file.read(samples.data(), 1024) > 0) {
		}
	} catch (const failure &why) {
		return why.what();
	}
	return "";
}

void cut(const std::string &path, size_t n)
{
	const std::string whole = hs_read_text(path);
	hs_write_text(path, std::string_view(whole).substr(0, whole.size() - n));
}

} // namespace

TEST(AudioFile, FileIsReadAsItIs)
{
	const hs_temp_dir folder;
	const std::vector<float> samples = {0.5F, -0.5F, 0.25F, 1.5F};
	audio_file file(write_file(folder, samples, 22050, 2));
	EXPECT_EQ(file.rate(), 22050u);
	EXPECT_EQ(file.channels(), 2u);
	std::vector<float> read(8);
	EXPECT_EQ(file.read(read.data(), 4), 2u);
	read.resize(4);
	EXPECT_EQ(read, samples);
	EXPECT_EQ(file.read(read.data(), 2), 0u);
}

TEST(AudioFile, TruncatedFilesAreToldFromWholeOnes)
{
	for (const int format :
	     {SF_FORMAT_WAV | SF_FORMAT_PCM_16, SF_FORMAT_AIFF | SF_FORMAT_PCM_16, SF_FORMAT_AU | SF_FORMAT_PCM_16,
	      SF_FORMAT_W64 | SF_FORMAT_PCM_16, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, SF_FORMAT_OGG | SF_FORMAT_VORBIS}) {
		const hs_temp_dir folder;
		const std::string path = write_file(folder, sine(48000, 1000, 2), 48000, 1, format);
		EXPECT_EQ(complaint_about(path), "") << std::hex << format;
		cut(path, hs_read_text(path).size() / 3);
		EXPECT_NE(complaint_about(path), "") << std::hex << format;
	}
}

TEST(AudioFile, UnknownSizeOfAStreamIsNoTruncation)
{
	const hs_temp_dir folder;
	const std::string path = write_file(folder, sine(48000, 1000, 0.1), 48000, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
	std::string data = hs_read_text(path);
	const size_t chunk = data.find("data");
	for (const size_t size_at : {size_t{4}, chunk + 4})
		data.replace(size_at, 4, "\xff\xff\xff\xff");
	hs_write_text(path, data);
	EXPECT_EQ(complaint_about(path), "");
}

TEST(AudioFile, ComplaintsNameFileAndReason)
{
	const hs_temp_dir folder;
	const std::string path = folder / "sound";
	EXPECT_EQ(complaint_about(path), path + ": No such file or directory.");
	EXPECT_EQ(complaint_about(folder.path()), folder.path() + " is a folder. Name audio files.");
	hs_write_text(path, "");
	EXPECT_EQ(complaint_about(path), path + " is empty.");
	hs_write_text(path, "Hello, hear me.");
	EXPECT_NE(complaint_about(path).find(path + " is no audio file"), std::string::npos);
	write_file(folder, {}, 48000, 1);
	EXPECT_EQ(complaint_about(path), path + " holds no audio.");
}

TEST(AudioStream, BlocksAreOfTheAskedSizeButTheLast)
{
	const hs_temp_dir folder;
	const std::vector<float> samples = sine(48000, 1000, 0.1);
	audio_file file(write_file(folder, samples, 48000, 1));
	audio_stream stream(&file, 48000, 1);
	EXPECT_EQ(stream.next(1000).size(), 1000u);
	const std::vector<float> rest = read_all(&stream, 1000);
	EXPECT_EQ(rest.size(), 3800u);
	EXPECT_EQ(rest.back(), samples.back());
	EXPECT_TRUE(stream.next(1000).empty());
}

TEST(AudioStream, ChannelsAreAveragedToOneAndCopiedFromOne)
{
	const hs_temp_dir folder;
	audio_file stereo(write_file(folder, {0.5F, 0.25F, 1.0F, -1.0F}, 48000, 2));
	audio_stream to_one(&stereo, 48000, 1);
	EXPECT_EQ(read_all(&to_one, 10), (std::vector<float>{0.375F, 0.0F}));

	audio_file mono(write_file(folder, {0.5F, 0.25F}, 48000, 1));
	audio_stream to_three(&mono, 48000, 3);
	EXPECT_EQ(read_all(&to_three, 10), (std::vector<float>{0.5F, 0.5F, 0.5F, 0.25F, 0.25F, 0.25F}));

	audio_file two(write_file(folder, {0.5F, 0.25F}, 48000, 2));
	audio_stream to_four(&two, 48000, 4);
	EXPECT_EQ(read_all(&to_four, 10), (std::vector<float>{0.5F, 0.25F, 0.0F, 0.0F}));
}

TEST(AudioStream, RateIsConvertedWithLevelAndLengthKept)
{
	for (const uint32_t rate : {8000u, 16000u, 44100u, 96000u}) {
		const hs_temp_dir folder;
		audio_file file(write_file(folder, sine(48000, 1000, 2), 48000, 1));
		audio_stream stream(&file, rate, 1);
		const std::vector<float> converted = read_all(&stream, rate / 50);
		EXPECT_NEAR(static_cast<double>(converted.size()), 2.0 * rate, 2.0) << rate;
		double power = 0;
		for (size_t i = rate / 2; i < rate; ++i)
			power += static_cast<double>(converted[i]) * static_cast<double>(converted[i]);
		EXPECT_NEAR(std::sqrt(power / (rate / 2.0)), 0.5 / std::numbers::sqrt2, 0.001) << rate;
	}
}

TEST(AudioStream, ImpossibleRateIsToldOf)
{
	const hs_temp_dir folder;
	audio_file file(write_file(folder, sine(48000, 1000, 0.1), 48000, 1));
	EXPECT_THROW(audio_stream(&file, 100, 1), failure);
}

TEST(AudioBuffer, PlanarFormatHasABlockForEachChannel)
{
	audio_buffer buffer(SPA_AUDIO_FORMAT_F32P, 2, 8);
	const std::vector<float> samples = {0.1F, -0.1F, 0.2F, -0.2F, 0.3F, -0.3F};
	const spa_buffer *filled = buffer.fill(samples.data(), 3);
	ASSERT_EQ(filled->n_datas, 2u);
	for (uint32_t channel = 0; channel < 2; ++channel) {
		EXPECT_EQ(filled->datas[channel].chunk->size, 12u);
		EXPECT_EQ(filled->datas[channel].chunk->stride, 4);
		const auto *values = static_cast<const float *>(filled->datas[channel].data);
		EXPECT_EQ(reinterpret_cast<uintptr_t>(values) % 16, 0u);
		EXPECT_EQ(values[2], samples[4 + channel]);
	}
}

TEST(AudioBuffer, IntegersAreScaledAndClipped)
{
	audio_buffer buffer(SPA_AUDIO_FORMAT_S16, 2, 2);
	const std::vector<float> samples = {1.0F, -1.0F, 7.0F, std::nanf("")};
	const spa_buffer *filled = buffer.fill(samples.data(), 2);
	ASSERT_EQ(filled->n_datas, 1u);
	EXPECT_EQ(filled->datas[0].chunk->stride, 4);
	const auto *values = static_cast<const int16_t *>(filled->datas[0].data);
	EXPECT_EQ(std::vector<int16_t>(values, values + 4), (std::vector<int16_t>{32767, -32767, 32767, 0}));
}

TEST(AudioBuffer, EveryKnownFormatHoldsEverySize)
{
	const std::vector<float> samples(3 * 500, 0.5F);
	for (const spa_audio_format format : known_sample_formats()) {
		EXPECT_TRUE(sample_format_is_known(format));
		audio_buffer buffer(format, 3, 500);
		for (const size_t n : {0u, 1u, 7u, 500u}) {
			buffer.fill(samples.data(), n);
			EXPECT_FALSE(buffer.was_written());
		}
	}
	EXPECT_FALSE(sample_format_is_known(SPA_AUDIO_FORMAT_ALAW));
	EXPECT_EQ(sample_format_name(SPA_AUDIO_FORMAT_F32P), "F32P");
	EXPECT_EQ(sample_format_name(SPA_AUDIO_FORMAT_S16), "S16");
}

TEST(AudioBuffer, WritingIntoItShows)
{
	audio_buffer buffer(SPA_AUDIO_FORMAT_F32P, 1, 4);
	const std::vector<float> samples(4, 0.5F);
	static_cast<float *>(buffer.fill(samples.data(), 4)->datas[0].data)[3] = 0;
	EXPECT_TRUE(buffer.was_written());
}

TEST(AudioBufferDeathTest, ReadingBeyondTheEndDies)
{
	audio_buffer buffer(SPA_AUDIO_FORMAT_F32P, 1, 4);
	const std::vector<float> samples(4, 0.5F);
	const auto *values = static_cast<const volatile float *>(buffer.fill(samples.data(), 4)->datas[0].data);
	EXPECT_DEATH(static_cast<void>(values[4]), "");
}
