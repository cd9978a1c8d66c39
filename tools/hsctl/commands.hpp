/*
 * The sub-commands of hsctl. Each returns when it is done and throws a failure where it cannot be.
 */
#pragma once

#include <string>
#include <vector>

#include "output.hpp"

namespace CLI {
class App;
}

namespace hs_ctl {

struct options {
	/** "short", "pretty" or empty. */
	std::string json;
	bool of_user = false;
	bool with_private = false;
	bool all = false;
	bool batch = false;
	/** Frames of `top`; 0 for no end. */
	unsigned frames = 0;
	double delay = 1;
	/** What to list, or to indicate. */
	std::string what;
	std::string plugin;
	/** Title of a setting or event. */
	std::string title;
	std::string value;
	std::string chain;
	std::vector<std::string> patterns;
	/** The command line up to the word to complete. */
	std::vector<std::string> words;
};

void show_status(const options &parsed, const output &out);
void list(const options &parsed, const output &out);
void show(const options &parsed, const output &out);
void get(const options &parsed, const output &out);
void set(const options &parsed, const output &out);
/** Writes the setting "Enable" of the plug-in, as `enabled`. */
void enable(const options &parsed, const output &out, bool enabled);
void trigger(const options &parsed);
void indicate(const options &parsed);
void monitor(const options &parsed, const output &out);
void top(const options &parsed, const output &out);
/** Prints what may stand for the last of `words`; nothing where the daemon cannot be asked. */
void complete(const options &parsed, const CLI::App &app);

} // namespace hs_ctl
