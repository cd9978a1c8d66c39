/*
 * hsctl status: all of it at a glance.
 */
#include <algorithm>

#include <fmt/format.h>

#include "bus.hpp"
#include "commands.hpp"
#include "describe.hpp"
#include "model.hpp"

namespace hs_ctl {

namespace {

cell state_of(const instance &of)
{
	return of.is_enabled ? cell{"enabled", colour::green} : cell{"disabled", colour::faint};
}

cell value_of(const event &of)
{
	if (of.is_hidden)
		return {"private", colour::faint};
	const bool is_detected = detection_of(of.current.content).value_or(false);
	return {to_text(of.current.content), is_detected ? colour::red : colour::none};
}

/** A line for each event. */
table make_table(const model &all)
{
	table made{{{"PLUGIN"}, {"STATE"}, {"EVENT"}, {"VALUE"}}, {}};
	for (const instance &each : all.instances) {
		if (each.events.empty())
			made.rows.push_back({{each.name}, state_of(each), {""}, {""}});
		for (const event &of : each.events)
			made.rows.push_back({{each.name}, state_of(each), {of.title}, value_of(of)});
	}
	return made;
}

size_t width_of_titles(const instance &of)
{
	size_t width = 0;
	for (const event &each : of.events)
		width = std::max(width, width_of(each.title));
	return width;
}

std::string render_instance(const output &out, const instance &of)
{
	std::string text = fmt::format("    {}  {}\n", paint(out, {of.plugin, colour::bold}), paint(out, state_of(of)));
	const size_t width = width_of_titles(of);
	for (const event &each : of.events)
		text += fmt::format("      {:<{}}  {}\n", each.title, width, paint(out, value_of(each)));
	return text;
}

std::string render_tree(const output &out, const model &all)
{
	std::string text;
	for (const chain &each_chain : all.chains) {
		text += fmt::format("{}  {}, {}\n", paint(out, {each_chain.id, colour::bold}),
				    to_text(each_chain.nice_name), to_text(each_chain.direction));
		for (const source &each_source : all.sources) {
			if (each_source.chain_path != each_chain.path)
				continue;
			text += fmt::format("  {}\n", each_source.id);
			for (const instance &each : all.instances) {
				if (each.source == each_source.id)
					text += render_instance(out, each);
			}
		}
	}
	return text;
}

void give_hints(const model &all)
{
	const auto is_enabled = [](const instance &each) { return each.is_enabled; };
	if (all.sources.empty())
		complain("hear-sense runs, but no plug-in has found a node. Is PipeWire running and a microphone there "
			 "(pw-cli ls Node)? Is a plug-in configured (/usr/share/hear-sense/plugin-confs)?");
	else if (std::none_of(all.instances.begin(), all.instances.end(), is_enabled))
		complain("No plug-in is enabled: hsctl enable NAME");
}

} // namespace

void show_status(const options &parsed, const output &out)
{
	const bus_ptr bus = open_bus(parsed.of_user);
	const model all = make_model(read_objects(bus.get()));
	if (out.style != form::text)
		put_json(out, describe_tree(all));
	else
		put(out.is_terminal ? render_tree(out, all) : render(out, make_table(all)));
	give_hints(all);
}

} // namespace hs_ctl
