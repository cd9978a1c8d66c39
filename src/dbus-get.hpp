/*
 * How a client reads a property: the text that the daemon keeps becomes the type of the bus.
 *
 * The user data of every getter is the hs_source. A text that is no value of its type fails the read.
 */
#pragma once

#include <systemd/sd-bus.h>

struct hs_event;
struct hs_source;

/** The getter for a signature: a scalar, "o", or one that begins with "a" or "("; null for another. */
sd_bus_property_get_t hs_dbus_get_find(const char *signature);

/** Appends what the getter for the event's signature would; negative where it would fail. */
int hs_dbus_get_append_event(sd_bus_message *message, const hs_source *source, const hs_event &event,
			     const char *signature);
