#include "model.hpp"

#include <algorithm>
#include <tuple>

namespace hs_ctl {

namespace {

std::string text_of(const object_tree &tree, const std::string &path, const std::string &interface,
		    const std::string &property)
{
	const json &content = find_content(tree, path, interface, property);
	return content.is_string() ? content.get<std::string>() : std::string();
}

/** The event of that title, made where it is not there yet. */
event *find_or_add(instance *of, const std::string &title)
{
	const auto has_title = [&title](const event &each) { return each.title == title; };
	const auto found = std::find_if(of->events.begin(), of->events.end(), has_title);
	if (found != of->events.end())
		return &*found;
	event made;
	made.title = title;
	made.interface = EVENTS_PREFIX + bus_name(of->path) + "." + title;
	made.is_hidden = true;
	return &of->events.emplace_back(made);
}

void add_event(instance *of, const event_interface &name, const std::string &interface, const properties &members,
	       bool is_public)
{
	event *added = find_or_add(of, name.title);
	if (name.is_trigger) {
		added->trigger_interface = interface;
		return;
	}
	added->is_hidden = false;
	added->is_public = is_public;
	for (const auto &[property, content] : members) {
		if (property == name.title)
			added->current = content;
		else
			added->about[property] = content;
	}
}

void add_settings(instance *of, const std::string &interface, const properties &members)
{
	of->settings_interface = interface;
	for (const auto &[property, content] : members) {
		if (property == "Schema" && content.content.is_string()) {
			of->schema = content.content.get<std::string>();
			continue;
		}
		of->settings.push_back({property, content});
		if (property == "Enable")
			of->is_enabled = content.content == true;
	}
}

void add_members(instance *of, const interfaces &object, bool is_public)
{
	for (const auto &[name, members] : object) {
		if (name == SETTINGS_PREFIX + bus_name(of->path))
			add_settings(of, name, members);
		else if (const auto split = split_event_interface(of->path, name))
			add_event(of, *split, name, members, is_public);
	}
}

instance make_instance(const object_tree &tree, const std::string &path)
{
	instance made;
	made.path = path;
	made.plugin = plugin_name(path);
	made.source = source_name(tree, path);
	made.name = made.plugin + "@" + made.source;
	return made;
}

bool by_title(const event &a, const event &b)
{
	return a.title < b.title;
}

bool by_name(const instance &a, const instance &b)
{
	return std::tie(a.source, a.plugin) < std::tie(b.source, b.plugin);
}

} // namespace

model make_model(const object_tree &objects, const object_tree *private_objects)
{
	model made;
	for (const auto &[path, object] : objects) {
		if (object.contains(CHAIN_INTERFACE))
			made.chains.push_back({text_of(objects, path, CHAIN_INTERFACE, "Id"), path,
					       text_of(objects, path, CHAIN_INTERFACE, "NiceName"),
					       text_of(objects, path, CHAIN_INTERFACE, "Direction")});
		if (object.contains(SOURCE_INTERFACE))
			made.sources.push_back({text_of(objects, path, SOURCE_INTERFACE, "Id"), path,
						text_of(objects, path, SOURCE_INTERFACE, "AudioChain")});
		if (!object.contains(INSTANCE_INTERFACE))
			continue;
		instance added = make_instance(objects, path);
		add_members(&added, object, true);
		if (private_objects && private_objects->contains(path))
			add_members(&added, private_objects->at(path), false);
		for (event &each : added.events)
			each.is_public = each.is_public && !each.is_hidden;
		std::sort(added.events.begin(), added.events.end(), by_title);
		made.instances.push_back(added);
	}
	std::sort(made.instances.begin(), made.instances.end(), by_name);
	return made;
}

std::optional<bool> detection_of(const json &content)
{
	if (content.is_boolean())
		return content.get<bool>();
	if (content.is_object() && content.contains("Detected") && content["Detected"].is_boolean())
		return content["Detected"].get<bool>();
	return std::nullopt;
}

std::optional<double> number_of(const json &content)
{
	if (content.is_number())
		return content.get<double>();
	if (!content.is_object())
		return std::nullopt;
	for (const json &member : content) {
		if (member.is_number())
			return member.get<double>();
	}
	return std::nullopt;
}

} // namespace hs_ctl
