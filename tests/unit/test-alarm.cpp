/* SPDX-License-Identifier: MIT */
/*
 * The alarm plug-in: its detector, and what the daemon has of it.
 */
#include "alarm-detector.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>
#include <memory>
#include <numbers>
#include <ostream>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <spa/support/plugin.h>

#include "counting-new.hpp"
#include "sdk-host.hpp"

namespace {

using samples = std::vector<float>;

struct beep {
	double on, off;
};
using rhythm = std::vector<beep>;

const rhythm smoke{{0.5, 0.5}, {0.5, 0.5}, {0.5, 1.5}};
const rhythm carbon_monoxide{{0.1, 0.1}, {0.1, 0.1}, {0.1, 0.1}, {0.1, 5.0}};

constexpr float amplitude = 0.1F;
/** The RMS of a sine of that amplitude. */
constexpr double level = -23.0;

double cycle_of(const rhythm &beeps)
{
	double sum = 0.0;
	for (const beep &each : beeps)
		sum += each.on + each.off;
	return sum;
}

rhythm stretched(const rhythm &beeps, double by)
{
	rhythm longer;
	for (const beep &each : beeps)
		longer.push_back({each.on * by, each.off * by});
	return longer;
}

struct sound {
	double frequency = 3100.0;
	bool is_square = false;
	uint32_t rate = 16000;

	/** At a time, as far as its harmonics go below half the rate and 8 kHz. */
	float at(double time) const
	{
		double sum = 0.0;
		for (int k = 1; k == 1 || (is_square && k * frequency < 0.48 * std::min(rate, 16000U)); k += 2)
			sum += std::sin(2.0 * std::numbers::pi * k * frequency * time) / k;
		return amplitude * static_cast<float>(is_square ? sum * 4.0 / std::numbers::pi : sum);
	}
};

constexpr sound high{};
constexpr sound low{.frequency = 520.0, .is_square = true};

void add_silence(samples &to, double seconds, uint32_t rate)
{
	to.resize(to.size() + static_cast<size_t>(std::lround(seconds * rate)));
}

/** Beeps that often, with silence after the last one of `tail` seconds. */
samples beeps(const rhythm &in, double cycles, const sound &of = high, double tail = 0.0)
{
	samples made;
	double at = 0.0;
	for (size_t i = 0; i < static_cast<size_t>(std::lround(cycles * static_cast<double>(in.size()))); i++) {
		const beep &each = in[i % in.size()];
		const double begin = at;
		for (; static_cast<double>(made.size()) < (begin + each.on) * of.rate;)
			made.push_back(of.at(static_cast<double>(made.size()) / of.rate));
		at += each.on + each.off;
		made.resize(static_cast<size_t>(std::lround(at * of.rate)));
	}
	add_silence(made, tail, of.rate);
	return made;
}

samples noise(size_t n, double rms, unsigned seed)
{
	std::mt19937 generator{seed};
	std::normal_distribution<float> distribution{0.0F, static_cast<float>(rms)};
	samples made(n);
	std::generate(made.begin(), made.end(), [&] { return distribution(generator); });
	return made;
}

/** Of white noise at 16 kHz of which the third of an octave around a tone has that much less than the tone. */
double noise_rms(double frequency, double signal_to_noise)
{
	const double share = 0.2316 * frequency / 8000.0;
	return amplitude / std::numbers::sqrt2 * std::pow(10.0, -signal_to_noise / 20.0) / std::sqrt(share);
}

samples sum(samples a, const samples &b)
{
	for (size_t i = 0; i < a.size(); i++)
		a[i] += b[i];
	return a;
}

/** A change of a state, and the tone with it. */
struct change {
	alarm_kind kind;
	bool is_sounding;
	double time;
	alarm_tone tone;

	bool operator==(const change &other) const
	{
		return kind == other.kind && is_sounding == other.is_sounding && time == other.time &&
		       tone.frequency == other.tone.frequency && tone.level == other.tone.level &&
		       tone.signal_to_noise == other.tone.signal_to_noise;
	}
};

void PrintTo(const change &told, std::ostream *out)
{
	*out << (told.kind == ALARM_SMOKE ? "smoke " : "carbon monoxide ") << told.is_sounding << " at " << told.time
	     << " s, " << told.tone.frequency << " Hz, " << told.tone.level << " dBFS, " << told.tone.signal_to_noise
	     << " dB";
}

/** Hears one signal for each channel; the changes, by the end of their hop. */
std::vector<change> hear(const std::vector<samples> &signals, uint32_t rate = 16000, double minimum_level = -70.0)
{
	alarm_detector detector{rate, signals.size()};
	std::vector<change> changes;
	bool was[2] = {};
	std::vector<std::span<const float>> heard(signals.size());
	const size_t n = detector.hop_frames();
	for (size_t frame = 0; frame + n <= signals[0].size(); frame += n) {
		for (size_t c = 0; c < signals.size(); c++)
			heard[c] = std::span{signals[c]}.subspan(frame, n);
		detector.hear(heard, minimum_level);
		for (const alarm_kind kind : {ALARM_SMOKE, ALARM_CARBON_MONOXIDE}) {
			const alarm_state &now = detector.state(kind);
			if (now.is_sounding != was[kind])
				changes.push_back(
					{kind, now.is_sounding, static_cast<double>(frame + n) / rate, now.tone});
			was[kind] = now.is_sounding;
		}
	}
	return changes;
}

/** Expects one alarm, from within two cycles of its start to within two cycles of its end. */
void expect_alarm(const std::vector<change> &changes, alarm_kind kind, double start, double cycle, double end)
{
	ASSERT_EQ(changes.size(), 2U) << testing::PrintToString(changes);
	EXPECT_EQ(changes[0].kind, kind);
	EXPECT_TRUE(changes[0].is_sounding);
	EXPECT_GE(changes[0].time, start + cycle);
	EXPECT_LE(changes[0].time, start + 2.0 * cycle);
	EXPECT_EQ(changes[1].kind, kind);
	EXPECT_FALSE(changes[1].is_sounding);
	EXPECT_GE(changes[1].time, end + cycle);
	EXPECT_LE(changes[1].time, end + 2.0 * cycle);
}

/** Four cycles of an alarm in silence, heard from its first sample on. */
void expect_heard(alarm_kind kind, const rhythm &in, const sound &of)
{
	const double cycle = cycle_of(in);
	const samples signal = beeps(in, 4.0, of, 2.0 * cycle);
	SCOPED_TRACE(testing::Message() << of.frequency << " Hz, " << of.rate << " Hz rate, cycle " << cycle);
	expect_alarm(hear({signal}, of.rate), kind, 0.0, cycle, 4.0 * cycle - in.back().off);
}

const hear_sense::factory &factory()
{
	const spa_handle_factory *found = nullptr;
	uint32_t index = 0;
	EXPECT_EQ(spa_handle_factory_enum(&found, &index), 1);
	return static_cast<const hear_sense::factory &>(*found);
}

/** The plug-in itself, on one channel. */
class plugin_host : public sdk_host
{
public:
	plugin_host() : sdk_host{factory()}
	{
	}

	int start(uint32_t rate)
	{
		const int is_open = init();
		stream.info.rate = rate;
		deinit();
		return is_open < 0 ? is_open : interface->funcs->init(interface->data, &stream, nullptr);
	}

	void hear(const samples &signal, size_t buffer)
	{
		for (size_t frame = 0; frame < signal.size(); frame += buffer) {
			const auto begin = signal.begin() + static_cast<std::ptrdiff_t>(frame);
			const size_t n = std::min(buffer, signal.size() - frame);
			process(planar<float>({samples(begin, begin + static_cast<std::ptrdiff_t>(n))}));
		}
	}
};

} // namespace

/*
 * Alarms.
 */

TEST(alarm, hears_a_smoke_alarm)
{
	expect_heard(ALARM_SMOKE, smoke, high);
	expect_heard(ALARM_SMOKE, smoke, low);
}

TEST(alarm, hears_a_carbon_monoxide_alarm)
{
	expect_heard(ALARM_CARBON_MONOXIDE, carbon_monoxide, high);
	expect_heard(ALARM_CARBON_MONOXIDE, carbon_monoxide, low);
}

TEST(alarm, hears_all_frequencies_of_alarms)
{
	for (double frequency = 2800.0; frequency <= 3500.0; frequency += 175.0)
		expect_heard(ALARM_SMOKE, smoke, {.frequency = frequency});
	for (double frequency = 470.0; frequency <= 570.0; frequency += 25.0)
		expect_heard(ALARM_CARBON_MONOXIDE, carbon_monoxide, {.frequency = frequency, .is_square = true});
}

TEST(alarm, does_not_hear_other_frequencies)
{
	for (const double frequency : {300.0, 430.0, 620.0, 1000.0, 2000.0, 2650.0, 3650.0, 5000.0})
		EXPECT_EQ(hear({beeps(smoke, 4.0, {.frequency = frequency})}), std::vector<change>{}) << frequency;
}

TEST(alarm, hears_at_all_rates)
{
	for (const uint32_t rate : {8000U, 11025U, 16000U, 22050U, 44100U, 48000U, 96000U, 192000U}) {
		expect_heard(ALARM_SMOKE, smoke, {.frequency = 3400.0, .rate = rate});
		expect_heard(ALARM_CARBON_MONOXIDE, carbon_monoxide,
			     {.frequency = 520.0, .is_square = true, .rate = rate});
	}
}

TEST(alarm, takes_timing_that_is_a_tenth_off)
{
	for (const double by : {0.9, 0.95, 1.05, 1.1}) {
		expect_heard(ALARM_SMOKE, stretched(smoke, by), high);
		expect_heard(ALARM_SMOKE, stretched(smoke, by), low);
		expect_heard(ALARM_CARBON_MONOXIDE, stretched(carbon_monoxide, by), high);
		expect_heard(ALARM_CARBON_MONOXIDE, stretched(carbon_monoxide, by), low);
	}
}

TEST(alarm, takes_each_time_a_tenth_off)
{
	expect_heard(ALARM_SMOKE, {{0.55, 0.45}, {0.45, 0.55}, {0.55, 1.35}}, high);
	expect_heard(ALARM_SMOKE, {{0.45, 0.45}, {0.45, 0.45}, {0.45, 1.65}}, high);
	expect_heard(ALARM_CARBON_MONOXIDE, {{0.09, 0.11}, {0.11, 0.09}, {0.09, 0.11}, {0.11, 4.5}}, high);
	expect_heard(ALARM_CARBON_MONOXIDE, {{0.11, 0.11}, {0.11, 0.11}, {0.11, 0.11}, {0.11, 4.5}}, high);
	expect_heard(ALARM_CARBON_MONOXIDE, {{0.09, 0.09}, {0.09, 0.09}, {0.09, 0.09}, {0.09, 5.5}}, high);
}

TEST(alarm, hears_an_alarm_that_sounds_already)
{
	samples signal = beeps(smoke, 5.0);
	signal.erase(signal.begin(), signal.begin() + 16000 * 7 / 4);
	const std::vector<change> changes = hear({signal});
	ASSERT_EQ(changes.size(), 1U) << testing::PrintToString(changes);
	EXPECT_EQ(changes[0].kind, ALARM_SMOKE);
	/* Within two cycles of the first whole one. */
	EXPECT_LE(changes[0].time, 2.25 + 8.0);
}

TEST(alarm, stays_up_while_the_alarm_sounds)
{
	const samples signal = beeps(smoke, 30.0);
	const std::vector<change> changes = hear({sum(signal, noise(signal.size(), 0.02, 1))});
	ASSERT_EQ(changes.size(), 1U) << testing::PrintToString(changes);
	EXPECT_TRUE(changes[0].is_sounding);
}

TEST(alarm, hears_a_second_alarm)
{
	samples signal = beeps(smoke, 3.0, high, 8.0);
	const samples second = beeps(carbon_monoxide, 3.0, low);
	signal.insert(signal.end(), second.begin(), second.end());
	const std::vector<change> changes = hear({signal});
	ASSERT_EQ(changes.size(), 3U) << testing::PrintToString(changes);
	EXPECT_EQ(changes[2].kind, ALARM_CARBON_MONOXIDE);
	EXPECT_TRUE(changes[2].is_sounding);
}

TEST(alarm, hears_both_alarms_at_once)
{
	const samples signal = sum(beeps(smoke, 4.0), beeps(carbon_monoxide, 4.0, low));
	const std::vector<change> changes = hear({signal});
	ASSERT_EQ(changes.size(), 2U) << testing::PrintToString(changes);
	EXPECT_TRUE(changes[0].is_sounding);
	EXPECT_TRUE(changes[1].is_sounding);
	EXPECT_NE(changes[0].kind, changes[1].kind);
}

TEST(alarm, tells_the_tone)
{
	for (const double frequency : {2850.0, 3100.0, 3333.0, 3480.0}) {
		const samples signal = beeps(smoke, 3.0, {.frequency = frequency});
		const samples white = noise(signal.size(), noise_rms(frequency, 20.0), 1);
		const std::vector<change> changes = hear({sum(signal, white)});
		ASSERT_EQ(changes.size(), 1U) << testing::PrintToString(changes);
		EXPECT_NEAR(changes[0].tone.frequency, frequency, 5.0);
		EXPECT_NEAR(changes[0].tone.level, level, 1.0);
		EXPECT_NEAR(changes[0].tone.signal_to_noise, 20.0, 4.0);
	}
}

TEST(alarm, tells_nothing_of_the_tone_once_it_is_over)
{
	const std::vector<change> changes = hear({beeps(smoke, 3.0, high, 8.0)});
	ASSERT_EQ(changes.size(), 2U) << testing::PrintToString(changes);
	EXPECT_EQ(changes[1].tone.frequency, 0.0);
	EXPECT_EQ(changes[1].tone.level, alarm_floor_dbfs);
	EXPECT_EQ(changes[1].tone.signal_to_noise, 0.0);
}

TEST(alarm, minimum_level_is_that_of_the_tone)
{
	const samples signal = beeps(smoke, 3.0);
	EXPECT_EQ(hear({signal}, 16000, level - 1.0).size(), 1U);
	EXPECT_EQ(hear({signal}, 16000, level + 1.0).size(), 0U);
}

/*
 * What is no alarm.
 */

TEST(alarm, refuses_timing_that_is_a_quarter_off)
{
	for (const sound &of : {high, low}) {
		for (const double by : {0.75, 1.25}) {
			EXPECT_EQ(hear({beeps(stretched(smoke, by), 6.0, of)}), std::vector<change>{});
			EXPECT_EQ(hear({beeps(stretched(carbon_monoxide, by), 6.0, of)}), std::vector<change>{});
		}
	}
}

TEST(alarm, refuses_beeps_and_pauses_that_are_a_quarter_off)
{
	const std::vector<rhythm> rhythms{
		{{0.625, 0.375}, {0.625, 0.375}, {0.625, 1.375}},
		{{0.375, 0.625}, {0.375, 0.625}, {0.375, 1.625}},
		{{0.5, 0.5}, {0.5, 0.5}, {0.5, 2.2}},
		{{0.1, 0.1}, {0.1, 0.1}, {0.1, 0.1}, {0.1, 3.75}},
		{{0.1, 0.1}, {0.1, 0.1}, {0.1, 0.1}, {0.1, 6.25}},
		{{0.1, 0.15}, {0.1, 0.15}, {0.1, 0.15}, {0.1, 5.0}},
	};
	for (size_t i = 0; i < rhythms.size(); i++)
		EXPECT_EQ(hear({beeps(rhythms[i], 6.0)}), std::vector<change>{}) << i;
}

TEST(alarm, refuses_other_rhythms)
{
	const std::vector<std::pair<std::string, rhythm>> rhythms{
		{"continuous", {{24.0, 0.0}}},
		{"one second on and off", {{1.0, 1.0}}},
		{"half a second on and off", {{0.5, 0.5}}},
		{"a quarter on and off", {{0.25, 0.25}}},
		{"two of three beeps", {{0.5, 0.5}, {0.5, 1.5}}},
		{"two of three beeps in four seconds", {{0.5, 0.5}, {0.5, 2.5}}},
		{"four of three beeps", {{0.5, 0.5}, {0.5, 0.5}, {0.5, 0.5}, {0.5, 1.5}}},
		{"three of four beeps", {{0.1, 0.1}, {0.1, 0.1}, {0.1, 5.2}}},
		{"five of four beeps", {{0.1, 0.1}, {0.1, 0.1}, {0.1, 0.1}, {0.1, 0.1}, {0.1, 4.8}}},
		{"alarm clock", {{0.1, 0.1}, {0.1, 0.1}, {0.1, 0.1}, {0.1, 0.5}}},
		{"telephone", {{1.0, 4.0}}},
		{"telephone with two rings", {{0.4, 0.2}, {0.4, 2.0}}},
		{"microwave oven", {{1.0, 1.0}, {1.0, 1.0}, {1.0, 12.0}}},
		{"low battery", {{0.1, 20.0}}},
		{"kitchen timer", {{0.06, 0.06}, {0.06, 0.06}, {0.06, 0.06}, {0.06, 0.58}}},
	};
	for (const auto &[name, in] : rhythms) {
		for (const sound &of : {high, low}) {
			EXPECT_EQ(hear({beeps(in, std::ceil(24.0 / cycle_of(in)), of)}), std::vector<change>{}) << name;
		}
	}
}

TEST(alarm, refuses_an_alarm_that_sounds_once)
{
	EXPECT_EQ(hear({beeps(smoke, 1.0, high, 20.0)}), std::vector<change>{});
	EXPECT_EQ(hear({beeps(carbon_monoxide, 1.0, high, 20.0)}), std::vector<change>{});
}

TEST(alarm, refuses_beeps_of_noise)
{
	samples signal = beeps(smoke, 5.0);
	const samples white = noise(signal.size(), 0.1, 1);
	for (size_t i = 0; i < signal.size(); i++)
		signal[i] = signal[i] == 0.0F ? 0.0F : white[i];
	EXPECT_EQ(hear({signal}), std::vector<change>{});
}

TEST(alarm, refuses_another_tone_at_each_beep)
{
	samples signal(16000 * 24);
	for (size_t i = 0; i < signal.size(); i++) {
		const double time = static_cast<double>(i) / 16000.0;
		const double in_cycle = std::fmod(time, 4.0);
		const sound of{.frequency = 2850.0 + 250.0 * std::floor(in_cycle)};
		signal[i] = in_cycle < 3.0 && std::fmod(in_cycle, 1.0) < 0.5 ? of.at(time) : 0.0F;
	}
	EXPECT_EQ(hear({signal}), std::vector<change>{});
}

TEST(alarm, hears_nothing_in_silence_and_noise)
{
	EXPECT_EQ(hear({samples(16000 * 60)}), std::vector<change>{});
	EXPECT_EQ(hear({noise(16000 * 120, 0.1, 1)}), std::vector<change>{});
}

/*
 * Signals as they come.
 */

TEST(alarm, hears_through_noise)
{
	for (const alarm_kind kind : {ALARM_SMOKE, ALARM_CARBON_MONOXIDE}) {
		const rhythm &in = kind == ALARM_SMOKE ? smoke : carbon_monoxide;
		const double cycle = cycle_of(in);
		for (const sound &of : {high, low}) {
			const samples signal = beeps(in, 3.0, of, 2.0 * cycle);
			const samples white = noise(signal.size(), noise_rms(of.frequency, 10.0), 2);
			expect_alarm(hear({sum(signal, white)}), kind, 0.0, cycle, 3.0 * cycle - in.back().off);
		}
	}
}

TEST(alarm, hears_through_clipping)
{
	for (const sound &of : {high, low}) {
		samples signal = beeps(carbon_monoxide, 3.0, of, 11.4);
		signal = sum(signal, noise(signal.size(), 0.02, 3));
		for (float &sample : signal)
			sample = std::clamp(sample * 30.0F, -1.0F, 1.0F);
		expect_alarm(hear({signal}), ALARM_CARBON_MONOXIDE, 0.0, 5.7, 3.0 * 5.7 - 5.0);
	}
}

TEST(alarm, hears_on_any_channel)
{
	const samples signal = beeps(smoke, 3.0, high, 8.0);
	const samples silence(signal.size());
	samples inverse = signal;
	for (float &sample : inverse)
		sample = -sample;
	expect_alarm(hear({signal, silence}), ALARM_SMOKE, 0.0, 4.0, 10.5);
	expect_alarm(hear({silence, signal}), ALARM_SMOKE, 0.0, 4.0, 10.5);
	expect_alarm(hear({signal, signal}), ALARM_SMOKE, 0.0, 4.0, 10.5);
	/* As two microphones half a wave apart hear it. */
	expect_alarm(hear({signal, inverse}), ALARM_SMOKE, 0.0, 4.0, 10.5);
}

TEST(alarm, is_not_spoilt_by_what_is_no_number)
{
	samples signal = beeps(smoke, 3.0, high, 8.0);
	constexpr float no_numbers[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
					-std::numeric_limits<float>::infinity(), std::numeric_limits<float>::max(),
					std::numeric_limits<float>::denorm_min()};
	/* Each some ten times a second. */
	for (size_t i = 0; i < signal.size(); i += 331)
		signal[i] = no_numbers[i / 331 % std::size(no_numbers)] * amplitude;
	std::vector<change> changes = hear({signal});
	for (const change &each : changes)
		EXPECT_TRUE(std::isfinite(each.tone.level) && std::isfinite(each.tone.signal_to_noise));

	/* And once they are over, everything is as if they had not been. */
	samples spoilt(16000 * 10, std::numeric_limits<float>::quiet_NaN());
	std::fill(spoilt.begin(), spoilt.begin() + 16000, std::numeric_limits<float>::max());
	const samples good = beeps(smoke, 3.0, high, 8.0);
	spoilt.insert(spoilt.end(), good.begin(), good.end());
	expect_alarm(hear({spoilt}), ALARM_SMOKE, 10.0, 4.0, 20.5);
}

/*
 * The plug-in.
 */

TEST(alarm_plugin, refuses_rates_that_are_too_low_or_too_high)
{
	plugin_host host;
	EXPECT_EQ(host.start(7999), -EINVAL);
	ASSERT_EQ(host.log.lines.size(), 1U);
	EXPECT_NE(host.log.lines[0].text.find("audio.rate"), std::string::npos) << host.log.lines[0].text;
	EXPECT_EQ(host.start(192001), -EINVAL);
	EXPECT_EQ(host.start(8000), 0);
	EXPECT_EQ(host.start(192000), 0);
}

TEST(alarm_plugin, tells_the_same_whatever_the_buffers)
{
	samples signal = beeps(smoke, 3.0, high, 8.0);
	const samples second = beeps(carbon_monoxide, 3.0, low, 12.0);
	signal.insert(signal.end(), second.begin(), second.end());
	signal = sum(signal, noise(signal.size(), 0.02, 4));

	std::vector<sdk_told> expected;
	for (const size_t buffer : {1U, 64U, 1000U, 4096U}) {
		plugin_host host;
		ASSERT_EQ(host.start(16000), 0);
		host.hear(signal, buffer);
		if (expected.empty())
			expected = host.told;
		EXPECT_EQ(host.told, expected) << buffer;
	}
	/* Each alarm comes and goes, and its tone with it. */
	const auto tells_of = [&](uint32_t index) {
		return std::count_if(expected.begin(), expected.end(),
				     [=](const sdk_told &told) { return told.index == index; });
	};
	EXPECT_EQ(tells_of(0), 2);
	EXPECT_EQ(tells_of(1), 2);
	EXPECT_GE(tells_of(2), 4);
}

TEST(alarm_plugin, is_silent_after_a_pause_of_the_audio)
{
	plugin_host host;
	ASSERT_EQ(host.start(16000), 0);
	host.hear(beeps(smoke, 2.0), 256);
	EXPECT_NE(host.event_text(0).find("true"), std::string::npos) << host.event_text(0);
	host.deactivate();
	EXPECT_EQ(host.event_text(0).find("true"), std::string::npos) << host.event_text(0);
	ASSERT_EQ(host.activate(), 0);
	/* The round before the pause does not count. */
	host.hear(beeps(smoke, 1.0), 256);
	EXPECT_EQ(host.event_text(0).find("true"), std::string::npos) << host.event_text(0);
}

TEST(alarm_plugin, takes_no_memory_while_it_hears)
{
	plugin_host host;
	ASSERT_EQ(host.start(16000), 0);
	const samples signal = beeps(smoke, 3.0, high);
	sdk_buffer buffer = planar<float>({samples(320)});
	host.interface->notify_event = nullptr;
	const size_t before = hs_count_allocations();
	for (size_t frame = 0; frame + 320 <= signal.size(); frame += 320) {
		std::memcpy(buffer.blocks[0].data(), signal.data() + frame, 320 * sizeof(float));
		host.process(buffer);
	}
	EXPECT_EQ(hs_count_allocations(), before);
	EXPECT_NE(host.event_text(0).find("true"), std::string::npos) << host.event_text(0);
}
