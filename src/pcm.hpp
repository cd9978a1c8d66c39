/*
 * The capture stream of a source, and the plug-in instance that hears it.
 *
 * The instance goes from uninitialised to initialised to active and back: a negotiated format initialises
 * it, a streaming stream activates it. Only the four hs_pcm_plugin_ functions change those states.
 *
 * Threads: all callbacks run on the main loop, the process callback too. Failure: logged once; the stream
 * then stays without audio until the next format, state, setting or metadata change.
 */
#pragma once

#include <spa/utils/hook.h>

#include <hear-sense/plugin.h>

struct pw_stream;
struct hs_pw_source;
struct hs_source;

struct hs_pcm {
	/* As in hs_source, what each buffer needs is first; PipeWire reads the listener itself. */
	spa_hook listener;
	/** Borrowed: the owner. */
	hs_source *source;
	/** Owned; null where it could not be created. */
	pw_stream *stream;
	/** Borrowed; null once the node is gone. */
	hs_pw_source *node;
	/** We have set the stream active. */
	bool stream_active;
	/** A format was configured at least once. */
	bool format_ready;
	/** What the plug-in's init is given. */
	hs_stream_info info;
};

/** Makes the record and its inactive stream; without a stream where that fails. */
hs_pcm *hs_pcm_new(hs_source *source, hs_pw_source *node);
/** Its last callbacks run before it returns, so the source must still be whole. */
void hs_pcm_destroy(hs_pcm *pcm);

/** Lets audio flow; false where it flows already, the source is disabled or nobody listens. */
bool hs_pcm_start_stream(hs_pcm *pcm);
void hs_pcm_stop_stream(hs_pcm *pcm);

/** Initialises the instance unless it is; whether it is afterwards. It must not be active. */
bool hs_pcm_plugin_init(hs_pcm *pcm);
void hs_pcm_plugin_deinit(hs_pcm *pcm);
/** Activates an initialised instance; whether it is active afterwards. */
bool hs_pcm_plugin_activate(hs_pcm *pcm);
void hs_pcm_plugin_deactivate(hs_pcm *pcm);

/** Copies the node's name and its connection's values from the metadata into `info`, cut to fit. */
void hs_pcm_update_description(hs_pcm *pcm);
