/*
 * How a client reads a property: the text that the daemon keeps becomes the type of the bus.
 *
 * The user data of every getter is the hs_source. A text that is no value of its type fails the read.
 */
#pragma once

#include <systemd/sd-bus.h>

/** The getter for a signature: a scalar, "o", or one that begins with "a" or "("; null for another. */
sd_bus_property_get_t hs_dbus_get_find(const char *signature);
