/*
 * What the checks work with: instances of the plug-in, signals for them, and a record of what they say.
 */
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "audio-buffer.hpp"
#include "check.hpp"
#include "format.hpp"
#include "host.hpp"

namespace hs_tool {

/** All that was told, with what was heard until then. */
class recorder : public listener
{
public:
	void on_event(const hs_event &event) override;

	/** "12 Level -20.5": blocks heard, title, value. */
	std::vector<std::string> lines;
	size_t n_blocks = 0;
};

/** The loaded plug-in and its configuration. */
class bench
{
public:
	explicit bench(const subject &checked);

	/** A new instance with described events and the configuration's defaults. `to` may be null. */
	std::unique_ptr<host> make(listener *to = nullptr) const;

	/** The first of the usual formats that the plug-in takes, its configuration's in front. Throws a failure. */
	spa_audio_info_raw usual_format() const;

	/** The configuration's format with what it leaves open. */
	spa_audio_info_raw format(uint32_t rate, uint32_t channels) const;

	library plugin;
	configuration conf;
};

/** Makes the instance hear that format; false where it refuses. */
bool start(host *instance, const spa_audio_info_raw &format);
void stop(host *instance);

/** One kind of sound; it goes on from call to call. */
class signal_source
{
public:
	enum kind {
		SILENCE,
		/** A square wave of full scale. */
		FULL_SCALE,
		NOISE,
		/** Noise that rises and falls, with pauses. */
		SCENE,
		DENORMAL,
		NOT_A_NUMBER,
		INFINITE,
	};

	signal_source(kind sound, const spa_audio_info_raw &format, uint32_t seed = 1);

	/** The next frames, interleaved; valid until the next call. */
	const std::vector<float> &next(size_t n_frames);

private:
	float sample();

	kind sound;
	spa_audio_info_raw format;
	uint32_t state;
	uint64_t frame = 0;
	std::vector<float> samples;
};

/** The plug-in hears the signal for that time, in blocks of a fiftieth of a second. */
void hear(host *instance, signal_source *signal, const spa_audio_info_raw &format, double seconds,
	  recorder *record = nullptr);

/** Reports the error that the plug-in has logged while it heard `what`, if any. */
void check_process_error(host *instance, const std::string &what, report *found);

} // namespace hs_tool
