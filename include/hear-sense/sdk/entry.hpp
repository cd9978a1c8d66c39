/* SPDX-License-Identifier: MIT */
/*
 * The way in: the functions that the daemon calls, the handle, the factory.
 */
#ifndef HEAR_SENSE_SDK_ENTRY_HPP
#define HEAR_SENSE_SDK_ENTRY_HPP

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <spa/pod/builder.h>
#include <spa/support/log.h>
#include <spa/support/plugin.h>
#include <spa/utils/dict.h>

#include <hear-sense/plugin.h>
#include <hear-sense/sdk/base.hpp>

namespace hear_sense {

/** One name that a library serves: what plug-ins of this name are made by. */
class factory : public spa_handle_factory
{
public:
	using make_function = std::unique_ptr<plugin_base> (*)(const host &);

	factory(plugin_info from, make_function function);
	factory(const factory &) = delete;
	factory &operator=(const factory &) = delete;

	const plugin_info &info() const
	{
		return own_info;
	}

	const char *interface_type() const
	{
		return type.c_str();
	}

	std::unique_ptr<plugin_base> make_plugin(const host &from) const
	{
		return make(from);
	}

private:
	static int enum_interfaces(const spa_handle_factory *self, const spa_interface_info **info, uint32_t *index)
	{
		if (*index > 0)
			return 0;
		*info = &static_cast<const factory *>(self)->offered;
		(*index)++;
		return 1;
	}

	plugin_info own_info;
	make_function make;
	std::string factory_name;
	std::string type;
	spa_interface_info offered{};
};

namespace detail {

struct handle : spa_handle {
	/* Side by side with what the daemon reads of the interface for each buffer. */
	std::unique_ptr<plugin_base> plugin;
	hs_plugin_interface interface = {};

	/** Calls `function` and lets nothing but its result out; `write` hears of an exception. */
	template <typename Function, typename Write>
	static int guard(const Function &function, const Write &write) noexcept
	{
		try {
			return function();
		} catch (const std::bad_alloc &) {
			write("out of memory");
			return -ENOMEM;
		} catch (const std::invalid_argument &error) {
			write(error.what());
			return -EINVAL;
		} catch (const std::exception &error) {
			write(error.what());
			return -EIO;
		} catch (...) {
			write("an unknown exception");
			return -EIO;
		}
	}

	template <typename Function>
	static int guard(const plugin_base &plugin, const char *doing, const Function &function) noexcept
	{
		return guard(function,
			     [&](const char *what) { plugin.log(SPA_LOG_LEVEL_ERROR, "%s: %s", doing, what); });
	}

	static plugin_base &plugin_of(void *object)
	{
		return *static_cast<handle *>(static_cast<spa_handle *>(object))->plugin;
	}

	static int on_init(void *object, const hs_stream_info *info, const spa_dict *config) noexcept
	{
		plugin_base &plugin = plugin_of(object);
		const int result = guard(plugin, "init", [&] { return info ? plugin.open(*info, config) : -EINVAL; });
		if (result < 0)
			on_deinit(object);
		return result;
	}

	static void on_deinit(void *object) noexcept
	{
		plugin_base &plugin = plugin_of(object);
		guard(plugin, "deinit", [&] {
			plugin.close();
			return 0;
		});
	}

	static int on_activate(void *object) noexcept
	{
		plugin_base &plugin = plugin_of(object);
		const int result = guard(plugin, "activate", [&] { return plugin.begin(); });
		if (result < 0)
			on_deactivate(object);
		return result;
	}

	static void on_deactivate(void *object) noexcept
	{
		plugin_base &plugin = plugin_of(object);
		guard(plugin, "deactivate", [&] {
			plugin.end();
			return 0;
		});
	}

	static void on_process(void *object, spa_buffer *buffer) noexcept
	{
		plugin_base &plugin = plugin_of(object);
		if (!plugin.is_hearing || !buffer)
			return;
		plugin.prefetch_events();
		const int result = guard(plugin, "process", [&] {
			plugin.hear(*buffer);
			return 0;
		});
		/* Its state is not to be trusted any more. */
		if (result < 0)
			on_deactivate(object);
	}

	/** With index 0 and null pointers the number, else what `describe` gives. */
	template <typename Describe>
	static int get(size_t number, uint32_t index, spa_pod **result, spa_pod_builder *builder,
		       const Describe &describe)
	{
		if (index == 0 && !result && !builder)
			return static_cast<int>(number);
		if (!result || !builder)
			return -EINVAL;
		*result = index < number ? describe() : nullptr;
		return *result ? 0 : index < number ? -ENOSPC : -EINVAL;
	}

	static int on_get_setting(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder) noexcept
	{
		const auto all = plugin_of(object).settings();
		return get(all.size(), index, result, builder, [&] { return all[index]->describe(builder); });
	}

	static int on_get_event(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder) noexcept
	{
		plugin_base &plugin = plugin_of(object);
		return get(plugin.n_events(), index, result, builder,
			   [&] { return plugin.describe_event(index, builder); });
	}

	static int on_get_settings(void *object, spa_pod_builder *builder) noexcept
	{
		return builder && plugin_of(object).build_settings(builder) ? 0 : -ENOSPC;
	}

	static int on_set_settings(void *object, const spa_pod *settings) noexcept
	{
		plugin_base &plugin = plugin_of(object);
		return guard(plugin, "set_settings", [&] { return plugin.take_setting(settings); });
	}

	static int on_get_interface(spa_handle *self, const char *type, void **result) noexcept
	{
		auto *own = static_cast<handle *>(self);
		if (!type || std::string_view{type} != own->interface.type)
			return -ENOENT;
		*result = &own->interface;
		return 0;
	}

	static int on_clear(spa_handle *self) noexcept
	{
		on_deinit(self);
		static_cast<handle *>(self)->~handle();
		return 0;
	}

	/** One for all handles: it stays in the cache. Hidden, or the library could never be unloaded. */
	[[gnu::visibility("hidden")]] static const hs_plugin_methods *methods()
	{
		static const hs_plugin_methods all = [] {
			hs_plugin_methods table{};
			table.init = on_init;
			table.deinit = on_deinit;
			table.activate = on_activate;
			table.deactivate = on_deactivate;
			table.get_setting = on_get_setting;
			table.get_event = on_get_event;
			table.get_settings = on_get_settings;
			table.set_settings = on_set_settings;
			table.process = on_process;
			return table;
		}();
		return &all;
	}

	void make(const factory &from, const host &host_side)
	{
		const plugin_info &info = from.info();
		if (!is_name(info.name) || !is_name(info.interface_name) ||
		    !same_but_for_case(info.name, info.interface_name))
			detail::refuse(info.name,
				       "is no name: letters, digits and \"_\", no digit first, one but for case");
		plugin = from.make_plugin(host_side);
		if (!plugin)
			throw std::bad_alloc{};

		version = SPA_VERSION_HANDLE;
		get_interface = on_get_interface;
		clear = on_clear;
		interface.type = from.interface_type();
		interface.version = HS_PLUGIN_INTERFACE_VERSION;
		interface.funcs = methods();
		interface.data = static_cast<spa_handle *>(this);
		interface.name = info.interface_name.c_str();
		interface.interface_name = info.interface_name.c_str();
		interface.schema = info.schema.empty() ? nullptr : info.schema.c_str();
		interface.settings_schema = info.settings_schema.empty() ? nullptr : info.settings_schema.c_str();
		plugin->publish(interface);
	}

	static size_t size(const spa_handle_factory *, const spa_dict *) noexcept
	{
		return sizeof(handle);
	}

	static int on_make(const spa_handle_factory *from, spa_handle *memory, const spa_dict *config,
			   const spa_support *support, uint32_t n_support) noexcept
	{
		const auto &own_factory = *static_cast<const factory *>(from);
		auto *log = static_cast<spa_log *>(spa_support_find(support, n_support, SPA_TYPE_INTERFACE_Log));
		auto *self = new (memory) handle{};
		const int result = guard(
			[&] {
				self->make(own_factory, {own_factory.info(), log, config});
				return 0;
			},
			[&](const char *what) {
				char line[1024];
				std::snprintf(line, sizeof(line), "%s: %s", own_factory.name, what);
				write_log(log, SPA_LOG_LEVEL_ERROR, nullptr, line);
			});
		if (result < 0)
			self->~handle();
		return result;
	}
};

} // namespace detail

inline factory::factory(plugin_info from, make_function function)
    : spa_handle_factory{}, own_info{std::move(from)}, make{function}
{
	if (own_info.interface_name.empty() && !own_info.name.empty()) {
		own_info.interface_name = own_info.name;
		char &first = own_info.interface_name.front();
		first = static_cast<char>(std::toupper(static_cast<unsigned char>(first)));
	}
	factory_name = HS_PLUGIN_FACTORY_PREFIX + own_info.name;
	type = own_info.name;
	for (char &c : type)
		c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
	type.insert(0, HS_PLUGIN_INTERFACE_TYPE_PREFIX);
	offered.type = type.c_str();

	spa_handle_factory::version = SPA_VERSION_HANDLE_FACTORY;
	spa_handle_factory::name = factory_name.c_str();
	spa_handle_factory::get_size = detail::handle::size;
	spa_handle_factory::init = detail::handle::on_make;
	spa_handle_factory::enum_interface_info = enum_interfaces;
}

/** Makes a plug-in of class `Plugin`. */
template <typename Plugin>
std::unique_ptr<plugin_base> make_plugin(const host &from)
{
	return std::make_unique<Plugin>(from);
}

/**
 * Answers spa_handle_factory_enum with what `get_factories` returns: a list that then stays as it is, for as
 * long as the library is loaded. A function and not the list, so that one which fails can be told of.
 */
template <typename Function>
int enum_factories(const Function &get_factories, const spa_handle_factory **result, uint32_t *index) noexcept
{
	try {
		const std::deque<factory> &factories = get_factories();
		if (*index >= factories.size())
			return 0;
		*result = &factories[*index];
		(*index)++;
		return 1;
	} catch (const std::bad_alloc &) {
		return -ENOMEM;
	} catch (...) {
		return -EIO;
	}
}

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_ENTRY_HPP */
