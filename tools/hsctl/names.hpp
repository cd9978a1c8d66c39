/*
 * Names that people write, and what they mean. Upper and lower case are the same in all of them.
 */
#pragma once

#include <string>
#include <vector>

#include "model.hpp"

namespace hs_ctl {

/**
 * What "loudness" or "loudness@AudioDevice0Input0.Unprocessed" means, or what begins with "loudness@AudioDevice0";
 * throws a failure that lists what there is.
 */
std::vector<const instance *> find_instances(const model &all, const std::string &name);

/** The same, where there is to be exactly one. */
const instance &find_instance(const model &all, const std::string &name);

/** Null where there is none of that title. */
const setting *find_setting(const instance &of, const std::string &title);
const event *find_event(const instance &of, const std::string &title);

/** Throws a failure that lists the settings. */
const setting &need_setting(const instance &of, const std::string &title);

/** The event to trigger: the only one with a trigger, if not named. Throws a failure that lists them. */
const event &need_trigger(const instance &of, const std::string &title);

/** The devices: all, if not named. Throws a failure that lists them. */
std::vector<const chain *> find_chains(const model &all, const std::string &id);

/**
 * Whether the event is meant by one of the patterns, or there are none. A pattern is a glob for the plug-in, the
 * plug-in on its source, the event, or one of the first two and the event with "/" between.
 */
bool is_meant(const std::vector<std::string> &patterns, const std::string &plugin, const std::string &source,
	      const std::string &event_title);

} // namespace hs_ctl
