/* SPDX-License-Identifier: MIT */
/*
 * The plug-in "loudness": how loud it is at a microphone, and an alarm.
 *
 * It has a meter while there is audio only: a pause neither holds memory nor leaves old audio in the windows.
 */
#include <hear-sense/plugin.hpp>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <memory>

#include <hear-sense/sdk/hold.hpp>

#include "loudness-meter.hpp"

namespace {

using namespace hear_sense;

/** Rounded; a zero has no sign. */
double to_tenths(double value)
{
	return std::round(value * 10.0) / 10.0 + 0.0;
}

/** From the value told to `now`, in tenths. */
long rise(const member<double> &told, double now)
{
	return std::lround((to_tenths(now) - told.value()) * 10.0);
}

class loudness final : public plugin
{
public:
	using plugin::plugin;

private:
	int start() override
	{
		meter = loudness_meter::create(stream().info.rate, positions());
		if (!meter)
			return refuse(-EINVAL, "this rate or number of channels cannot be measured");
		hear_in_blocks(meter->look_frames());
		return 0;
	}

	/** The alarm goes with the audio: nothing would ever clear it. */
	void stop() override
	{
		meter.reset();
		alarm = {};
	}

	void process(channels heard) override
	{
		const loudness_values now = meter->look(heard);
		/*
		 * What is not news is kept back, or a steady room would keep the bus busy. In steady noise a peak
		 * jumps by some decibels from look to look: only a deep fall says something.
		 */
		const long peak_rise = rise(peak, now.peak);
		if (std::labs(rise(momentary, now.momentary)) >= 10 ||
		    std::labs(rise(short_term, now.short_term)) >= 10 || peak_rise >= 10 || peak_rise <= -100) {
			momentary.set(to_tenths(now.momentary));
			short_term.set(to_tenths(now.short_term));
			peak.set(to_tenths(now.peak));
			loudness_event.notify();
		}
		const double interval = static_cast<double>(heard[0].size()) / stream().info.rate;
		alarm_event.tell(alarm.update(now.momentary > threshold.value(), interval, hold_time.value()));
		level_event.tell(to_tenths(now.level));
	}

	setting<double> threshold{*this,
				  {.title = "Threshold",
				   .description = "Momentary loudness above which the alarm is raised",
				   .unit = "LUFS",
				   .initial = -20.0,
				   .minimum = loudness_floor_lufs,
				   .maximum = 0.0}};
	setting<double> hold_time{*this,
				  {.title = "HoldTime",
				   .description = "Time without too loud a sound after which the alarm is cleared",
				   .unit = "s",
				   .initial = 2.0,
				   .minimum = 0.0,
				   .maximum = 3600.0}};

	struct_event loudness_event{*this,
				    {.title = "Loudness",
				     .description = "Momentary and short-term loudness in LUFS, sample peak in dBFS",
				     .is_property_state = true}};
	member<double> momentary{loudness_event, "Momentary", loudness_floor_lufs};
	member<double> short_term{loudness_event, "ShortTerm", loudness_floor_lufs};
	member<double> peak{loudness_event, "Peak", loudness_floor_dbfs};
	detection alarm_event{*this,
			      {.title = "LoudnessAlarm",
			       .nice_name = "Loudness alarm",
			       .description = "The momentary loudness is above the threshold",
			       .is_property_state = true,
			       .data_types = HS_EVENT_DATA_EVENT}};
	event<double> level_event{*this,
				  {.title = "Level",
				   .nice_name = "Sound level",
				   .description = "RMS level of the last 100 ms",
				   .unit = "dBFS",
				   .is_public = false},
				  loudness_floor_dbfs};

	std::unique_ptr<loudness_meter> meter;
	hold alarm;
};

} // namespace

HS_EXPORT_PLUGIN(loudness, {.name = "loudness",
			    .schema = "loudness.json",
			    .settings_schema = "loudness-settings.json",
			    .formats = {SPA_AUDIO_FORMAT_F32P, SPA_AUDIO_FORMAT_F32},
			    .topics = {{"Audio", "Audio", "com.orvel"}, {"Loudness", "Loudness", "com.orvel"}}})
