/*
 * Everything the daemon has at run time, in one process and without a server.
 *
 * The PipeWire context is its own server: nodes, metadata and streams are real, but nothing links them. The
 * main bus is a connection to a client in the test. Plug-ins come from a real library, their interfaces
 * from the test.
 *
 *	hs_daemon_bed bed;
 *	hs_plugin *plugin = bed.add_plugin("motion");
 *	bed.add_node("AudioDevice0Input0.Unprocessed", "Audio/Source");
 *	bed.host.plugins[0]->calls;
 */
#pragma once

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <pipewire/impl-metadata.h>
#include <pipewire/impl.h>
#include <pipewire/pipewire.h>

#include "bus-client.hpp"
#include "context.hpp"
#include "handmade-plugin.hpp"
#include "library-host.hpp"
#include "log-capture.hpp"
#include "loop.hpp"
#include "metadata.hpp"
#include "metrics.hpp"
#include "plugin.hpp"
#include "pw-source.hpp"
#include "registry.hpp"
#include "temp-dir.hpp"

/** Makes a plug-in for each handle of the library, and keeps it after the handle is gone. */
struct hs_test_host : hs_library_host {
	hs_test_host()
	    : hs_library_host{on_init, on_get_interface, on_clear}
	{
	}

	/** Called for every plug-in before its interface is handed out. */
	std::function<void(hs_handmade_plugin &)> prepare;
	/** Called while a handle is cleared, with its plug-in; null where it has none. */
	std::function<void(hs_handmade_plugin *)> at_clear;
	int init_result = 0;
	int get_interface_result = 0;
	bool has_interface = true;
	std::deque<std::unique_ptr<hs_handmade_plugin>> plugins;
	/** Configuration of the last handle. */
	std::vector<std::pair<std::string, std::string>> config;
	/** What get_interface was asked for. */
	std::vector<std::string> types;
	size_t n_handles = 0;
	size_t n_cleared = 0;

private:
	static hs_test_host *self_of(hs_library_host *host)
	{
		return static_cast<hs_test_host *>(host);
	}

	static int on_init(hs_library_host *host, const spa_dict *config)
	{
		hs_test_host *self = self_of(host);
		self->config.clear();
		const spa_dict_item *item;
		spa_dict_for_each(item, config) self->config.emplace_back(item->key, item->value);
		self->n_handles += self->init_result >= 0;
		return self->init_result;
	}

	static int on_get_interface(hs_library_host *host, const char *type, hs_plugin_interface **interface)
	{
		hs_test_host *self = self_of(host);
		self->types.emplace_back(type);
		if (!self->has_interface)
			return -ENOENT;
		self->plugins.push_back(std::make_unique<hs_handmade_plugin>());
		if (self->prepare)
			self->prepare(*self->plugins.back());
		*interface = &self->plugins.back()->interface;
		return self->get_interface_result;
	}

	static void on_clear(hs_library_host *host, hs_plugin_interface *interface)
	{
		hs_test_host *self = self_of(host);
		++self->n_cleared;
		if (self->at_clear)
			self->at_clear(interface ? static_cast<hs_handmade_plugin *>(interface->data) : nullptr);
	}
};

/** PipeWire, told to look for libraries and configuration in a folder of the test's own. */
class hs_test_pipewire
{
public:
	static const hs_test_pipewire &get()
	{
		static const hs_test_pipewire the_pipewire;
		return the_pipewire;
	}

private:
	hs_test_pipewire()
	{
		std::filesystem::create_directories(directory / "hear-sense");
		for (const char *name : {"motion", "sound"})
			std::filesystem::create_symlink(
			        HS_TEST_LIBRARY,
			        directory / ("hear-sense/libspa-hs-" + std::string{name} + ".so"));
		hs_write_text(directory / "client.conf", R"(
			context.spa-libs = {
				audio.convert.* = audioconvert/libspa-audioconvert
				support.* = support/libspa-support
			}
			context.modules = [
				{ name = libpipewire-module-protocol-native }
				{ name = libpipewire-module-client-node }
				{ name = libpipewire-module-adapter }
				{ name = libpipewire-module-metadata }
			]
		)");
		setenv("SPA_PLUGIN_DIR", (directory.path() + ":" HS_TEST_SPA_DIR).c_str(), 1);
		setenv("PIPEWIRE_CONFIG_DIR", directory.path().c_str(), 1);
		setenv("PIPEWIRE_RUNTIME_DIR", directory.path().c_str(), 1);
		pw_init(nullptr, nullptr);
	}

	~hs_test_pipewire()
	{
		pw_deinit();
	}

	hs_temp_dir directory;
};

/** A bus with a client at its other end. */
class hs_bed_bus
{
public:
	hs_bed_bus()
	    : hs_bed_bus{hs_new_bus_pair()}
	{
	}

	/** The daemon's end; still this record's. */
	sd_bus *bus() const
	{
		return server.get();
	}

	/** A reference of its own to the daemon's end. */
	sd_bus *give() const
	{
		return sd_bus_ref(server.get());
	}

private:
	explicit hs_bed_bus(hs_bus_pair pair)
	    : server{std::move(pair.server)}
	    , client{std::move(pair.client), [this] { sd_bus_process(bus(), nullptr); }}
	{
		sd_bus_add_object_manager(server.get(), nullptr, "/");
		client.ping();
	}

	hs_bus_ptr server;

public:
	hs_bus_client client;
};

class hs_daemon_bed
{
public:
	hs_daemon_bed()
	{
		hs_test_pipewire::get();
		for (const char *name : {"confs", "schemas", "settings", "metrics"})
			std::filesystem::create_directory(directory / name);
		schemas = directory / "schemas";
		settings = directory / "settings";
		hs_metrics_init((directory / "metrics").c_str());

		loop = hs_loop_new();
		pipewire = pw_context_new(pw_main_loop_get_loop(loop->main_loop), nullptr, 0);
		core = pipewire ? pw_context_connect_self(pipewire, nullptr, 0) : nullptr;
		if (!core)
			throw std::runtime_error{"PipeWire can not serve itself"};
		pw_core_add_listener(core, &core_listener, &core_events, this);
		registry = hs_registry_new(pw_core_get_registry(core, PW_VERSION_REGISTRY, 0));
		context = hs_context_new(pipewire, core, loop, registry, main_bus.give());
	}

	~hs_daemon_bed()
	{
		hs_loop_do_quit(loop, 0);
		hs_metrics_deinit();
		hs_context_destroy();
		hs_registry_destroy(&registry);
		pw_core_disconnect(core);
		pw_context_destroy(pipewire);
		hs_loop_destroy(loop);
	}

	hs_daemon_bed(const hs_daemon_bed &) = delete;
	hs_daemon_bed &operator=(const hs_daemon_bed &) = delete;

	/** A configuration file for the test's library: `members` go into "plugin.config", `rest` beside it.
	 */
	std::string write_conf(const std::string &name, const std::string &rest = "",
	                       const std::string &members = "")
	{
		char address[32];
		std::snprintf(address, sizeof(address), "%p",
		              static_cast<void *>(static_cast<hs_library_host *>(&host)));
		std::string path = directory / ("confs/" + name + ".conf");
		hs_write_text(path, "plugin.config = { " HS_LIBRARY_HOST_KEY " = \"" + std::string{address} +
		                            "\" " + members + " }\n" + rest + "\n");
		return path;
	}

	hs_plugin *add_plugin(const std::string &name, const std::string &rest = "",
	                      const std::string &members = "")
	{
		return hs_plugin_new(context, write_conf(name, rest, members).c_str(), schemas.c_str(),
		                     settings.c_str());
	}

	/** A private bus, attached to the loop. */
	hs_bed_bus &add_private_bus()
	{
		hs_bed_bus &peer = private_buses.emplace_back();
		if (!hs_loop_add_bus(loop, peer.give()))
			throw std::runtime_error{"hs_loop_add_bus"};
		return peer;
	}

	/** Lets everything that PipeWire has pending arrive. */
	void settle()
	{
		/* What the first answer sets going has arrived with the second. */
		for (int i = 0; i < 2; ++i) {
			pending = pw_core_sync(core, PW_ID_CORE, 0);
			pw_main_loop_run(loop->main_loop);
		}
	}

	/** Gives the graph a node. */
	pw_impl_node *add_node(const std::string &name, const char *media_class)
	{
		pw_properties *props = pw_properties_new(PW_KEY_NODE_NAME, name.c_str(), PW_KEY_MEDIA_CLASS,
		                                         media_class, nullptr);
		pw_impl_node *node = pw_context_create_node(pipewire, props, 0);
		if (!node || pw_impl_node_register(node, nullptr) < 0)
			throw std::runtime_error{"the graph takes no node"};
		settle();
		return node;
	}

	static uint32_t id_of(pw_impl_node *node)
	{
		return pw_global_get_id(pw_impl_node_get_global(node));
	}

	/** Gives the graph a metadata object. */
	pw_impl_metadata *add_metadata(const char *name)
	{
		pw_impl_metadata *metadata = pw_context_create_metadata(pipewire, name, nullptr, 0);
		if (!metadata || pw_impl_metadata_register(metadata, nullptr) < 0)
			throw std::runtime_error{"the graph takes no metadata"};
		settle();
		return metadata;
	}

	void remove_metadata(pw_impl_metadata *metadata)
	{
		pw_impl_metadata_destroy(metadata);
		settle();
	}

	hs_temp_dir directory;
	std::string schemas;
	std::string settings;
	hs_test_host host;
	hs_bed_bus main_bus;
	std::deque<hs_bed_bus> private_buses;
	hs_loop *loop;
	pw_context *pipewire;
	pw_core *core;
	hs_registry *registry;
	hs_context *context;

private:
	static void on_done(void *data, uint32_t id, int seq)
	{
		const auto *self = static_cast<const hs_daemon_bed *>(data);
		if (id == PW_ID_CORE && seq == self->pending)
			pw_main_loop_quit(self->loop->main_loop);
	}

	static constexpr pw_core_events core_events = [] {
		pw_core_events events{};
		events.version = PW_VERSION_CORE_EVENTS;
		events.done = on_done;
		return events;
	}();

	spa_hook core_listener{};
	int pending = 0;
};
