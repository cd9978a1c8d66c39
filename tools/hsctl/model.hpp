/*
 * What there is, made of the objects: devices, their nodes, and the plug-ins that hear these.
 *
 * Everything is in the order of its name.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "objects.hpp"

namespace hs_ctl {

struct chain {
	std::string id;
	std::string path;
	std::string nice_name;
	std::string direction;
};

struct source {
	std::string id;
	std::string path;
	/** Path of its chain. */
	std::string chain_path;
};

struct setting {
	std::string title;
	value current;
};

struct event {
	std::string title;
	std::string interface;
	value current;
	bool is_public = true;
	/** On a private bus only, and none was taken: nothing but its trigger is known. */
	bool is_hidden = false;
	/** Empty for none. */
	std::string trigger_interface;
	/** What else the daemon tells of it. */
	properties about;
};

/** A plug-in on a source. */
struct instance {
	/** As people write it: "loudness", and "loudness@AudioDevice0Input0.Unprocessed". */
	std::string plugin;
	std::string name;
	/** Id of the source. */
	std::string source;
	std::string path;
	std::string settings_interface;
	std::string schema;
	std::vector<setting> settings;
	std::vector<event> events;
	bool is_enabled = false;
};

struct model {
	std::vector<chain> chains;
	std::vector<source> sources;
	std::vector<instance> instances;
};

/** `private_objects` adds what a private bus shows; null for none. */
model make_model(const object_tree &objects, const object_tree *private_objects = nullptr);

/** Whether the event says that something is there: a boolean, or a structure with "Detected". */
std::optional<bool> detection_of(const json &content);

/** The number to draw an event by: its own, or the first among its members. */
std::optional<double> number_of(const json &content);

} // namespace hs_ctl
