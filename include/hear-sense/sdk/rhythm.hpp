/* SPDX-License-Identifier: MIT */
/*
 * Does a level rise and fall in a rhythm, as the beeps of a timer, a telephone or an alarm do?
 *
 * A rhythm is laid over the last seconds of a level_history, at several speeds, and fits when a round of it is over:
 *
 *     const hear_sense::rhythm double_knock{{.steps = "0001010000", .step_seconds = 0.1}, hop_seconds};
 *     ...
 *     if (double_knock.find(levels))
 *         knocked.tell(knocked.value() + 1);
 *
 * It fits for some values on end, then, and at all neighbours of a tone: to count rounds is left to the caller, as
 * is the decision whether the sound is what it should be. The history is at least as long as the rhythm at its
 * slowest. Memory is taken by constructors only.
 */
#ifndef HEAR_SENSE_SDK_RHYTHM_HPP
#define HEAR_SENSE_SDK_RHYTHM_HPP

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <hear-sense/sdk/tones.hpp>

namespace hear_sense {

/** Shares are of 1. */
struct rhythm_info {
	/** Of one length: in each there is a beep ("1") or silence ("0"), which is at both ends. */
	std::string_view steps;
	double step_seconds;
	/** How much faster or slower the whole may be. */
	double tolerance = 0.12;
	/** How long all beeps together may be, by their due length. */
	double least_beeps = 0.81;
	double most_beeps = 1.19;
	/** The part of a step that is left out after a beep: rooms ring, which short beeps suffer from. */
	double ringing = 0.2;
	/** Values of which the mean is compared with the threshold between beeps and silence, against noise. */
	size_t smoothing = 1;
	/** dB, between the mean of the beeps and that of the silence. */
	double least_contrast = 5.0;
	/** How much of the beeps, or of the silence, may be on the wrong side of the threshold. */
	double most_wrong = 0.2;
	/** The same for each single one. */
	double most_wrong_step = 0.4;
};

class rhythm
{
public:
	/** For levels of which there is one each `hop_seconds`. */
	rhythm(const rhythm_info &from, double hop_seconds) : info{from}
	{
		if (info.steps.find('1') == info.steps.npos || info.steps.front() == '1' || info.steps.back() == '1')
			throw std::invalid_argument("a rhythm begins and ends with silence, and has a beep between");
		const double step_hops = info.step_seconds / hop_seconds;
		due_beeps = step_hops * static_cast<double>(std::count(info.steps.begin(), info.steps.end(), '1'));
		/* Each 3 % slower than the one before, or less. */
		const int n_slower = static_cast<int>(std::ceil(info.tolerance / 0.03));
		for (int i = -n_slower; i <= n_slower; i++)
			add_speed((1.0 + info.tolerance * i / std::max(1, n_slower)) * step_hops);
	}

	/** A round that is over, at one of the speeds. */
	struct round {
		/** Of the beeps, and of the silence around them. */
		double level, silence;
		/** In values: of all its steps; of its beeps with the pauses between; since the last beep ended. */
		size_t length, beeps, since_end;
		size_t speed;
	};

	/** The fastest round that fits. */
	std::optional<round> find(const level_history &heard) const
	{
		for (size_t i = 0; i < speeds.size(); i++) {
			const speed &at = speeds[i];
			const double level = heard.mean(at.beeps), silence = heard.mean(at.silence);
			if (level - silence >= info.least_contrast && fits(heard, at, level, silence))
				return round{level, silence, at.length, at.begin - at.end, at.end, i};
		}
		return {};
	}

	/** What another level is during the beeps of a round. */
	double level_during(const round &found, const level_history &other) const
	{
		return other.mean(speeds[found.speed].beeps);
	}

private:
	struct step {
		level_history::range hops;
		bool is_beep;
	};
	struct speed {
		std::vector<step> steps;
		/** The middle of each beep, and of each step of silence: sure to lie in it. */
		std::vector<level_history::range> beeps, silence;
		/** From half a step before the first beep to nearly a step after the last one. */
		level_history::range all_beeps;
		/** Values since the first beep began, and since the last one ended. */
		size_t begin, end;
		/** Of all steps. */
		size_t length;
	};

	void add_speed(double step_hops)
	{
		const std::string_view steps = info.steps;
		const auto ago = [&](double at) {
			return static_cast<size_t>(std::lround((static_cast<double>(steps.size()) - at) * step_hops));
		};
		speed made{};
		for (size_t i = 0; i < steps.size(); i++) {
			const bool is_beep = steps[i] == '1';
			const bool is_after_beep = i > 0 && steps[i - 1] == '1';
			const double begin = static_cast<double>(i) + (is_beep	       ? 0.1
								       : is_after_beep ? info.ringing
										       : 0.05);
			const double end = static_cast<double>(i) + 0.95;
			const double middle = 0.5 * (begin + end);
			made.steps.push_back({{ago(begin), ago(end)}, is_beep});
			(is_beep ? made.beeps : made.silence).push_back({ago(middle - 0.1), ago(middle + 0.1)});
		}
		const auto first = static_cast<double>(steps.find('1')), last = static_cast<double>(steps.rfind('1'));
		made.all_beeps = {ago(first - 0.5), ago(last + 1.9)};
		made.begin = ago(first);
		made.end = ago(last + 1.0);
		made.length = ago(0.0);
		if (made.beeps[0].from == made.beeps[0].to)
			throw std::invalid_argument("a step of a rhythm is shorter than five values");
		speeds.push_back(std::move(made));
	}

	bool fits(const level_history &heard, const speed &at, double level, double silence) const
	{
		const double threshold = level - std::min(6.0, 0.6 * (level - silence));
		double wrong_beeps = 0.0, wrong_silence = 0.0;
		for (const step &each : at.steps) {
			const double above = heard.share_above(threshold, each.hops, info.smoothing);
			const double wrong = each.is_beep ? 1.0 - above : above;
			if (wrong > info.most_wrong_step)
				return false;
			(each.is_beep ? wrong_beeps : wrong_silence) += wrong;
		}
		const auto n_hops = static_cast<double>(at.all_beeps.from - at.all_beeps.to);
		const double beeps = heard.share_above(threshold, at.all_beeps) * n_hops / due_beeps;
		return wrong_beeps <= info.most_wrong * static_cast<double>(at.beeps.size()) &&
		       wrong_silence <= info.most_wrong * static_cast<double>(at.silence.size()) &&
		       beeps >= info.least_beeps && beeps <= info.most_beeps;
	}

	rhythm_info info;
	/** Values that are due to be beeps. */
	double due_beeps;
	/** Fastest first. */
	std::vector<speed> speeds;
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_RHYTHM_HPP */
