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
#include <optional>
#include <string>

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

/** The event of an output. */
class vamp_output
{
public:
	vamp_output(hear_sense::table &owner, const hear_sense::event_info &info, const vamp_shape &shape)
	{
		if (!shape.is_structure && shape.n_values > 1)
			array.emplace(owner, info, shape.n_values);
		else if (!shape.is_structure && shape.is_whole)
			whole.emplace(owner, info);
		else if (!shape.is_structure)
			number.emplace(owner, info);
		else
			add_structure(owner, info, shape);
	}

	/** The feature has all values of the shape; `time` is since the audio began. */
	void tell(const Vamp::Plugin::Feature &feature, const Vamp::RealTime &time)
	{
		if (structure)
			tell_structure(feature, time);
		else if (array)
			array->tell(feature.values);
		else if (number)
			number->tell(feature.values[0]);
		else if (std::abs(feature.values[0]) < 2147483648.0F)
			whole->tell(static_cast<int32_t>(std::lround(feature.values[0])));
	}

private:
	void add_structure(hear_sense::table &owner, const hear_sense::event_info &info, const vamp_shape &shape)
	{
		structure.emplace(owner, info);
		count.emplace(*structure, "Count");
		last.emplace(*structure, "Time");
		duration.emplace(*structure, "Duration");
		label.emplace(*structure, "Label");
		for (size_t i = 1; i <= shape.n_values; i++)
			values.emplace_back(*structure, shape.n_values == 1 ? "Value" : "Value" + std::to_string(i));
	}

	void tell_structure(const Vamp::Plugin::Feature &feature, const Vamp::RealTime &time)
	{
		const Vamp::RealTime second{1, 0};
		count->set(count->value() + 1);
		last->set(time / second);
		duration->set(feature.hasDuration ? feature.duration / second : 0.0);
		label->set(feature.label);
		for (size_t i = 0; i < values.size(); i++)
			values[i].set(feature.values[i]);
		structure->notify();
	}

	/* One of these four. */
	std::optional<hear_sense::array_event<float>> array;
	std::optional<hear_sense::event<int32_t>> whole;
	std::optional<hear_sense::event<float>> number;
	std::optional<hear_sense::struct_event> structure;

	/* Of the structure. */
	std::optional<hear_sense::member<uint32_t>> count;
	std::optional<hear_sense::member<double>> last;
	std::optional<hear_sense::member<double>> duration;
	std::optional<hear_sense::member<std::string>> label;
	std::deque<hear_sense::member<float>> values;
};
