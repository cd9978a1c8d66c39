/*
 * The settings of a source.
 *
 * The table has "$schema", "path" and, under its lower-cased title, an object text for each setting with
 * "name", "title", "description", "type", "value" and "defaultValue". It is built when the source is made
 * and written back to the settings file after every change.
 */
#pragma once

#include <cstdint>
#include <string>

#include "owned.hpp"

struct hs_plugin_interface;
struct hs_source;

/** Under which a setting is kept: its title in lower case. */
std::string hs_setting_name(const char *title);

/**
 * The values that are stored, by name: those of the settings file, which may be null, then the ".default"
 * entries of a configuration's "plugin.info".
 */
hs_properties_ptr hs_setting_read_stored(const pw_properties *info, const char *settings_path);

/** Tells the plug-in a value; false where it does not take it. The type is one of a scalar. */
bool hs_setting_hand_over(hs_plugin_interface *interface, const char *name, const char *value, const char *type);

/** Builds source->settings from the settings file, the configuration's defaults and the plug-in. */
void hs_source_add_global_settings(hs_source *source, const pw_properties *definition, const char *settings_path);

/**
 * Lets a new value take effect. With `settings` the table and the file follow; with null only the plug-in
 * is told. False where the value was not taken.
 */
bool hs_source_handle_settings(hs_source *source, pw_properties *settings, const char *name, const char *value,
			       const char *type);

/** Whether the plug-in's event of that index is a structure with a member "Report". */
bool hs_source_has_report(hs_plugin_interface *interface, uint32_t index);
