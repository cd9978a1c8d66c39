/*
 * Checks of an instance's life: order of the calls, company of other instances, and what is left behind.
 */
#include "check-bench.hpp"

#include <algorithm>
#include <filesystem>

#include <malloc.h>

#include "sanitizer.hpp"
#include "source-settings.hpp"

#ifdef HS_HAS_SANITIZER
#include <sanitizer/allocator_interface.h>
#endif

namespace hs_tool {

namespace {

#ifdef HS_HAS_SANITIZER
/* Then the destructors that a library registers stay registered once it has gone. */
constexpr size_t least_leak = 128;
#else
constexpr size_t least_leak = 16;
#endif

constexpr double scene_seconds = 8.0;

/* Calls by their letters: i init, a activate, p process, d deactivate, u deinit, s settings, e events. */
constexpr const char *orders[] = {
	"",	    "p",      "a",	 "d",	      "u",     "e",	 "s",	    "ap",
	"ip",	    "iu",     "iap",	 "ipdu",      "iadu",  "iapdu",	 "iapu",    "iapud",
	"iapduu",   "iapddu", "ii",	 "iiaapp",    "iaiap", "iapiap", "iapuiap", "iapdiap",
	"iapduiap", "iapdap", "iaudiap", "pppiapppd", "ude",   "iapdue", "udap",    "sisapspdus",
};
constexpr char letters[] = "iapdusep";
constexpr size_t n_random_calls = 400;

const char *name_of(char letter)
{
	switch (letter) {
	case 'i':
		return "init";
	case 'a':
		return "activate";
	case 'p':
		return "process";
	case 'd':
		return "deactivate";
	case 'u':
		return "deinit";
	case 's':
		return "settings";
	default:
		return "events";
	}
}

std::string names_of(const std::string &order)
{
	std::string names;
	for (const char letter : order)
		names += (names.empty() ? "" : ", ") + std::string(name_of(letter));
	return names;
}

void call(host *instance, char letter, const spa_audio_info_raw &format, signal_source *noise)
{
	switch (letter) {
	case 'i':
		instance->init(stream_info(format, "AudioDevice0Input0.Unprocessed"));
		return;
	case 'a':
		instance->activate();
		return;
	case 'p':
		hear(instance, noise, format, 0.1);
		return;
	case 'd':
		instance->deactivate();
		return;
	case 'u':
		instance->deinit();
		return;
	case 's':
		for (const setting &s : instance->settings()) {
			if (s.type != "array" && s.type != "struct")
				hs_setting_hand_over(instance->interface(), s.title.c_str(), s.value.c_str(),
						     s.type.c_str());
		}
		return;
	default:
		instance->handle_events(true);
	}
}

/** After all that happened to it the instance must still hear. */
void still_hears(host *instance, const spa_audio_info_raw &format, const std::string &after, report *found)
{
	found->begin("starting afresh after " + after);
	if (instance->is_active())
		instance->deactivate();
	instance->deinit();
	if (!start(instance, format))
		found->fail("It does not start any more after " + after + ".");
	signal_source noise(signal_source::NOISE, format);
	hear(instance, &noise, format, 0.1);
	instance->handle_events(true);
	stop(instance);
}

void check_order(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	signal_source noise(signal_source::NOISE, format);
	for (const std::string order : orders) {
		found->begin("the calls " + names_of(order) + ", and the end");
		const auto instance = loaded.make();
		for (const char letter : order)
			call(instance.get(), letter, format, &noise);
	}
	for (const std::string order : orders) {
		const auto instance = loaded.make();
		for (const char letter : order)
			call(instance.get(), letter, format, &noise);
		still_hears(instance.get(), format, "the calls " + (order.empty() ? "none" : names_of(order)), found);
	}

	const auto instance = loaded.make();
	std::string last;
	uint32_t state = 1;
	for (size_t i = 0; i < n_random_calls; ++i) {
		state = state * 1664525U + 1013904223U;
		last += letters[(state >> 16) % (sizeof(letters) - 1)];
		last.erase(0, last.size() > 12 ? 1 : 0);
		found->begin("the last of these calls: " + names_of(last));
		call(instance.get(), last.back(), format, &noise);
	}
	still_hears(instance.get(), format, "many calls without order", found);
}

/** What a new instance tells of the scene. */
std::vector<std::string> tell(const bench &loaded, const spa_audio_info_raw &format, uint32_t seed)
{
	recorder record;
	const auto instance = loaded.make(&record);
	start(instance.get(), format);
	instance->handle_events(true);
	signal_source scene(signal_source::SCENE, format, seed);
	hear(instance.get(), &scene, format, scene_seconds, &record);
	stop(instance.get());
	return record.lines;
}

std::string first_difference(const std::vector<std::string> &a, const std::vector<std::string> &b)
{
	for (size_t i = 0; i < a.size() || i < b.size(); ++i) {
		const std::string left = i < a.size() ? a[i] : "nothing";
		const std::string right = i < b.size() ? b[i] : "nothing";
		if (left != right)
			return "\"" + left + "\" became \"" + right + "\"";
	}
	return "";
}

void check_repeat(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	found->begin("hearing a scene for the first time");
	const std::vector<std::string> first = tell(loaded, format, 1);
	found->begin("hearing the same scene again");
	const std::vector<std::string> second = tell(loaded, format, 1);
	if (first != second)
		found->fail("A second instance tells something else of the same sound (blocks heard, event, value): " +
			    first_difference(first, second) + ".");

	found->begin("hearing the scene twice with one instance");
	recorder record;
	const auto instance = loaded.make(&record);
	for (int round = 0; round < 2; ++round) {
		record.lines.clear();
		record.n_blocks = 0;
		start(instance.get(), format);
		instance->handle_events(true);
		signal_source scene(signal_source::SCENE, format, 1);
		hear(instance.get(), &scene, format, scene_seconds, &record);
		stop(instance.get());
	}
	if (record.lines != first)
		found->warn("After deinit and init it tells something else of the same sound: " +
			    first_difference(first, record.lines) + ".");
	found->note(std::to_string(first.size()) + " values told");
}

void check_instances(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	found->begin("hearing two scenes one after the other");
	const std::vector<std::string> alone[] = {tell(loaded, format, 1), tell(loaded, format, 7)};

	found->begin("hearing two scenes at a time, with two instances in turn");
	recorder records[2];
	const std::unique_ptr<host> instances[] = {loaded.make(&records[0]), loaded.make(&records[1])};
	signal_source scenes[] = {{signal_source::SCENE, format, 1}, {signal_source::SCENE, format, 7}};
	for (const auto &instance : instances) {
		start(instance.get(), format);
		instance->handle_events(true);
	}
	for (int block = 0; block < static_cast<int>(scene_seconds * 50); ++block) {
		for (size_t i = 0; i < 2; ++i)
			hear(instances[i].get(), &scenes[i], format, 0.02, &records[i]);
	}
	for (size_t i = 0; i < 2; ++i) {
		stop(instances[i].get());
		if (records[i].lines != alone[i])
			found->fail(
				"Beside another instance it tells something else of the same sound (blocks heard, event, value): " +
				first_difference(alone[i], records[i].lines) + ".");
	}
}

/** What the process holds. */
struct holdings {
	size_t memory;
	size_t descriptors;
	size_t threads;
};

size_t count_entries(const char *folder)
{
	size_t n = 0;
	std::error_code error;
	for (auto entry = std::filesystem::directory_iterator(folder, error);
	     entry != std::filesystem::directory_iterator(); entry.increment(error))
		++n;
	return n;
}

holdings take_stock()
{
#ifdef HS_HAS_SANITIZER
	const size_t memory = __sanitizer_get_current_allocated_bytes();
#else
	const struct mallinfo2 info = mallinfo2();
	const size_t memory = info.uordblks + info.hblkhd;
#endif
	return {memory, count_entries("/proc/self/fd"), count_entries("/proc/self/task")};
}

void load_once(const subject &plugin, const spa_audio_info_raw &format)
{
	const bench loaded(plugin);
	recorder record;
	const auto instance = loaded.make(&record);
	start(instance.get(), format);
	signal_source noise(signal_source::NOISE, format);
	hear(instance.get(), &noise, format, 0.1, &record);
	stop(instance.get());
}

struct resource {
	size_t holdings::*amount;
	/** What a load leaves behind at least, for it to be a leak. */
	size_t least;
	const char *name;
};

constexpr resource resources[] = {
	{&holdings::memory, least_leak, "bytes of memory"},
	{&holdings::descriptors, 1, "file descriptors"},
	{&holdings::threads, 1, "threads"},
};

/** Loads the plug-in that many times more, and tells what the process holds then. */
holdings load_and_take_stock(const subject &plugin, const spa_audio_info_raw &format, int n_loads, int *n_loaded,
			     report *found)
{
	for (int i = 0; i < n_loads; ++i) {
		found->begin("loading it for the " + std::to_string(++*n_loaded) + "th time");
		load_once(plugin, format);
	}
	return take_stock();
}

void check_leaks(const subject &plugin, report *found)
{
	/* What happens but once, be it late, is no leak; and the allocator keeps some of what it is given back. */
	constexpr int n_first = 20;
	constexpr int n_loads = 40;
	constexpr int n_rounds = 2;
	constexpr int n_rounds_in_doubt = 8;

	const spa_audio_info_raw format = bench(plugin).usual_format();
	int n_loaded = 0;
	std::vector<holdings> stock = {load_and_take_stock(plugin, format, n_first, &n_loaded, found)};
	const auto is_growing = [&stock](const resource &r) {
		for (size_t i = 1; i < stock.size(); ++i) {
			if (stock[i].*r.amount < stock[i - 1].*r.amount + r.least * n_loads)
				return false;
		}
		return true;
	};
	const auto is_in_doubt = [&is_growing] {
		return std::any_of(std::begin(resources), std::end(resources), is_growing);
	};
	for (int round = 0; round < n_rounds || (is_in_doubt() && round < n_rounds_in_doubt); ++round)
		stock.push_back(load_and_take_stock(plugin, format, n_loads, &n_loaded, found));

	for (const resource &r : resources) {
		const size_t left = stock.back().*r.amount - stock.front().*r.amount;
		if (is_growing(r))
			found->fail("Each load leaves " +
				    std::to_string(left / static_cast<size_t>(n_loaded - n_first)) + " " + r.name +
				    " behind.");
	}
	found->note(std::to_string(n_loaded) + " loads");
}

constexpr check_case checks[] = {
	{"order", "bears init, activate, process, deactivate and deinit in any order", check_order},
	{"repeat", "tells the same of the same sound", check_repeat},
	{"instances", "hears with two instances in turn what it hears with one", check_instances},
	{"leaks", "leaves neither memory nor descriptors behind", check_leaks},
};

} // namespace

std::span<const check_case> life_checks()
{
	return checks;
}

} // namespace hs_tool
