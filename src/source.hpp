/*
 * A source: one plug-in running on one audio node.
 *
 * It holds the plug-in's handle, the capture pipeline, the settings and events tables, and every name and
 * path under which the pair is known on D-Bus. The plug-in record owns its sources.
 *
 * Threads: main loop only. Failure: hs_source_new logs and returns null; a null source elsewhere aborts.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <spa/utils/list.h>

#include "event.hpp"
#include "owned.hpp"

struct spa_handle;
struct hs_metrics;
struct hs_pcm;
struct hs_plugin;
struct hs_plugin_interface;
struct hs_pw_source;

struct hs_source {
	/* What each buffer needs is first, side by side: it has left the cache since the last buffer. */
	hs_plugin_interface *interface;
	/** Owned. */
	spa_handle *handle;
	/** Owned; null once the node is going. */
	hs_pcm *pcm;
	hs_events events;
	/** Of the plug-in instance; written by the pcm module only. */
	bool is_initialized;
	bool is_active;
	/** The "Enable" setting. */
	bool enabled;
	/** It is counted in the context's path counts. */
	bool holds_paths;

	/** Name of the node. */
	std::string name;
	/** `name` up to its first "."; on the bus the id of the audio chain. */
	std::string device_name;
	/** See source-settings.hpp; owned. */
	pw_properties *settings;
	/** "name", "rate", "format", "channels", "position" of an explicit definition; owned, may be null. */
	pw_properties *stream_config;
	std::string settings_interface;
	/** By position in `events`; events that were left out there leave empty slots at the end. */
	std::vector<std::string> event_interfaces;
	/** By position in `events`: it is for the main bus. */
	std::vector<bool> event_public;
	/** By position in `events`: it is on every bus that it belongs to. */
	std::vector<bool> event_published;
	/** Of this instance, of the node and of the device; the latter two are shared with other sources. */
	std::string object_path;
	std::string node_path;
	std::string device_path;
	/** Borrowed: the owner. */
	hs_plugin *plugin;
	/** How often an event of this source is enabled on a bus. */
	uint64_t consumers;
	/** Owned; null without a metrics directory. */
	hs_metrics *metrics;
	/** Of hs_dbus; its members on every bus. */
	spa_list dbus_objects;
	/** In the plug-in's sources. */
	spa_list link;
};

/** `definition` (may be null) is the configuration's explicit entry for this node. */
hs_source *hs_source_new(hs_plugin *plugin, const char *node_name, const pw_properties *definition,
			 const char *settings_path, hs_pw_source *node);
void hs_source_destroy(hs_source *source);

/** Each consumer more tries to start the stream, the last one gone stops it. */
void hs_source_inc_consumers(hs_source *source);
void hs_source_dec_consumers(hs_source *source);
uint64_t hs_source_get_n_consumers(const hs_source *source);

/** Properties for the capture stream. */
hs_properties_ptr hs_source_get_pcm_properties(const hs_source *source);

std::string hs_source_get_device_name(const hs_source *source);
std::string hs_source_get_direction(const hs_source *source);
std::string hs_source_get_display_name(const hs_source *source);
