/*
 * What an object says of itself in XML: its interfaces with their properties, and the objects below it.
 *
 * Pure. It reads what sd-bus writes, a tag on a line, and is no parser for XML.
 */
#pragma once

#include <map>
#include <string>
#include <vector>

namespace hs_ctl {

struct introspection {
	/** By interface, the signature of each property. */
	std::map<std::string, std::map<std::string, std::string>> interfaces;
	/** Names of the objects right below. */
	std::vector<std::string> children;
};

introspection read_introspection(const std::string &xml);

} // namespace hs_ctl
