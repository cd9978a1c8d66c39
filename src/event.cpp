#include "event.hpp"

#include <spa/utils/string.h>

#include "assert.hpp"
#include "log.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "props.hpp"

namespace {

const char *event_name(const hs_pod &event)
{
	return event.title ? event.title->c_str() : "";
}

bool report_differs(const char *stored_value, const char *new_value)
{
	const hs_properties_ptr stored(pw_properties_new_string(stored_value ? stored_value : ""));
	const hs_properties_ptr updated(pw_properties_new_string(new_value));
	return !spa_streq(pw_properties_get(stored.get(), "Report"), pw_properties_get(updated.get(), "Report"));
}

/** Describes one event in the table; false where it is left out. */
bool add_event(pw_properties *events, hs_plugin_interface *interface, uint32_t index)
{
	hs_pod_buffer buffer;
	const hs_pod_ptr event = hs_pod_parse(hs_plugin_fetch_event(interface, index, &buffer));
	if (!event || !event->title)
		return false;
	const uint32_t n_before = events->dict.n_items;
	hs_props_add_object(events, {
					    {"title", hs_c_str(event->title)},
					    {"type", hs_c_str(event->type)},
					    {"complexType", event->signature},
					    {"value", hs_pod_value_text(*event)},
				    });
	return events->dict.n_items > n_before;
}

} // namespace

pw_properties *hs_event_table_new(hs_plugin_interface *interface, int n_events, std::vector<uint32_t> *indices)
{
	pw_properties *events = pw_properties_new(nullptr, nullptr);
	HS_ASSERT(events);
	for (int i = 0; i < n_events; ++i) {
		const auto index = static_cast<uint32_t>(i);
		if (add_event(events, interface, index))
			indices->push_back(index);
	}
	return events;
}

bool hs_event_update(pw_properties *events, const hs_pod &event, bool *report_changed)
{
	*report_changed = false;
	const char *name = event_name(event);
	const hs_schema_type *type = hs_schema_type_by_name(hs_c_str(event.type));
	if (!type) {
		pw_log_warn("Unsupported type '%s' (\"%s\"=\"%s\")", event.type ? event.type->c_str() : "(null)", name,
			    event.value);
		return false;
	}

	const char *value = hs_pod_value_text(event);
	const bool is_complex = type->id == SPA_TYPE_Array || type->id == SPA_TYPE_Struct;
	if (!is_complex && !hs_pod_value_is_valid(*type, value)) {
		pw_log_warn("Failed to parse \"%s\"=\"%s\" as %s", name, value, type->name);
		return false;
	}

	const hs_properties_ptr stored = hs_props_find(events, name);
	const char *stored_value = stored ? pw_properties_get(stored.get(), "value") : nullptr;
	if (spa_streq(stored_value, value))
		return false;

	if (type->id == SPA_TYPE_Struct)
		*report_changed = report_differs(stored_value, value);
	hs_props_set_value(events, name, value);
	return true;
}

void hs_event_handle_all(hs_plugin_interface *interface, pw_properties *events, bool force, hs_event_tell tell,
			 void *data)
{
	const int n_events = hs_plugin_count_events(interface);
	for (int i = 0; i < n_events; ++i) {
		hs_pod_buffer buffer;
		const spa_pod *pod = hs_plugin_fetch_event(interface, static_cast<uint32_t>(i), &buffer);
		if (!pod) {
			pw_log_warn("Could not fetch event with index %d", i);
			continue;
		}
		const hs_pod_ptr event = hs_pod_parse(pod);
		if (!event)
			continue;
		bool report_changed = false;
		if (hs_event_update(events, *event, &report_changed) || force)
			tell(data, event_name(*event), report_changed);
	}
}

void hs_event_handle_one(hs_plugin_interface *interface, pw_properties *events, uint32_t index, bool force,
			 hs_event_tell tell, void *data)
{
	hs_pod_buffer buffer;
	const spa_pod *pod = hs_plugin_fetch_event(interface, index, &buffer);
	if (!pod) {
		pw_log_error("Event index %d out of range", static_cast<int>(index));
		return;
	}
	const hs_pod_ptr event = hs_pod_parse(pod);
	if (!event) {
		pw_log_error("Could not parse pod for event index %d", static_cast<int>(index));
		return;
	}
	bool report_changed = false;
	if (hs_event_update(events, *event, &report_changed) || force)
		tell(data, event_name(*event), force || report_changed);
}
