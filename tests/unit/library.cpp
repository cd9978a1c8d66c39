/*
 * The plug-in library that the unit tests load; see library-host.hpp.
 */
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <new>

#include <spa/support/plugin.h>

#include "library-host.hpp"

namespace
{

struct test_handle {
	spa_handle handle;
	hs_library_host *host;
	hs_plugin_interface *interface;
};

int on_get_interface(spa_handle *handle, const char *type, void **interface)
{
	auto *self = reinterpret_cast<test_handle *>(handle);
	const int result = self->host->get_interface(self->host, type, &self->interface);
	*interface = self->interface;
	return result;
}

int on_clear(spa_handle *handle)
{
	auto *self = reinterpret_cast<test_handle *>(handle);
	self->host->clear(self->host, self->interface);
	return 0;
}

size_t on_get_size(const spa_handle_factory *, const spa_dict *)
{
	return sizeof(test_handle);
}

int on_init(const spa_handle_factory *, spa_handle *handle, const spa_dict *info, const spa_support *,
            uint32_t)
{
	const char *address = spa_dict_lookup(info, HS_LIBRARY_HOST_KEY);
	if (!address)
		return -EINVAL;
	auto *self = new (handle) test_handle{};
	self->handle.version = SPA_VERSION_HANDLE;
	self->handle.get_interface = on_get_interface;
	self->handle.clear = on_clear;
	self->host = reinterpret_cast<hs_library_host *>(std::strtoull(address, nullptr, 0));
	return self->host->init(self->host, info);
}

int on_enum_interface_info(const spa_handle_factory *, const spa_interface_info **, uint32_t *)
{
	return 0;
}

constexpr spa_handle_factory factory(const char *name)
{
	return {SPA_VERSION_HANDLE_FACTORY, name, nullptr, on_get_size, on_init, on_enum_interface_info};
}

constexpr spa_handle_factory factories[] = {factory("hear-sense.motion"), factory("hear-sense.sound")};

} // namespace

extern "C" SPA_EXPORT int spa_handle_factory_enum(const spa_handle_factory **result, uint32_t *index)
{
	if (*index >= std::size(factories))
		return 0;
	*result = &factories[(*index)++];
	return 1;
}
