/*
 * The device's preview feature flag.
 *
 * It is read once, at start-up. A change while running ends the main loop: the service manager starts the
 * daemon again, and it reads the new value.
 */
#pragma once

struct sd_bus;
struct hs_loop;

/** Watches for changes of the flag for as long as the bus lives. */
void hs_feature_flag_setup_dbus_signals(sd_bus *bus, hs_loop *loop);

/** Asks the feature-flag service and waits for its answer; false where there is none. */
bool hs_feature_flag_is_preview_enabled(sd_bus *bus);
