/*
 * A plug-in's library, loaded, and the SPA factory in it.
 */
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <spa/support/plugin.h>

#include "installation.hpp"

namespace hs_tool {

class library
{
public:
	/** Loads the file with all its symbols. Throws a failure that names what is missing. */
	explicit library(const plugin_file &file);
	~library();

	library(const library &) = delete;
	library &operator=(const library &) = delete;

	/** All factories that the library lists, at most 1000; empty where it has no entry point. */
	std::vector<const spa_handle_factory *> factories() const;
	bool has_entry_point() const;

	/** The factory that the daemon would take for the plug-in's name; null where there is none. */
	const spa_handle_factory *factory() const;

	/** The name the daemon would load it by: that of the file, else that of the only factory. */
	const std::string &name() const
	{
		return plugin_name;
	}

	const std::string &path() const
	{
		return file_path;
	}

private:
	std::string file_path;
	std::string plugin_name;
	void *handle;
	spa_handle_factory_enum_func_t enumerate;
};

} // namespace hs_tool
