/* SPDX-License-Identifier: MIT */
#include "alarm-detector.hpp"

#include <algorithm>
#include <cmath>
#include <new>
#include <numbers>
#include <string_view>

namespace {

/** The rhythm of an alarm: parts of one length, in each of which there is a beep (1) or none (0). */
struct pattern {
	std::string_view parts;
	double part_seconds, cycle_seconds;
	/** Of all its beeps together. */
	double beep_seconds;
	/** From where on a part after a beep is to be quiet: rooms ring, which short beeps suffer from. */
	double quiet_from;
	/** How much longer than due beeps may seem for the same reason. */
	double longest_beep;
	/** Hops of which the mean is taken, against noise. */
	int smoothing;
};

constexpr std::array<pattern, alarm_n_kinds> patterns{{
	{"001010100", 0.5, 4.0, 1.5, 0.2, 1.19, 6},
	{"000010101010000", 0.1, 5.7, 0.4, 0.5, 1.6, 2},
}};

constexpr double shortest_beep = 0.81;
/** How far a cycle may be from its due length. */
constexpr double cycle_tolerance = 0.13;
/** Least differences in dB: between beeps and silence, and between a tone and its neighbours. */
constexpr double least_contrast = 5.0;
constexpr double least_signal_to_noise = -1.5;
/** Most difference in dB between one beep and the mean of all. */
constexpr double most_uneven = 5.0;

} // namespace

std::unique_ptr<alarm_detector> alarm_detector::create(uint32_t rate, size_t n_channels)
{
	if (rate < 8000 || rate > 192000 || n_channels == 0)
		return nullptr;
	return std::unique_ptr<alarm_detector>{new (std::nothrow) alarm_detector{rate, n_channels}};
}

alarm_detector::alarm_detector(uint32_t rate, size_t n_channels)
    : block_frames((rate + 125) / 250), channels(n_channels)
{
	const double window = static_cast<double>(n_blocks * block_frames);
	spacing = rate / window;
	for (size_t i = 0; i < n_blocks; i++)
		roots[i] = std::polar(1.0F, -2.0F * std::numbers::pi_v<float> * static_cast<float>(i) / n_blocks);
	hop_seconds = static_cast<double>(hop_frames()) / rate;
	for (const band &around : bands) {
		for (size_t bin = around.first_bin - 1; bin <= around.end_bin; bin++) {
			harmonics[bin] = static_cast<size_t>(around.begin / spacing) + bin - around.first_bin;
			const double angle = 2.0 * std::numbers::pi * static_cast<double>(harmonics[bin]) / window;
			coefficients[bin] = static_cast<float>(2.0 * std::cos(angle));
			turns[bin] = std::polar(1.0F, static_cast<float>(angle));
		}
	}

	for (size_t kind = 0; kind < alarm_n_kinds; kind++) {
		const pattern &p = patterns[kind];
		double slowness = 0.88;
		for (rhythm &speed : rhythms[kind]) {
			const double part_hops = p.part_seconds * slowness / hop_seconds;
			const auto ago = [&](size_t i, double more) {
				return static_cast<int>(
					std::lround((static_cast<double>(p.parts.size() - i) - more) * part_hops));
			};
			for (size_t i = 0; i < p.parts.size(); i++) {
				const bool is_beep = p.parts[i] == '1';
				const bool is_after_beep = i > 0 && p.parts[i - 1] == '1';
				const double begin = is_beep ? 0.1 : is_after_beep ? p.quiet_from : 0.05;
				const double middle = 0.5 * (begin + 0.95);
				speed.parts.push_back({{ago(i, begin), ago(i, 0.95)},
						       {ago(i, middle - 0.1), ago(i, middle + 0.1)},
						       is_beep});
			}
			const size_t last = p.parts.rfind('1');
			speed.beeps = {ago(p.parts.find('1'), -0.5), ago(last, 1.9)};
			speed.end = ago(last, 1.0);
			speed.length = ago(0, 0.0);
			slowness += 0.03;
		}
	}
}

void alarm_detector::hear(std::span<const std::span<const float>> heard)
{
	for (size_t frame = 0; frame < heard[0].size();) {
		const size_t n = std::min(heard[0].size() - frame, block_frames - heard_frames);
		for (size_t c = 0; c < channels.size(); c++)
			hear(channels[c], heard[c].subspan(frame, n));
		frame += n;
		heard_frames += n;
		if (heard_frames == block_frames)
			end_block();
	}
}

/** Goertzel's recurrence, for all frequencies at once. */
void alarm_detector::hear(channel &heard, std::span<const float> samples)
{
	for (float sample : samples) {
		/* What is no number would spoil the sums for good; what is tiny takes long to calculate with. */
		sample = std::isfinite(sample) && std::abs(sample) > 1e-10F ? std::clamp(sample, -16.0F, 16.0F) : 0.0F;
		for (size_t bin = 0; bin < n_bins; bin++) {
			const float next = sample + coefficients[bin] * heard.last[bin] - heard.before[bin];
			heard.before[bin] = heard.last[bin];
			heard.last[bin] = next;
		}
	}
}

void alarm_detector::end_block()
{
	for (channel &heard : channels) {
		for (size_t bin = 0; bin < n_bins; bin++)
			heard.blocks[block][bin] = turns[bin] * heard.last[bin] - heard.before[bin];
		heard.last = heard.before = {};
	}
	heard_frames = 0;
	block = (block + 1) % n_blocks;
	if (block % 2 == 0)
		end_hop();
}

/** Adds the last blocks up to a window, which neighbouring bins make a raised cosine. */
void alarm_detector::end_hop()
{
	std::array<double, n_bins> powers{};
	for (const channel &heard : channels) {
		std::array<std::complex<float>, n_bins> sums_of_blocks{};
		for (size_t bin = 0; bin < n_bins; bin++) {
			for (size_t i = 0; i < n_blocks; i++)
				sums_of_blocks[bin] += roots[harmonics[bin] * (i + 1) % n_blocks] *
						       heard.blocks[(block + i) % n_blocks][bin];
		}
		for (size_t bin = 1; bin + 1 < n_bins; bin++)
			powers[bin] += std::norm(0.5F * sums_of_blocks[bin] -
						 0.25F * (sums_of_blocks[bin - 1] + sums_of_blocks[bin + 1]));
	}
	/* The RMS of a sine, and the mean of the channels. */
	const double scale = 8.0 * static_cast<double>(block_frames * block_frames * channels.size());
	for (size_t bin = 0; bin < n_bins; bin++) {
		const double level = std::max(0.0, 10.0 * std::log10(powers[bin] / scale) - alarm_floor_dbfs);
		sums[bin][(hop + 1) % n_kept] = sums[bin][hop % n_kept] + static_cast<uint32_t>(level * 100.0);
	}
	hop++;
	look_for(ALARM_SMOKE);
	look_for(ALARM_CARBON_MONOXIDE);
}

double alarm_detector::mean(size_t bin, range hops) const
{
	const uint32_t sum = sums[bin][(hop - static_cast<uint32_t>(hops.to)) % n_kept] -
			     sums[bin][(hop - static_cast<uint32_t>(hops.from)) % n_kept];
	return alarm_floor_dbfs + sum / (100.0 * (hops.from - hops.to));
}

/** The mean level of a rhythm's beeps, or of the silence around them. */
double alarm_detector::mean_of(bool is_beep, size_t bin, const rhythm &speed) const
{
	double sum = 0.0, n = 0.0;
	for (const part &each : speed.parts) {
		if (each.is_beep == is_beep) {
			sum += mean(bin, each.level);
			n++;
		}
	}
	return sum / n;
}

double alarm_detector::share_above(double level, size_t bin, range hops, int smoothing) const
{
	int n = 0, n_above = 0;
	for (int to = hops.to; to + smoothing <= hops.from; to++, n++)
		n_above += mean(bin, {to + smoothing, to}) > level;
	return n > 0 ? static_cast<double>(n_above) / n : 0.0;
}

void alarm_detector::look_for(alarm_kind kind)
{
	for (const band &around : bands) {
		for (size_t bin = around.first_bin; bin < around.end_bin; bin++) {
			const double frequency = static_cast<double>(harmonics[bin]) * spacing;
			for (const rhythm &speed : rhythms[kind]) {
				if (frequency < around.lowest || frequency > around.highest)
					break;
				const double level = mean_of(true, bin, speed);
				if (level < minimum_level || !stands_out(bin, around, speed, level) ||
				    !keeps_time(kind, bin, around, speed, level))
					continue;
				recognise(kind, bin, speed, tone_of(bin, speed));
				break;
			}
		}
	}
	if (now[kind].is_sounding && static_cast<int32_t>(hop - ends[kind]) >= 0)
		now[kind] = {};
}

/** Whether the beeps are a tone and not noise, and this bin is where it is. */
bool alarm_detector::stands_out(size_t bin, const band &around, const rhythm &speed, double level) const
{
	if (level - mean_of(false, bin, speed) < least_contrast)
		return false;
	double others = 0.0, n_others = 0.0;
	for (size_t i = around.first_bin; i < around.end_bin; i++) {
		const bool is_near = i + 2 >= bin && i <= bin + 2;
		const double other = mean_of(true, i, speed);
		if (other > level + (is_near ? 0.0 : 15.0))
			return false;
		others += is_near ? 0.0 : other;
		n_others += is_near ? 0.0 : 1.0;
	}
	return level - others / n_others >= least_contrast &&
	       tone_of(bin, speed).signal_to_noise >= least_signal_to_noise;
}

bool alarm_detector::keeps_time(alarm_kind kind, size_t bin, const band &around, const rhythm &speed,
				double level) const
{
	const pattern &p = patterns[kind];
	const bool is_known = is_expected(kind, tone_of(bin, speed));
	const double threshold = level - std::min(6.0, 0.6 * (level - mean_of(false, bin, speed)));
	/* Of silence, and of beeps. */
	std::array<double, 2> wrong{}, n{};
	for (const part &each : speed.parts) {
		const size_t reach = each.is_beep ? 0 : around.reach;
		double share = 0.0;
		for (size_t i = bin - reach; i <= bin + reach; i++)
			share = std::max(share, share_above(threshold, i, each.hops, p.smoothing));
		const double amiss = each.is_beep ? 1.0 - share : share;
		if (each.is_beep && std::abs(mean(bin, each.level) - level) > most_uneven)
			return false;
		if (amiss > (is_known ? 0.6 : each.is_beep ? 0.5 : 0.4))
			return false;
		wrong[each.is_beep] += amiss;
		n[each.is_beep]++;
	}
	const double most_wrong = is_known ? 0.3 : 0.2;
	const double beep_hops = share_above(threshold, bin, speed.beeps, 1) * (speed.beeps.from - speed.beeps.to);
	const double beeps = beep_hops * hop_seconds / p.beep_seconds;
	return wrong[0] <= most_wrong * n[0] && wrong[1] <= most_wrong * n[1] && beeps >= shortest_beep &&
	       beeps <= p.longest_beep;
}

alarm_tone alarm_detector::tone_of(size_t bin, const rhythm &speed) const
{
	/* The top of a parabola through three levels is where the tone is. */
	const double below = mean_of(true, bin - 1, speed), level = mean_of(true, bin, speed),
		     above = mean_of(true, bin + 1, speed);
	const double offset = 0.5 * (below - above) / std::min(-1.0, below - 2.0 * level + above);
	const double frequency = (static_cast<double>(harmonics[bin]) + offset) * spacing;
	const double top = level - 0.25 * (below - above) * offset;
	/* From the noise in a bin to that in a third of an octave; the mean of levels is 2.5 dB below that of powers. */
	const double noise = mean_of(false, bin, speed) + 2.5 + 10.0 * std::log10(0.2316 * frequency / (1.5 * spacing));
	return {frequency, top, top - noise};
}

/**
 * Whether an alarm that sounds may well be heard here, so that less will do. It is due a moment before: whoever
 * comes in time is measured as strictly as ever.
 */
bool alarm_detector::is_expected(alarm_kind kind, const alarm_tone &found) const
{
	const alarm_tone &known = now[kind].tone;
	const double late = static_cast<double>(hop - heard_hops[kind]) / cycles[kind] - 1.0;
	return now[kind].is_sounding && std::abs(known.frequency - found.frequency) < spacing &&
	       std::abs(known.level - found.level) < 6.0 && late > 0.01 && late < 0.1;
}

/** An alarm is one that comes twice, a cycle apart and with silence between. */
void alarm_detector::recognise(alarm_kind kind, size_t bin, const rhythm &speed, const alarm_tone &found)
{
	const uint32_t last = recognised[kind][bin].hop;
	if (last != 0 && hop - last < static_cast<uint32_t>(speed.beeps.from - speed.beeps.to))
		return;
	bool is_due = false;
	for (size_t near = bin - 1; near <= bin + 1; near++) {
		const recognition &before = recognised[kind][near];
		const uint32_t cycle = hop - before.hop;
		if (before.hop == 0 ||
		    std::abs(cycle * hop_seconds / patterns[kind].cycle_seconds - 1.0) > cycle_tolerance ||
		    std::abs(before.tone.frequency - found.frequency) > 0.5 * spacing ||
		    std::abs(before.tone.level - found.level) > 8.0 ||
		    share_above(found.level - 6.0, bin, {static_cast<int>(cycle), speed.length}, 1) >= 0.2)
			continue;
		is_due = true;
		cycles[kind] = cycle;
	}
	recognised[kind][bin] = {hop, found};
	if (!is_due && !is_expected(kind, found))
		return;
	now[kind] = {true, found};
	heard_hops[kind] = hop;
	ends[kind] = hop - static_cast<uint32_t>(speed.end) + static_cast<uint32_t>(1.9 * cycles[kind]);
}
