/*
 * What the daemon publishes on one bus, as it came: objects, their interfaces, properties and values.
 */
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "value.hpp"

namespace hs_ctl {

inline constexpr char SERVICE[] = "com.orvel.HearSense";
inline constexpr char SOURCE_INTERFACE[] = "com.orvel.HearSense.Source";
inline constexpr char CHAIN_INTERFACE[] = "com.orvel.HearSense.AudioChain";
inline constexpr char INSTANCE_INTERFACE[] = "com.orvel.HearSense.PluginInstance";
inline constexpr char SETTINGS_PREFIX[] = "com.orvel.HearSense.Settings.";
inline constexpr char EVENTS_PREFIX[] = "com.orvel.HearSense.Events.";

using properties = std::map<std::string, value>;
using interfaces = std::map<std::string, properties>;
/** By path. */
using object_tree = std::map<std::string, interfaces>;

void add_interfaces(object_tree *tree, const std::string &path, const interfaces &added);
void remove_interfaces(object_tree *tree, const std::string &path, const std::vector<std::string> &removed);

/** The property's content; null where there is none. */
const json &find_content(const object_tree &tree, const std::string &path, const std::string &interface,
			 const std::string &property);

/** The interface of an event, or that of its trigger. */
struct event_interface {
	std::string title;
	bool is_trigger;
};

/** What the interface is at the path of a plug-in; empty where it is no event's. */
std::optional<event_interface> split_event_interface(const std::string &path, const std::string &interface);

/** The name of the plug-in at the path: that on the bus, and that which people write, in lower case. */
std::string bus_name(const std::string &path);
std::string plugin_name(const std::string &path);

/** The node that the plug-in at the path hears; where it is not known, the path's own middle. */
std::string source_name(const object_tree &tree, const std::string &path);

} // namespace hs_ctl
