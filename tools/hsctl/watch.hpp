/*
 * What happens on the bus while one waits: values of events, and the daemon's comings and goings.
 *
 * A watch outlives the daemon: it takes up again with the next one, its private bus too. SIGINT and SIGTERM are
 * blocked while there is one, and end the waiting.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bus.hpp"
#include "handles.hpp"
#include "objects.hpp"

namespace hs_ctl {

/** A value that an event was announced with. */
struct news {
	/** Path of the plug-in. */
	std::string path;
	std::string title;
	json content;
};

/** Is told from within watch_wait. */
class listener
{
public:
	virtual ~listener() = default;
	virtual void event_came(const news &came) = 0;
};

struct watch {
	/** Patterns of the events that are wanted of a private bus; none for all. */
	std::vector<std::string> patterns;
	bool with_private = false;
	/** Whether the daemon's comings and goings are told on standard error. */
	bool is_talkative = true;
	/** Borrowed. */
	listener *told = nullptr;

	bus_ptr bus;
	/** Null without, and while there is none to be had. */
	bus_ptr private_bus;
	/** Unique name of the daemon; empty while it is away. */
	std::string owner;
	object_tree objects;
	object_tree private_objects;
	descriptor signals;
};

/** Fills in what is not told by the caller. */
void watch_start(watch *started, bool of_user);

enum class wake {
	/** SIGINT, SIGTERM, or nobody reads standard output. */
	ended,
	/** The time is up. */
	timed_out,
	/** There is something on standard input, which was asked for. */
	input,
	/** A signal has been handled elsewhere, such as that of a terminal's new size. */
	interrupted,
};

/** Waits until the time of CLOCK_MONOTONIC in microseconds, for ever if there is none, and tells the listener. */
wake watch_wait(watch *waiting, std::optional<uint64_t> until, bool with_input);

/** Now, in microseconds. */
uint64_t monotonic_usec();

} // namespace hs_ctl
