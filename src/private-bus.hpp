/*
 * Private peer-to-peer buses for clients that want event streams.
 *
 * The daemon keeps one end of a socket pair and serves it like the main bus, without settings and public
 * events; the client gets the other end as a descriptor. Each user, and all users together, may have so
 * many at a time; see the build options.
 */
#pragma once

#include <systemd/sd-bus.h>

/** Handler of "GetPrivateBus"; the user data is the method's hs_dbus. */
int hs_private_bus_get(sd_bus_message *message, void *data, sd_bus_error *error);
