/*
 * Which events of which sources are wanted on one bus.
 *
 * Every signal asks, so looking up takes no walk through the events of all other sources.
 */
#pragma once

struct hs_source;
struct hs_event_statuses;

hs_event_statuses *hs_event_statuses_new();

/** Takes a consumer from the source of every event that was ever set here, wanted or not, the first one first. */
void hs_event_statuses_destroy(hs_event_statuses *statuses);

/** `name` may be null here and below; an event that was never set is not wanted. */
bool hs_event_statuses_get(const hs_event_statuses *statuses, const hs_source *source, const char *name);

/** Tells the source of its consumer more or less where the status changes. The source is borrowed. */
void hs_event_statuses_set(hs_event_statuses *statuses, hs_source *source, const char *name, bool enabled);

/** Forgets the events of a source that is about to go. */
void hs_event_statuses_remove(hs_event_statuses *statuses, const hs_source *source);
