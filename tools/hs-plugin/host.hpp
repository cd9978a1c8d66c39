/*
 * One instance of a plug-in, hosted as the daemon does it but without PipeWire: whoever holds it hands it
 * the audio.
 *
 * The instance goes from uninitialised to initialised to active and back. Its events are looked at by the
 * daemon's own code; the listener is told what the daemon would publish.
 *
 * Threads: one, as in the daemon. A notification from another thread, which would upset the daemon, is counted.
 */
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <hear-sense/plugin.h>

#include "event.hpp"
#include "library.hpp"
#include "owned.hpp"

namespace hs_tool {

/** Is told of events. */
class listener
{
public:
	virtual ~listener() = default;
	virtual void on_event(const hs_event &event) = 0;
};

/** A setting as the plug-in describes it at the moment. */
struct setting {
	std::string title;
	std::string description;
	std::string type;
	std::string value;
};

/** The type of the interface of the plug-in of that name. */
std::string interface_type_of(const std::string &name);

class host
{
public:
	/** Makes an instance. The library must outlive it; `to` may be null. Throws a failure. */
	host(const library &from, const pw_properties *config, listener *to);
	~host();

	host(const host &) = delete;
	host &operator=(const host &) = delete;

	/** Describes the events, as the daemon does when the node appears. */
	void describe_events();

	std::vector<setting> settings();
	/** Gives the plug-in a value, as text, for the setting of that title. Throws a failure where it is refused. */
	void set(const std::string &title, const std::string &value);
	/** Gives the plug-in the configuration's defaults. Refused ones are returned, as messages. */
	std::vector<std::string> set_defaults(const pw_properties *info);

	/** These answer as the plug-in does. The stream is copied and kept until the next one. */
	int init(const hs_stream_info &stream);
	void deinit();
	/** Negative where the daemon would not let audio flow. */
	int activate();
	void deactivate();

	void process(spa_buffer *buffer);
	/**
	 * The first error that was logged during process since the last call. It cannot fail otherwise: the C++ layer
	 * logs what process throws, and goes on.
	 */
	std::optional<std::string> take_process_error();
	/** Looks at all events, as the daemon does after each buffer; `force` tells of unchanged ones too. */
	void handle_events(bool force);

	spa_handle *handle() const
	{
		return memory.get();
	}

	hs_plugin_interface *interface() const
	{
		return plugin;
	}

	/** Those described. */
	const hs_events &events() const
	{
		return *described;
	}

	bool is_initialized() const
	{
		return initialized;
	}

	bool is_active() const
	{
		return active;
	}

	/** How often the plug-in notified from another thread, and of an event that it does not have. */
	unsigned int stray_notifications() const
	{
		return n_stray;
	}

	unsigned int unknown_notifications() const
	{
		return n_unknown;
	}

private:
	static void on_notify_event(hs_plugin_interface *interface, uint32_t index);
	static void on_event(void *data, const hs_event &event, bool is_report);

	hs_malloc_ptr<spa_handle> memory;
	hs_plugin_interface *plugin = nullptr;
	/** Borrowed. */
	const pw_properties *config;
	/** Borrowed. */
	listener *told;
	std::optional<hs_events> described;
	hs_stream_info stream{};
	bool initialized = false;
	bool active = false;
	bool serving = false;
	std::thread::id thread;
	std::atomic<unsigned int> n_stray{0};
	unsigned int n_unknown = 0;
	std::optional<std::string> process_error;
};

} // namespace hs_tool
