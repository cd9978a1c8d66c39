/*
 * What stands in messages: variants, interfaces and their properties.
 *
 * Failure: a message that is not what it should be throws one.
 */
#pragma once

#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "objects.hpp"

namespace hs_ctl {

/** Throws a failure where `r` is negative. */
void check(int r, const char *doing);

value read_variant(sd_bus_message *message);
void append_variant(sd_bus_message *message, const value &appended);

/** An "a{sv}", an "a{sa{sv}}", an "a{oa{sa{sv}}}", an "as", a string or path. */
properties read_properties(sd_bus_message *message);
interfaces read_interfaces(sd_bus_message *message);
object_tree read_tree(sd_bus_message *message);
std::vector<std::string> read_texts(sd_bus_message *message);
std::string read_text(sd_bus_message *message, char type = 's');

} // namespace hs_ctl
