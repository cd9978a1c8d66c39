/*
 * The voice plug-in as the daemon has it: its interface, its life, and what it tells of what it hears.
 */
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <spa/param/audio/raw.h>
#include <spa/support/log.h>
#include <spa/support/plugin.h>

#include <hear-sense/plugin.hpp>

#include "counting-new.hpp"
#include "sdk-host.hpp"
#include "voice-sounds.hpp"

namespace {

constexpr uint32_t speech_event = 0;
constexpr uint32_t activity_event = 1;

const hear_sense::factory &factory()
{
	const spa_handle_factory *found = nullptr;
	uint32_t index = 0;
	EXPECT_EQ(spa_handle_factory_enum(&found, &index), 1);
	return static_cast<const hear_sense::factory &>(*found);
}

struct change {
	/** Of audio, up to the end of the buffer. */
	double seconds;
	bool is_detected;
};

class VoicePlugin : public testing::Test
{
protected:
	int init(uint32_t rate, uint32_t channels = 1, spa_audio_format format = SPA_AUDIO_FORMAT_F32P)
	{
		host.stream = {};
		host.stream.info.format = format;
		host.stream.info.rate = rate;
		host.stream.info.channels = channels;
		std::snprintf(host.stream.source_name, sizeof(host.stream.source_name), "Mic0");
		const spa_dict config = SPA_DICT_INIT(nullptr, 0);
		return host.interface->funcs->init(host.interface->data, &host.stream, &config);
	}

	void start(uint32_t rate = 16000, uint32_t channels = 1, spa_audio_format format = SPA_AUDIO_FORMAT_F32P)
	{
		ASSERT_EQ(init(rate, channels, format), 0);
		ASSERT_EQ(host.activate(), 0);
		host.told.clear();
		changes.clear();
		n_frames = 0;
	}

	void note_changes(size_t frames)
	{
		n_frames += frames;
		for (size_t i = n_seen; i < host.told.size(); i++) {
			if (host.told[i].index == speech_event)
				changes.push_back({static_cast<double>(n_frames) / host.stream.info.rate,
						   host.told[i].value.find("true") != std::string::npos});
		}
		n_seen = host.told.size();
	}

	/** Mono, in buffers of so many frames. */
	void hear(const samples &sound, size_t portion = 160)
	{
		n_seen = host.told.size();
		for (size_t at = 0; at < sound.size(); at += portion) {
			const size_t n = std::min(portion, sound.size() - at);
			const auto first = sound.begin() + static_cast<std::ptrdiff_t>(at);
			host.process(planar<float>({samples(first, first + static_cast<std::ptrdiff_t>(n))}));
			note_changes(n);
		}
	}

	bool is_detected()
	{
		return host.event_text(speech_event).find("true") != std::string::npos;
	}

	double activity()
	{
		return std::stod(host.event_text(activity_event));
	}

	sdk_host host{factory()};
	std::vector<change> changes;

private:
	size_t n_frames = 0;
	size_t n_seen = 0;
};

samples over_noise(const samples &sound, double snr, uint32_t rate = 16000)
{
	const double gain = rms(sound) / 0.1 * std::pow(10.0, -snr / 20.0);
	return mixed(sound, scaled(noise(static_cast<double>(sound.size()) / rate, rate), gain));
}

std::vector<int16_t> to_s16(const samples &sound)
{
	std::vector<int16_t> made;
	for (const float sample : sound)
		made.push_back(static_cast<int16_t>(std::lrint(sample * 32767.0F)));
	return made;
}

} // namespace

/*
 * The interface.
 */

TEST_F(VoicePlugin, DescribesItself)
{
	EXPECT_STREQ(factory().name, "hear-sense.voice");
	EXPECT_STREQ(host.interface->type, "Spa:Pointer:Interface:HearSense:VOICE");
	EXPECT_STREQ(host.interface->interface_name, "Voice");
	EXPECT_STREQ(host.interface->schema, "voice.json");
	EXPECT_STREQ(host.interface->settings_schema, "voice-settings.json");

	ASSERT_EQ(host.interface->n_events, 2U);
	const hs_event_info &speech = *host.interface->events[speech_event];
	EXPECT_STREQ(speech.name, "Speech");
	EXPECT_TRUE(speech.is_public);
	EXPECT_EQ(speech.data_types, HS_EVENT_DATA_EVENT);
	const hs_event_info &activity_info = *host.interface->events[activity_event];
	EXPECT_STREQ(activity_info.name, "Activity");
	EXPECT_FALSE(activity_info.is_public);
	EXPECT_EQ(activity_info.data_types, HS_EVENT_DATA_STATS);
	EXPECT_STREQ(host.event(speech_event)->type.value().c_str(), "struct");
	EXPECT_FALSE(is_detected());
	EXPECT_EQ(activity(), 0.0);
}

TEST_F(VoicePlugin, TakesItsSettings)
{
	EXPECT_EQ(host.setting(0)->title, "Sensitivity");
	EXPECT_EQ(host.setting_text(0), "1");
	EXPECT_EQ(host.setting(1)->title, "HoldTime");
	EXPECT_EQ(std::stod(host.setting_text(1)), 1.0);
	for (const char *sensitivity : {"0", "1", "2", "3"}) {
		EXPECT_EQ(host.set("Sensitivity", sensitivity, "uint32"), 0) << sensitivity;
		EXPECT_EQ(host.setting_text(0), sensitivity);
	}
	EXPECT_EQ(host.set("Sensitivity", "4", "uint32"), -EINVAL);
	EXPECT_EQ(host.set("HoldTime", "3600", "double"), 0);
	EXPECT_EQ(host.set("HoldTime", "3600.5", "double"), -EINVAL);
	EXPECT_EQ(host.set("HoldTime", "-1", "double"), -EINVAL);
	EXPECT_EQ(host.setting_text(0), "3");
	EXPECT_EQ(std::stod(host.setting_text(1)), 3600.0);
}

/*
 * Formats.
 */

TEST_F(VoicePlugin, RefusesARateWithOneLineThatSaysWhatToChange)
{
	for (const uint32_t rate : {1U, 4000U, 7900U, 11025U, 22050U, 48001U, 48100U, 96000U, 192000U, 0xffffffffU}) {
		host.log.lines.clear();
		EXPECT_EQ(init(rate), -EINVAL) << rate;
		ASSERT_EQ(host.log.lines.size(), 1U) << rate;
		EXPECT_EQ(host.log.lines[0].level, SPA_LOG_LEVEL_ERROR);
		EXPECT_EQ(host.log.lines[0].topic, "hear-sense.voice");
		for (const std::string &part : {std::string{"Mic0"}, std::to_string(rate) + " Hz",
						std::string{"set audio.rate to 16000 in voice.conf"}})
			EXPECT_NE(host.log.lines[0].text.find(part), std::string::npos) << host.log.lines[0].text;
		EXPECT_LT(host.activate(), 0);
	}
	/* It is none the worse for it. */
	start();
	hear(syllables(2.0));
	EXPECT_TRUE(is_detected());
}

TEST_F(VoicePlugin, HearsAtAllOtherRates)
{
	for (const uint32_t rate : {8000U, 16000U, 24000U, 32000U, 44100U, 48000U}) {
		start(rate);
		hear(over_noise(syllables(3.0, rate), 15.0, rate), 1024);
		EXPECT_TRUE(is_detected()) << rate;
		ASSERT_EQ(changes.size(), 1U) << rate;
		EXPECT_LT(changes[0].seconds, 1.0) << rate;
		hear(noise(3.0, rate), 1024);
		EXPECT_FALSE(is_detected()) << rate;
	}
	EXPECT_TRUE(host.log.lines.empty());
}

TEST_F(VoicePlugin, MixesAllChannels)
{
	const samples sound = syllables(1.5);
	for (const uint32_t channels : {2U, 6U, 64U}) {
		start(16000, channels);
		std::vector<samples> signals(channels, silence(1.5));
		signals.back() = sound;
		host.process(planar(signals));
		/* One of 64 is 36 dB lower in the mixture, and heard all the same. */
		EXPECT_TRUE(is_detected()) << channels;
	}
}

TEST_F(VoicePlugin, HearsAllSampleFormats)
{
	const samples sound = syllables(1.5);
	const samples nothing = silence(1.5);
	start(16000, 2, SPA_AUDIO_FORMAT_F32);
	host.process(interleaved<float>({sound, nothing}));
	EXPECT_TRUE(is_detected());
	start(16000, 2, SPA_AUDIO_FORMAT_S16P);
	host.process(planar<int16_t>({to_s16(nothing), to_s16(sound)}));
	EXPECT_TRUE(is_detected());
	start(16000, 2, SPA_AUDIO_FORMAT_S16);
	host.process(interleaved<int16_t>({to_s16(nothing), to_s16(sound)}));
	EXPECT_TRUE(is_detected());
}

/*
 * Buffers and streams.
 */

TEST_F(VoicePlugin, TellsTheSameInBuffersOfAnySize)
{
	const samples sound = silence(0.503) + over_noise(syllables(2.0), 10.0) + noise(1.5) + syllables(1.0);
	start();
	hear(sound);
	const std::vector<sdk_told> expected = host.told;
	EXPECT_GT(expected.size(), 20U);
	for (const size_t portion : {1U, 7U, 159U, 161U, 480U, 1024U, 10'007U, 1'000'000U}) {
		start();
		hear(sound, portion);
		EXPECT_EQ(host.told, expected) << portion;
	}
}

TEST_F(VoicePlugin, ForgetsOneStreamBeforeTheNext)
{
	start();
	hear(syllables(0.987));
	const std::vector<sdk_told> expected = host.told;
	ASSERT_TRUE(is_detected());
	ASSERT_GT(activity(), 0.0);

	host.deactivate();
	EXPECT_FALSE(is_detected());
	EXPECT_EQ(activity(), 0.0);
	ASSERT_EQ(host.activate(), 0);
	host.told.clear();
	hear(syllables(0.987));
	EXPECT_EQ(host.told, expected);

	/* After another rate, too. */
	start(48000);
	hear(syllables(1.0, 48000));
	EXPECT_TRUE(is_detected());
	host.deinit();
	EXPECT_FALSE(is_detected());
	start();
	hear(syllables(0.987));
	EXPECT_EQ(host.told, expected);
}

TEST_F(VoicePlugin, TakesNoMemoryWhileItHears)
{
	start(44100, 2);
	std::vector<sdk_buffer> buffers;
	const samples sound = syllables(2.0, 44100);
	for (size_t at = 0; at + 441 <= sound.size(); at += 441) {
		const auto first = sound.begin() + static_cast<std::ptrdiff_t>(at);
		buffers.push_back(planar<float>({samples(first, first + 441), samples(441)}));
	}
	/* The host takes memory where it notes what it is told. */
	host.interface->notify_event = [](hs_plugin_interface *, uint32_t) {};
	/* WebRTC takes some for its first frame. */
	host.process(buffers[0]);
	const size_t before = hs_count_allocations();
	for (sdk_buffer &buffer : buffers)
		host.process(buffer);
	EXPECT_EQ(hs_count_allocations(), before);
	EXPECT_TRUE(is_detected());
}

/*
 * Sounds.
 */

TEST_F(VoicePlugin, SaysNothingOfSilence)
{
	start();
	hear(silence(20.0));
	EXPECT_TRUE(host.told.empty());
}

TEST_F(VoicePlugin, HearsSpeechUnderNoise)
{
	for (const double snr : {40.0, 20.0, 10.0}) {
		start();
		hear(scaled(noise(1.0), 0.01) + over_noise(syllables(3.0), snr));
		EXPECT_TRUE(is_detected()) << snr;
		ASSERT_EQ(changes.size(), 1U) << snr;
		EXPECT_GT(changes[0].seconds, 1.0) << snr;
		EXPECT_LT(changes[0].seconds, 2.0) << snr;
	}
}

TEST_F(VoicePlugin, HearsQuietAndLoudSpeech)
{
	/* From -40 dB to far beyond full scale, where it is clipped. */
	for (const double gain : {0.01, 0.1, 1.0, 20.0}) {
		start();
		samples sound = scaled(syllables(3.0), gain);
		for (float &sample : sound)
			sample = std::clamp(sample, -1.0F, 1.0F);
		hear(sound);
		EXPECT_TRUE(is_detected()) << gain;
	}
}

TEST_F(VoicePlugin, TakesNothingElseForSpeech)
{
	const struct {
		const char *name;
		samples sound;
	} sounds[] = {
		{"white noise", noise(10.0)},
		{"swelling noise", swelling_noise(10.0)},
		{"full-scale noise", scaled(noise(10.0), 5.7)},
		{"sine", sine(300.0, 10.0)},
		{"full-scale sine", scaled(sine(150.0, 10.0), 2.0)},
		{"held vowel", held_vowel(150.0, 10.0)},
		{"held vowels, one after the other",
		 held_vowel(150.0, 1.0) + held_vowel(200.0, 1.0) + silence(0.5) + held_vowel(170.0, 1.0)},
		{"held vowel, under noise", over_noise(held_vowel(150.0, 10.0), 10.0)},
		{"chord", chord({131.0, 165.0, 196.0}, 10.0)},
		{"chords", chord({131.0, 165.0, 196.0}, 2.0) + chord({147.0, 175.0, 220.0}, 2.0) + silence(1.0) +
				   chord({98.0, 247.0, 294.0}, 2.0)},
		{"square wave at full scale",
		 make_sound(10.0, 16000, [](double t) { return std::fmod(t * 125.0, 1.0) < 0.5 ? 1.0 : -1.0; })},
		{"direct current", make_sound(10.0, 16000, [](double) { return 1.0; })},
		{"clicks", make_sound(10.0, 16000, [](double t) { return std::fmod(t, 0.25) < 0.0001 ? 1.0 : 0.0; })},
	};
	for (const auto &[name, sound] : sounds) {
		start();
		hear(sound, 1024);
		EXPECT_TRUE(changes.empty()) << name;
		EXPECT_EQ(activity(), 0.0) << name;
		EXPECT_TRUE(host.told.empty()) << name;
	}
}

TEST_F(VoicePlugin, StandsWhatIsNoSound)
{
	start();
	samples wild = noise(2.0);
	for (size_t i = 0; i < wild.size(); i += 3)
		wild[i] = i % 2 == 0 ? std::numeric_limits<float>::quiet_NaN() : std::numeric_limits<float>::infinity();
	hear(wild);
	EXPECT_FALSE(is_detected());
	for (const float huge : {std::numeric_limits<float>::max(), std::numeric_limits<float>::lowest(), 1e10F}) {
		samples far_off = noise(0.5);
		for (size_t i = 0; i < far_off.size(); i += 2)
			far_off[i] = huge;
		hear(far_off);
	}
	hear(silence(3.0));
	EXPECT_FALSE(is_detected());
	EXPECT_EQ(activity(), 0.0);
	/* Nothing of it is left. */
	hear(syllables(1.0));
	EXPECT_TRUE(is_detected());
	EXPECT_TRUE(host.log.lines.empty());
}

TEST_F(VoicePlugin, HearsChannelsThatAddUpToNoNumber)
{
	start(48000, 64);
	host.process(planar(std::vector<samples>(64, samples(48000, std::numeric_limits<float>::max()))));
	EXPECT_FALSE(is_detected());
	host.process(planar(std::vector<samples>(64, silence(1.0, 48000))));
	host.process(planar(std::vector<samples>(64, syllables(1.5, 48000))));
	EXPECT_TRUE(is_detected());
	EXPECT_TRUE(host.log.lines.empty());
}

/*
 * What it tells, and when.
 */

TEST_F(VoicePlugin, HoldsForItsTime)
{
	double first = 0.0;
	for (const double hold : {0.0, 0.5, 1.0, 2.5}) {
		start();
		ASSERT_EQ(host.set("HoldTime", std::to_string(hold).c_str(), "double"), 0);
		hear(syllables(1.125) + silence(5.0));
		ASSERT_GE(changes.size(), 2U) << hold;
		EXPECT_FALSE(changes.back().is_detected);
		if (hold == 0.0)
			first = changes.back().seconds;
		else
			/* The frame that is the first without speech counts as held. */
			EXPECT_NEAR(changes.back().seconds, first + hold - 0.01, 0.0001);
	}
	EXPECT_GT(first, 1.0);
	EXPECT_LT(first, 1.5);
}

TEST_F(VoicePlugin, BridgesPausesWithinItsHoldTime)
{
	start();
	ASSERT_EQ(host.set("HoldTime", "1.5", "double"), 0);
	for (int i = 0; i < 3; i++)
		hear(syllables(1.0) + silence(1.0));
	EXPECT_EQ(changes.size(), 1U);
	hear(silence(2.0));
	EXPECT_EQ(changes.size(), 2U);
}

TEST_F(VoicePlugin, IsSoonerTheMoreSensitiveItIs)
{
	/* It glides for a moment every second only. */
	double phase = 0.0;
	const samples sound = make_sound(4.0, 16000, [&phase](double t) {
		const double hertz = 130.0 * std::exp2(0.3 * std::clamp(std::fmod(t, 1.0) * 10.0 - 5.0, -0.5, 0.5));
		phase += hertz / 16000.0;
		return (std::fmod(t, 0.25) < 0.22 ? 1.0 : 0.1) * vowel(phase, hertz);
	});
	double last = 10.0;
	for (const char *sensitivity : {"0", "1", "2", "3"}) {
		start();
		ASSERT_EQ(host.set("Sensitivity", sensitivity, "uint32"), 0);
		hear(sound);
		ASSERT_GE(changes.size(), 1U) << sensitivity;
		EXPECT_LT(changes[0].seconds, last) << sensitivity;
		last = changes[0].seconds;
	}
}

TEST_F(VoicePlugin, LetsGoOfSpeechInNoiseSoonerTheLessSensitiveItIs)
{
	double sooner = 0.0;
	for (const char *sensitivity : {"0", "3"}) {
		start();
		ASSERT_EQ(host.set("Sensitivity", sensitivity, "uint32"), 0);
		ASSERT_EQ(host.set("HoldTime", "0", "double"), 0);
		/* The detector learns the noise first. */
		const samples room = scaled(noise(10.0), 0.3);
		hear(mixed(room, silence(5.0) + syllables(2.0)));
		ASSERT_FALSE(is_detected());
		/* The glides are there for both; what is a voice differs. */
		EXPECT_GT(changes.back().seconds, sooner);
		sooner = changes.back().seconds;
	}
}

TEST_F(VoicePlugin, TakesANewSensitivityWhileItHears)
{
	const samples sound = over_noise(syllables(3.0), 20.0);
	start();
	ASSERT_EQ(host.set("Sensitivity", "3", "uint32"), 0);
	hear(sound);
	const double sensitive = changes.at(0).seconds;
	ASSERT_EQ(host.set("Sensitivity", "0", "uint32"), 0);
	start();
	hear(samples(sound.begin(), sound.begin() + 800));
	ASSERT_EQ(host.set("Sensitivity", "3", "uint32"), 0);
	hear(samples(sound.begin() + 800, sound.end()));
	EXPECT_NEAR(changes.at(0).seconds, sensitive, 0.02);
}

TEST_F(VoicePlugin, TellsItsActivityTenTimesASecondAtMost)
{
	start();
	const samples sound = over_noise(syllables(5.0), 20.0) + silence(5.0);
	std::vector<size_t> looks;
	for (size_t look = 0; look < 1000; look++) {
		const size_t before = host.told.size();
		const auto first = sound.begin() + static_cast<std::ptrdiff_t>(160 * look);
		host.process(planar<float>({samples(first, first + 160)}));
		for (size_t i = before; i < host.told.size(); i++) {
			if (host.told[i].index == activity_event)
				looks.push_back(look);
		}
	}
	EXPECT_GT(looks.size(), 10U);
	for (size_t i = 1; i < looks.size(); i++)
		EXPECT_GE(looks[i] - looks[i - 1], 10U);
}

/** As measured when it was found right: a change here is a change of what users see. */
TEST_F(VoicePlugin, TellsWhatItToldOfThisScene)
{
	start();
	const samples sound = scaled(noise(1.0), 0.1) + over_noise(syllables(2.0), 10.0) + scaled(noise(2.5), 0.1) +
			      chord({131.0, 165.0, 196.0}, 2.0) + scaled(syllables(1.5), 0.1) + silence(3.0);
	hear(sound);
	ASSERT_EQ(changes.size(), 4U);
	const double expected[] = {1.07, 4.07, 7.59, 10.07};
	for (size_t i = 0; i < 4; i++) {
		EXPECT_EQ(changes[i].is_detected, i % 2 == 0);
		EXPECT_NEAR(changes[i].seconds, expected[i], 0.021) << i;
	}
}
