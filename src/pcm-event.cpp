#include "pcm-event.hpp"

#include <spa/utils/string.h>

#include "dbus.hpp"
#include "log.hpp"
#include "pcm.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "props.hpp"
#include "pw-source.hpp"
#include "source.hpp"

namespace {

const char *event_name(const hs_pod &event)
{
	return event.title ? event.title->c_str() : "";
}

/** Until every plug-in was tried on the node its objects may not be published yet. */
bool node_is_registered(const hs_source *source)
{
	return source->pcm && source->pcm->node && source->pcm->node->registered;
}

bool report_differs(const char *stored_value, const char *new_value)
{
	const hs_properties_ptr stored(pw_properties_new_string(stored_value ? stored_value : ""));
	const hs_properties_ptr updated(pw_properties_new_string(new_value));
	return !spa_streq(pw_properties_get(stored.get(), "Report"), pw_properties_get(updated.get(), "Report"));
}

} // namespace

bool hs_pcm_update_event(hs_source *source, const hs_pod &event, bool *report_changed)
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

	const hs_properties_ptr stored = hs_props_find(source->events, name);
	const char *stored_value = stored ? pw_properties_get(stored.get(), "value") : nullptr;
	if (spa_streq(stored_value, value))
		return false;

	if (type->id == SPA_TYPE_Struct)
		*report_changed = report_differs(stored_value, value);
	hs_props_set_value(source->events, name, value);
	return true;
}

void hs_pcm_handle_events(hs_source *source, bool force)
{
	hs_plugin_interface *interface = source->interface;
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
		const bool changed = hs_pcm_update_event(source, *event, &report_changed);
		if ((changed || force) && node_is_registered(source))
			hs_dbus_emit_event(source, event_name(*event), report_changed);
	}
}

void hs_pcm_handle_event(hs_pcm *pcm, uint32_t index, bool force)
{
	hs_source *source = pcm->source;
	hs_pod_buffer buffer;
	const spa_pod *pod = hs_plugin_fetch_event(source->interface, index, &buffer);
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
	const bool changed = hs_pcm_update_event(source, *event, &report_changed);
	/* One event that is asked for by itself goes out even where nobody enabled it. */
	if ((changed || force) && node_is_registered(source))
		hs_dbus_emit_event(source, event_name(*event), force || report_changed);
}
