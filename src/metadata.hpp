/*
 * The "virtual-nodes" metadata: how each audio device is connected.
 *
 * The table of connections outlives the metadata object; when an entry changes, the plug-ins on that device
 * are initialised anew so that they see it.
 */
#pragma once

#include <cstdint>
#include <string>

#include <spa/utils/hook.h>

struct pw_metadata;
struct pw_properties;
struct spa_dict;

struct hs_metadata {
	/** Owned; null while unbound. */
	pw_metadata *proxy;
	/** Global id of what is bound. */
	uint32_t id;
	spa_hook listener;
	/** Device name to JSON object with "connection_type" and "acoustic_id"; owned. */
	pw_properties *connections;
};

hs_metadata *hs_metadata_new();
void hs_metadata_destroy(hs_metadata *metadata);

/** A metadata object has appeared: binds it if it is the one named "virtual-nodes" and none is bound. */
void hs_metadata_setup_listener(hs_metadata *metadata, uint32_t id, const char *type, const spa_dict *props);
/** Unbinds the metadata object; the connections stay. */
void hs_metadata_unbind(hs_metadata *metadata);

/** The value of `key` for the device that the node's name begins with; "" where there is none. */
std::string hs_metadata_get(const hs_metadata *metadata, const char *node_name, const char *key);
