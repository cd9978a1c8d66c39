/*
 * hsctl get, set, enable and disable: values of settings, and of events to read.
 */
#include <fmt/format.h>

#include "bus.hpp"
#include "commands.hpp"
#include "describe.hpp"
#include "failure.hpp"
#include "model.hpp"
#include "names.hpp"

namespace hs_ctl {

namespace {

constexpr char enable_title[] = "Enable";

[[noreturn]] void refuse_title(const instance &of, const std::string &title, bool with_private)
{
	std::string text = fmt::format("{} has no setting or event '{}'; there is:", of.name, title);
	for (const setting &each : of.settings)
		text += fmt::format("\n  {}  (setting)", each.title);
	for (const event &each : of.events)
		text += fmt::format("\n  {}  (event)", each.title);
	if (!with_private)
		text += "\nor an event that is not public, with --private";
	throw failure(STATUS_USAGE, text);
}

/** The plug-ins to write to: one, or all of that name. */
std::vector<const instance *> find_written(const model &all, const options &parsed)
{
	if (parsed.all)
		return find_instances(all, parsed.plugin);
	try {
		return {&find_instance(all, parsed.plugin)};
	} catch (const failure &error) {
		if (find_instances(all, parsed.plugin).size() > 1)
			throw failure(error.result, std::string(error.what()) + "\nor all of them with --all");
		throw;
	}
}

/** The daemon says no more than that it could not: most often the plug-in does not take the value. */
void write_one(sd_bus *bus, const instance &of, const setting &wanted)
{
	try {
		write_property(bus, of.path, of.settings_interface, wanted.title, wanted.current);
	} catch (const denied &) {
		throw;
	} catch (const failure &error) {
		if (error.result != STATUS_FAILED || of.schema.empty())
			throw;
		throw failure(error.result, fmt::format("{}\n{} of {} stays as it was; what it may be is in {}",
							error.what(), wanted.title, of.name, of.schema));
	}
}

/** Checks all before it writes any. */
void write_setting(const options &parsed, const output &out, const std::string &title, const std::string &text)
{
	const bus_ptr bus = open_bus(parsed.of_user);
	const model all = make_model(read_objects(bus.get()));
	const std::vector<const instance *> targets = find_written(all, parsed);
	std::vector<setting> wanted;
	for (const instance *each : targets) {
		setting found = need_setting(*each, title);
		found.current.content = parse_value(found.current.signature, text);
		wanted.push_back(found);
	}

	json written = json::array();
	for (size_t i = 0; i < targets.size(); ++i) {
		const instance &of = *targets[i];
		write_one(bus.get(), of, wanted[i]);
		wanted[i].current = read_property(bus.get(), of.path, of.settings_interface, wanted[i].title);
		written.push_back(describe_setting(of, wanted[i]));
	}
	if (out.style != form::text)
		put_json(out, written);
}

} // namespace

void get(const options &parsed, const output &out)
{
	const bus_ptr bus = open_bus(parsed.of_user);
	const both_trees trees = read_both(bus.get(), parsed.with_private);
	const model all = make_model(trees.objects, &trees.private_objects);
	const instance &of = find_instance(all, parsed.plugin);
	const setting *found = find_setting(of, parsed.title);
	const event *found_event = found ? nullptr : find_event(of, parsed.title);
	if (!found && !found_event)
		refuse_title(of, parsed.title, parsed.with_private);
	if (found_event && found_event->is_hidden)
		throw failure(STATUS_USAGE,
			      fmt::format("The event {} is on private buses only: --private", found_event->title));
	if (out.style != form::text)
		put_json(out, found ? describe_setting(of, *found) : describe_event(of, *found_event));
	else
		put(to_text(found ? found->current.content : found_event->current.content) + "\n");
}

void set(const options &parsed, const output &out)
{
	write_setting(parsed, out, parsed.title, parsed.value);
}

void enable(const options &parsed, const output &out, bool enabled)
{
	write_setting(parsed, out, enable_title, enabled ? "true" : "false");
}

} // namespace hs_ctl
