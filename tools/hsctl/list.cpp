/*
 * hsctl list and show: what there is, and all about one plug-in.
 */
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "bus.hpp"
#include "commands.hpp"
#include "describe.hpp"
#include "model.hpp"
#include "names.hpp"

namespace hs_ctl {

namespace {

/** A list in both its forms. */
struct listing {
	table text;
	json objects = json::array();
};

listing list_plugins(const model &all)
{
	listing made{{{{"NAME"}, {"STATE"}, {"PATH"}}, {}}};
	for (const instance &each : all.instances) {
		made.objects.push_back(describe_instance(each));
		made.text.rows.push_back(
			{{each.name},
			 each.is_enabled ? cell{"enabled", colour::green} : cell{"disabled", colour::faint},
			 {each.path}});
	}
	return made;
}

listing list_sources(const model &all)
{
	listing made{{{{"SOURCE"}, {"DEVICE"}, {"DIRECTION"}, {"PLUGINS"}}, {}}};
	for (const source &each : all.sources) {
		const json described = describe_source(all, each);
		const auto plugins = described["plugins"].get<std::vector<std::string>>();
		made.objects.push_back(described);
		made.text.rows.push_back({{each.id},
					  {to_text(described["niceName"])},
					  {to_text(described["direction"])},
					  {fmt::format("{}", fmt::join(plugins, " "))}});
	}
	return made;
}

row event_row(const event &of)
{
	return {{of.title},
		{of.is_hidden ? "-" : type_name(of.current.signature)},
		{to_text(of.current.content)},
		{of.is_public ? "public" : "private"},
		{of.trigger_interface.empty() ? "" : "trigger"}};
}

row setting_row(const setting &of)
{
	return {{of.title}, {type_name(of.current.signature)}, {to_text(of.current.content)}};
}

row after_name(const instance &of, const row &rest)
{
	row all{{of.name}};
	all.insert(all.end(), rest.begin(), rest.end());
	return all;
}

const row event_header{{"EVENT"}, {"TYPE"}, {"VALUE"}, {"BUS"}, {"TRIGGER"}};
const row setting_header{{"SETTING"}, {"TYPE"}, {"VALUE"}};

row with_plugin(const row &header)
{
	row all{{"PLUGIN"}};
	all.insert(all.end(), header.begin(), header.end());
	return all;
}

listing list_events(const model &all)
{
	listing made{{with_plugin(event_header), {}}};
	for (const instance &each : all.instances) {
		for (const event &of : each.events) {
			made.objects.push_back(describe_event(each, of));
			made.text.rows.push_back(after_name(each, event_row(of)));
		}
	}
	return made;
}

listing list_settings(const model &all)
{
	listing made{{with_plugin(setting_header), {}}};
	for (const instance &each : all.instances) {
		for (const setting &of : each.settings) {
			made.objects.push_back(describe_setting(each, of));
			made.text.rows.push_back(after_name(each, setting_row(of)));
		}
	}
	return made;
}

model read_model(const options &parsed)
{
	const bus_ptr bus = open_bus(parsed.of_user);
	const both_trees trees = read_both(bus.get(), parsed.with_private);
	return make_model(trees.objects, &trees.private_objects);
}

/** Lines of a table, "setting" or "event" before each where columns have no header. */
std::string render_part(const output &out, const char *kind, table part)
{
	if (out.is_terminal)
		return part.rows.empty() ? "" : "\n" + render(out, part);
	for (row &each : part.rows)
		each.insert(each.begin(), cell{kind});
	return render(out, part);
}

std::string render_instance(const output &out, const instance &of)
{
	table head{{{"NAME"}, {"STATE"}, {"PATH"}, {"SCHEMA"}},
		   {{{of.name},
		     of.is_enabled ? cell{"enabled", colour::green} : cell{"disabled", colour::faint},
		     {of.path},
		     {of.schema}}}};
	table settings{setting_header, {}};
	for (const setting &each : of.settings)
		settings.rows.push_back(setting_row(each));
	table events{event_header, {}};
	for (const event &each : of.events)
		events.rows.push_back(event_row(each));

	std::string text = out.is_terminal ? render(out, head) : render_part(out, "plugin", head);
	text += render_part(out, "setting", settings);
	text += render_part(out, "event", events);
	return text;
}

listing make_listing(const model &all, const std::string &what)
{
	if (what == "plugins")
		return list_plugins(all);
	if (what == "sources")
		return list_sources(all);
	if (what == "events")
		return list_events(all);
	return list_settings(all);
}

} // namespace

void list(const options &parsed, const output &out)
{
	const listing made = make_listing(read_model(parsed), parsed.what);
	if (out.style != form::text)
		put_json(out, made.objects);
	else
		put(render(out, made.text));
}

void show(const options &parsed, const output &out)
{
	const model all = read_model(parsed);
	const instance &shown = find_instance(all, parsed.plugin);
	if (out.style != form::text)
		put_json(out, describe_all_of(shown));
	else
		put(render_instance(out, shown));
}

} // namespace hs_ctl
