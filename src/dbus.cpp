#include "dbus.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include <spa/utils/string.h>

#include <systemd/sd-id128.h>

#include "assert.hpp"
#include "context.hpp"
#include "dbus-cb.hpp"
#include "dbus-get.hpp"
#include "dbus-methods.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "owned.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "private-bus.hpp"
#include "refcount.hpp"
#include "source.hpp"

static_assert(std::is_standard_layout_v<hs_dbus>);

namespace {

constexpr char private_bus_method[] = "GetPrivateBus";

using dbus_ptr = std::unique_ptr<hs_dbus, hs_release<hs_dbus_destroy>>;

std::string or_empty(const char *text)
{
	return text ? text : "";
}

void set_owner(hs_dbus *dbus, hs_source *owner)
{
	spa_list_remove(&dbus->owner_link);
	dbus->owner = owner;
	spa_list_append(&owner->dbus_objects, &dbus->owner_link);
}

dbus_ptr dbus_new(hs_source *owner, const char *name, const char *type, const char *signature,
		  const std::string &interface)
{
	dbus_ptr dbus(new (std::nothrow) hs_dbus{});
	HS_ASSERT(dbus);
	dbus->type = or_empty(type);
	dbus->name = or_empty(name);
	dbus->signature = or_empty(signature);
	dbus->interface = interface;
	dbus->context = hs_context_get();
	spa_list_init(&dbus->owner_link);
	if (owner) {
		set_owner(dbus.get(), owner);
		spa_list_append(&dbus->context->dbus_objects, &dbus->link);
	} else {
		spa_list_prepend(&dbus->context->dbus_objects, &dbus->link);
	}
	return dbus;
}

/** Puts the record's table on the bus; what is registered stays in the context's list. */
int add_to_bus(dbus_ptr dbus, sd_bus *bus, const std::string &path, void *data)
{
	/* The answer that sd-bus has for no table, without its assertion line. */
	if (!dbus->vtable)
		return -EINVAL;
	const int r =
		sd_bus_add_object_vtable(bus, &dbus->slot, path.c_str(), dbus->interface.c_str(), dbus->vtable, data);
	if (r >= 0)
		static_cast<void>(dbus.release());
	return r;
}

int register_property(hs_source *source, sd_bus *bus, const std::string &path, const std::string &interface,
		      const char *signature, const char *name, bool writable)
{
	dbus_ptr dbus = dbus_new(source, name, signature, nullptr, interface);
	dbus->vtable = writable ? hs_dbus_cb_writeable_property(signature, dbus->name.c_str())
				: hs_dbus_cb_readonly_property(signature, dbus->name.c_str());
	return add_to_bus(std::move(dbus), bus, path, source);
}

int add_property(hs_source *source, sd_bus *bus, const std::string &path, const std::string &interface,
		 const char *signature, const char *name, bool writable)
{
	const int r = register_property(source, bus, path, interface, signature, name, writable);
	if (r < 0)
		pw_log_error("Failed to setup dbus property %s, %s, %s with error: %s", path.c_str(), interface.c_str(),
			     name, std::strerror(-r));
	return r;
}

int add_method(hs_source *source, sd_bus *bus, const std::string &path, const std::string &interface, const char *name,
	       sd_bus_message_handler_t handler, const char *in_signature, const char *out_signature)
{
	dbus_ptr dbus = dbus_new(source, name, in_signature, nullptr, interface);
	dbus->vtable = hs_dbus_cb_method(dbus->name.c_str(), handler, in_signature, out_signature);
	hs_dbus *data = dbus.get();
	return add_to_bus(std::move(dbus), bus, path, data);
}

/** The D-Bus signature of a setting or event; null where it has none. */
const char *choose_signature(const hs_schema_type *type, const char *complex_type)
{
	if (!type)
		return nullptr;
	return type->id == SPA_TYPE_Array || type->id == SPA_TYPE_Struct ? complex_type : type->signature;
}

const char *signature_of(const hs_event &event)
{
	return choose_signature(event.type, event.complex_type.c_str());
}

using entry_table_builder = sd_bus_vtable *(*)(const char *signature, const char *name);

/** Registers a setting or event as the table `build` makes of it. */
int add_entry(hs_source *source, sd_bus *bus, const std::string &interface, const char *title, const char *type,
	      const char *signature, entry_table_builder build)
{
	dbus_ptr dbus = dbus_new(source, title, type, signature, interface);
	if (signature)
		dbus->vtable = build(dbus->signature.c_str(), dbus->name.c_str());
	return add_to_bus(std::move(dbus), bus, source->object_path, source);
}

void add_setting(hs_source *source, sd_bus *bus, const pw_properties *setting)
{
	const char *title = pw_properties_get(setting, "title");
	const char *type = pw_properties_get(setting, "type");
	const char *signature =
		choose_signature(hs_schema_type_by_name(type), pw_properties_get(setting, "complexType"));
	const int r = add_entry(source, bus, source->settings_interface, title, type, signature,
				hs_dbus_cb_writeable_property);
	if (r < 0)
		pw_log_error("Failed to setup dbus setting %s, %s, %s with error: %s", source->object_path.c_str(),
			     source->settings_interface.c_str(), title, std::strerror(-r));
}

void add_settings(hs_source *source, sd_bus *bus)
{
	void *state = nullptr;
	while (const char *key = pw_properties_iterate(source->settings, &state)) {
		const hs_properties_ptr setting(pw_properties_new_string(pw_properties_get(source->settings, key)));
		if (pw_properties_get(setting.get(), "title"))
			add_setting(source, bus, setting.get());
	}
}

void add_event_properties(hs_source *source, sd_bus *bus, const std::string &interface)
{
	struct event_property {
		const char *name;
		const char *signature;
		bool writable;
	};
	static constexpr event_property event_properties[] = {
		{"Source", "o", false},	      {"EventName", "s", false},	 {"NiceName", "s", false},
		{"isDeprecated", "b", false}, {"isApplicationData", "b", false}, {"isPropertyState", "b", false},
		{"Topic0Name", "s", false},   {"Topic0Namespace", "s", false},	 {"Topic0NiceName", "s", false},
		{"Topic1Name", "s", false},   {"Topic1Namespace", "s", false},	 {"Topic1NiceName", "s", false},
		{"Topic2Name", "s", false},   {"Topic2Namespace", "s", false},	 {"Topic2NiceName", "s", false},
		{"EnableEvent", "b", true},   {"DataTypes", "()", false},
	};
	for (const event_property &property : event_properties)
		add_property(source, bus, source->object_path, interface, property.signature, property.name,
			     property.writable);
}

/** Registers an event with its fixed properties; a negative result is the event's own. */
int register_event(hs_source *source, sd_bus *bus, const std::string &interface, const hs_event &event)
{
	const int r = add_entry(source, bus, interface, event.title.c_str(), event.type->name, signature_of(event),
				hs_dbus_cb_property_emits_change);
	if (r >= 0)
		add_event_properties(source, bus, interface);
	return r;
}

bool add_event(hs_source *source, sd_bus *bus, const std::string &interface, const hs_event &event)
{
	const int r = register_event(source, bus, interface, event);
	if (r < 0)
		pw_log_error("Failed to setup dbus event %s, %s, %s with error: %s", source->object_path.c_str(),
			     interface.c_str(), event.title.c_str(), std::strerror(-r));
	return r >= 0;
}

bool add_private_event(hs_source *source, sd_bus *bus, const std::string &interface, const hs_event &event)
{
	const int r = register_event(source, bus, interface, event);
	if (r < 0)
		pw_log_error("Failed to setup private dbus event: %s, %s, %s with error: %s",
			     source->object_path.c_str(), interface.c_str(), event.title.c_str(), std::strerror(-r));
	return r >= 0;
}

/** Publishes one event where it belongs; false where its trigger can not be. */
bool publish_event(hs_context *context, hs_source *source, size_t position)
{
	const std::string &interface = source->event_interfaces[position];
	const hs_event &event = source->events[position];
	bool is_published = true;
	if (source->event_public[position]) {
		is_published = add_event(source, context->bus, interface, event);
		hs_loop_bus_set_event_status(context->loop, context->bus, event.title.c_str(), source, true);
	} else {
		void *cursor = nullptr;
		while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor))
			is_published &= add_private_event(source, bus, interface, event);
	}
	source->event_published[position] = is_published;

	if (event.value.find("Detected") == std::string::npos)
		return true;
	return add_method(source, context->bus, source->object_path, interface + ".Methods", "TriggerEvent",
			  hs_dbus_trigger_event, nullptr, nullptr) >= 0;
}

bool publish_events(hs_context *context, hs_source *source)
{
	for (size_t position = 0; position < source->events.size(); ++position) {
		if (!publish_event(context, source, position))
			return false;
	}
	return true;
}

void publish_instance(hs_source *source, sd_bus *bus)
{
	if (!hs_dbus_setup_plugin_instance_interface(source, bus))
		pw_log_error("Could not set up D-Bus Plugin Instance interface on system bus for source '%s'",
			     source->name.c_str());
}

void announce_instance(const hs_source *source, sd_bus *bus, const char *kind)
{
	const int r = sd_bus_emit_object_added(bus, source->object_path.c_str());
	if (r < 0)
		pw_log_error("Failed to emit interfaces on %s bus for path %s: %s", kind, source->object_path.c_str(),
			     std::strerror(-r));
}

enum class shared_result { added, present, failed };

/** Registers a member of an object that several sources share. */
shared_result add_shared_property(hs_source *source, sd_bus *bus, const std::string &path, const char *interface,
				  const char *signature, const char *name)
{
	/* A property whose value is no object path would make every read of the whole tree fail. */
	const bool readable = !spa_streq(signature, "o") || sd_bus_object_path_is_valid(source->device_path.c_str());
	const int r = readable ? register_property(source, bus, path, interface, signature, name, false) : -EINVAL;
	if (r >= 0)
		return shared_result::added;
	if (r == -EEXIST)
		return shared_result::present;
	pw_log_error("Failed to setup dbus source interface %s, %s, %s with error: %s", path.c_str(), interface, name,
		     std::strerror(-r));
	return shared_result::failed;
}

struct shared_property {
	const char *name;
	const char *signature;
};

/** Registers the members of a shared object in turn, until one is there already or fails. */
template <size_t N>
shared_result add_shared_properties(hs_source *source, sd_bus *bus, const std::string &path, const char *interface,
				    const shared_property (&properties)[N])
{
	for (const shared_property &property : properties) {
		const shared_result result =
			add_shared_property(source, bus, path, interface, property.signature, property.name);
		if (result != shared_result::added)
			return result;
	}
	return shared_result::added;
}

void announce_shared(sd_bus *bus, const std::string &path)
{
	const int r = sd_bus_emit_object_added(bus, path.c_str());
	if (r < 0)
		pw_log_error("Failed to emit interfaces for path %s: %s", path.c_str(), std::strerror(-r));
}

/** News of one event, on its way to the buses. */
struct event_signal {
	hs_source *source;
	const char *interface;
	const hs_event &event;
	bool force;
	/** On every bus that it belongs to; otherwise only sd-bus knows where. */
	bool is_published;
	/** As the first bus got it; null until then. */
	hs_message_ptr sent;
};

/** Appends what sd-bus itself appends for one property that has changed. */
int append_change(sd_bus_message *message, const event_signal &news)
{
	const char *signature = signature_of(news.event);
	int r = sd_bus_message_append_basic(message, 's', news.interface);
	if (r >= 0)
		r = sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
	if (r >= 0)
		r = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv");
	if (r >= 0)
		r = sd_bus_message_append_basic(message, 's', news.event.title.c_str());
	if (r >= 0)
		r = sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT,
						  hs_dbus_cb_published_signature(signature));
	if (r >= 0)
		r = hs_dbus_get_append_event(message, news.source, news.event, signature);
	for (int n_open = 3; n_open > 0 && r >= 0; --n_open)
		r = sd_bus_message_close_container(message);
	return r < 0 ? r : sd_bus_message_append(message, "as", 0);
}

/* sd-bus would walk through every table at the path, and have the value read anew for each bus. */
int send_change(sd_bus *bus, event_signal *news)
{
	if (sd_bus_is_open(bus) <= 0)
		return -ENOTCONN;
	sd_bus_message *created = nullptr;
	int r = sd_bus_message_new_signal(bus, &created, news->source->object_path.c_str(),
					  "org.freedesktop.DBus.Properties", "PropertiesChanged");
	if (r < 0)
		return r;
	hs_message_ptr message(created);
	if (news->sent) {
		sd_bus_message_rewind(news->sent.get(), 1);
		r = sd_bus_message_copy(created, news->sent.get(), 1);
	} else {
		r = append_change(created, *news);
	}
	if (r >= 0)
		r = sd_bus_send(bus, created, nullptr);
	if (r >= 0 && !news->sent)
		news->sent = std::move(message);
	return r;
}

void emit_on_bus(sd_bus *bus, event_signal *news)
{
	const hs_context *context = hs_context_get();
	const char *path = news->source->object_path.c_str();
	bool enabled = false;
	const char *title = news->event.title.c_str();
	if (!hs_loop_bus_get_event_status(context->loop, bus, news->source, title, &enabled))
		return;
	if (!news->force && !enabled)
		return;
	const int r = news->is_published ? send_change(bus, news)
					 : sd_bus_emit_properties_changed(bus, path, news->interface, title, nullptr);
	if (r < 0 && r != -ENOTCONN && bus != context->bus)
		pw_log_warn("Could not emit signal on private bus %p, path %s, interface %s, property %s: %s",
			    static_cast<void *>(bus), path, news->interface, title, std::strerror(-r));
}

/** Another published source on the shared object that the record is a member of; null where it is none. */
hs_source *find_heir(const hs_dbus *dbus)
{
	const bool on_node = dbus->interface == HS_DBUS_SOURCE_INTERFACE;
	if (!on_node && dbus->interface != HS_DBUS_CHAIN_INTERFACE)
		return nullptr;

	hs_plugin *plugin;
	spa_list_for_each(plugin, &dbus->context->plugins, link) {
		hs_source *source;
		spa_list_for_each(source, &plugin->sources, link) {
			const bool same_path = on_node ? source->node_path == dbus->owner->node_path
						       : source->device_path == dbus->owner->device_path;
			if (source != dbus->owner && source->holds_paths && same_path)
				return source;
		}
	}
	return nullptr;
}

void hand_over(hs_dbus *dbus, hs_source *heir)
{
	set_owner(dbus, heir);
	if (dbus->vtable[1].type != _SD_BUS_VTABLE_METHOD)
		sd_bus_slot_set_userdata(dbus->slot, heir);
}

/* Where a device has no machine id, sd-bus fails over this call as if the connection were lost. */
int guard_machine_id(sd_bus_message *message, void *, sd_bus_error *)
{
	if (!sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Peer", "GetMachineId"))
		return 0;
	sd_id128_t id;
	if (sd_id128_get_machine(&id) >= 0)
		return 0;
	return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_FAILED, "This device has no machine id");
}

} // namespace

void hs_dbus_guard(sd_bus *bus)
{
	const int r = sd_bus_add_filter(bus, nullptr, guard_machine_id, nullptr);
	if (r < 0)
		pw_log_error("Could not guard bus %p: %s", static_cast<void *>(bus), std::strerror(-r));
}

void hs_dbus_destroy(hs_dbus *dbus)
{
	if (!dbus)
		return;
	spa_list_remove(&dbus->owner_link);
	spa_list_remove(&dbus->link);
	pw_log_debug("%p: destroy dbus %s", static_cast<void *>(dbus), dbus->name.c_str());
	/* sd-bus reads the table and its names once more here. */
	sd_bus_slot_unref(dbus->slot);
	hs_malloc_ptr<sd_bus_vtable>(dbus->vtable).reset();
	delete dbus;
}

bool hs_dbus_init_private_bus()
{
	const int r = add_method(nullptr, hs_context_get()->bus, "/", HS_DBUS_SERVICE, private_bus_method,
				 hs_private_bus_get, "s", "h");
	if (r < 0)
		pw_log_error("Could not add method GetPrivateBus to /");
	return r >= 0;
}

bool hs_dbus_setup_source_interface(hs_source *source, sd_bus *bus)
{
	static constexpr shared_property properties[] = {{"Id", "s"}, {"AudioChain", "o"}};
	const shared_result result =
		add_shared_properties(source, bus, source->node_path, HS_DBUS_SOURCE_INTERFACE, properties);
	if (result == shared_result::added)
		announce_shared(bus, source->node_path);
	return result != shared_result::failed;
}

bool hs_dbus_setup_audio_chain_interface(hs_source *source, sd_bus *bus)
{
	static constexpr shared_property properties[] = {{"Id", "s"}, {"NiceName", "s"}, {"Direction", "s"}};
	const shared_result result =
		add_shared_properties(source, bus, source->device_path, HS_DBUS_CHAIN_INTERFACE, properties);
	if (result == shared_result::added) {
		add_method(source, bus, source->device_path, HS_DBUS_CHAIN_INTERFACE, "IndicateInternalSpeakerActive",
			   hs_dbus_indicate_internal_speaker_active, "b", nullptr);
		add_method(source, bus, source->device_path, HS_DBUS_CHAIN_INTERFACE,
			   "IndicateContinuousAudioDisturbance", hs_dbus_indicate_continuous_audio_disturbance, "b",
			   nullptr);
		add_method(source, bus, source->device_path, HS_DBUS_CHAIN_INTERFACE,
			   "IndicateTransientAudioDisturbance", hs_dbus_indicate_transient_audio_disturbance, nullptr,
			   nullptr);
		announce_shared(bus, source->device_path);
	}
	return result != shared_result::failed;
}

bool hs_dbus_setup_plugin_instance_interface(hs_source *source, sd_bus *bus)
{
	return add_property(source, bus, source->object_path, HS_DBUS_INSTANCE_INTERFACE, "o", "Source", false) >= 0;
}

void hs_dbus_add_private_events(hs_source *source, sd_bus *bus)
{
	for (size_t position = 0; position < source->events.size(); ++position) {
		const bool is_missing =
			!source->event_public[position] &&
			!add_private_event(source, bus, source->event_interfaces[position], source->events[position]);
		if (is_missing)
			source->event_published[position] = false;
	}
}

bool hs_dbus_setup_plugin_interfaces(hs_source *source)
{
	hs_context *context = hs_context_get();
	publish_instance(source, context->bus);
	void *cursor = nullptr;
	while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor))
		publish_instance(source, bus);

	if (add_property(source, context->bus, source->object_path, source->settings_interface, "s", "Schema", false) <
	    0)
		return false;
	add_settings(source, context->bus);
	if (!publish_events(context, source))
		return false;

	cursor = nullptr;
	while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor))
		announce_instance(source, bus, "private");
	announce_instance(source, context->bus, "main");

	hs_refcount_inc(context->object_path_counts, source->node_path.c_str());
	hs_refcount_inc(context->object_path_counts, source->device_path.c_str());
	source->holds_paths = true;
	return true;
}

void hs_dbus_remove_source(hs_source *source)
{
	hs_dbus *dbus;
	hs_dbus *next;
	spa_list_for_each(dbus, &hs_context_get()->dbus_objects, link) {
		if (dbus->owner)
			break;
		if (dbus->name != private_bus_method)
			pw_log_warn("dbus has no source: %s", dbus->name.c_str());
	}
	spa_list_for_each_safe(dbus, next, &source->dbus_objects, owner_link) {
		if (hs_source *heir = find_heir(dbus))
			hand_over(dbus, heir);
		else
			hs_dbus_destroy(dbus);
	}
}

void hs_dbus_disown(hs_source *source)
{
	hs_dbus *dbus;
	spa_list_consume(dbus, &source->dbus_objects, owner_link) {
		spa_list_remove(&dbus->owner_link);
		spa_list_init(&dbus->owner_link);
		dbus->owner = nullptr;
	}
}

void hs_dbus_remove_bus(sd_bus *bus)
{
	hs_context *context = hs_context_get();
	if (!context)
		return;
	hs_dbus *dbus;
	hs_dbus *next;
	spa_list_for_each_safe(dbus, next, &context->dbus_objects, link) {
		if (sd_bus_slot_get_bus(dbus->slot) == bus)
			hs_dbus_destroy(dbus);
	}
}

void hs_dbus_emit_event(hs_source *source, const char *title, bool force)
{
	if (const hs_event *event = hs_events_find(source->events, title))
		hs_dbus_signal_event(source, *event, force);
}

void hs_dbus_signal_event(hs_source *source, const hs_event &event, bool force)
{
	const auto position = static_cast<size_t>(&event - source->events.data());
	event_signal news{source, source->event_interfaces[position].c_str(),		event,
			  force,  static_cast<bool>(source->event_published[position]), nullptr};

	const hs_context *context = hs_context_get();
	if (source->event_public[position]) {
		if (context->bus)
			emit_on_bus(context->bus, &news);
		return;
	}
	void *cursor = nullptr;
	while (sd_bus *bus = hs_loop_bus_iterate(context->loop, &cursor))
		emit_on_bus(bus, &news);
}
