#include "check.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "commands.hpp"
#include "failure.hpp"

namespace hs_tool {

namespace {

using json = nlohmann::ordered_json;

constexpr double usual_time_limit = 60;
/** What people read of a log under each check. */
constexpr size_t max_complaints = 8;

std::vector<check_case> all_checks()
{
	std::vector<check_case> all;
	for (const std::span<const check_case> some :
	     {load_checks(), installation_checks(), setting_checks(), event_checks(), audio_checks(), life_checks()})
		all.insert(all.end(), some.begin(), some.end());
	return all;
}

/** Those named in `only`, all where it is empty. */
std::vector<check_case> chosen_checks(const std::vector<std::string> &only)
{
	std::vector<check_case> all = all_checks();
	std::string names;
	for (const check_case &check : all)
		names += std::string(names.empty() ? "" : ", ") + check.name;
	for (const std::string &name : only) {
		if (std::none_of(all.begin(), all.end(),
				 [&name](const check_case &check) { return name == check.name; }))
			throw failure("There is no check " + name + ". There are " + names + ".");
	}
	if (!only.empty())
		std::erase_if(all, [&only](const check_case &check) {
			return std::find(only.begin(), only.end(), check.name) == only.end();
		});
	return all;
}

void print_complaints(const std::vector<std::string> &complaints)
{
	const size_t n = std::min(complaints.size(), max_complaints);
	for (size_t i = 0; i < n; ++i)
		std::printf("%-8s %-14s log: %s\n", "", "", complaints[i].c_str());
	if (complaints.size() > n)
		std::printf("%-8s %-14s log: ... and %zu more, which -v prints\n", "", "", complaints.size() - n);
}

void print_text(const check_case &check, const outcome &done, bool is_verbose)
{
	std::printf("%-8s %-14s %s\n", to_text(done.result), check.name, check.title);
	for (const finding &f : done.findings) {
		if (f.level == verdict::ok)
			std::printf("%-8s %-14s (%s)\n", "", "", f.text.c_str());
		else
			std::printf("%-8s %-14s %s: %s\n", "", "", to_text(f.level), f.text.c_str());
	}
	if (!is_verbose && done.result != verdict::ok)
		print_complaints(done.complaints);
	if (is_verbose && !done.log.empty())
		std::printf("%s%s", done.log.c_str(), done.log.ends_with('\n') ? "" : "\n");
	std::fflush(stdout);
}

json to_json(const check_case &check, const outcome &done)
{
	json messages = json::array();
	for (const finding &f : done.findings)
		messages.push_back({{"level", to_text(f.level)}, {"text", f.text}});
	json all = {{"name", check.name},
		    {"title", check.title},
		    {"result", to_text(done.result)},
		    {"messages", messages},
		    {"seconds", std::round(done.seconds * 1000) / 1000}};
	if (done.result != verdict::ok && !done.log.empty())
		all["log"] = done.log;
	return all;
}

} // namespace

int check(const options &options)
{
	const subject plugin{find_plugin(options.plugin), options.conf, options.schemas};
	const double time_limit = options.time_limit > 0 ? options.time_limit : usual_time_limit;
	verdict worst = verdict::ok;
	json checks = json::array();
	for (const check_case &check : chosen_checks(options.only)) {
		const outcome done = do_apart(check, plugin, time_limit);
		worst = std::max(worst, done.result);
		if (options.json)
			checks.push_back(to_json(check, done));
		else
			print_text(check, done, options.verbose);
		/* Nothing more can be learnt of what has no instance. */
		if (done.result == verdict::error && check.is_vital)
			break;
	}
	if (options.json) {
		const json all = {{"plugin", plugin.plugin.name},
				  {"file", plugin.plugin.path},
				  {"result", to_text(worst)},
				  {"checks", checks}};
		std::printf("%s\n", all.dump(2, ' ', false, json::error_handler_t::replace).c_str());
	} else {
		std::printf("\n%s: %s\n", plugin.plugin.path.c_str(), to_text(worst));
	}
	return static_cast<int>(worst);
}

} // namespace hs_tool
