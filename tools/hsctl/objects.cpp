#include "objects.hpp"

#include <algorithm>

namespace hs_ctl {

namespace {

constexpr char root[] = "/com/orvel/HearSense/";
constexpr char trigger_suffix[] = ".Methods";

char to_lower(char c)
{
	return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

void add_interfaces(object_tree *tree, const std::string &path, const interfaces &added)
{
	for (const auto &[name, members] : added) {
		if (!name.starts_with("org.freedesktop.DBus."))
			(*tree)[path][name] = members;
	}
}

void remove_interfaces(object_tree *tree, const std::string &path, const std::vector<std::string> &removed)
{
	const auto object = tree->find(path);
	if (object == tree->end())
		return;
	for (const std::string &name : removed)
		object->second.erase(name);
	if (object->second.empty())
		tree->erase(object);
}

const json &find_content(const object_tree &tree, const std::string &path, const std::string &interface,
			 const std::string &property)
{
	static const json absent;
	const auto object = tree.find(path);
	if (object == tree.end())
		return absent;
	const auto members = object->second.find(interface);
	if (members == object->second.end())
		return absent;
	const auto found = members->second.find(property);
	return found == members->second.end() ? absent : found->second.content;
}

std::optional<event_interface> split_event_interface(const std::string &path, const std::string &interface)
{
	const std::string prefix = EVENTS_PREFIX + bus_name(path) + ".";
	if (!interface.starts_with(prefix) || interface.size() == prefix.size())
		return std::nullopt;
	std::string title = interface.substr(prefix.size());
	if (!title.ends_with(trigger_suffix))
		return event_interface{title, false};
	title.resize(title.size() - (sizeof(trigger_suffix) - 1));
	return event_interface{title, true};
}

std::string bus_name(const std::string &path)
{
	return path.substr(path.rfind('/') + 1);
}

std::string plugin_name(const std::string &path)
{
	std::string name = bus_name(path);
	std::transform(name.begin(), name.end(), name.begin(), to_lower);
	return name;
}

std::string source_name(const object_tree &tree, const std::string &path)
{
	const json &source = find_content(tree, path, INSTANCE_INTERFACE, "Source");
	if (source.is_string()) {
		const json &id = find_content(tree, source.get<std::string>(), SOURCE_INTERFACE, "Id");
		if (id.is_string())
			return id.get<std::string>();
	}
	std::string middle = path.substr(0, path.rfind('/'));
	if (middle.starts_with(root))
		middle.erase(0, sizeof(root) - 1);
	std::replace(middle.begin(), middle.end(), '/', '.');
	return middle;
}

} // namespace hs_ctl
