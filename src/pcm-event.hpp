/*
 * What the plug-in says: fetches events, keeps their last values in the source and signals changes.
 *
 * Failure: costs the one event; it is logged, and the stored value stays.
 */
#pragma once

#include <cstdint>

struct hs_pcm;
struct hs_pod;
struct hs_source;

/** Looks at every event; `force` signals unchanged ones too. */
void hs_pcm_handle_events(hs_source *source, bool force);

/** Looks at one event; `force` signals it on every bus, changed or not. */
void hs_pcm_handle_event(hs_pcm *pcm, uint32_t index, bool force);

/**
 * Stores the event's value in the source's events. Returns whether it changed; `report_changed` tells
 * whether the "Report" member of a structure did.
 */
bool hs_pcm_update_event(hs_source *source, const hs_pod &event, bool *report_changed);
