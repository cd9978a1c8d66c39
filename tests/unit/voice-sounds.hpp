/*
 * Sounds for the tests of the voice plug-in: something like speech, and what is not.
 *
 * All peak at full scale or below, and are the same on every run.
 */
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <numbers>
#include <random>
#include <vector>

using samples = std::vector<float>;

inline samples silence(double seconds, uint32_t rate = 16000)
{
	return samples(static_cast<size_t>(std::lround(seconds * rate)));
}

/** `value(seconds)` at every sample. */
template <typename Function>
samples make_sound(double seconds, uint32_t rate, const Function &value)
{
	samples made = silence(seconds, rate);
	for (size_t i = 0; i < made.size(); i++)
		made[i] = static_cast<float>(value(static_cast<double>(i) / rate));
	return made;
}

inline samples scaled(samples sound, double factor)
{
	for (float &sample : sound)
		sample *= static_cast<float>(factor);
	return sound;
}

inline samples operator+(samples a, const samples &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

/** Both at once. */
inline samples mixed(samples a, const samples &b)
{
	for (size_t i = 0; i < std::min(a.size(), b.size()); i++)
		a[i] += b[i];
	return a;
}

inline double rms(const samples &sound)
{
	double sum = 0.0;
	for (const float sample : sound)
		sum += static_cast<double>(sample) * sample;
	return std::sqrt(sum / static_cast<double>(sound.size()));
}

/** All harmonics up to 3.6 kHz with two formants, at a phase that counts periods. */
inline double vowel(double phase, double frequency)
{
	double value = 0.0;
	for (int k = 1; k * frequency < 3600.0; k++) {
		const double f = k * frequency;
		const double gain = 1.0 / k + std::exp(-std::pow((f - 600.0) / 150.0, 2.0)) +
				    0.5 * std::exp(-std::pow((f - 1700.0) / 200.0, 2.0));
		value += gain * std::sin(2.0 * std::numbers::pi * k * phase);
	}
	return 0.05 * value;
}

/** A vowel that stays at its pitch. */
inline samples held_vowel(double frequency, double seconds, uint32_t rate = 16000)
{
	return make_sound(seconds, rate, [=](double t) { return vowel(frequency * t, frequency); });
}

/** Four syllables a second, with a pitch that glides between 110 and 155 Hz. */
inline samples syllables(double seconds, uint32_t rate = 16000)
{
	double phase = 0.0;
	return make_sound(seconds, rate, [&phase, rate](double t) {
		const double frequency = 130.0 * std::exp2(0.25 * std::sin(2.0 * std::numbers::pi * 0.9 * t));
		phase += frequency / rate;
		const double loudness = std::max(0.0, std::sin(2.0 * std::numbers::pi * 4.0 * t) + 0.5) / 1.5;
		return loudness * vowel(phase, frequency);
	});
}

inline samples sine(double frequency, double seconds, uint32_t rate = 16000)
{
	return make_sound(seconds, rate,
			  [=](double t) { return 0.5 * std::sin(2.0 * std::numbers::pi * frequency * t); });
}

inline samples chord(std::initializer_list<double> frequencies, double seconds, uint32_t rate = 16000)
{
	samples made = silence(seconds, rate);
	for (const double frequency : frequencies)
		made = mixed(std::move(made), scaled(held_vowel(frequency, seconds, rate), 0.5));
	return made;
}

/** White, at an RMS of 0.1. */
inline samples noise(double seconds, uint32_t rate = 16000)
{
	std::mt19937 generator{1};
	return make_sound(seconds, rate, [&generator](double) {
		return 0.1 * std::sqrt(12.0) * (static_cast<double>(generator()) / 4294967296.0 - 0.5);
	});
}

/** Noise that swells four times a second, as speech does. */
inline samples swelling_noise(double seconds)
{
	samples made = noise(seconds);
	for (size_t i = 0; i < made.size(); i++)
		made[i] *= static_cast<float>(
			1.0 + 0.9 * std::sin(2.0 * std::numbers::pi * 4.0 * static_cast<double>(i) / 16000.0));
	return made;
}
