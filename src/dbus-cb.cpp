#include "dbus-cb.hpp"

#include <cstdlib>

#include <spa/utils/string.h>

#include "assert.hpp"
#include "dbus-get.hpp"
#include "dbus-set.hpp"

namespace {

sd_bus_vtable *new_table(char type, uint64_t flags)
{
	static const sd_bus_vtable start = SD_BUS_VTABLE_START(0);
	static const sd_bus_vtable end = SD_BUS_VTABLE_END;

	auto *vtable = static_cast<sd_bus_vtable *>(std::calloc(3, sizeof(sd_bus_vtable)));
	HS_ASSERT(vtable);
	vtable[0] = start;
	vtable[1].type = static_cast<uint8_t>(type);
	vtable[1].flags = flags & 0xffffffffffffff;
	vtable[2] = end;
	return vtable;
}

sd_bus_vtable *new_property(char type, uint64_t flags, const char *signature, const char *name,
			    sd_bus_property_set_t set)
{
	const sd_bus_property_get_t get = hs_dbus_get_find(signature);
	if (!get)
		return nullptr;
	sd_bus_vtable *vtable = new_table(type, flags);
	vtable[1].x.property.member = name;
	vtable[1].x.property.signature = hs_dbus_cb_published_signature(signature);
	vtable[1].x.property.get = get;
	vtable[1].x.property.set = set;
	return vtable;
}

} // namespace

const char *hs_dbus_cb_published_signature(const char *signature)
{
	if (spa_streq(signature, "f"))
		return "d";
	return spa_strstartswith(signature, "(") ? "a{sv}" : signature;
}

sd_bus_vtable *hs_dbus_cb_readonly_property(const char *signature, const char *name)
{
	return new_property(_SD_BUS_VTABLE_PROPERTY, SD_BUS_VTABLE_PROPERTY_CONST, signature, name, nullptr);
}

sd_bus_vtable *hs_dbus_cb_writeable_property(const char *signature, const char *name)
{
	const sd_bus_property_set_t set = hs_dbus_set_find(signature);
	if (!set)
		return nullptr;
	return new_property(_SD_BUS_VTABLE_WRITABLE_PROPERTY,
			    SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE, signature, name, set);
}

sd_bus_vtable *hs_dbus_cb_property_emits_change(const char *signature, const char *name)
{
	if (spa_streq(signature, "o"))
		return nullptr;
	return new_property(_SD_BUS_VTABLE_PROPERTY, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE, signature, name, nullptr);
}

sd_bus_vtable *hs_dbus_cb_method(const char *name, sd_bus_message_handler_t handler, const char *in_signature,
				 const char *out_signature)
{
	uint64_t flags = SD_BUS_VTABLE_UNPRIVILEGED;
	if (!out_signature)
		flags |= SD_BUS_VTABLE_METHOD_NO_REPLY;
	sd_bus_vtable *vtable = new_table(_SD_BUS_VTABLE_METHOD, flags);
	vtable[1].x.method.member = name;
	vtable[1].x.method.signature = in_signature;
	vtable[1].x.method.result = out_signature;
	vtable[1].x.method.handler = handler;
	vtable[1].x.method.names = "";
	return vtable;
}
