#include "dbus-property.hpp"

#include <cstring>

#include <spa/utils/string.h>

#include "assert.hpp"
#include "dbus.hpp"

int hs_dbus_property_fail(sd_bus_error *error, const char *property, const char *interface, const char *path)
{
	return sd_bus_error_setf(error, HS_DBUS_ERROR, "Unable to get/set property %s in interface %s at path %s",
				 property, interface, path);
}

bool hs_dbus_property_is_setting(const char *interface)
{
	return spa_strstartswith(interface, HS_DBUS_SETTINGS_PREFIX);
}

const char *hs_dbus_property_event(const char *interface)
{
	const char *event_name = std::strrchr(interface, '.');
	HS_ASSERT_TEXT(event_name, "event_name++");
	return event_name + 1;
}
