#include "context.hpp"

#include <new>
#include <type_traits>

#include <pipewire/main-loop.h>
#include <pipewire/properties.h>

#include <systemd/sd-bus.h>

#include "assert.hpp"
#include "dbus.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "plugin.hpp"
#include "pw-source.hpp"
#include "stream-retire.hpp"

static_assert(std::is_standard_layout_v<hs_context>);

namespace {

hs_context *the_context;

} // namespace

hs_context *hs_context_new(pw_context *pipewire, pw_core *core, hs_loop *loop, hs_registry *registry, sd_bus *bus)
{
	if (the_context)
		return the_context;
	auto *context = new (std::nothrow) hs_context{};
	HS_ASSERT(context);
	context->bus = bus;
	context->loop = loop;
	context->registry = registry;
	context->pipewire = pipewire;
	context->core = core;
	context->object_path_counts = pw_properties_new(nullptr, nullptr);
	spa_list_init(&context->pw_sources);
	spa_list_init(&context->plugins);
	spa_list_init(&context->dbus_objects);
	spa_list_init(&context->retired_streams);
	the_context = context;
	return context;
}

void hs_context_destroy()
{
	if (!the_context)
		return;
	pw_log_debug("%p: destroy", static_cast<void *>(the_context));

	while (!spa_list_is_empty(&the_context->plugins))
		hs_plugin_destroy(spa_list_first(&the_context->plugins, hs_plugin, link));
	while (!spa_list_is_empty(&the_context->pw_sources))
		hs_pw_source_destroy(spa_list_first(&the_context->pw_sources, hs_pw_source, link));
	while (!spa_list_is_empty(&the_context->dbus_objects))
		hs_dbus_destroy(spa_list_first(&the_context->dbus_objects, hs_dbus, link));
	hs_stream_retire_finish();
	pw_properties_free(the_context->object_path_counts);
	sd_bus_unref(the_context->bus);
	delete the_context;
	the_context = nullptr;
}

hs_context *hs_context_get()
{
	return the_context;
}

pw_loop *hs_context_get_loop(const hs_context *context)
{
	return pw_main_loop_get_loop(context->loop->main_loop);
}
