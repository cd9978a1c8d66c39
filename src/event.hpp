/*
 * What a plug-in says: its events are fetched, parsed and compared with what it said last.
 *
 * Needs no stream, no graph and no bus: whom a value is told is the caller's affair.
 *
 * Failure: costs the one event; it is logged, and the stored value stays.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct hs_plugin_interface;
struct hs_pod;
struct hs_schema_type;

struct hs_event {
	/** The plug-in's index. */
	uint32_t index;
	/** The POD that gave `value`, for a quick look whether there is news; empty where it came otherwise. */
	std::vector<std::byte> said;
	std::string title;
	const hs_schema_type *type;
	/** D-Bus signature of an array or structure; empty for a scalar. */
	std::string complex_type;
	/** The last accepted value as text; see hs_pod_value_text. */
	std::string value;
};

/** By rising index. */
using hs_events = std::vector<hs_event>;

/** Told of an event; `is_report` where the value is for everyone, even those who did not enable the event. */
using hs_event_tell = void (*)(void *data, const hs_event &event, bool is_report);

/**
 * The first `n_events` events. Left out are those that cannot be described or have no title, or the title of
 * another, or too long a value.
 */
hs_events hs_events_describe(hs_plugin_interface *interface, int n_events);

/** The event of that title; null where there is none. */
hs_event *hs_events_find(hs_events &events, const char *title);
const hs_event *hs_events_find(const hs_events &events, const char *title);

/**
 * Every event is looked at soon: the records, and then what they said last, have left the cache and come back
 * meanwhile.
 */
void hs_events_prefetch_records(const hs_events &events);
void hs_events_prefetch_said(const hs_events &events);

/** Looks at every event; `force` tells of unchanged ones too. */
void hs_events_handle_all(hs_plugin_interface *interface, hs_events &events, bool force, hs_event_tell tell,
			  void *data);

/** Looks at one event; `force` tells of it, changed or not, as a report. */
void hs_events_handle_one(hs_plugin_interface *interface, hs_events &events, uint32_t index, bool force,
			  hs_event_tell tell, void *data);

/**
 * Stores the value under the event's title. Returns whether it changed; `report_changed` tells whether the
 * "Report" member of a structure did.
 */
bool hs_events_update(hs_events &events, const hs_pod &event, bool *report_changed);

/** Stores a value that is not the plug-in's; logs an error where there is no such title or the value is too long. */
void hs_events_set_value(hs_events &events, const char *title, const char *value);
