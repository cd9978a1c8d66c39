/*
 * Where plug-ins and their configurations are: what a NAME or FILE on the command line means.
 *
 * The folders are the daemon's, the environment's SPA_PLUGIN_DIR included.
 */
#pragma once

#include <string>
#include <vector>

#include "owned.hpp"

namespace hs_tool {

/** A plug-in's library, and the name that the daemon would load it by. */
struct plugin_file {
	std::string name;
	std::string path;
};

/** A NAME is looked for as the daemon does; anything with a "/" or ending in ".so" is a FILE. Throws a failure. */
plugin_file find_plugin(const std::string &name_or_file);

/** NAME of ".../libspa-hs-NAME.so"; empty for a file of another name. */
std::string name_from_library(const std::string &path);

/** The daemon's folders of plug-in libraries, in the order of its search. */
std::vector<std::string> library_folders();

/** Names of the plug-ins whose libraries are in the folder, in alphabetical order. */
std::vector<std::string> libraries_in(const std::string &folder);

/** Names of the plug-ins that have a configuration in the daemon's folders. */
std::vector<std::string> installed_configurations();

/** What a configuration file says. */
struct configuration {
	/** Empty where there is none: then all is as with an empty file. */
	std::string path;
	/** All of it. */
	hs_properties_ptr file;
	/** "plugin.info". */
	hs_properties_ptr info;
	/** What the plug-in's init is given: "plugin.config" and "preview". */
	hs_properties_ptr config;
};

/**
 * Reads the file `conf`, or the file of the plug-in in it where it is a folder. An empty `conf` means the
 * file that lies beside the library, else the installed one. Throws a failure where `conf` cannot be read.
 */
configuration find_configuration(const plugin_file &plugin, const std::string &conf);

} // namespace hs_tool
