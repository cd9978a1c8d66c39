/* SPDX-License-Identifier: MIT */
/*
 * The plug-in "alarm": smoke and carbon-monoxide alarms that sound near a microphone.
 *
 * It has a detector from start() to stop() only, so that a pause leaves nothing half heard.
 */
#include <hear-sense/plugin.hpp>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <memory>

#include "alarm-detector.hpp"

namespace {

using namespace hear_sense;

double to_tenths(double value)
{
	return std::round(value * 10.0) / 10.0;
}

class alarm_listener final : public plugin
{
public:
	using plugin::plugin;

private:
	int start() override
	{
		const uint32_t rate = stream().info.rate;
		if (rate < 8000 || rate > 192000)
			return refuse(-EINVAL, "set audio.rate to one from 8000 to 192000 in alarm.conf");
		detector = std::make_unique<alarm_detector>(rate, stream().info.channels);
		hear_in_blocks(detector->hop_frames());
		return 0;
	}

	void stop() override
	{
		detector.reset();
	}

	void process(channels heard) override
	{
		detector->hear(heard, minimum_level.value());
		const alarm_state &smoke = detector->state(ALARM_SMOKE);
		const alarm_state &carbon_monoxide = detector->state(ALARM_CARBON_MONOXIDE);
		smoke_event.tell(smoke.is_sounding);
		carbon_monoxide_event.tell(carbon_monoxide.is_sounding);
		tell_tone(smoke.tone.level > carbon_monoxide.tone.level ? smoke.tone : carbon_monoxide.tone);
	}

	void tell_tone(const alarm_tone &tone)
	{
		bool is_news = frequency.set(std::round(tone.frequency));
		is_news |= level.set(to_tenths(tone.level));
		is_news |= signal_to_noise.set(to_tenths(tone.signal_to_noise));
		if (is_news)
			tone_event.notify();
	}

	setting<double> minimum_level{*this,
				      {.title = "MinimumLevel",
				       .description = "Level of the tone below which an alarm is not heard",
				       .unit = "dBFS",
				       .initial = -70.0,
				       .minimum = alarm_floor_dbfs,
				       .maximum = 0.0}};

	detection smoke_event{*this,
			      {.title = "SmokeAlarm",
			       .nice_name = "Smoke alarm",
			       .description = "A smoke alarm sounds",
			       .is_property_state = true,
			       .data_types = HS_EVENT_DATA_EVENT}};
	detection carbon_monoxide_event{*this,
					{.title = "CarbonMonoxideAlarm",
					 .nice_name = "Carbon-monoxide alarm",
					 .description = "A carbon-monoxide alarm sounds",
					 .is_property_state = true,
					 .data_types = HS_EVENT_DATA_EVENT}};
	struct_event tone_event{*this,
				{.title = "AlarmTone",
				 .nice_name = "Tone of the alarm",
				 .description = "Frequency in Hz and level in dBFS of the alarm's tone, dB above noise",
				 .is_property_state = true}};
	member<double> frequency{tone_event, "Frequency", 0.0};
	member<double> level{tone_event, "Level", alarm_floor_dbfs};
	member<double> signal_to_noise{tone_event, "SignalToNoise", 0.0};

	std::unique_ptr<alarm_detector> detector;
};

} // namespace

HS_EXPORT_PLUGIN(alarm_listener, {.name = "alarm",
				  .schema = "alarm.json",
				  .settings_schema = "alarm-settings.json",
				  .topics = {{"Audio", "Audio", "com.orvel"}, {"Safety", "Safety", "com.orvel"}}})
