/*
 * Members of D-Bus interfaces: how a client reads and writes a value.
 *
 * A builder returns a new table of three entries (start, member, end) for the signature, freed by the
 * caller with free(); null where there is no such member. The name and signatures are borrowed and must
 * outlive the table. The user data of a property is the hs_source, that of a method its hs_dbus.
 */
#pragma once

#include <systemd/sd-bus.h>

sd_bus_vtable *hs_dbus_cb_readonly_property(const char *signature, const char *name);
sd_bus_vtable *hs_dbus_cb_writeable_property(const char *signature, const char *name);
sd_bus_vtable *hs_dbus_cb_property_emits_change(const char *signature, const char *name);
sd_bus_vtable *hs_dbus_cb_method(const char *name, sd_bus_message_handler_t handler, const char *in_signature,
				 const char *out_signature);

/** The signature that clients see for a setting, event or fixed property of that signature. */
const char *hs_dbus_cb_published_signature(const char *signature);
