/*
 * How a client writes a property: the value becomes text, is offered to the plug-in and, once taken, stored,
 * written to the settings file and signalled, all before the answer.
 *
 * The user data of every setter is the hs_source. A write that is refused changes and signals nothing.
 */
#pragma once

#include <systemd/sd-bus.h>

/** The setter for a scalar signature; null for another. */
sd_bus_property_set_t hs_dbus_set_find(const char *signature);
