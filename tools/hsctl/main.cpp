/*
 * hsctl, the tool of operators: looks into the daemon over the bus, and changes what it may.
 */
#include <cstdio>
#include <cstring>
#include <exception>

#include <CLI/CLI.hpp>

#include "commands.hpp"
#include "failure.hpp"

namespace {

using namespace hs_ctl;

constexpr char footer[] = R"(
PLUGIN is "loudness", or "loudness@AudioDevice0Input0.Unprocessed" where it is on more than one source.

Exit status: 0 all well, 1 the daemon refused or failed, 2 a wrong command line, name or value, 3 no bus or no daemon.)";

CLI::App *add_command(CLI::App *app, const char *name, const char *help)
{
	return app->add_subcommand(name, help)->fallthrough();
}

void add_plugin(CLI::App *command, options *parsed)
{
	command->add_option("plugin", parsed->plugin, "The plug-in")->required()->type_name("PLUGIN");
}

void add_private(CLI::App *command, options *parsed)
{
	command->add_flag("--private", parsed->with_private, "Takes a private bus, for events that are not public");
}

void add_all(CLI::App *command, options *parsed)
{
	command->add_flag("--all", parsed->all, "On all sources that have the plug-in");
}

void add_looking(CLI::App *app, options *parsed)
{
	add_command(app, "status", "Shows devices, sources, plug-ins and what they hear; so does hsctl alone");

	CLI::App *listing = add_command(app, "list", "Lists what there is");
	listing->add_option("what", parsed->what, "plugins, sources, events or settings")
		->required()
		->type_name("WHAT")
		->check(CLI::IsMember({"plugins", "sources", "events", "settings"}).description(""));
	add_private(listing, parsed);

	CLI::App *showing = add_command(app, "show", "Shows all about a plug-in");
	add_plugin(showing, parsed);
	add_private(showing, parsed);

	CLI::App *getting = add_command(app, "get", "Prints the value of a setting or an event");
	add_plugin(getting, parsed);
	getting->add_option("name", parsed->title, "Title of the setting or event")->required()->type_name("NAME");
	add_private(getting, parsed);
}

void add_changing(CLI::App *app, options *parsed)
{
	CLI::App *setting = add_command(app, "set", "Changes a setting");
	add_plugin(setting, parsed);
	setting->add_option("setting", parsed->title, "Title of the setting")->required()->type_name("SETTING");
	setting->add_option("value", parsed->value, "Its value")->required()->type_name("VALUE");
	add_all(setting, parsed);

	for (const bool enables : {true, false}) {
		CLI::App *command = enables ? add_command(app, "enable", "Switches a plug-in on")
					    : add_command(app, "disable", "Switches a plug-in off");
		add_plugin(command, parsed);
		add_all(command, parsed);
	}
}

void add_watching(CLI::App *app, options *parsed)
{
	CLI::App *monitoring = add_command(app, "monitor", "Prints events as they come, until Ctrl-C");
	monitoring
		->add_option("patterns", parsed->patterns,
			     "Globs: loudness, loudness@SOURCE, LoudnessAlarm, loudness/LoudnessAlarm [all]")
		->type_name("PATTERN");
	add_private(monitoring, parsed);

	CLI::App *view = add_command(app, "top", "Shows plug-ins with meters and lamps, until q or Ctrl-C");
	view->add_flag("-b,--batch", parsed->batch, "Prints frames, and draws nothing");
	view->add_option("-n,--frames", parsed->frames, "Frames after which to end [none]")->type_name("N");
	view->add_option("-d,--delay", parsed->delay, "Seconds between frames [1]")
		->type_name("SECONDS")
		->check(CLI::Range(0.05, 3600.0));
	add_private(view, parsed);
}

void add_calling(CLI::App *app, options *parsed)
{
	CLI::App *triggering = add_command(app, "trigger", "Has an event tell of a detection, for a try");
	add_plugin(triggering, parsed);
	triggering->add_option("event", parsed->title, "Title of the event [the only one]")->type_name("EVENT");

	CLI::App *indicating = add_command(app, "indicate", "Tells plug-ins of sound that the device itself makes");
	indicating->add_option("what", parsed->what, "speaker, continuous or transient")
		->required()
		->type_name("WHAT")
		->check(CLI::IsMember({"speaker", "continuous", "transient"}).description(""));
	indicating->add_option("state", parsed->value, "on or off, but for transient")
		->type_name("on|off")
		->check(CLI::IsMember({"on", "off"}).description(""));
	indicating->add_option("--chain", parsed->chain, "The device [all]")->type_name("DEVICE");
}

void check_together(const options &parsed)
{
	if (parsed.what == "transient" && !parsed.value.empty())
		throw failure(STATUS_USAGE, "indicate transient takes neither on nor off");
	if ((parsed.what == "speaker" || parsed.what == "continuous") && parsed.value.empty())
		throw failure(STATUS_USAGE, "indicate " + parsed.what + " needs on or off");
}

output read_form(const options &parsed)
{
	if (parsed.json == "short")
		return make_output(form::short_json);
	if (parsed.json == "pretty")
		return make_output(form::pretty_json);
	return make_output(form::text);
}

void run(const CLI::App &app, const options &parsed)
{
	const auto chosen = app.get_subcommands();
	const std::string name = chosen.empty() ? "status" : chosen.front()->get_name();
	const output out = read_form(parsed);
	check_together(parsed);
	if (name == "status")
		show_status(parsed, out);
	else if (name == "list")
		list(parsed, out);
	else if (name == "show")
		show(parsed, out);
	else if (name == "get")
		get(parsed, out);
	else if (name == "set")
		set(parsed, out);
	else if (name == "enable" || name == "disable")
		enable(parsed, out, name == "enable");
	else if (name == "monitor")
		monitor(parsed, out);
	else if (name == "top")
		top(parsed, out);
	else if (name == "trigger")
		trigger(parsed);
	else
		indicate(parsed);
}

/** What is wrong with the command line, in a line or two, and where to look. */
std::string explain(const CLI::App *app, const CLI::Error &error)
{
	const auto chosen = app->get_subcommands();
	const std::string command = chosen.empty() ? "" : chosen.front()->get_name() + " ";
	return "hsctl: " + std::string(error.what()) + "; see hsctl " + command + "--help\n";
}

int parse_and_run(int argc, char *argv[])
{
	CLI::App app("Looks into hear-sense over the bus, and changes what it may.", "hsctl");
	options parsed;
	app.footer(footer);
	app.require_subcommand(0, 1);
	app.failure_message(explain);
	app.set_version_flag("--version", "hsctl " HSCTL_VERSION, "Prints the version and ends");
	app.add_flag("--json{short}", parsed.json, "Prints JSON: --json=short on a line, --json=pretty on several")
		->type_name("short|pretty")
		->check(CLI::IsMember({"short", "pretty"}).description(""));
	app.add_flag("--user", parsed.of_user, "Uses the session bus; HS_USE_SESSION_BUS=true does, too");
	add_looking(&app, &parsed);
	add_changing(&app, &parsed);
	add_watching(&app, &parsed);
	add_calling(&app, &parsed);
	/* Not a sub-command to CLI11, which would read the words to be completed. */
	if (argc > 1 && std::strcmp(argv[1], "complete") == 0) {
		parsed.words.assign(argv + 2, argv + argc);
		if (!parsed.words.empty() && parsed.words.front() == "--")
			parsed.words.erase(parsed.words.begin());
		complete(parsed, app);
		return STATUS_OK;
	}
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError &error) {
		return app.exit(error) == 0 ? STATUS_OK : STATUS_USAGE;
	}
	run(app, parsed);
	return STATUS_OK;
}

} // namespace

int main(int argc, char *argv[])
{
	try {
		return parse_and_run(argc, argv);
	} catch (const hs_ctl::failure &error) {
		std::fprintf(stderr, "hsctl: %s\n", error.what());
		return error.result;
	} catch (const hs_ctl::reader_gone &) {
		return STATUS_OK;
	} catch (const std::exception &error) {
		std::fprintf(stderr, "hsctl: %s\n", error.what());
		return STATUS_FAILED;
	}
}
