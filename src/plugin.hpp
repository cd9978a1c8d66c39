/*
 * Installed plug-ins, and the handles loaded from them.
 *
 * One hs_plugin stands for one configuration file and owns the sources that run the plug-in; each source
 * has a SPA handle, and with it an interface, of its own.
 *
 * Failure: logged once; a plug-in that does not load leaves the others untouched. Null arguments abort.
 */
#pragma once

#include <string>

#include <spa/utils/list.h>

#include <hear-sense/plugin.h>

#include "owned.hpp"

struct hs_context;
struct hs_pod_buffer;
struct hs_source;

struct hs_plugin {
	/** Base name of the configuration file without ".conf". */
	char name[64];
	char factory_name[256];
	char interface_type[256];
	/** The whole configuration file; owned. */
	pw_properties *props;
	/** What the plug-in is given at load and at init: "plugin.config" and "preview"; owned. */
	pw_properties *config;
	/** Of hs_source; owned. */
	spa_list sources;
	/** Directories; borrowed for the process's life. */
	const char *schema_path;
	const char *settings_path;
	/** Borrowed. */
	hs_context *context;
	/** In the context's plug-ins. */
	spa_list link;
};

/** Makes the record of one configuration file and appends it to the context; null where it cannot be read. */
hs_plugin *hs_plugin_new(hs_context *context, const char *config_file, const char *schema_path,
			 const char *settings_path);
void hs_plugin_destroy(hs_plugin *plugin);

/** "plugin.info" of the configuration as a table; empty where there is none. */
hs_properties_ptr hs_plugin_get_info(const hs_plugin *plugin);

/** Loads a new handle and its interface; false where the library, its interface or its version do not fit. */
bool hs_plugin_load_spa_handle(hs_plugin *plugin, spa_handle **handle, hs_plugin_interface **interface);
/** From now on the plug-in's notifications are the source's. */
void hs_plugin_set_source(hs_plugin_interface *interface, hs_source *source);
/** Either argument may be null. */
void hs_plugin_unload_spa_handle(spa_handle *handle, hs_plugin_interface *interface);

/*
 * The plug-in's methods. An absent method does nothing and answers -EOPNOTSUPP.
 */
int hs_plugin_init(hs_plugin_interface *interface, const hs_stream_info *info, const spa_dict *config);
void hs_plugin_deinit(hs_plugin_interface *interface);
int hs_plugin_activate(hs_plugin_interface *interface);
void hs_plugin_deactivate(hs_plugin_interface *interface);
int hs_plugin_get_settings(hs_plugin_interface *interface, spa_pod_builder *builder);
int hs_plugin_set_settings(hs_plugin_interface *interface, const spa_pod *settings);
void hs_plugin_process(hs_plugin_interface *interface, spa_buffer *buffer);

/** More settings or events than this are a plug-in's mistake and are not asked for. */
inline constexpr int HS_PLUGIN_MAX_DESCRIPTIONS = 1024;

/** Number of settings or events that the plug-in describes; below 1 is none. */
int hs_plugin_count_settings(hs_plugin_interface *interface);
int hs_plugin_count_events(hs_plugin_interface *interface);

/**
 * The description of one setting or event, built into `buffer`; null where the plug-in gives none, or
 * gives one that does not fit the buffer it was built in.
 */
const spa_pod *hs_plugin_fetch_setting(hs_plugin_interface *interface, uint32_t index, hs_pod_buffer *buffer);
const spa_pod *hs_plugin_fetch_event(hs_plugin_interface *interface, uint32_t index, hs_pod_buffer *buffer);

/*
 * Static texts of the plug-in, read through its first source, so it must have one. A missing text is "".
 * `event_interface` is a D-Bus interface name; the event is the one named by the text after its last ".".
 */
std::string hs_plugin_get_schema(const hs_plugin *plugin);
std::string hs_plugin_get_settings_schema(const hs_plugin *plugin);
std::string hs_plugin_get_interface_name(const hs_plugin *plugin);
std::string hs_plugin_get_event_name(const hs_plugin *plugin, const char *event_interface);
/** The event's own name where no event of that name is described. */
std::string hs_plugin_get_event_nice_name(const hs_plugin *plugin, const char *event_interface);

enum hs_plugin_topic_selector : unsigned int {
	HS_PLUGIN_TOPIC0_NAME,
	HS_PLUGIN_TOPIC0_NAMESPACE,
	HS_PLUGIN_TOPIC0_NICE_NAME,
	HS_PLUGIN_TOPIC1_NAME,
	HS_PLUGIN_TOPIC1_NAMESPACE,
	HS_PLUGIN_TOPIC1_NICE_NAME,
	HS_PLUGIN_TOPIC2_NAME,
	HS_PLUGIN_TOPIC2_NAMESPACE,
	HS_PLUGIN_TOPIC2_NICE_NAME,
};
std::string hs_plugin_get_topic(const hs_plugin *plugin, const char *event_interface,
				hs_plugin_topic_selector selector);

enum hs_plugin_event_flag {
	HS_PLUGIN_EVENT_IS_DEPRECATED,
	HS_PLUGIN_EVENT_IS_APPLICATION_DATA,
	HS_PLUGIN_EVENT_IS_PROPERTY_STATE,
};
bool hs_plugin_get_event_flag(const hs_plugin *plugin, const char *event_interface, hs_plugin_event_flag which);

/** The event's "Stats" and "Event" bits as an object of signature "(bb)"; null for an unknown event. */
hs_properties_ptr hs_plugin_get_event_data_types(const hs_plugin *plugin, const char *event_interface);

/** Whether the event is for the main bus. */
bool hs_plugin_event_is_public(const hs_plugin *plugin, const char *event_interface);
