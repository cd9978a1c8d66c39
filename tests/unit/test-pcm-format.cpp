#include "pcm-format.hpp"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include <pipewire/properties.h>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>

#include <gtest/gtest.h>

#include "log-capture.hpp"
#include "owned.hpp"
#include "pod.hpp"

namespace
{

constexpr char unreadable[] = "Can not parse audio.position.";
constexpr char mismatch[] = "Number of audio positions do not match number of channels.";

spa_audio_info_raw from_props(pw_properties *props)
{
	spa_audio_info_raw info;
	std::fill_n(reinterpret_cast<uint8_t *>(&info), sizeof(info), uint8_t{0xaa});
	hs_pcm_format_from_props(props, &info);
	return info;
}

spa_audio_info_raw from_texts(const char *format, const char *rate, const char *channels)
{
	const hs_properties_ptr props(pw_properties_new("audio.format", format, "audio.rate", rate,
	                                                "audio.channels", channels, nullptr));
	return from_props(props.get());
}

/** The description after the position of that many channels was read. */
spa_audio_info_raw with_position(const char *channels, const char *position, bool *dont_remix)
{
	const hs_properties_ptr props(
	        pw_properties_new("audio.channels", channels, "audio.position", position, nullptr));
	const spa_audio_info_raw info = from_props(props.get());
	const char *value = pw_properties_get(props.get(), "stream.dont-remix");
	*dont_remix = value && std::string{value} == "true";
	return info;
}

std::vector<uint32_t> positions_of(const char *text)
{
	uint32_t position[SPA_AUDIO_MAX_CHANNELS] = {};
	const int n = hs_pcm_parse_position(text, position);
	if (n < 0)
		return {};
	return {position, position + std::min<size_t>(static_cast<size_t>(n), std::size(position))};
}

/** The keys of the format object. */
std::vector<uint32_t> keys_of(const spa_pod *format)
{
	std::vector<uint32_t> keys;
	const auto *object = reinterpret_cast<const spa_pod_object *>(format);
	const spa_pod_prop *prop;
	SPA_POD_OBJECT_FOREACH (object, prop)
		keys.push_back(prop->key);
	return keys;
}

spa_audio_info_raw make_info(spa_audio_format format, uint32_t rate, uint32_t channels)
{
	spa_audio_info_raw info{};
	info.format = format;
	info.rate = rate;
	info.channels = channels;
	return info;
}

} // namespace

TEST(PcmFormat, KnowsSampleFormatsByTheirShortNames)
{
	EXPECT_EQ(hs_pcm_format_from_name("F32P"), SPA_AUDIO_FORMAT_F32P);
	EXPECT_EQ(hs_pcm_format_from_name("S16LE"), SPA_AUDIO_FORMAT_S16_LE);
}

TEST(PcmFormat, UnknownSampleFormatIsNone)
{
	EXPECT_EQ(hs_pcm_format_from_name("F33"), 0u);
	EXPECT_EQ(hs_pcm_format_from_name("f32p"), 0u);
	EXPECT_EQ(hs_pcm_format_from_name(""), 0u);
	EXPECT_EQ(hs_pcm_format_from_name(nullptr), 0u);
	EXPECT_EQ(hs_pcm_format_from_name(std::string(600, 'F').c_str()), 0u);
}

TEST(PcmFormat, KnowsChannelsByTheirShortNames)
{
	EXPECT_EQ(hs_pcm_channel_from_name("FL"), SPA_AUDIO_CHANNEL_FL);
	EXPECT_EQ(hs_pcm_channel_from_name("MONO"), SPA_AUDIO_CHANNEL_MONO);
	EXPECT_EQ(hs_pcm_channel_from_name("LFE2"), SPA_AUDIO_CHANNEL_LFE2);
}

TEST(PcmFormat, UnknownChannelHasTheUnknownPosition)
{
	EXPECT_EQ(hs_pcm_channel_from_name("fl"), SPA_AUDIO_CHANNEL_UNKNOWN);
	EXPECT_EQ(hs_pcm_channel_from_name("XX"), SPA_AUDIO_CHANNEL_UNKNOWN);
	EXPECT_EQ(hs_pcm_channel_from_name(""), SPA_AUDIO_CHANNEL_UNKNOWN);
}

TEST(PcmFormat, AuxiliaryChannelsGoUpTo4095)
{
	EXPECT_EQ(hs_pcm_channel_from_name("AUX0"), SPA_AUDIO_CHANNEL_AUX0);
	EXPECT_EQ(hs_pcm_channel_from_name("AUX63"), SPA_AUDIO_CHANNEL_AUX63);
	EXPECT_EQ(hs_pcm_channel_from_name("AUX64"), SPA_AUDIO_CHANNEL_START_Aux + 64u);
	EXPECT_EQ(hs_pcm_channel_from_name("AUX4095"), SPA_AUDIO_CHANNEL_START_Aux + 4095u);
	EXPECT_EQ(hs_pcm_channel_from_name("AUX4096"), SPA_AUDIO_CHANNEL_UNKNOWN);
	EXPECT_EQ(hs_pcm_channel_from_name("AUX"), SPA_AUDIO_CHANNEL_UNKNOWN);
	EXPECT_EQ(hs_pcm_channel_from_name("AUX1x"), SPA_AUDIO_CHANNEL_UNKNOWN);
	EXPECT_EQ(hs_pcm_channel_from_name("AUX0x10"), SPA_AUDIO_CHANNEL_UNKNOWN);
}

TEST(PcmFormat, PositionIsAnArrayOrABareList)
{
	const std::vector<uint32_t> stereo = {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR};
	EXPECT_EQ(positions_of("[ FL FR ]"), stereo);
	EXPECT_EQ(positions_of("[ \"FL\", \"FR\" ]"), stereo);
	EXPECT_EQ(positions_of("[FL,FR]"), stereo);
	EXPECT_EQ(positions_of("FL,FR"), stereo);
	EXPECT_EQ(positions_of("FL, FR"), stereo);
	EXPECT_EQ(positions_of("MONO"), std::vector<uint32_t>{SPA_AUDIO_CHANNEL_MONO});
}

TEST(PcmFormat, UnknownNamesInAPositionStillCount)
{
	const std::vector<uint32_t> expected = {SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_UNKNOWN,
	                                        SPA_AUDIO_CHANNEL_FR};
	EXPECT_EQ(positions_of("[ FL what FR ]"), expected);
}

TEST(PcmFormat, EmptyPositionHasNoElements)
{
	uint32_t position[SPA_AUDIO_MAX_CHANNELS];
	EXPECT_EQ(hs_pcm_parse_position("[ ]", position), 0);
	EXPECT_EQ(hs_pcm_parse_position("", position), 0);
}

TEST(PcmFormat, PositionCountsEveryElementButStores64)
{
	std::string text = "[";
	for (int i = 0; i < 70; ++i)
		text += " AUX" + std::to_string(i);
	text += " ]";
	std::array<uint32_t, SPA_AUDIO_MAX_CHANNELS + 1> position{};
	position.back() = 0xdeadbeef;
	EXPECT_EQ(hs_pcm_parse_position(text.c_str(), position.data()), 70);
	EXPECT_EQ(position[0], SPA_AUDIO_CHANNEL_AUX0);
	EXPECT_EQ(position[63], SPA_AUDIO_CHANNEL_AUX63);
	EXPECT_EQ(position.back(), 0xdeadbeef);
}

TEST(PcmFormat, NumbersAreDecimal)
{
	EXPECT_EQ(from_texts("F32P", "48000", "2").rate, 48000u);
	EXPECT_EQ(from_texts("F32P", "48000", "2").channels, 2u);
	EXPECT_EQ(from_texts("F32P", "4294967295", "010").rate, UINT32_MAX);
	EXPECT_EQ(from_texts("F32P", "1", "010").channels, 10u);
}

TEST(PcmFormat, WhatIsNoNumberCountsAsAbsent)
{
	for (const char *rate : {"", "48000Hz", "fast", "0x2", "4294967296", "48 000", "1.5"})
		EXPECT_EQ(from_texts("F32P", rate, rate).rate, 0u) << rate;
	EXPECT_EQ(from_texts("F32P", "", "2x").channels, 0u);
}

TEST(PcmFormat, NothingIsOfferedOfAnEmptyTable)
{
	const hs_properties_ptr props(pw_properties_new(nullptr, nullptr));
	const hs_log_capture capture;
	const spa_audio_info_raw info = from_props(props.get());
	EXPECT_EQ(info.format, SPA_AUDIO_FORMAT_UNKNOWN);
	EXPECT_EQ(info.rate, 0u);
	EXPECT_EQ(info.channels, 0u);
	EXPECT_EQ(info.flags, 0u);
	EXPECT_EQ(std::count(std::begin(info.position), std::end(info.position), 0u), SPA_AUDIO_MAX_CHANNELS);
	EXPECT_EQ(pw_properties_get(props.get(), "stream.dont-remix"), nullptr);
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST(PcmFormat, AsManyPositionsAsChannelsForbidRemixing)
{
	const hs_log_capture capture;
	bool dont_remix = false;
	const spa_audio_info_raw info = with_position("2", "[ FL FR ]", &dont_remix);
	EXPECT_TRUE(dont_remix);
	EXPECT_EQ(info.position[0], SPA_AUDIO_CHANNEL_FL);
	EXPECT_EQ(info.position[1], SPA_AUDIO_CHANNEL_FR);
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST(PcmFormat, OnePositionForTwoChannelsIsWarnedOfAndTheSecondIsUnknown)
{
	const hs_log_capture capture;
	bool dont_remix = false;
	const spa_audio_info_raw info = with_position("2", "FL", &dont_remix);
	EXPECT_FALSE(dont_remix);
	EXPECT_EQ(info.channels, 2u);
	EXPECT_EQ(info.position[0], SPA_AUDIO_CHANNEL_FL);
	EXPECT_EQ(info.position[1], SPA_AUDIO_CHANNEL_UNKNOWN);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, mismatch), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 1u) << capture.text();

	hs_pod_buffer buffer;
	spa_audio_info_raw offered{};
	ASSERT_TRUE(hs_pcm_parse_format(hs_pcm_build_format(info, &buffer), &offered));
	EXPECT_EQ(offered.channels, 2u);
	EXPECT_EQ(offered.position[0], SPA_AUDIO_CHANNEL_FL);
	EXPECT_EQ(offered.position[1], SPA_AUDIO_CHANNEL_UNKNOWN);
}

TEST(PcmFormat, PositionsWithoutChannelsAreWarnedOf)
{
	const hs_log_capture capture;
	bool dont_remix = false;
	with_position("many", "[ FL FR ]", &dont_remix);
	EXPECT_FALSE(dont_remix);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, mismatch), 1u) << capture.text();
}

TEST(PcmFormat, EmptyPositionIsWarnedOf)
{
	for (const char *position : {"[ ]", "", "[]"}) {
		const hs_log_capture capture;
		bool dont_remix = false;
		with_position("2", position, &dont_remix);
		EXPECT_FALSE(dont_remix);
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, unreadable), 1u) << position << capture.text();
		EXPECT_EQ(capture.complaints(), 1u) << capture.text();
	}
}

TEST(PcmFormat, PositionThatCanNotBeReadIsWarnedOf)
{
	/* An escape that JSON does not have; a name of more than 255 characters, as one of two. */
	const std::pair<const char *, std::string> positions[] = {
		{"1", R"([ FL "\x" ])"}, {"1", R"([ "\x" ])"}, {"1", "[ FL, " + std::string(300, 'x') + " ]"}};
	for (const auto &[channels, position] : positions) {
		const hs_log_capture capture;
		bool dont_remix = false;
		with_position(channels, position.c_str(), &dont_remix);
		EXPECT_FALSE(dont_remix);
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, unreadable), 1u) << position << capture.text();
		EXPECT_EQ(capture.complaints(), 1u) << capture.text();
	}
}

TEST(PcmFormat, PositionThatIsNoListIsWarnedOf)
{
	const hs_log_capture capture;
	bool dont_remix = false;
	with_position("2", "[ FL", &dont_remix);
	EXPECT_FALSE(dont_remix);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN), 1u) << capture.text();
}

TEST(PcmFormat, OffersWhatIsKnown)
{
	spa_audio_info_raw info = make_info(SPA_AUDIO_FORMAT_F32P, 48000, 2);
	info.position[0] = SPA_AUDIO_CHANNEL_FL;
	info.position[1] = SPA_AUDIO_CHANNEL_FR;
	hs_pod_buffer buffer;
	const spa_pod *offer = hs_pcm_build_format(info, &buffer);
	ASSERT_NE(offer, nullptr);
	EXPECT_TRUE(spa_pod_is_object_type(offer, SPA_TYPE_OBJECT_Format));
	EXPECT_EQ(SPA_POD_OBJECT_ID(offer), static_cast<uint32_t>(SPA_PARAM_EnumFormat));
	const std::vector<uint32_t> expected = {SPA_FORMAT_mediaType,      SPA_FORMAT_mediaSubtype,
	                                        SPA_FORMAT_AUDIO_format,   SPA_FORMAT_AUDIO_rate,
	                                        SPA_FORMAT_AUDIO_channels, SPA_FORMAT_AUDIO_position};
	EXPECT_EQ(keys_of(offer), expected);

	spa_audio_info_raw read{};
	ASSERT_TRUE(hs_pcm_parse_format(offer, &read));
	EXPECT_EQ(read.format, SPA_AUDIO_FORMAT_F32P);
	EXPECT_EQ(read.rate, 48000u);
	EXPECT_EQ(read.channels, 2u);
	EXPECT_EQ(read.position[1], SPA_AUDIO_CHANNEL_FR);
}

TEST(PcmFormat, OffersNothingOfWhatIsUnknown)
{
	hs_pod_buffer buffer;
	const std::vector<uint32_t> bare = {SPA_FORMAT_mediaType, SPA_FORMAT_mediaSubtype};
	EXPECT_EQ(keys_of(hs_pcm_build_format(from_texts("loud", "48000Hz", "x"), &buffer)), bare);

	const std::vector<uint32_t> with_rate = {SPA_FORMAT_mediaType, SPA_FORMAT_mediaSubtype,
	                                         SPA_FORMAT_AUDIO_rate};
	EXPECT_EQ(keys_of(hs_pcm_build_format(from_texts("loud", "16000", ""), &buffer)), with_rate);
}

TEST(PcmFormat, OffersNoPositionsForMoreThan64Channels)
{
	hs_pod_buffer buffer;
	const spa_audio_info_raw most = make_info(SPA_AUDIO_FORMAT_F32P, 48000, 64);
	EXPECT_EQ(keys_of(hs_pcm_build_format(most, &buffer)).back(),
	          static_cast<uint32_t>(SPA_FORMAT_AUDIO_position));

	for (const uint32_t channels : {65u, 2000u, UINT32_MAX}) {
		const spa_audio_info_raw info = make_info(SPA_AUDIO_FORMAT_F32P, 48000, channels);
		const spa_pod *offer = hs_pcm_build_format(info, &buffer);
		ASSERT_NE(offer, nullptr);
		EXPECT_EQ(keys_of(offer).back(), static_cast<uint32_t>(SPA_FORMAT_AUDIO_channels));
	}
}

TEST(PcmFormat, ReadsAFormatWithoutPositionsWithFlagsAndPositionsZero)
{
	spa_audio_info_raw unpositioned = make_info(SPA_AUDIO_FORMAT_S16, 44100, 2);
	unpositioned.flags = SPA_AUDIO_FLAG_UNPOSITIONED;
	hs_pod_buffer buffer;
	const spa_pod *format = hs_pcm_build_format(unpositioned, &buffer);

	spa_audio_info_raw info = make_info(SPA_AUDIO_FORMAT_F32P, 48000, 2);
	std::fill(std::begin(info.position), std::end(info.position), uint32_t{SPA_AUDIO_CHANNEL_FL});
	ASSERT_TRUE(hs_pcm_parse_format(format, &info));
	EXPECT_EQ(info.format, SPA_AUDIO_FORMAT_S16);
	EXPECT_EQ(info.rate, 44100u);
	EXPECT_EQ(info.flags, 0u);
	EXPECT_EQ(std::count(std::begin(info.position), std::end(info.position), 0u), SPA_AUDIO_MAX_CHANNELS);
}

TEST(PcmFormat, RefusesMoreThan64ChannelsAndLeavesTheRecordAlone)
{
	hs_pod_buffer buffer;
	const spa_pod *format = hs_pcm_build_format(make_info(SPA_AUDIO_FORMAT_F32P, 48000, 65), &buffer);
	spa_audio_info_raw info = make_info(SPA_AUDIO_FORMAT_S16, 16000, 1);
	info.position[0] = SPA_AUDIO_CHANNEL_MONO;
	EXPECT_FALSE(hs_pcm_parse_format(format, &info));
	EXPECT_EQ(info.format, SPA_AUDIO_FORMAT_S16);
	EXPECT_EQ(info.rate, 16000u);
	EXPECT_EQ(info.channels, 1u);
	EXPECT_EQ(info.position[0], SPA_AUDIO_CHANNEL_MONO);
}

TEST(PcmFormat, RefusesWhatIsNoAudioFormat)
{
	alignas(8) uint8_t bytes[256];
	spa_audio_info_raw info = make_info(SPA_AUDIO_FORMAT_S16, 16000, 1);

	spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
	spa_pod_builder_int(&builder, 7);
	EXPECT_FALSE(hs_pcm_parse_format(reinterpret_cast<spa_pod *>(bytes), &info));

	EXPECT_EQ(info.rate, 16000u);
	EXPECT_EQ(info.channels, 1u);
}
