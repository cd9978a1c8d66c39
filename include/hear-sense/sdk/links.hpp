/* SPDX-License-Identifier: MIT */
/*
 * One library under any number of names, which its users make: each link libspa-hs-NAME.so to it, in its folder,
 * is a plug-in NAME with a configuration NAME.conf. In place of HS_EXPORT_PLUGIN the source ends with
 *
 *     HS_EXPORT_LINKED_PLUGINS(clap, {.schema = "clap.json"})
 *
 * and the library is installed by a name that does not begin with "libspa-hs-", so that it is none by itself.
 *
 * The folder is read once, when the daemon first loads the library: a new link needs a restart.
 */
#ifndef HEAR_SENSE_SDK_LINKS_HPP
#define HEAR_SENSE_SDK_LINKS_HPP

#include <deque>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include <dlfcn.h>

#include <hear-sense/plugin.hpp>

namespace hear_sense {

/**
 * A factory for each link to the library that `inside`, a function or object of it, belongs to. They have `common`
 * but for the name.
 */
inline std::deque<factory> find_links(const void *inside, plugin_info common, factory::make_function make)
{
	constexpr std::string_view prefix = "libspa-hs-";
	Dl_info library;
	if (dladdr(inside, &library) == 0)
		throw std::runtime_error("the library cannot be found");
	const std::filesystem::path path = std::filesystem::absolute(library.dli_fname);
	std::deque<factory> all;
	for (const auto &entry : std::filesystem::directory_iterator(path.parent_path())) {
		const std::string stem = entry.path().stem().string();
		std::error_code error;
		if (!stem.starts_with(prefix) || entry.path().extension() != ".so" ||
		    !std::filesystem::equivalent(entry.path(), path, error))
			continue;
		common.name = stem.substr(prefix.size());
		all.emplace_back(common, make);
	}
	return all;
}

} // namespace hear_sense

/** Exports a library of the class under the names of its links, with a plugin_info in braces that has no name. */
#define HS_EXPORT_LINKED_PLUGINS(CLASS, ...)                                                                           \
	static const std::deque<hear_sense::factory> &hs_linked_factories()                                            \
	{                                                                                                              \
		static const std::deque<hear_sense::factory> factories =                                               \
			hear_sense::find_links(reinterpret_cast<const void *>(&hs_linked_factories),                   \
					       hear_sense::plugin_info __VA_ARGS__, hear_sense::make_plugin<CLASS>);   \
		return factories;                                                                                      \
	}                                                                                                              \
	HS_EXPORT_PLUGINS(hs_linked_factories)

#endif /* HEAR_SENSE_SDK_LINKS_HPP */
