/*
 * What a plug-in says: its events are fetched, parsed and compared with what it said last.
 *
 * Needs no stream, no graph and no bus: whom a value is told is the caller's affair.
 *
 * Failure: costs the one event; it is logged, and the stored value stays.
 */
#pragma once

#include <cstdint>
#include <vector>

struct pw_properties;
struct hs_plugin_interface;
struct hs_pod;

/** Told of the event `title`; `is_report` where the value is for everyone, even those who did not enable the event. */
using hs_event_tell = void (*)(void *data, const char *title, bool is_report);

/**
 * One object for each of the first `n_events` events with "title", "type", "complexType" and "value"; an
 * event that cannot be described is left out. `indices` is given the plug-in's index of each.
 */
pw_properties *hs_event_table_new(hs_plugin_interface *interface, int n_events, std::vector<uint32_t> *indices);

/** Looks at every event; `force` tells of unchanged ones too. */
void hs_event_handle_all(hs_plugin_interface *interface, pw_properties *events, bool force, hs_event_tell tell,
			 void *data);

/** Looks at one event; `force` tells of it, changed or not, as a report. */
void hs_event_handle_one(hs_plugin_interface *interface, pw_properties *events, uint32_t index, bool force,
			 hs_event_tell tell, void *data);

/**
 * Stores the event's value in the table. Returns whether it changed; `report_changed` tells whether the
 * "Report" member of a structure did.
 */
bool hs_event_update(pw_properties *events, const hs_pod &event, bool *report_changed);
