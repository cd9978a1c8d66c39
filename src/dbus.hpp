/*
 * The object tree: what is published where, and when it is signalled.
 *
 * Each member is registered by itself and has an hs_dbus record in the context's list; destroying the
 * record takes the member off the bus.
 *
 * Failure: logged once per member; the others are published all the same.
 */
#pragma once

#include <string>

#include <spa/utils/list.h>
#include <systemd/sd-bus.h>

struct hs_context;
struct hs_event;
struct hs_source;

inline constexpr char HS_DBUS_SERVICE[] = "com.orvel.HearSense";
inline constexpr char HS_DBUS_ROOT_PATH[] = "/com/orvel/HearSense";
inline constexpr char HS_DBUS_ERROR[] = "com.orvel.HearSense.Error";
inline constexpr char HS_DBUS_SOURCE_INTERFACE[] = "com.orvel.HearSense.Source";
inline constexpr char HS_DBUS_CHAIN_INTERFACE[] = "com.orvel.HearSense.AudioChain";
inline constexpr char HS_DBUS_INSTANCE_INTERFACE[] = "com.orvel.HearSense.PluginInstance";
inline constexpr char HS_DBUS_SETTINGS_PREFIX[] = "com.orvel.HearSense.Settings.";
inline constexpr char HS_DBUS_EVENTS_PREFIX[] = "com.orvel.HearSense.Events.";

struct hs_dbus {
	/** Owned; sd-bus reads it and the texts below until the slot is gone. */
	sd_bus_vtable *vtable;
	/** Owned. */
	sd_bus_slot *slot;
	/** The signature of a fixed member; the schema type of a setting or event. */
	std::string type;
	std::string name;
	/** D-Bus signature of a setting or event; empty for others. */
	std::string signature;
	std::string interface;
	/** Borrowed. */
	hs_context *context;
	/** Borrowed; null for the root method, and once the source is gone. */
	hs_source *owner;
	/** In the owner's D-Bus objects. */
	spa_list owner_link;
	/** In the context's D-Bus objects, where those without an owner come first. */
	spa_list link;
};

void hs_dbus_destroy(hs_dbus *dbus);

/** Publishes "GetPrivateBus" at "/" on the main bus. */
bool hs_dbus_init_private_bus();

/** Keeps calls that sd-bus itself would fail over, and the bus with them, away from it. */
void hs_dbus_guard(sd_bus *bus);

/*
 * The objects of a source on one bus. Those of the node and of the device are shared by all sources there:
 * what another source has published already counts as done.
 */
bool hs_dbus_setup_source_interface(hs_source *source, sd_bus *bus);
bool hs_dbus_setup_audio_chain_interface(hs_source *source, sd_bus *bus);
bool hs_dbus_setup_plugin_instance_interface(hs_source *source, sd_bus *bus);

/** Publishes the source's non-public events on a private bus. */
void hs_dbus_add_private_events(hs_source *source, sd_bus *bus);

/** Publishes the instance with its settings and events on every bus, and counts its shared paths. */
bool hs_dbus_setup_plugin_interfaces(hs_source *source);

/**
 * Takes the source's members off every bus. Those of a shared object that other sources still need are
 * handed to one of them.
 */
void hs_dbus_remove_source(hs_source *source);

/** Leaves what is still there of a source, that is about to go, without an owner. */
void hs_dbus_disown(hs_source *source);

/** Takes every member off a bus that is about to go. */
void hs_dbus_remove_bus(sd_bus *bus);

/**
 * Signals the value of one of the source's events on the buses it belongs to: where it is enabled or, with
 * `force`, everywhere.
 */
void hs_dbus_signal_event(hs_source *source, const hs_event &event, bool force);
/** The same for the event of that title; nothing where there is none. */
void hs_dbus_emit_event(hs_source *source, const char *title, bool force);
