/*
 * What reading and writing a property share.
 */
#pragma once

#include <systemd/sd-bus.h>

/** Fills `error` with the service's one error for properties; returns its negative errno. */
int hs_dbus_property_fail(sd_bus_error *error, const char *property, const char *interface, const char *path);

/** Whether the properties of an interface are settings; otherwise they are events. */
bool hs_dbus_property_is_setting(const char *interface);

/** The last element of an event's interface: the event that its fixed properties speak of. */
const char *hs_dbus_property_event(const char *interface);
