/*
 * Audio nodes, and which plug-ins run on them.
 *
 * A record is kept for every audio node seen, in the context's list; a plug-in that selects the node gets
 * a source, with its objects on every bus.
 */
#pragma once

#include <cstdint>
#include <string>

#include <spa/utils/list.h>

#include "owned.hpp"

struct spa_dict;

struct hs_pw_source {
	std::string name;
	/** "Audio/Source", "Audio/Sink" or empty. */
	std::string media_class;
	/** PipeWire global id. */
	uint32_t id;
	/** Every plug-in was tried; until then no event of this node is signalled. */
	bool registered;
	/** In the context's PipeWire sources. */
	spa_list link;
};

/** A node has appeared. */
void hs_pw_source_register_source(uint32_t id, const spa_dict *props);
/** A global has gone; an id that is no node's is ignored. */
void hs_pw_source_unregister_source(uint32_t id);
void hs_pw_source_destroy(hs_pw_source *pw_source);

/**
 * A copy of the first "source." object of the configuration whose "node.name" is `node_name`, or that has
 * any "node.name" where `node_name` is null; null where there is none.
 */
hs_properties_ptr hs_pw_source_find_config(const char *node_name, const pw_properties *config);

/** The settings file of a plug-in on a node: the name of an "AudioDevice..." is cut at its first ".". */
std::string hs_pw_source_settings_path(const char *settings_dir, const char *plugin_name, const char *node_name);
