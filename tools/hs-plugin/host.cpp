#include "host.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include <pipewire/pipewire.h>
#include <spa/utils/result.h>
#include <spa/utils/string.h>

#include "event.hpp"
#include "failure.hpp"
#include "plugin-log.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "props.hpp"
#include "source-settings.hpp"

namespace hs_tool {

namespace {

constexpr size_t max_support = 16;

std::string text_of(const std::optional<std::string> &text)
{
	return text.value_or("");
}

} // namespace

std::string interface_type_of(const std::string &name)
{
	std::string type = HS_PLUGIN_INTERFACE_TYPE_PREFIX;
	for (const char c : name)
		type += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
	return type;
}

host::host(const library &from, const pw_properties *plugin_config, listener *to)
    : config(plugin_config), told(to), thread(std::this_thread::get_id())
{
	if (!from.has_entry_point())
		throw failure(from.path() + " has no function " SPA_HANDLE_FACTORY_ENUM_FUNC_NAME
					    ", which HS_EXPORT_PLUGIN makes; in C, is it hidden?");
	const spa_handle_factory *factory = from.factory();
	if (!factory)
		throw failure(from.path() + " has no factory " HS_PLUGIN_FACTORY_PREFIX + from.name() +
			      ": its name must be the file's, libspa-hs-NAME.so.");

	std::array<spa_support, max_support> support{};
	const uint32_t n_support = pw_get_support(support.data(), support.size());
	for (uint32_t i = 0; i < n_support; ++i) {
		if (spa_streq(support[i].type, SPA_TYPE_INTERFACE_Log))
			support[i].data = plugin_log::get().in_front_of(static_cast<spa_log *>(support[i].data));
	}
	memory.reset(static_cast<spa_handle *>(std::calloc(1, spa_handle_factory_get_size(factory, &config->dict))));
	const int result = spa_handle_factory_init(factory, memory.get(), &config->dict, support.data(), n_support);
	if (result < 0)
		throw failure(from.name() + " makes no instance: its factory answers " + std::to_string(result) + " (" +
			      spa_strerror(result) + ").");

	const std::string type = interface_type_of(from.name());
	void *found = nullptr;
	spa_handle_get_interface(memory.get(), type.c_str(), &found);
	plugin = static_cast<hs_plugin_interface *>(found);
	if (plugin && plugin->version >= HS_PLUGIN_INTERFACE_VERSION_MIN) {
		plugin->notify_event = on_notify_event;
		plugin->host_data = this;
		return;
	}
	const std::string problem = plugin ? from.name() + " has an interface of version " +
						     std::to_string(plugin->version) + "; the daemon needs " +
						     std::to_string(HS_PLUGIN_INTERFACE_VERSION_MIN) + " at least."
					   : from.name() + " does not answer the interface " + type + ".";
	spa_handle_clear(memory.get());
	throw failure(problem);
}

host::~host()
{
	/* The plug-in may still notify while its handle is cleared. */
	plugin->host_data = nullptr;
	spa_handle_clear(memory.get());
}

void host::describe_events()
{
	described = hs_events_describe(plugin, hs_plugin_count_events(plugin));
}

std::vector<setting> host::settings()
{
	std::vector<setting> all;
	const int n_settings = hs_plugin_count_settings(plugin);
	for (int i = 0; i < n_settings; ++i) {
		hs_pod_buffer buffer;
		const hs_pod_ptr pod = hs_pod_parse(hs_plugin_fetch_setting(plugin, static_cast<uint32_t>(i), &buffer));
		if (pod && pod->title)
			all.push_back(
				{*pod->title, text_of(pod->description), text_of(pod->type), hs_pod_value_text(*pod)});
	}
	return all;
}

void host::set(const std::string &title, const std::string &value)
{
	const std::vector<setting> all = settings();
	const auto found =
		std::find_if(all.begin(), all.end(), [&title](const setting &s) { return s.title == title; });
	if (found == all.end()) {
		std::string titles;
		for (const setting &s : all)
			titles += (titles.empty() ? "" : ", ") + s.title;
		throw failure("There is no setting " + title +
			      ". Those of the plug-in: " + (titles.empty() ? "none" : titles) + ".");
	}
	const hs_schema_type *type = hs_schema_type_by_name(found->type.c_str());
	if (found->type == "array" || found->type == "struct")
		throw failure(title + " is of type " + found->type + ", which the daemon does not hand to plug-ins.");
	const bool is_boolean = found->type == "boolean";
	if (!hs_pod_value_is_valid(*type, value.c_str()) || (is_boolean && value != "true" && value != "false"))
		throw failure("\"" + value + "\" is no value for " + title + ", which is of type " + found->type +
			      (is_boolean ? " (true or false)." : "."));
	if (!hs_setting_hand_over(plugin, title.c_str(), value.c_str(), found->type.c_str()))
		throw failure("The plug-in refuses \"" + value + "\" for " + title + ".");
}

std::vector<std::string> host::set_defaults(const pw_properties *info)
{
	std::vector<std::string> refused;
	const hs_properties_ptr stored = hs_setting_read_stored(info, nullptr);
	for (const setting &s : settings()) {
		const char *value = pw_properties_get(stored.get(), hs_setting_name(s.title.c_str()).c_str());
		if (!value)
			continue;
		try {
			set(s.title, value);
		} catch (const failure &why) {
			refused.emplace_back(why.what());
		}
	}
	return refused;
}

int host::init(const hs_stream_info &new_stream)
{
	stream = new_stream;
	const int result = hs_plugin_init(plugin, &stream, &config->dict);
	initialized = result >= 0;
	return result;
}

void host::deinit()
{
	initialized = false;
	hs_plugin_deinit(plugin);
}

int host::activate()
{
	const int result = hs_plugin_activate(plugin);
	active = result >= 0 || result == -EOPNOTSUPP;
	return active ? 0 : result;
}

void host::deactivate()
{
	active = false;
	hs_plugin_deactivate(plugin);
}

void host::process(spa_buffer *buffer)
{
	const size_t n_errors = plugin_log::get().n_errors();
	hs_plugin_process(plugin, buffer);
	if (!process_error && plugin_log::get().n_errors() > n_errors)
		process_error = plugin_log::get().last_error();
}

std::optional<std::string> host::take_process_error()
{
	return std::exchange(process_error, std::nullopt);
}

void host::handle_events(bool force)
{
	hs_events_handle_all(plugin, *described, force, on_event, this);
}

void host::on_notify_event(hs_plugin_interface *interface, uint32_t index)
{
	auto *self = interface ? static_cast<host *>(interface->host_data) : nullptr;
	if (!self)
		return;
	if (std::this_thread::get_id() != self->thread) {
		++self->n_stray;
		return;
	}
	if (self->serving || !self->described)
		return;
	if (index >= static_cast<uint32_t>(std::max(hs_plugin_count_events(interface), 0)))
		++self->n_unknown;
	self->serving = true;
	hs_events_handle_one(interface, *self->described, index, false, on_event, self);
	self->serving = false;
}

void host::on_event(void *data, const hs_event &event, bool)
{
	if (listener *told = static_cast<host *>(data)->told)
		told->on_event(event);
}

} // namespace hs_tool
