/*
 * hs-plugin, the tool of those who make plug-ins: tells what one is, lets it hear files, checks it.
 */
#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>

#include <pipewire/pipewire.h>

#include "commands.hpp"
#include "failure.hpp"
#include "log.hpp"

namespace {

using namespace hs_tool;

constexpr char footer[] = R"(
A plug-in is named as the daemon names it, and looked for in "hear-sense" below the folders of SPA_PLUGIN_DIR or,
without it, below PipeWire's own; or it is the FILE of its library, libspa-hs-NAME.so. The configuration NAME.conf is
that beside the library, else that of /etc/hear-sense/plugin-confs, else that of /usr/share/hear-sense/plugin-confs.

Exit status: 0 all well, 1 check found something to warn of, 2 an error.)";

constexpr char plugin_help[] = "Name of an installed plug-in, or path of its library";

void add_plugin_options(CLI::App *command, options *parsed)
{
	command->add_option("plugin", parsed->plugin, plugin_help)->required()->type_name("NAME|FILE");
	command->add_option("--conf", parsed->conf, "Configuration to use, or the folder of it")->type_name("FILE");
}

CLI::App *add_info(CLI::App *app, options *parsed)
{
	CLI::App *command = app->add_subcommand("info", "Tells what a plug-in says of itself");
	add_plugin_options(command, parsed);
	command->add_option("--schemas", parsed->schemas, "Folder of the schemas")->type_name("DIR");
	command->add_flag("--json", parsed->json, "Prints one JSON object");
	return command;
}

CLI::App *add_run(CLI::App *app, options *parsed)
{
	CLI::App *command = app->add_subcommand(
		"run",
		"Lets a plug-in hear audio files and prints what the daemon would publish, a JSON object a line");
	add_plugin_options(command, parsed);
	command->add_option("files", parsed->files, "Audio files: WAV, FLAC, Ogg and whatever else libsndfile reads")
		->required()
		->type_name("FILE");
	command->add_option("--set", parsed->settings, "Gives a setting a value; may be given more than once")
		->type_name("Setting=Value")
		->allow_extra_args(false);
	command->add_option("--source", parsed->source, "Name of the source that is printed [the file's name]")
		->type_name("NAME");
	command->add_option("--block", parsed->block,
			    "Frames that the plug-in hears at a time [a fiftieth of a second]")
		->type_name("FRAMES")
		->check(CLI::Range(1U, 1U << 20));
	return command;
}

CLI::App *add_check(CLI::App *app, options *parsed)
{
	CLI::App *command = app->add_subcommand("check", "Tells whether a plug-in is a good citizen");
	add_plugin_options(command, parsed);
	command->add_option("--schemas", parsed->schemas, "Folder of the schemas")->type_name("DIR");
	command->add_option("--only", parsed->only, "Does this check alone; may be given more than once")
		->type_name("CHECK")
		->allow_extra_args(false);
	command->add_option("--time-limit", parsed->time_limit, "Seconds that each check may take [60]")
		->type_name("SECONDS")
		->check(CLI::PositiveNumber);
	command->add_flag("--json", parsed->json, "Prints one JSON object");
	command->add_flag("-v,--verbose", parsed->verbose, "Prints what the plug-in logs, too");
	return command;
}

int parse_and_do(CLI::App *app, options *parsed, int argc, char *argv[])
{
	app->require_subcommand(1);
	app->footer(footer);
	const CLI::App *info_command = add_info(app, parsed);
	const CLI::App *run_command = add_run(app, parsed);
	const CLI::App *check_command = add_check(app, parsed);
	try {
		app->parse(argc, argv);
	} catch (const CLI::ParseError &error) {
		return app->exit(error) == 0 ? STATUS_OK : STATUS_ERROR;
	}

	/* Each check brings PipeWire up in a process of its own. */
	if (check_command->parsed())
		return check(*parsed);
	pw_init(nullptr, nullptr);
	hs_log_init();
	int result = STATUS_ERROR;
	if (info_command->parsed())
		result = info(*parsed);
	else if (run_command->parsed())
		result = run(*parsed);
	pw_deinit();
	return result;
}

} // namespace

int main(int argc, char *argv[])
{
	try {
		CLI::App app("Tells what a plug-in of hear-sense is, lets it hear audio files, and checks it.",
			     "hs-plugin");
		options parsed;
		return parse_and_do(&app, &parsed, argc, argv);
	} catch (const std::exception &error) {
		std::fprintf(stderr, "hs-plugin: %s\n", error.what());
		return STATUS_ERROR;
	}
}
