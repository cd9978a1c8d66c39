/*
 * The process-wide record that ties the daemon's long-lived objects together.
 *
 * Threads: main loop only.
 */
#pragma once

#include <spa/utils/list.h>

struct pw_context;
struct pw_core;
struct pw_loop;
struct pw_properties;
struct sd_bus;
struct hs_loop;
struct hs_registry;

struct hs_context {
	/** The main bus; one reference, owned. */
	sd_bus *bus;
	/** These four are borrowed from start-up. */
	hs_loop *loop;
	hs_registry *registry;
	pw_context *pipewire;
	pw_core *core;
	/** How many sources share an object path; owned. */
	pw_properties *object_path_counts;
	/** Of hs_pw_source; owned. */
	spa_list pw_sources;
	/** Of hs_plugin; owned. */
	spa_list plugins;
	/** Of hs_dbus; owned. */
	spa_list dbus_objects;
	/** See stream-retire.hpp; owned. */
	spa_list retired_streams;
	/** The preview feature flag as it was at start-up. */
	bool preview_enabled;
};

/** Makes the context, or returns the one that is there already. */
hs_context *hs_context_new(pw_context *pipewire, pw_core *core, hs_loop *loop, hs_registry *registry, sd_bus *bus);
void hs_context_destroy();

/** Null before hs_context_new and after hs_context_destroy. */
hs_context *hs_context_get();

/** Where loop sources are added. */
pw_loop *hs_context_get_loop(const hs_context *context);
