/*
 * Private peer-to-peer buses for clients that want event streams.
 */
#pragma once

#include <systemd/sd-bus.h>

/** Handler of "GetPrivateBus". */
int hs_private_bus_get(sd_bus_message *message, void *data, sd_bus_error *error);
