#include "introspection.hpp"

#include <sstream>

namespace hs_ctl {

namespace {

/** The attribute's value in a tag; empty where it has none. */
std::string attribute(const std::string &tag, const std::string &name)
{
	const std::string opening = " " + name + "=\"";
	const size_t begin = tag.find(opening);
	if (begin == std::string::npos)
		return "";
	const size_t value = begin + opening.size();
	return tag.substr(value, tag.find('"', value) - value);
}

} // namespace

introspection read_introspection(const std::string &xml)
{
	introspection read;
	std::string interface;
	std::istringstream lines(xml);
	for (std::string line; std::getline(lines, line);) {
		const std::string name = attribute(line, "name");
		if (name.empty())
			continue;
		if (line.find("<interface ") != std::string::npos) {
			interface = name;
			read.interfaces[interface];
		} else if (line.find("<property ") != std::string::npos) {
			read.interfaces[interface][name] = attribute(line, "type");
		} else if (line.find("<node ") != std::string::npos) {
			read.children.push_back(name);
		}
	}
	return read;
}

} // namespace hs_ctl
