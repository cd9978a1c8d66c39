/*
 * What the methods of the audio chains and events do.
 *
 * sd-bus handlers; the user data is the method's hs_dbus. Each answers first and works afterwards, so that
 * a slow plug-in does not keep its caller waiting.
 */
#pragma once

#include <systemd/sd-bus.h>

int hs_dbus_indicate_internal_speaker_active(sd_bus_message *message, void *data, sd_bus_error *error);
int hs_dbus_indicate_continuous_audio_disturbance(sd_bus_message *message, void *data, sd_bus_error *error);
int hs_dbus_indicate_transient_audio_disturbance(sd_bus_message *message, void *data, sd_bus_error *error);
int hs_dbus_trigger_event(sd_bus_message *message, void *data, sd_bus_error *error);
