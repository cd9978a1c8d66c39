/*
 * The daemon as its clients see it: a context with a main bus at a real dbus-daemon, private buses, and
 * plug-ins of paper. What a script does inside run() happens inside the daemon's loop.
 */
#pragma once

#include <deque>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "bus-client.hpp"
#include "context.hpp"
#include "dbus.hpp"
#include "log-capture.hpp"
#include "loop-bed.hpp"
#include "paper-plugin.hpp"
#include "private-bus-daemon.hpp"

class hs_bus_bed
{
public:
	struct private_bus {
		private_bus(hs_bus_pair pair, std::function<void()> step)
			: server{pair.server.release()}, client{std::move(pair.client), std::move(step)}
		{
		}

		/** Owned by the loop. */
		sd_bus *server;
		hs_bus_client client;
	};

	hs_bus_bed()
	{
		hs_bus_ptr bus = daemon.connect();
		sd_bus_add_object_manager(bus.get(), nullptr, "/");
		const int r = sd_bus_request_name(bus.get(), HS_DBUS_SERVICE, 0);
		if (r < 0)
			throw std::system_error{-r, std::generic_category(), HS_DBUS_SERVICE};
		context = hs_context_new(nullptr, nullptr, bed.get(), nullptr, bus.release());
	}

	~hs_bus_bed()
	{
		hs_loop_do_quit(bed.get(), 0);
		hs_context_destroy();
	}

	hs_bus_bed(const hs_bus_bed &) = delete;
	hs_bus_bed &operator=(const hs_bus_bed &) = delete;

	hs_paper_plugin &add_plugin(const char *name)
	{
		return plugins.emplace_back(context, name);
	}

	private_bus &add_private(bool with_object_manager = true)
	{
		private_bus &bus = privates.emplace_back(hs_new_bus_pair(), [this] { bed.step(); });
		if (with_object_manager)
			sd_bus_add_object_manager(bus.server, nullptr, "/");
		EXPECT_TRUE(hs_loop_add_bus(bed.get(), bus.server));
		return bus;
	}

	/** The main bus and the private ones. */
	std::vector<sd_bus *> buses() const
	{
		std::vector<sd_bus *> all{context->bus};
		void *cursor = nullptr;
		while (sd_bus *bus = hs_loop_bus_iterate(bed.get(), &cursor))
			all.push_back(bus);
		return all;
	}

	/** Publishes the source's node and device on every bus. */
	bool publish_shared(hs_source *source) const
	{
		bool done = true;
		for (sd_bus *bus : buses()) {
			done = hs_dbus_setup_audio_chain_interface(source, bus) && done;
			done = hs_dbus_setup_source_interface(source, bus) && done;
		}
		return done;
	}

	/** Publishes everything of the source on every bus. */
	bool publish(hs_source *source) const
	{
		return publish_shared(source) && hs_dbus_setup_plugin_interfaces(source);
	}

	/** A call as no client can send it: nothing can be read from it, and nothing answered. */
	hs_message_ptr unsealed_call(const std::string &path, const std::string &interface, const char *method) const
	{
		sd_bus_message *message = nullptr;
		sd_bus_message_new_method_call(context->bus, &message, HS_DBUS_SERVICE, path.c_str(), interface.c_str(),
					       method);
		return hs_message_ptr{message};
	}

	void run(const std::function<void()> &script)
	{
		EXPECT_GE(bed.run(context->bus, script), 0);
	}

	/** The first record of that member on that bus; null where there is none. */
	hs_dbus *find_record(sd_bus *bus, const std::string &interface, const std::string &name) const
	{
		hs_dbus *dbus;
		spa_list_for_each(dbus, &context->dbus_objects, link) {
			if (sd_bus_slot_get_bus(dbus->slot) == bus && dbus->interface == interface && dbus->name == name)
				return dbus;
		}
		return nullptr;
	}

	size_t count_records() const
	{
		size_t n = 0;
		hs_dbus *dbus;
		spa_list_for_each(dbus, &context->dbus_objects, link)
			++n;
		return n;
	}

	/**
	 * The service's own members at that path, in order of registration within an interface, such as
	 * "com.orvel.HearSense.Source.Id s const" or "com.orvel.HearSense.GetPrivateBus(s)h".
	 */
	static std::vector<std::string> members(hs_bus_client &client, const std::string &path)
	{
		std::istringstream xml{client.call(path, "org.freedesktop.DBus.Introspectable", "Introspect")};
		std::vector<std::string> found;
		std::string interface;
		std::string in;
		std::string out;
		for (std::string line; std::getline(xml, line);) {
			if (has(line, "<interface ")) {
				interface = attribute(line, "name");
			} else if (!has(interface, HS_DBUS_SERVICE)) {
				continue;
			} else if (has(line, "<method ")) {
				found.push_back(interface + "." + attribute(line, "name"));
				in.clear();
				out.clear();
			} else if (has(line, "<arg ")) {
				(attribute(line, "direction") == "in" ? in : out) += attribute(line, "type");
			} else if (has(line, "Method.NoReply")) {
				out += " no reply";
			} else if (has(line, "</method>")) {
				found.back() += "(" + in + ")" + out;
			} else if (has(line, "<property ")) {
				found.push_back(interface + "." + attribute(line, "name") + " " + attribute(line, "type") +
						(attribute(line, "access") == "readwrite" ? " writable" : ""));
			} else if (has(line, "EmitsChangedSignal")) {
				found.back() += " " + attribute(line, "value");
			}
		}
		return found;
	}

	hs_private_bus_daemon daemon;
	hs_loop_bed bed;
	hs_context *context;
	/** Of the main bus. */
	hs_bus_client client{daemon.connect(), [this] { bed.step(); }, HS_DBUS_SERVICE};
	std::deque<private_bus> privates;
	hs_log_capture capture;

private:
	static bool has(const std::string &text, const char *part)
	{
		return text.find(part) != std::string::npos;
	}

	static std::string attribute(const std::string &line, const char *name)
	{
		const std::string start = std::string{" "} + name + "=\"";
		const size_t at = line.find(start) + start.size();
		return line.substr(at, line.find('"', at) - at);
	}

	std::deque<hs_paper_plugin> plugins;
};
