#include "library.hpp"

#include <cstring>

#include <dlfcn.h>

#include <hear-sense/plugin.h>

#include "failure.hpp"

namespace hs_tool {

namespace {

constexpr size_t max_factories = 1000;

/** NAME of the only factory "hear-sense.NAME"; empty where there is none or more than one. */
std::string name_from_factories(const std::vector<const spa_handle_factory *> &factories)
{
	std::string name;
	for (const spa_handle_factory *factory : factories) {
		if (!factory->name ||
		    std::strncmp(factory->name, HS_PLUGIN_FACTORY_PREFIX, sizeof(HS_PLUGIN_FACTORY_PREFIX) - 1) != 0)
			continue;
		if (!name.empty())
			return "";
		name = factory->name + sizeof(HS_PLUGIN_FACTORY_PREFIX) - 1;
	}
	return name;
}

} // namespace

library::library(const plugin_file &file)
    : file_path(file.path), plugin_name(file.name), handle(dlopen(file.path.c_str(), RTLD_NOW | RTLD_LOCAL))
{
	if (!handle) {
		const char *reason = dlerror();
		throw failure(file.path + " cannot be loaded: " + (reason ? reason : "for no told reason") + ".");
	}
	enumerate = reinterpret_cast<spa_handle_factory_enum_func_t>(dlsym(handle, SPA_HANDLE_FACTORY_ENUM_FUNC_NAME));
	if (plugin_name.empty())
		plugin_name = name_from_factories(factories());
}

library::~library()
{
	dlclose(handle);
}

bool library::has_entry_point() const
{
	return enumerate;
}

std::vector<const spa_handle_factory *> library::factories() const
{
	std::vector<const spa_handle_factory *> found;
	const spa_handle_factory *factory = nullptr;
	uint32_t index = 0;
	while (enumerate && found.size() < max_factories && enumerate(&factory, &index) == 1 && factory)
		found.push_back(factory);
	return found;
}

const spa_handle_factory *library::factory() const
{
	const std::string wanted = HS_PLUGIN_FACTORY_PREFIX + plugin_name;
	for (const spa_handle_factory *factory : factories()) {
		if (factory->name && wanted == factory->name)
			return factory;
	}
	return nullptr;
}

} // namespace hs_tool
