/*
 * Checks of the hearing: formats, buffers, sounds, and the time that it takes.
 */
#include "check-bench.hpp"
#include "check-description.hpp"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>

#include <sys/resource.h>

#include "failure.hpp"

namespace hs_tool {

namespace {

constexpr uint32_t rates[] = {8000, 11025, 16000, 22050, 24000, 32000, 44100, 48000, 88200, 96000, 176400, 192000};
constexpr uint32_t max_channels = 8;

double cpu_seconds()
{
	timespec now{};
	clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
	return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::string join(const std::set<std::string> &titles)
{
	std::string all;
	for (const std::string &title : titles)
		all += (all.empty() ? "" : ", ") + title;
	return all;
}

/** Whether the instance takes the format; if so, it hears a little. */
bool try_format(host *instance, const spa_audio_info_raw &format, report *found)
{
	found->begin("init with " + describe(format));
	if (instance->init(stream_info(format, "AudioDevice0Input0.Unprocessed")) < 0)
		return false;
	found->begin("hearing " + describe(format));
	if (instance->activate() >= 0) {
		signal_source noise(signal_source::NOISE, format);
		hear(instance, &noise, format, 0.2);
		check_process_error(instance, describe(format), found);
		if (!non_finite_events(*instance).empty())
			found->fail("With " + describe(format) + " an event is no finite number.");
		instance->deactivate();
	}
	instance->deinit();
	return true;
}

/** Formats that no stream has. */
void refuse_nonsense(host *instance, const spa_audio_info_raw &usual, report *found)
{
	std::vector<std::pair<std::string, spa_audio_info_raw>> nonsense(4, {"", usual});
	nonsense[0].first = "a rate of 0";
	nonsense[0].second.rate = 0;
	nonsense[1].first = "no channels";
	nonsense[1].second.channels = 0;
	nonsense[2].first = "an unknown sample format";
	nonsense[2].second.format = SPA_AUDIO_FORMAT_UNKNOWN;
	nonsense[3].first = "65 channels";
	nonsense[3].second.channels = SPA_AUDIO_MAX_CHANNELS + 1;
	for (const auto &[what, format] : nonsense) {
		found->begin("init with " + what);
		if (instance->init(stream_info(format, "AudioDevice0Input0.Unprocessed")) >= 0) {
			found->warn("Its init takes " + what + ".");
			instance->deinit();
		}
	}
}

void check_formats(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw usual = loaded.usual_format();
	const auto instance = loaded.make();
	size_t n_taken = 0;
	for (const uint32_t rate : rates) {
		for (uint32_t channels = 1; channels <= max_channels; ++channels) {
			spa_audio_info_raw format = usual;
			format.rate = rate;
			format.channels = channels;
			std::fill(std::begin(format.position), std::end(format.position), SPA_AUDIO_CHANNEL_UNKNOWN);
			set_usual_positions(&format);
			n_taken += try_format(instance.get(), format, found) ? 1 : 0;
		}
	}
	std::string sample_formats;
	for (const spa_audio_format sample_format : known_sample_formats()) {
		spa_audio_info_raw format = usual;
		format.format = sample_format;
		if (try_format(instance.get(), format, found))
			sample_formats += " " + sample_format_name(sample_format);
	}
	refuse_nonsense(instance.get(), usual, found);
	if (!try_format(instance.get(), usual, found))
		found->fail("After it has refused other formats it does not take " + describe(usual) + " any more.");
	found->note("takes " + std::to_string(n_taken) + " of " + std::to_string(std::size(rates) * max_channels) +
		    " rates and channels, sample formats" + sample_formats);
}

void check_buffers(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	const auto instance = loaded.make();
	if (!start(instance.get(), format))
		throw failure("It does not start.");
	signal_source noise(signal_source::NOISE, format);
	for (const size_t n : {0U, 1U, 2U, 7U, 333U, 1023U, 1024U, 8192U, 65537U, 500000U, 0U, 1U}) {
		found->begin("hearing a buffer of " + std::to_string(n) + " frames");
		audio_buffer buffer(format.format, format.channels, n);
		for (int round = 0; round < 3; ++round) {
			instance->process(buffer.fill(noise.next(n).data(), n));
			if (buffer.was_written())
				found->warn("It writes into the buffer, which is the daemon's.");
			instance->handle_events(false);
		}
		check_process_error(instance.get(), "a buffer of " + std::to_string(n) + " frames", found);
		if (!non_finite_events(*instance).empty())
			found->fail("After a buffer of " + std::to_string(n) + " frames an event is no finite number.");
	}
	stop(instance.get());
}

struct sound {
	const char *name;
	signal_source::kind kind;
	bool is_finite;
};

constexpr sound sounds[] = {
	{"silence", signal_source::SILENCE, true},    {"a square wave of full scale", signal_source::FULL_SCALE, true},
	{"noise", signal_source::NOISE, true},	      {"noise and pauses", signal_source::SCENE, true},
	{"denormals", signal_source::DENORMAL, true}, {"NaN", signal_source::NOT_A_NUMBER, false},
	{"infinity", signal_source::INFINITE, false},
};

/** CPU seconds that it takes to hear a second of the sound. */
double hear_sound(host *instance, const sound &heard, const spa_audio_info_raw &format, report *found)
{
	constexpr int n_seconds = 3;
	found->begin(std::string("hearing ") + heard.name);
	signal_source signal(heard.kind, format);
	double seconds = 0;
	for (int i = 0; i < n_seconds; ++i) {
		const double before = cpu_seconds();
		hear(instance, &signal, format, 1.0);
		seconds += cpu_seconds() - before;
		const std::set<std::string> bad = non_finite_events(*instance);
		if (!bad.empty() && heard.is_finite)
			found->fail(std::string("From ") + heard.name +
				    " it makes values that are no finite numbers: " + join(bad) + ".");
		else if (!bad.empty())
			found->warn(std::string("It passes on what is no number when it hears ") + heard.name + ": " +
				    join(bad) + ".");
	}
	return seconds / n_seconds;
}

void check_sounds(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	std::map<signal_source::kind, double> seconds;
	for (const sound &heard : sounds) {
		const auto instance = loaded.make();
		if (!start(instance.get(), format))
			throw failure("It does not start.");
		seconds[heard.kind] = hear_sound(instance.get(), heard, format, found);
		if (heard.is_finite) {
			check_process_error(instance.get(), heard.name, found);
		} else {
			/* It may complain of what it has heard, but not of what comes after. */
			instance->take_process_error();
			found->begin(std::string("hearing noise after ") + heard.name);
			instance->deactivate();
			if (instance->activate() < 0)
				found->fail(std::string("After ") + heard.name + " it cannot be activated.");
			signal_source noise(signal_source::NOISE, format);
			hear(instance.get(), &noise, format, 4.0);
			check_process_error(instance.get(), std::string("noise after ") + heard.name, found);
			if (!non_finite_events(*instance).empty())
				found->fail(std::string("Even after a new start it does not get over ") + heard.name +
					    ".");
		}
		stop(instance.get());
	}
	/* Denormals make some processors a hundred times slower. */
	const double slow = seconds[signal_source::DENORMAL];
	const double usual = std::max(seconds[signal_source::NOISE], seconds[signal_source::SILENCE]);
	if (slow > 5 * usual && slow > 0.01)
		found->warn("It takes " + std::to_string(static_cast<int>(slow / usual)) +
			    " times as long for denormals as for noise or silence.");
}

/** How often the thread has waited for something. */
long waits()
{
	rusage usage{};
	getrusage(RUSAGE_THREAD, &usage);
	return usage.ru_nvcsw;
}

std::string milliseconds(double seconds)
{
	char text[32];
	std::snprintf(text, sizeof(text), "%.3g ms", seconds * 1000);
	return text;
}

void check_speed(const subject &plugin, report *found)
{
	constexpr int n_seconds = 10;
	constexpr double part_of_core = 0.1;
	constexpr double updates_per_second = 12;

	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	recorder record;
	const auto instance = loaded.make(&record);
	if (!start(instance.get(), format))
		throw failure("It does not start.");

	found->begin("hearing ten seconds of noise");
	signal_source noise(signal_source::NOISE, format);
	const size_t block = format.rate / 50;
	audio_buffer buffer(format.format, format.channels, block);
	double seconds = 0;
	long n_waits = 0;
	for (int i = 0; i < n_seconds * 50; ++i) {
		spa_buffer *filled = buffer.fill(noise.next(block).data(), block);
		const double before = cpu_seconds();
		const long waits_before = waits();
		instance->process(filled);
		instance->handle_events(false);
		seconds += cpu_seconds() - before;
		n_waits += waits() - waits_before;
	}
	check_process_error(instance.get(), "ten seconds of noise", found);
	stop(instance.get());

	const double per_second = seconds / n_seconds;
	found->note(milliseconds(per_second) + " for a second of " + describe(format));
	if (per_second > 1)
		found->fail("It cannot keep pace: a second of audio takes it " + milliseconds(per_second) + ".");
	else if (per_second > part_of_core)
		found->warn("It takes more than a tenth of a processor core: " + milliseconds(per_second) +
			    " for a second of audio.");
	if (n_waits > n_seconds * 25)
		found->warn("Its process waits for something, as a rule; the whole daemon waits with it.");

	std::map<std::string, int> updates;
	for (const std::string &line : record.lines)
		++updates[line.substr(line.find(' ') + 1, line.find(' ', line.find(' ') + 1) - line.find(' ') - 1)];
	for (const auto &[title, n] : updates) {
		if (n > updates_per_second * n_seconds)
			found->warn("It gives the event " + title + " a new value " + std::to_string(n / n_seconds) +
				    " times a second; ten are enough.");
	}
}

constexpr check_case checks[] = {
	{"formats", "takes rates and channels, or refuses them cleanly", check_formats},
	{"buffers", "hears buffers of any size, to their ends and no further", check_buffers},
	{"sounds", "bears silence, full scale, noise, denormals and what is no number", check_sounds},
	{"speed", "keeps pace and does not wait", check_speed},
};

} // namespace

std::span<const check_case> audio_checks()
{
	return checks;
}

} // namespace hs_tool
