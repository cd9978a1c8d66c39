/*
 * The registry watch: which audio nodes and which metadata PipeWire has.
 */
#pragma once

#include <spa/utils/hook.h>

struct pw_registry;
struct hs_metadata;

struct hs_registry {
	/** Owned. */
	pw_registry *registry;
	/** Owned. */
	hs_metadata *metadata;
	spa_hook listener;
};

/** Takes the proxy over; nothing is watched before hs_registry_add_listener. */
hs_registry *hs_registry_new(pw_registry *registry);
void hs_registry_add_listener(hs_registry *registry);
/** Clears the caller's pointer. */
void hs_registry_destroy(hs_registry **registry);
