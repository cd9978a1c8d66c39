#include "event.hpp"

#include <algorithm>
#include <cstring>

#include <spa/pod/pod.h>
#include <spa/utils/string.h>

#include "log.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "props.hpp"

namespace {

const char *event_name(const hs_pod &event)
{
	return event.title ? event.title->c_str() : "";
}

/** Whether the event is short enough with that value; clients know that longer ones do not come. */
bool fits(const hs_event &event, const char *value)
{
	constexpr size_t longest_escape = 6;
	constexpr size_t frame = 128;
	const size_t n_characters = event.title.size() + event.complex_type.size() + std::strlen(value);
	if (frame + longest_escape * n_characters < HS_PROPS_OBJECT_SIZE)
		return true;

	const hs_properties_ptr object(pw_properties_new("title", event.title.c_str(), "type", event.type->name,
							 "complexType", event.complex_type.c_str(), "value", value,
							 nullptr));
	char text[HS_PROPS_OBJECT_SIZE];
	return hs_props_to_json(object.get(), text, sizeof(text)) >= 0;
}

void log_unset(const char *title, const char *value)
{
	pw_log_error("Failed to set value %s for props title %s", value, title);
}

void set_value(hs_event *event, const char *value)
{
	if (!fits(*event, value))
		return log_unset(event->title.c_str(), value);
	event->value = value;
	event->said.clear();
}

bool report_differs(const char *stored_value, const char *new_value)
{
	const hs_properties_ptr stored(pw_properties_new_string(stored_value));
	const hs_properties_ptr updated(pw_properties_new_string(new_value));
	return !spa_streq(pw_properties_get(stored.get(), "Report"), pw_properties_get(updated.get(), "Report"));
}

void describe(hs_events *events, hs_plugin_interface *interface, uint32_t index)
{
	hs_pod_buffer buffer;
	const hs_pod_ptr pod = hs_pod_parse(hs_plugin_fetch_event(interface, index, &buffer));
	if (!pod || !pod->title || pod->title->empty() || hs_events_find(*events, pod->title->c_str()))
		return;
	hs_event event{index,	       {},
		       *pod->title,    hs_schema_type_by_name(hs_c_str(pod->type)),
		       pod->signature, hs_pod_value_text(*pod)};
	if (fits(event, event.value.c_str()))
		events->push_back(std::move(event));
	else
		pw_log_warn("%s is left out, it is too long", event.title.c_str());
}

/** The event of that index of the plug-in; null where it was left out. */
hs_event *event_at(hs_events &events, uint32_t index)
{
	if (index < events.size() && events[index].index == index)
		return &events[index];
	const auto found = std::lower_bound(events.begin(), events.end(), index,
					    [](const hs_event &event, uint32_t i) { return event.index < i; });
	return found != events.end() && found->index == index ? &*found : nullptr;
}

void remember(hs_event *event, const spa_pod *pod)
{
	const auto *bytes = reinterpret_cast<const std::byte *>(pod);
	event->said.assign(bytes, bytes + SPA_POD_SIZE(pod));
}

/** Whoever traces wants to see each POD parsed. */
bool is_tracing()
{
	return pw_log_topic_enabled(SPA_LOG_LEVEL_TRACE, hs_log_topic);
}

/** Nearly every look at an event ends here. */
bool is_said_again(const hs_event &event, const spa_pod *pod)
{
	return event.said.size() == SPA_POD_SIZE(pod) && std::memcmp(event.said.data(), pod, event.said.size()) == 0 &&
	       !is_tracing();
}

enum class verdict { rejected, unchanged, changed };

/** What a look at an event found. */
struct news {
	/** Null where the title is of no event. */
	hs_event *event;
	verdict found;
	bool report_changed;
};

/** `expected` (may be null) is the event that the pod most likely speaks of. */
news update(hs_events &events, hs_event *expected, const hs_pod &pod)
{
	const char *name = event_name(pod);
	const char *value = hs_pod_value_text(pod);
	hs_event *event = expected && expected->title == name ? expected : hs_events_find(events, name);
	const hs_schema_type *type = hs_schema_type_by_name(hs_c_str(pod.type));
	if (!type) {
		pw_log_warn("Unsupported type '%s' (\"%s\"=\"%s\")", pod.type ? pod.type->c_str() : "(null)", name,
			    pod.value);
		return {event, verdict::rejected, false};
	}
	const bool is_complex = type->id == SPA_TYPE_Array || type->id == SPA_TYPE_Struct;
	if (!is_complex && !hs_pod_value_is_valid(*type, value)) {
		pw_log_warn("Failed to parse \"%s\"=\"%s\" as %s", name, value, type->name);
		return {event, verdict::rejected, false};
	}
	if (!event) {
		log_unset(name, value);
		return {nullptr, verdict::changed, false};
	}
	if (event->value == value)
		return {event, verdict::unchanged, false};

	const bool report_changed = type->id == SPA_TYPE_Struct && report_differs(event->value.c_str(), value);
	set_value(event, value);
	return {event, verdict::changed, report_changed};
}

/**
 * Does for a scalar what the long way does, but for its log lines: what would have one is left to it. Returns
 * whether it did.
 */
bool update_scalar(hs_event *event, const spa_pod *pod, news *result)
{
	hs_pod_scalar scalar;
	if (is_tracing() || !hs_pod_read_scalar(pod, &scalar) || event->title != scalar.title)
		return false;
	/* A number that was made into digits is a number, but for one without a sign. */
	if (scalar.type->id == SPA_TYPE_Id && scalar.value[0] == '-')
		return false;
	const bool is_changed = event->value != scalar.value;
	if (is_changed) {
		if (!fits(*event, scalar.value))
			return false;
		event->value = scalar.value;
	}
	remember(event, pod);
	*result = {event, is_changed ? verdict::changed : verdict::unchanged, false};
	return true;
}

/** Looks at what the plug-in gave for the event of that index; false where it is no description. */
bool look(hs_events &events, uint32_t index, const spa_pod *pod, news *result)
{
	hs_event *expected = event_at(events, index);
	if (expected && is_said_again(*expected, pod)) {
		*result = {expected, verdict::unchanged, false};
		return true;
	}
	if (expected && update_scalar(expected, pod, result))
		return true;
	const hs_pod_ptr parsed = hs_pod_parse(pod);
	if (!parsed)
		return false;
	*result = update(events, expected, *parsed);
	const bool is_stored = result->event && result->event == expected && result->found != verdict::rejected &&
			       expected->value == hs_pod_value_text(*parsed);
	if (is_stored)
		remember(expected, pod);
	return true;
}

/** Events; more on their way at once would only wait for each other. */
constexpr size_t most_prefetched = 4;

void prefetch(const void *from, size_t n_bytes)
{
	constexpr size_t cache_line = 64;
	for (size_t at = 0; at < n_bytes; at += cache_line)
		__builtin_prefetch(static_cast<const std::byte *>(from) + at);
}

} // namespace

hs_events hs_events_describe(hs_plugin_interface *interface, int n_events)
{
	hs_events events;
	for (int i = 0; i < n_events; ++i)
		describe(&events, interface, static_cast<uint32_t>(i));
	return events;
}

const hs_event *hs_events_find(const hs_events &events, const char *title)
{
	const auto found = std::find_if(events.begin(), events.end(),
					[title](const hs_event &event) { return title && event.title == title; });
	return found != events.end() ? &*found : nullptr;
}

hs_event *hs_events_find(hs_events &events, const char *title)
{
	return const_cast<hs_event *>(hs_events_find(std::as_const(events), title));
}

void hs_events_set_value(hs_events &events, const char *title, const char *value)
{
	if (hs_event *event = hs_events_find(events, title))
		set_value(event, value);
	else
		log_unset(title, value);
}

bool hs_events_update(hs_events &events, const hs_pod &event, bool *report_changed)
{
	const news result = update(events, nullptr, event);
	*report_changed = result.report_changed;
	return result.found == verdict::changed;
}

void hs_events_prefetch_records(const hs_events &events)
{
	prefetch(events.data(), std::min(events.size(), most_prefetched) * sizeof(hs_event));
}

void hs_events_prefetch_said(const hs_events &events)
{
	constexpr size_t most_bytes = 512;
	for (size_t i = 0; i < std::min(events.size(), most_prefetched); ++i)
		prefetch(events[i].said.data(), std::min(events[i].said.size(), most_bytes));
}

void hs_events_handle_all(hs_plugin_interface *interface, hs_events &events, bool force, hs_event_tell tell, void *data)
{
	const int n_events = hs_plugin_count_events(interface);
	for (int i = 0; i < n_events; ++i) {
		const auto index = static_cast<uint32_t>(i);
		hs_pod_buffer buffer;
		const spa_pod *pod = hs_plugin_fetch_event(interface, index, &buffer);
		if (!pod) {
			pw_log_warn("Could not fetch event with index %d", i);
			continue;
		}
		news result;
		if (!look(events, index, pod, &result) || !result.event)
			continue;
		if (result.found == verdict::changed || force)
			tell(data, *result.event, result.report_changed);
	}
}

void hs_events_handle_one(hs_plugin_interface *interface, hs_events &events, uint32_t index, bool force,
			  hs_event_tell tell, void *data)
{
	hs_pod_buffer buffer;
	const spa_pod *pod = hs_plugin_fetch_event(interface, index, &buffer);
	if (!pod) {
		pw_log_error("Event index %d out of range", static_cast<int>(index));
		return;
	}
	news result;
	if (!look(events, index, pod, &result)) {
		pw_log_error("Could not parse pod for event index %d", static_cast<int>(index));
		return;
	}
	if (result.event && (result.found == verdict::changed || force))
		tell(data, *result.event, force || result.report_changed);
}
