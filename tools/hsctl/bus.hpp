/*
 * The daemon, as a client sees it: calls, objects, private buses.
 *
 * Failure: every function throws one, which says whether bus or daemon are missing or the daemon refused.
 */
#pragma once

#include <string>
#include <utility>

#include "handles.hpp"
#include "objects.hpp"

namespace hs_ctl {

/** The system bus; the user's own where `of_user` or HS_USE_SESSION_BUS=true says so. */
bus_ptr open_bus(bool of_user);

/** A private bus of the daemon's, asked for on `bus`. */
bus_ptr open_private_bus(sd_bus *bus);

/** Has the bus hand over the daemon's signals, and tell when the daemon comes and goes. */
void subscribe(sd_bus *bus);

/** The unique name of the daemon; empty where it is not there. */
std::string find_owner(sd_bus *bus);

/** What cannot be read is null, and told of on standard error where `is_talkative`. */
object_tree read_objects(sd_bus *bus, bool is_talkative = true);

value read_property(sd_bus *bus, const std::string &path, const std::string &interface, const std::string &name);
void write_property(sd_bus *bus, const std::string &path, const std::string &interface, const std::string &name,
		    const value &written);

/** Calls a method without result; `argument` is a boolean, or null for none. */
void call_method(sd_bus *bus, const std::string &path, const std::string &interface, const std::string &method,
		 const json &argument);

/** Both buses' objects of one moment. */
struct both_trees {
	object_tree objects;
	/** Empty without a private bus. */
	object_tree private_objects;
};

both_trees read_both(sd_bus *bus, bool with_private, bool is_talkative = true);

} // namespace hs_ctl
