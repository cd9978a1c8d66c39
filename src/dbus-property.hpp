/*
 * What reading and writing a property share.
 */
#pragma once

#include <systemd/sd-bus.h>

struct pw_properties;
struct hs_source;

/** Fills `error` with the service's one error for properties; returns its negative errno. */
int hs_dbus_property_fail(sd_bus_error *error, const char *property, const char *interface, const char *path);

/** The table that keeps the properties of an interface: the source's settings or its events; may be null. */
pw_properties *hs_dbus_property_table(const hs_source *source, const char *interface);

/** The last element of an event's interface: the event that its fixed properties speak of. */
const char *hs_dbus_property_event(const char *interface);
