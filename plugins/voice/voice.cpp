/* SPDX-License-Identifier: MIT */
/*
 * The plug-in "voice": whether somebody speaks at a microphone.
 *
 * WebRTC's voice detector tells voice from silence; what speech is beyond that, voice-speech.hpp decides.
 */
#include <hear-sense/plugin.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include <hear-sense/sdk/hold.hpp>
#include <hear-sense/sdk/pitch.hpp>
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include "voice-speech.hpp"

namespace {

using namespace hear_sense;

/** By sensitivity: glides of the pitch in a second that speech takes. */
constexpr std::array<size_t, 4> fewest_glides{6, 3, 2, 1};

class voice final : public plugin
{
public:
	using plugin::plugin;

private:
	/** What hears one stream. */
	struct hearing {
		webrtc::StreamConfig from;
		webrtc::StreamConfig to{voice_rate, 1};
		std::unique_ptr<webrtc::AudioProcessing> processing{webrtc::AudioProcessing::Create()};
		pitch_meter meter{voice_rate};
		voice_speech speech;
		std::vector<const float *> channels;
		std::array<float, voice_hop> mono{};
		uint64_t n_looks = 0;
		hold speaking;
	};

	int start() override
	{
		const uint32_t rate = stream().info.rate, n_channels = stream().info.channels;
		if (rate < 8000 || rate > 48000 || rate % 100 != 0)
			return refuse(-EINVAL, "set audio.rate to 16000 in voice.conf");
		now = std::make_unique<hearing>();
		now->channels.resize(n_channels);
		now->from = {static_cast<int>(rate), static_cast<int>(n_channels)};
		/* Takes memory, which the first ProcessStream() would take else. */
		if (now->processing->Initialize({{now->from, now->to, now->to, now->to}}) != 0 ||
		    now->processing->voice_detection()->Enable(true) != 0)
			return refuse(-EIO, "the voice detector fails; set audio.channels to 1 in voice.conf");
		setting_changed(sensitivity);
		hear_in_blocks(rate / 100);
		return 0;
	}

	void stop() override
	{
		now.reset();
	}

	void process(channels heard) override
	{
		std::transform(heard.begin(), heard.end(), now->channels.begin(),
			       [](const auto &channel) { return channel.data(); });
		float *mono = now->mono.data();
		if (now->processing->ProcessStream(now->channels.data(), now->from, now->to, &mono) != 0)
			throw std::runtime_error("the voice detector has failed");
		/* Far above full scale samples can add up to what is no number, and the tiniest are slow to work with. */
		for (float &sample : now->mono)
			sample = std::abs(sample) > 1e-6F ? std::clamp(sample, -1.0F, 1.0F) : 0.0F;

		const bool is_voice = now->processing->voice_detection()->stream_has_voice();
		const bool is_speech =
			now->speech.update(now->meter.look(now->mono), is_voice, fewest_glides[sensitivity.value()]);
		speech_event.tell(now->speaking.update(is_speech, 0.01, hold_time.value()));
		if (++now->n_looks % 10 == 0)
			activity_event.tell(now->speech.activity());
	}

	int setting_changed(const setting_base &changed) override
	{
		/* WebRTC's four likelihoods go from the lowest, 0, to the highest as well. */
		const auto likelihood = static_cast<webrtc::VoiceDetection::Likelihood>(sensitivity.value());
		if (now && &changed == &sensitivity)
			now->processing->voice_detection()->set_likelihood(likelihood);
		return 0;
	}

	setting<uint32_t> sensitivity{
		*this,
		{.title = "Sensitivity",
		 .description = "From 0, which misses some speech, to 3, which takes more for speech",
		 .initial = 1,
		 .minimum = 0,
		 .maximum = fewest_glides.size() - 1}};
	setting<double> hold_time{*this,
				  {.title = "HoldTime",
				   .description = "Time without speech after which it is no longer detected",
				   .unit = "s",
				   .initial = 1.0,
				   .minimum = 0.0,
				   .maximum = 3600.0}};

	detection speech_event{*this,
			       {.title = "Speech",
				.description = "Somebody speaks",
				.is_property_state = true,
				.data_types = HS_EVENT_DATA_EVENT}};
	event<double> activity_event{*this,
				     {.title = "Activity",
				      .nice_name = "Speech activity",
				      .description = "Share of the last second that was speech, from 0 to 1",
				      .is_public = false}};

	/** While there is audio only: a pause leaves nothing of the old audio. */
	std::unique_ptr<hearing> now;
};

} // namespace

HS_EXPORT_PLUGIN(voice, {.name = "voice",
			 .schema = "voice.json",
			 .settings_schema = "voice-settings.json",
			 .topics = {{"Audio", "Audio", "com.orvel"}, {"Speech", "Speech", "com.orvel"}}})
