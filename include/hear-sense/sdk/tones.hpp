/* SPDX-License-Identifier: MIT */
/*
 * How strong are some tones, now and in the last seconds?
 *
 * A tone_bank follows the levels of neighbouring frequencies, by Goertzel's algorithm, which takes a fraction of the
 * time of a Fourier transform where a few dozen frequencies matter. Each level is kept in a level_history.
 *
 *     hear_sense::tone_bank whistle{rate, n_channels, {.lowest = 1000.0, .highest = 3000.0}};
 *     hear_in_blocks(whistle.hop_frames());
 *     ...
 *     whistle.hear(heard);
 *     whistle.level(7).mean({125, 0}); // that of whistle.frequency(7) in the last 125 hops: a second
 *
 * Units: frequencies in Hz, levels in dBFS (a sine at full scale has -3.01). Memory is taken by constructors only.
 */
#ifndef HEAR_SENSE_SDK_TONES_HPP
#define HEAR_SENSE_SDK_TONES_HPP

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <span>
#include <stdexcept>
#include <vector>

namespace hear_sense {

/** The last values of a level, of which the mean over any time takes no longer than one value. */
class level_history
{
public:
	/** Values counted back from the present: {3, 0} are the last three, {5, 4} is the one before the last four. */
	struct range {
		size_t from, to;
	};

	/** Keeps `size` values, all `floor` at first; what is lower counts as `floor`. In dB, up to 1000 above it. */
	explicit level_history(size_t size, double floor = -120.0) : lowest{floor}, sums(std::bit_ceil(size + 1))
	{
	}

	void add(double level)
	{
		const uint32_t before = sums[now];
		now = (now + 1) & (sums.size() - 1);
		/* Sums from the beginning of time, in hundredths and modulo 2^32: their differences are exact. */
		sums[now] = before + static_cast<uint32_t>(100.0 * std::max(0.0, level - lowest));
	}

	/** Over at least one value, and none older than those that are kept. */
	double mean(range over) const
	{
		return mean({&over, 1});
	}

	/** Over several ranges together. */
	double mean(std::span<const range> all) const
	{
		uint32_t sum = 0;
		size_t n = 0;
		for (const range &one : all) {
			sum += sum_at(one.to) - sum_at(one.from);
			n += one.from - one.to;
		}
		return lowest + sum / (100.0 * static_cast<double>(n));
	}

	/** The share of a range that is above a level; against noise, each value is the mean of `smoothing`. */
	double share_above(double level, range over, size_t smoothing = 1) const
	{
		const double threshold = 100.0 * static_cast<double>(smoothing) * (level - lowest);
		size_t n = 0, n_above = 0;
		for (size_t to = over.to; to + smoothing <= over.from; to++, n++)
			n_above += sum_at(to) - sum_at(to + smoothing) > threshold;
		return n > 0 ? static_cast<double>(n_above) / static_cast<double>(n) : 0.0;
	}

private:
	uint32_t sum_at(size_t ago) const
	{
		return sums[(now - ago) & (sums.size() - 1)];
	}

	double lowest;
	/** A ring of a power of two. */
	std::vector<uint32_t> sums;
	size_t now = 0;
};

struct tone_bank_info {
	double lowest;
	double highest;
	/**
	 * From one value of a level to the next. Each is that of the last four hops, and tones are 1 / (4 hops) apart:
	 * 31 Hz where a hop is 8 ms.
	 */
	double hop_seconds = 0.008;
	/** For how long values are kept. */
	double kept_seconds = 8.0;
};

class tone_bank
{
public:
	/** Throws std::invalid_argument for a rate that is not a little more than twice the highest frequency. */
	tone_bank(uint32_t rate, size_t n_channels, const tone_bank_info &info)
	    : n_hop_frames(static_cast<size_t>(std::lround(rate * info.hop_seconds))), n_heard_channels{n_channels},
	      clean(n_hop_frames)
	{
		if (n_hop_frames == 0 || n_channels == 0 || info.lowest > info.highest)
			throw std::invalid_argument("the tones have no hop, no channels or no frequencies");
		const auto window = static_cast<double>(n_hops * n_hop_frames);
		spacing = rate / window;
		/* With a neighbour more on each side: three make one with a window. */
		first = std::max(1.0, std::floor(info.lowest / spacing)) - 1.0;
		const double last = std::ceil(info.highest / spacing) + 1.0;
		if (2.0 * last * spacing >= rate)
			throw std::invalid_argument("the rate is too low for these tones");
		const size_t n_bins = static_cast<size_t>(last - first) + 1;
		lanes.resize((n_bins + lane_size - 1) / lane_size);
		turns.resize(n_bins);
		for (size_t bin = 0; bin < n_bins; bin++) {
			const double angle = 2.0 * std::numbers::pi * (first + static_cast<double>(bin)) / window;
			lanes[bin / lane_size][bin % lane_size] = static_cast<float>(2.0 * std::cos(angle));
			turns[bin] = std::polar(1.0F, static_cast<float>(angle));
		}
		hops.resize(n_channels * n_hops * n_bins);
		windows.resize(n_bins);
		powers.resize(n_bins);
		const double hop_seconds = static_cast<double>(n_hop_frames) / rate;
		levels.assign(n_bins - 2,
			      level_history{static_cast<size_t>(std::ceil(info.kept_seconds / hop_seconds))});
	}

	/** What hear() takes at a time. */
	size_t hop_frames() const
	{
		return n_hop_frames;
	}

	size_t size() const
	{
		return levels.size();
	}

	/** From one to the next. */
	double frequency_step() const
	{
		return spacing;
	}

	double frequency(size_t tone) const
	{
		return (first + 1.0 + static_cast<double>(tone)) * spacing;
	}

	/** Of all channels, the mean of their powers. */
	const level_history &level(size_t tone) const
	{
		return levels[tone];
	}

	/** Hears hop_frames() samples of each channel; whatever they are does not matter longer than four hops. */
	void hear(std::span<const std::span<const float>> heard)
	{
		hop = (hop + 1) % n_hops;
		std::fill(powers.begin(), powers.end(), 0.0);
		for (size_t channel = 0; channel < n_heard_channels; channel++) {
			/* What is no number would spoil the sums; what is tiny takes long to calculate with. */
			const std::span<const float> samples = heard[channel].first(n_hop_frames);
			std::transform(samples.begin(), samples.end(), clean.begin(), [](float sample) {
				const bool is_usual = std::isfinite(sample) && std::abs(sample) > 1e-10F;
				return is_usual ? std::clamp(sample, -16.0F, 16.0F) : 0.0F;
			});
			for (size_t i = 0; i < lanes.size(); i++)
				transform(i, hop_of(channel, hop));
			add_powers(channel);
		}
		/* The RMS of a sine, and the mean of the channels. */
		const double scale = 2.0 * static_cast<double>(n_hop_frames * n_hop_frames * n_heard_channels);
		for (size_t tone = 0; tone < levels.size(); tone++)
			levels[tone].add(10.0 * std::log10(powers[tone + 1] / scale));
	}

private:
	using complex = std::complex<float>;
	static constexpr size_t n_hops = 4;
	/** Bins that are calculated at once. */
	static constexpr size_t lane_size = 16;
	using lane = std::array<float, lane_size>;

	complex *hop_of(size_t channel, size_t index)
	{
		return hops.data() + (channel * n_hops + index) * turns.size();
	}

	/** Goertzel's recurrence. */
	void transform(size_t index, complex *to)
	{
		const lane coefficients = lanes[index];
		lane last{}, before{};
		for (const float sample : clean) {
			for (size_t i = 0; i < lane_size; i++) {
				const float next = sample + coefficients[i] * last[i] - before[i];
				before[i] = last[i];
				last[i] = next;
			}
		}
		for (size_t i = 0; i < lane_size && index * lane_size + i < turns.size(); i++)
			to[index * lane_size + i] = turns[index * lane_size + i] * last[i] - before[i];
	}

	/** Adds the last hops up to a window, which neighbouring bins make a raised cosine. */
	void add_powers(size_t channel)
	{
		constexpr std::array<complex, n_hops> quarters{complex{1, 0}, complex{0, -1}, complex{-1, 0},
							       complex{0, 1}};
		std::fill(windows.begin(), windows.end(), complex{});
		for (size_t i = 1; i <= n_hops; i++) {
			const complex *one = hop_of(channel, (hop + i) % n_hops);
			for (size_t bin = 0; bin < windows.size(); bin++)
				windows[bin] += quarters[(static_cast<size_t>(first) + bin) * i % n_hops] * one[bin];
		}
		for (size_t bin = 1; bin + 1 < windows.size(); bin++)
			powers[bin] += std::norm(0.5F * windows[bin] - 0.25F * (windows[bin - 1] + windows[bin + 1]));
	}

	size_t n_hop_frames, n_heard_channels;
	double spacing = 0.0;
	/** The lowest bin, in steps of `spacing`. */
	double first = 0.0;
	std::vector<lane> lanes;
	std::vector<complex> turns;
	/** Samples of one channel. */
	std::vector<float> clean;
	/** For each channel the bins of the last hops, `hop` the newest. */
	std::vector<complex> hops;
	size_t hop = 0;
	std::vector<complex> windows;
	std::vector<double> powers;
	std::vector<level_history> levels;
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_TONES_HPP */
