/*
 * Checks of the library and of the interface in it.
 */
#include "check-bench.hpp"
#include "check-description.hpp"

#include <algorithm>
#include <filesystem>

#include <dlfcn.h>

#include "failure.hpp"
#include "plugin.hpp"
#include "sanitizer.hpp"
#include "utf8.hpp"

namespace hs_tool {

namespace {

std::string lower(std::string text)
{
	std::transform(text.begin(), text.end(), text.begin(),
		       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
	return text;
}

/**
 * Loads the library where it sees nothing of this program. A second copy of a sanitizer's library would end
 * the process.
 */
void load_alone([[maybe_unused]] const std::string &path, [[maybe_unused]] report *found)
{
#ifndef HS_HAS_SANITIZER
	found->begin("loading the library by itself");
	if (void *handle = dlmopen(LM_ID_NEWLM, path.c_str(), RTLD_NOW | RTLD_LOCAL))
		dlclose(handle);
	else
		found->warn(
			std::string(
				"It finds all its symbols only among what this program has loaded already; link it with "
				"the libraries that it uses: ") +
			dlerror() + ".");
#endif
}

void check_load(const subject &plugin, report *found)
{
	found->begin("loading the library");
	const library loaded(plugin.plugin);
	if (!loaded.has_entry_point())
		found->fail(std::string("It has no function " SPA_HANDLE_FACTORY_ENUM_FUNC_NAME
					"; is that hidden, or not extern \"C\"?"));
	load_alone(plugin.plugin.path, found);
}

bool lists_interface(const spa_handle_factory *factory, const std::string &type)
{
	const spa_interface_info *info = nullptr;
	uint32_t index = 0;
	while (index < 100 && spa_handle_factory_enum_interface_info(factory, &info, &index) == 1 && info) {
		if (info->type && type == info->type)
			return true;
	}
	return false;
}

void check_factory(const subject &plugin, report *found)
{
	if (plugin.plugin.name.empty())
		found->warn("Its file is not called libspa-hs-NAME.so, so the daemon does not find it.");
	const library loaded(plugin.plugin);
	found->begin("listing the factories");
	const spa_handle_factory *factory = loaded.factory();
	if (!factory)
		throw failure("It has no factory " HS_PLUGIN_FACTORY_PREFIX + loaded.name() + ".");
	if (factory->version < SPA_VERSION_HANDLE_FACTORY)
		found->fail("Its factory is of version " + std::to_string(factory->version) +
			    ", too old for PipeWire.");
	if (!factory->get_size || !factory->init)
		throw failure("Its factory has no get_size or no init.");

	found->begin("asking the factory for the interfaces");
	const std::string type = interface_type_of(loaded.name());
	if (!factory->enum_interface_info || !lists_interface(factory, type))
		found->warn("Its factory does not list the interface " + type + ".");
	found->begin("asking the factory for the size of an instance");
	if (factory->get_size(factory, nullptr) < sizeof(spa_handle))
		found->fail("Its factory tells a size for instances that is smaller than a spa_handle.");
}

void check_interface(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	found->begin("making an instance");
	const auto instance = loaded.make();
	const hs_plugin_interface &interface = *instance->interface();
	const std::string type = interface_type_of(loaded.plugin.name());
	if (!interface.type || type != interface.type)
		found->fail("Its interface says that it is of type " +
			    std::string(interface.type ? interface.type : "(null)") + ", not " + type + ".");
	if (interface.version > HS_PLUGIN_INTERFACE_VERSION)
		found->warn("Its interface is of version " + std::to_string(interface.version) +
			    "; this daemon knows " + std::to_string(HS_PLUGIN_INTERFACE_VERSION) + ".");
	if (!interface.funcs)
		throw failure("Its interface has no functions.");
	if (!interface.funcs->process)
		found->warn("It has no process, so it never hears anything.");
	if (!interface.funcs->get_event)
		found->warn("It has no get_event, so it never says anything.");
	found->note("version " + std::to_string(interface.version));

	found->begin("making a second instance");
	const auto other = loaded.make();
	if (other->interface() == instance->interface())
		found->fail("All its instances share one interface record, into which the daemon writes for each.");

	found->begin("asking for an interface of another type");
	void *stray = nullptr;
	spa_handle_get_interface(instance->handle(), "Spa:Pointer:Interface:Nothing", &stray);
	if (stray)
		found->warn("It answers an interface of a type that it has not.");
}

void check_names(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const auto instance = loaded.make();
	const hs_plugin_interface &interface = *instance->interface();
	const std::string &name = loaded.plugin.name();
	if (!is_bus_name(name))
		found->fail("Its name \"" + name +
			    "\" does not fit into paths and interfaces on the bus: letters, digits and " +
			    "\"_\", no digit first.");
	if (name.size() >= sizeof(hs_plugin::name))
		found->fail("Its name is longer than " + std::to_string(sizeof(hs_plugin::name) - 1) + " bytes.");

	const std::string on_bus = interface.interface_name ? interface.interface_name : "";
	if (!is_bus_name(on_bus))
		found->fail("Its name on the bus, \"" + on_bus +
			    "\", does not fit into paths and interfaces: letters, digits " +
			    "and \"_\", no digit first.");
	else if (lower(on_bus) != lower(name))
		found->fail("Its name on the bus, " + on_bus + ", is another than that of its configuration, " + name +
			    ".conf; only the case may differ.");
	if (!interface.name || !*interface.name)
		found->warn("It has no name for log lines.");
	else if (!hs_utf8_is_valid(interface.name))
		found->fail("Its name for log lines is no UTF-8.");
}

/** All other plug-ins that there are, as far as can be seen from here. */
std::set<std::string> neighbours_of(const plugin_file &plugin)
{
	std::vector<std::string> folders = library_folders();
	folders.push_back(std::filesystem::path(plugin.path).parent_path().string());
	std::set<std::string> names;
	for (const std::string &folder : folders) {
		for (const std::string &name : libraries_in(folder))
			names.insert(name);
	}
	for (const std::string &name : installed_configurations())
		names.insert(name);
	names.erase(plugin.name);
	return names;
}

void check_neighbours(const subject &plugin, report *found)
{
	const std::string name = library(plugin.plugin).name();
	const std::set<std::string> others = neighbours_of({name, plugin.plugin.path});
	for (const std::string &other : others) {
		if (name.starts_with(other))
			found->fail("Its name begins with that of the plug-in " + other +
				    ": PipeWire looks for it in that one's library. Rename one of them.");
		else if (other.starts_with(name))
			found->fail(
				"The name of the plug-in " + other +
				" begins with its name: PipeWire looks for that one in its library. Rename one of them.");
	}
	found->note(others.empty() ? "no other plug-in in sight"
				   : std::to_string(others.size()) +
					     (others.size() == 1 ? " other in sight" : " others in sight"));
}

constexpr check_case checks[] = {
	{"load", "loads with all its symbols resolved", check_load, true},
	{"factory", "has the factory that the daemon looks for", check_factory, true},
	{"interface", "has the interface, one for each instance, in a version that the daemon takes", check_interface,
	 true},
	{"names", "has names that fit into paths and interfaces", check_names},
	{"neighbours", "has a name that does not begin with another's", check_neighbours},
};

} // namespace

std::span<const check_case> load_checks()
{
	return checks;
}

} // namespace hs_tool
