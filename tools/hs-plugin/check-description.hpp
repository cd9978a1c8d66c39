/*
 * Rules for what a plug-in says: descriptions of settings and events, and the values in them.
 */
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "check.hpp"
#include "host.hpp"
#include "pod.hpp"

namespace hs_tool {

/** Whether the bus takes it as the name of a member, or as an element of an interface's name. */
bool is_bus_name(const std::string &name);

/** The texts of a description as the plug-in gave them, before anything is repaired or cut. */
struct raw_description {
	std::string title;
	std::string description;
	/** Type of the value. */
	uint32_t type = 0;
	/** Strings of the value, the names and values of a structure's members included. */
	std::vector<std::string> texts;
	std::vector<std::string> member_names;
	/** Types of a structure's members, or of an array's elements. */
	std::vector<uint32_t> member_types;
	/** A number that is NaN or infinite. */
	bool has_non_finite = false;
	bool has_empty_member = false;
};

/** Reads a description that hs_pod_parse took. */
raw_description read_raw(const spa_pod *pod);

/** What the title is of, for messages. */
enum class topic {
	setting,
	event,
};

/** Rules for title and texts. `titles` are those of the same kind so far, in lower case. */
void check_description(topic what, const raw_description &raw, std::set<std::string> *titles, report *found);

/** Rules for the value: what the daemon keeps and the bus carries. */
void check_value(topic what, const raw_description &raw, const hs_pod &parsed, report *found);

/** Fails with the reason why the daemon cannot read what the plug-in gave, which may be null. */
void check_unreadable(topic what, uint32_t index, const spa_pod *pod, report *found);

/** Titles of the instance's events that have a number which is not finite. */
std::set<std::string> non_finite_events(const host &instance);

/** Looks at the values of an instance's events again and again, from the start. */
class event_watch
{
public:
	/** Both are borrowed. */
	event_watch(host *watched, report *to);

	/** Fetches every event and reports what is wrong. */
	void look();

private:
	host *instance;
	report *found;
	/** By index: the type and those of the members, as first seen. */
	std::vector<std::vector<uint32_t>> shapes;
};

} // namespace hs_tool
