/*
 * What the library "libspa-hs-motion.so" of the unit tests asks for its handles.
 *
 * A plug-in's configuration names the record's address under HS_LIBRARY_HOST_KEY, so that a handle comes
 * from a real library and its interface from the test.
 */
#pragma once

#include <spa/utils/dict.h>

struct hs_plugin_interface;

#define HS_LIBRARY_HOST_KEY "test.host"

struct hs_library_host {
	/** Result of a new handle's init. */
	int (*init)(hs_library_host *host, const spa_dict *config);
	/** Result of get_interface; what it writes is what the daemon is given. */
	int (*get_interface)(hs_library_host *host, const char *type, hs_plugin_interface **interface);
	/** The handle that answered `interface` (may be null) is being cleared. */
	void (*clear)(hs_library_host *host, hs_plugin_interface *interface);
};
