#include "installation.hpp"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <pipewire/properties.h>

#include <unistd.h>

#include "conf.hpp"
#include "failure.hpp"

namespace fs = std::filesystem;

namespace hs_tool {

namespace {

constexpr char library_prefix[] = "libspa-hs-";
constexpr char library_suffix[] = ".so";

bool is_file(const fs::path &path)
{
	std::error_code error;
	return fs::is_regular_file(path, error);
}

bool is_path(const std::string &text)
{
	return text.find('/') != std::string::npos || text.ends_with(library_suffix);
}

plugin_file plugin_of_file(const std::string &path)
{
	std::error_code error;
	if (!fs::exists(path, error))
		throw failure("There is no file " + path + ".");
	if (!is_file(path))
		throw failure(path + " is no file. Name the plug-in's library, libspa-hs-NAME.so.");
	if (access(path.c_str(), R_OK) < 0)
		throw failure(path + " cannot be read: " + std::strerror(errno) + ".");
	/* A name without "/" would be looked for among the system's libraries. */
	return {name_from_library(path), fs::absolute(path).string()};
}

plugin_file plugin_of_name(const std::string &name)
{
	std::string looked_in;
	for (const std::string &folder : library_folders()) {
		const fs::path path = fs::path(folder) / (library_prefix + name + library_suffix);
		if (is_file(path))
			return {name, path.string()};
		looked_in += "\n  " + folder;
	}
	throw failure("No plug-in " + name + " is installed: there is no " + library_prefix + name + library_suffix +
		      " in" + looked_in +
		      "\nName its library instead, or add the folder above its \"hear-sense\" to SPA_PLUGIN_DIR.");
}

/** The file that the configuration is to be read from; empty where there is none. */
std::string configuration_path(const plugin_file &plugin, const std::string &conf)
{
	const std::string file = plugin.name + ".conf";
	std::error_code error;
	if (!conf.empty())
		return fs::is_directory(conf, error) ? (fs::path(conf) / file).string() : conf;
	for (const fs::path &folder :
	     {fs::path(plugin.path).parent_path(), fs::path(HS_CONF_OVERRIDE_DIR), fs::path(HS_CONF_DIR)}) {
		if (is_file(folder / file))
			return (folder / file).string();
	}
	return "";
}

hs_properties_ptr object_of(const pw_properties *table, const char *key)
{
	const char *text = pw_properties_get(table, key);
	return hs_properties_ptr(pw_properties_new_string(text ? text : ""));
}

} // namespace

std::string name_from_library(const std::string &path)
{
	const std::string file = fs::path(path).filename().string();
	const size_t affixes = std::strlen(library_prefix) + std::strlen(library_suffix);
	if (!file.starts_with(library_prefix) || !file.ends_with(library_suffix) || file.size() <= affixes)
		return "";
	return file.substr(std::strlen(library_prefix), file.size() - affixes);
}

std::vector<std::string> library_folders()
{
	const char *variable = std::getenv("SPA_PLUGIN_DIR");
	std::string all = variable ? variable : HS_SPA_PLUGIN_DIR;
	std::vector<std::string> folders;
	for (size_t begin = 0; begin < all.size();) {
		const size_t end = std::min(all.find(':', begin), all.size());
		if (end > begin)
			folders.push_back(all.substr(begin, end - begin) + "/hear-sense");
		begin = end + 1;
	}
	return folders;
}

std::vector<std::string> libraries_in(const std::string &folder)
{
	std::vector<std::string> names;
	std::error_code error;
	for (const fs::directory_entry &entry : fs::directory_iterator(folder, error)) {
		const std::string name = name_from_library(entry.path().string());
		if (!name.empty())
			names.push_back(name);
	}
	std::sort(names.begin(), names.end());
	return names;
}

std::vector<std::string> installed_configurations()
{
	std::vector<std::string> names;
	for (const char *folder : {HS_CONF_DIR, HS_CONF_OVERRIDE_DIR}) {
		std::error_code error;
		for (const fs::directory_entry &entry : fs::directory_iterator(folder, error)) {
			if (entry.path().extension() == ".conf")
				names.push_back(entry.path().stem().string());
		}
	}
	return names;
}

plugin_file find_plugin(const std::string &name_or_file)
{
	return is_path(name_or_file) ? plugin_of_file(name_or_file) : plugin_of_name(name_or_file);
}

configuration find_configuration(const plugin_file &plugin, const std::string &conf)
{
	configuration found{};
	found.path = configuration_path(plugin, conf);

	found.file.reset(pw_properties_new(nullptr, nullptr));
	if (!found.path.empty() && (!is_file(found.path) || access(found.path.c_str(), R_OK) < 0))
		throw failure("The configuration " + found.path + " cannot be read. Name another file with --conf.");
	if (!found.path.empty() && !hs_conf_load_conf(found.path.c_str(), found.file.get()))
		throw failure("The configuration " + found.path + " cannot be read.");

	found.info = object_of(found.file.get(), "plugin.info");
	found.config = object_of(found.file.get(), "plugin.config");
	pw_properties_set(found.config.get(), "preview", "false");
	return found;
}

} // namespace hs_tool
