/* SPDX-License-Identifier: MIT */
/*
 * What an output of a Vamp plug-in is on the bus.
 *
 * One that has a value at all times is an event with that value: a whole number, a number or an array of them.
 * One of things that happen is a structure: how many there were, when the last was and what is told of it.
 */
#pragma once

#include <cmath>
#include <deque>
#include <string>
#include <variant>

#include <hear-sense/plugin.hpp>
#include <vamp-hostsdk/vamp-hostsdk.h>

/** What the features of an output have in common. */
struct vamp_shape {
	explicit vamp_shape(const Vamp::Plugin::OutputDescriptor &output)
	    : n_values{output.binCount}, is_fixed{output.hasFixedBinCount},
	      is_structure{n_values == 0 || output.hasDuration || output.sampleType == output.VariableSampleRate},
	      is_whole{output.isQuantized && output.quantizeStep == 1.0F}
	{
	}

	/** Whether an event can hold them: the daemon publishes about 900 characters. */
	bool fits() const
	{
		return is_fixed && n_values <= (is_structure ? 16 : 32);
	}

	bool operator==(const vamp_shape &) const = default;

	size_t n_values;
	bool is_fixed;
	/** Something that happens. */
	bool is_structure;
	bool is_whole;
};

/** The event of an output of things that happen. */
class vamp_structure final : public hear_sense::occurrences
{
public:
	vamp_structure(hear_sense::table &table, const hear_sense::event_info &info, size_t n_values)
	    : occurrences{table, info}
	{
		for (size_t i = 1; i <= n_values; i++)
			values.emplace_back(*this, n_values == 1 ? "Value" : "Value" + std::to_string(i));
	}

	void tell(const Vamp::Plugin::Feature &feature, const Vamp::RealTime &time)
	{
		const Vamp::RealTime second{1, 0};
		duration.set(feature.hasDuration ? feature.duration / second : 0.0);
		label.set(feature.label);
		for (size_t i = 0; i < values.size(); i++)
			values[i].set(feature.values[i]);
		occurrences::tell(time / second);
	}

private:
	hear_sense::member<double> duration{*this, "Duration"};
	hear_sense::member<std::string> label{*this, "Label"};
	std::deque<hear_sense::member<float>> values;
};

/** The event of any output. */
class vamp_output
{
public:
	vamp_output(hear_sense::table &table, const hear_sense::event_info &info, const vamp_shape &from) : shape{from}
	{
		if (shape.is_structure)
			event.emplace<vamp_structure>(table, info, shape.n_values);
		else if (shape.n_values > 1)
			event.emplace<hear_sense::array_event<float>>(table, info, shape.n_values);
		else if (shape.is_whole)
			event.emplace<hear_sense::event<int32_t>>(table, info);
		else
			event.emplace<hear_sense::event<float>>(table, info);
	}

	/** Leaves out a feature with too few values; `time` is since the audio began. */
	void tell(const Vamp::Plugin::Feature &feature, const Vamp::RealTime &time)
	{
		if (feature.values.size() < shape.n_values)
			return;
		if (auto *structure = std::get_if<vamp_structure>(&event))
			structure->tell(feature, time);
		else if (auto *array = std::get_if<hear_sense::array_event<float>>(&event))
			array->tell(feature.values);
		else if (auto *number = std::get_if<hear_sense::event<float>>(&event))
			number->tell(feature.values[0]);
		else if (std::abs(feature.values[0]) < 2147483648.0F)
			std::get<hear_sense::event<int32_t>>(event).tell(
				static_cast<int32_t>(std::lround(feature.values[0])));
	}

	const vamp_shape shape;

private:
	std::variant<std::monostate, vamp_structure, hear_sense::array_event<float>, hear_sense::event<int32_t>,
		     hear_sense::event<float>>
		event;
};
