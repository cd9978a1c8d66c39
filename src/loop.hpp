/*
 * The daemon's one loop: PipeWire's main loop, which drives every D-Bus connection too.
 *
 * Before each poll every bus is asked what it waits for. Beside its bus, each record keeps which events of
 * which source are enabled there.
 *
 * Threads: everything runs on the thread that calls hs_loop_run.
 */
#pragma once

#include <cstdint>

#include <spa/utils/list.h>

#include <sys/types.h>

struct pw_main_loop;
struct sd_bus;
struct bus_event_data;
struct hs_source;

struct hs_loop {
	/** Owned. */
	pw_main_loop *main_loop;
	/** Of bus_event_data, one per attached bus in order of arrival; owned. */
	spa_list event_data_list;
	/** Of event_data_list, may be null: what is asked for is mostly what was asked for before. */
	bus_event_data *last_asked;
};

hs_loop *hs_loop_new();
void hs_loop_destroy(hs_loop *loop);

/** Attaches a private bus and takes its reference over; false where it is attached already or cannot be. */
bool hs_loop_add_bus(hs_loop *loop, sd_bus *bus);

/** Remembers which user an attached private bus was given to. */
void hs_loop_set_bus_user(hs_loop *loop, sd_bus *bus, uid_t user);

struct hs_loop_bus_count {
	uint32_t all;
	uint32_t of_user;
};

/** How many private buses are attached, in all and by that user. */
hs_loop_bus_count hs_loop_count_buses(hs_loop *loop, uid_t user);

/** Attaches the main bus, borrowed, and runs until the loop quits. A negative result is a failure. */
int hs_loop_run(hs_loop *loop, sd_bus *bus);

/** Drops the private buses and quits; a signal handler, called with 0 from inside the daemon. */
void hs_loop_do_quit(void *loop, int signal);

/** The next private bus after `*cursor` (null to begin with), or null at the end. */
sd_bus *hs_loop_bus_iterate(hs_loop *loop, void **cursor);

/** Whether the event is enabled on the bus; false where the bus is not attached. */
bool hs_loop_bus_get_event_status(hs_loop *loop, sd_bus *bus, const hs_source *source, const char *name, bool *enabled);
/** Enables or disables the event on an attached bus and counts its source's consumers. */
void hs_loop_bus_set_event_status(hs_loop *loop, sd_bus *bus, const char *name, hs_source *source, bool enabled);

/** Forgets the source on every bus, without touching its consumers. */
void hs_loop_remove_event_status(hs_loop *loop, const hs_source *source);
