/*
 * Configuration and settings files.
 *
 * A configuration file NAME.conf installs the plug-in NAME; a settings file keeps the values of one
 * plug-in on one node. Both are relaxed JSON, read into properties tables: nested objects and arrays stay
 * as their JSON text.
 */
#pragma once

struct pw_properties;

/** Where packages install configurations, and where files of the same name replace them. */
inline constexpr char HS_CONF_DIR[] = "/usr/share/hear-sense/plugin-confs";
inline constexpr char HS_CONF_OVERRIDE_DIR[] = "/etc/hear-sense/plugin-confs";

/** Where packages install the schemas that plug-ins name. */
inline constexpr char HS_CONF_SCHEMA_DIR[] = "/usr/share/hear-sense/plugin-schemas";

/**
 * Lists the installed configurations, or those in the directory `path` where it is not null; see
 * hs_conf_get_configs.
 */
bool hs_conf_load_config_list(const char *path, pw_properties *config_names);

/**
 * Lists the files "*.conf" of `path` in alphabetical order as "config.name.0", "config.name.1", ... in
 * `config_names`, each replaced by the file of the same name in `override_path` where there is one.
 * `override_path` may be null. Returns false where `path` exists but cannot be read.
 */
bool hs_conf_get_configs(const char *path, const char *override_path, pw_properties *config_names);

/** Updates `properties` from the file; false where it could not be read. A malformed text gives what parses. */
bool hs_conf_load_conf(const char *path, pw_properties *properties);

/**
 * Writes the settings table (see source-settings.hpp) to the file that its "path" names, atomically: its
 * "$schema" and the value of every setting. Does nothing for a null table or one without a path.
 */
void hs_settings_write(const pw_properties *settings);

/** Whether a setting's value written to the file reads back as itself, with what stands behind it. */
bool hs_settings_value_survives(const char *value);
