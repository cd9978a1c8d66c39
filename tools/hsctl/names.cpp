#include "names.hpp"

#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <fnmatch.h>
#include <strings.h>

#include "failure.hpp"

namespace hs_ctl {

namespace {

bool is_same(const std::string &a, const std::string &b)
{
	return strcasecmp(a.c_str(), b.c_str()) == 0;
}

[[noreturn]] void refuse(const std::string &text, const std::vector<std::string> &there_are)
{
	if (there_are.empty())
		throw failure(STATUS_USAGE, fmt::format("{}; there is none", text));
	throw failure(STATUS_USAGE, fmt::format("{}; there is:\n  {}", text, fmt::join(there_are, "\n  ")));
}

template <typename T, typename Name>
std::vector<std::string> names_of(const std::vector<T> &all, Name name)
{
	std::vector<std::string> names;
	for (const T &each : all)
		names.push_back(name(each));
	return names;
}

std::string name_of(const instance &of)
{
	return of.name;
}

std::string name_of_pointed(const instance *of)
{
	return of->name;
}

/** "loudness@AudioDevice0": its source may be told in part. */
bool has_source(const std::string &name)
{
	const size_t at = name.find('@');
	return at != std::string::npos && at + 1 < name.size();
}

bool is_like(const std::string &pattern, const std::string &name)
{
	return fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD | FNM_NOESCAPE) == 0;
}

} // namespace

std::vector<const instance *> find_instances(const model &all, const std::string &name)
{
	std::vector<const instance *> found;
	std::vector<const instance *> begun;
	for (const instance &each : all.instances) {
		if (is_same(each.plugin, name) || is_same(each.name, name))
			found.push_back(&each);
		if (has_source(name) && strncasecmp(each.name.c_str(), name.c_str(), name.size()) == 0)
			begun.push_back(&each);
	}
	if (found.empty())
		found = begun;
	if (found.empty())
		refuse(fmt::format("No plug-in '{}'", name), names_of(all.instances, name_of));
	return found;
}

const instance &find_instance(const model &all, const std::string &name)
{
	const std::vector<const instance *> found = find_instances(all, name);
	if (found.size() > 1)
		refuse(fmt::format("'{}' is on more than one source", name), names_of(found, name_of_pointed));
	return *found.front();
}

const setting *find_setting(const instance &of, const std::string &title)
{
	for (const setting &each : of.settings) {
		if (is_same(each.title, title))
			return &each;
	}
	return nullptr;
}

const event *find_event(const instance &of, const std::string &title)
{
	for (const event &each : of.events) {
		if (is_same(each.title, title))
			return &each;
	}
	return nullptr;
}

const setting &need_setting(const instance &of, const std::string &title)
{
	const setting *found = find_setting(of, title);
	if (!found)
		refuse(fmt::format("{} has no setting '{}'", of.name, title),
		       names_of(of.settings, [](const setting &each) { return each.title; }));
	return *found;
}

const event &need_trigger(const instance &of, const std::string &title)
{
	std::vector<const event *> with_trigger;
	for (const event &each : of.events) {
		if (!each.trigger_interface.empty())
			with_trigger.push_back(&each);
	}
	const auto is_named = [&title](const event *each) { return is_same(each->title, title); };
	const auto found = std::find_if(with_trigger.begin(), with_trigger.end(), is_named);
	if (found != with_trigger.end())
		return **found;
	if (title.empty() && with_trigger.size() == 1)
		return *with_trigger.front();
	refuse(title.empty() ? fmt::format("Which event of {}?", of.name)
			     : fmt::format("{} has no event '{}' that can be triggered", of.name, title),
	       names_of(with_trigger, [](const event *each) { return each->title; }));
}

std::vector<const chain *> find_chains(const model &all, const std::string &id)
{
	std::vector<const chain *> found;
	for (const chain &each : all.chains) {
		if (id.empty() || is_same(each.id, id))
			found.push_back(&each);
	}
	if (found.empty())
		refuse(id.empty() ? std::string("No device") : fmt::format("No device '{}'", id),
		       names_of(all.chains, [](const chain &each) { return each.id; }));
	return found;
}

bool is_meant(const std::vector<std::string> &patterns, const std::string &plugin, const std::string &source,
	      const std::string &event_title)
{
	const std::string on_source = plugin + "@" + source;
	for (const std::string &pattern : patterns) {
		if (is_like(pattern, plugin) || is_like(pattern, on_source) || is_like(pattern, event_title) ||
		    is_like(pattern, plugin + "/" + event_title) || is_like(pattern, on_source + "/" + event_title))
			return true;
	}
	return patterns.empty();
}

} // namespace hs_ctl
