/*
 * The events of a source: what its plug-in says goes to the buses once the node's objects are published.
 */
#pragma once

#include <cstdint>

struct hs_pcm;
struct hs_source;

/** Looks at every event; `force` signals unchanged ones too. */
void hs_pcm_handle_events(hs_source *source, bool force);

/** Looks at one event; `force` signals it on every bus, changed or not. */
void hs_pcm_handle_event(hs_pcm *pcm, uint32_t index, bool force);
