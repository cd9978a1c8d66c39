/*
 * May the caller of a property write change that property?
 *
 * The rights library decides by user name and by the interface and name of the property. Whoever holds a
 * private bus was handed it by the daemon and may write there.
 *
 * Threads: main loop only. Asking the bus who the caller is may block for as long as a method call may.
 */
#pragma once

#include <sys/types.h>

#include <systemd/sd-bus.h>

/** Whether the sender may; else `error` is filled, and the caller fails without reading the value. */
bool hs_authorization_is_authorized(sd_bus_message *message, const char *interface, const char *property,
				    sd_bus_error *error);

/** The user that sent the message: the effective one, or the real one where the bus tells no other. */
bool hs_authorization_get_uid(sd_bus_message *message, uid_t *uid);
