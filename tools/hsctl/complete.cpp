/*
 * hsctl complete: what may stand where the cursor is, for the shells' completions.
 *
 * Options and sub-commands come from the very description that the command line is read by.
 */
#include <algorithm>
#include <set>

#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <strings.h>

#include "bus.hpp"
#include "commands.hpp"
#include "failure.hpp"
#include "model.hpp"
#include "names.hpp"

namespace hs_ctl {

namespace {

using words = std::vector<std::string>;

/** The command line before the cursor, taken apart. */
struct place {
	const CLI::App *command = nullptr;
	words positionals;
	/** The option whose value is to come; null for none. */
	const CLI::Option *option = nullptr;
	std::string current;
	bool of_user = false;
	bool with_private = false;
};

const CLI::App *find_command(const CLI::App &app, const std::string &name)
{
	for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; })) {
		if (each->get_name() == name)
			return each;
	}
	return nullptr;
}

/** The option that the word is, of the sub-command or of all. */
const CLI::Option *find_option(const place &at, const CLI::App &app, const std::string &word)
{
	const CLI::Option *found = at.command->get_option_no_throw(word);
	return found ? found : app.get_option_no_throw(word);
}

void step(place *at, const CLI::App &app, const std::string &word)
{
	if (at->option) {
		at->option = nullptr;
	} else if (word.starts_with('-')) {
		at->of_user = at->of_user || word == "--user";
		at->with_private = at->with_private || word == "--private";
		const CLI::Option *option = find_option(*at, app, word);
		if (option && option->get_items_expected_max() > 0)
			at->option = option;
	} else if (const CLI::App *command = at->command == &app ? find_command(app, word) : nullptr) {
		at->command = command;
	} else {
		at->positionals.push_back(word);
	}
}

place read_place(const words &all, const CLI::App &app)
{
	place at;
	at.command = &app;
	if (all.empty())
		return at;
	for (size_t i = 0; i + 1 < all.size(); ++i)
		step(&at, app, all[i]);
	at.current = all.back();
	return at;
}

words option_names(const place &at, const CLI::App &app)
{
	words names;
	std::set<const CLI::App *> described{at.command, &app};
	for (const CLI::App *each : described) {
		for (const CLI::Option *option : each->get_options()) {
			if (option->get_lnames().empty() && option->get_snames().empty())
				continue;
			for (const std::string &name : option->get_lnames())
				names.push_back("--" + name);
			for (const std::string &name : option->get_snames())
				names.push_back("-" + name);
		}
	}
	for (const char *style : {"--json=short", "--json=pretty"})
		names.emplace_back(style);
	return names;
}

words command_names(const CLI::App &app)
{
	words names;
	for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; }))
		names.push_back(each->get_name());
	return names;
}

model read_model(const place &at)
{
	const bus_ptr bus = open_bus(at.of_user);
	const both_trees trees = read_both(bus.get(), at.with_private, false);
	return make_model(trees.objects, &trees.private_objects);
}

/** All names of plug-ins: on each source, and alone. */
words plugin_names(const model &all)
{
	words names;
	for (const instance &each : all.instances) {
		names.push_back(each.plugin);
		names.push_back(each.name);
	}
	return names;
}

words patterns(const model &all)
{
	words names = plugin_names(all);
	for (const instance &of : all.instances) {
		for (const event &each : of.events)
			names.push_back(each.title);
	}
	return names;
}

/** Titles of the plug-in that is named, as the sub-command wants them. */
words titles(const model &all, const std::string &plugin, const std::string &command)
{
	words names;
	for (const instance *of : find_instances(all, plugin)) {
		for (const setting &each : of->settings) {
			if (command != "trigger")
				names.push_back(each.title);
		}
		for (const event &each : of->events) {
			if (command == "get" ? !each.is_hidden
					     : command == "trigger" && !each.trigger_interface.empty())
				names.push_back(each.title);
		}
	}
	return names;
}

words value_names(const model &all, const place &at)
{
	const instance *of = find_instances(all, at.positionals[0]).front();
	const setting *found = find_setting(*of, at.positionals[1]);
	return found && found->current.signature == "b" ? words{"true", "false"} : words{};
}

/** What may stand at the next place that is no option. */
words positional_names(const place &at)
{
	const std::string &command = at.command->get_name();
	const size_t n_before = at.positionals.size();
	if (command == "list" && n_before == 0)
		return {"plugins", "sources", "events", "settings"};
	if (command == "indicate" && n_before == 0)
		return {"speaker", "continuous", "transient"};
	if (command == "indicate" && n_before == 1 && at.positionals[0] != "transient")
		return {"on", "off"};
	if (command == "monitor")
		return patterns(read_model(at));

	constexpr const char *with_plugin[] = {"show", "get", "set", "enable", "disable", "trigger"};
	if (std::find(std::begin(with_plugin), std::end(with_plugin), command) == std::end(with_plugin))
		return {};
	const bool has_title = command == "get" || command == "set" || command == "trigger";
	if (n_before == 0)
		return plugin_names(read_model(at));
	if (n_before == 1 && has_title)
		return titles(read_model(at), at.positionals[0], command);
	if (n_before == 2 && command == "set")
		return value_names(read_model(at), at);
	return {};
}

words chain_names(const place &at)
{
	words names;
	for (const chain &each : read_model(at).chains)
		names.push_back(each.id);
	return names;
}

words candidates(const place &at, const CLI::App &app)
{
	if (at.option)
		return at.option->check_lname("chain") ? chain_names(at) : words{};
	if (at.current.starts_with('-'))
		return option_names(at, app);
	return at.command == &app ? command_names(app) : positional_names(at);
}

} // namespace

void complete(const options &parsed, const CLI::App &app)
{
	const place at = read_place(parsed.words, app);
	std::set<std::string> fitting;
	try {
		for (const std::string &each : candidates(at, app)) {
			if (strncasecmp(each.c_str(), at.current.c_str(), at.current.size()) == 0)
				fitting.insert(each);
		}
	} catch (const failure &) {
		/* While somebody types nothing is to be told. */
		return;
	}
	std::string text;
	for (const std::string &each : fitting)
		text += each + "\n";
	put(text);
}

} // namespace hs_ctl
