/*
 * Checks of a plug-in: what one is, what it finds, and the lists of them.
 *
 * Each runs in a process of its own, so that it may crash, hang and leak.
 */
#pragma once

#include <span>
#include <string>
#include <vector>

#include "installation.hpp"

namespace hs_tool {

enum class verdict {
	ok,
	warning,
	error,
};

/** "ok", "warning" or "error". */
const char *to_text(verdict result);

struct finding {
	verdict level;
	std::string text;
};

/** What a check has found so far. */
class report
{
public:
	/** `doing` has room for what the check is at, for the case that it dies there; borrowed. */
	report(char *doing_text, size_t doing_size);

	/** Tells what is begun now. */
	void begin(const std::string &what);

	/* Each text is kept once; what is more than people read is counted. */
	void note(const std::string &text);
	void warn(const std::string &text);
	void fail(const std::string &text);

	/** With a last line for what was only counted. */
	std::vector<finding> findings() const;

private:
	void add(verdict level, const std::string &text);

	char *doing;
	size_t doing_size;
	std::vector<finding> all;
	size_t n_more = 0;
	verdict worst_of_more = verdict::ok;
};

/** What is checked. */
struct subject {
	plugin_file plugin;
	/** Of the command line; may be empty. */
	std::string conf;
	std::string schemas;
};

struct check_case {
	const char *name;
	/** What a good plug-in does. */
	const char *title;
	/** May throw a failure, which is then an error found. */
	void (*look)(const subject &, report *);
	/** Without it no other check can say anything. */
	bool is_vital = false;
};

/* In the order in which they are done. */
std::span<const check_case> load_checks();
std::span<const check_case> installation_checks();
std::span<const check_case> setting_checks();
std::span<const check_case> event_checks();
std::span<const check_case> life_checks();
std::span<const check_case> audio_checks();

/** What came of a check. */
struct outcome {
	verdict result;
	std::vector<finding> findings;
	double seconds;
	/** What it wrote: the plug-in's log, mostly. */
	std::string log;
	/** Errors and warnings that the plug-in logged, such as "error: out of memory"; each once. */
	std::vector<std::string> complaints;
};

/** Does the check in a process of its own, which is killed after `time_limit` seconds. */
outcome do_apart(const check_case &check, const subject &plugin, double time_limit);

} // namespace hs_tool
