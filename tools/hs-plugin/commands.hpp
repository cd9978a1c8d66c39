/*
 * The commands of the tool. Each returns the exit status and throws a failure where it cannot do its work.
 */
#pragma once

#include <string>
#include <vector>

namespace hs_tool {

/** Exit statuses. */
enum status : int {
	STATUS_OK = 0,
	STATUS_WARNING = 1,
	STATUS_ERROR = 2,
};

/** What the command line says; each command looks at what is its own. */
struct options {
	/** NAME or FILE. */
	std::string plugin;
	std::string conf;
	std::string schemas;
	bool json = false;

	/* Of run. */
	/** "Setting=Value". */
	std::vector<std::string> settings;
	std::string source;
	/** Frames; 0 for the usual. */
	unsigned int block = 0;
	std::vector<std::string> files;

	/* Of check. */
	std::vector<std::string> only;
	double time_limit = 0;
	bool verbose = false;
};

int info(const options &options);
int run(const options &options);
int check(const options &options);

} // namespace hs_tool
