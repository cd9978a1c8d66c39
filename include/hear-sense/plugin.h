/* SPDX-License-Identifier: MIT */
/*
 * The interface between the hear-sense daemon and an analysis plug-in.
 *
 * A plug-in NAME is a SPA plug-in library "hear-sense/libspa-hs-NAME.so" in PipeWire's SPA plug-in
 * directory. Its factory is named "hear-sense.NAME"; the handle's get_interface answers the type
 * "Spa:Pointer:Interface:HearSense:" followed by NAME in upper case with a struct hs_plugin_interface.
 * The daemon makes one handle for each microphone that the plug-in runs on, so the interface record
 * belongs to the handle: never share a static one between handles, the daemon writes into it.
 *
 * Threads: the daemon calls every function from its one thread, and notify_event must be called from
 * there too (from inside process, for instance). No call may block.
 *
 * Ownership: all records and texts here belong to the plug-in and stay valid until the handle is
 * cleared, but for the two fields the daemon writes and the stream description it passes to init.
 *
 * The layout is an ABI between separately built binaries: it does not change within a version.
 */
#ifndef HEAR_SENSE_PLUGIN_H
#define HEAR_SENSE_PLUGIN_H

#include <stdbool.h>
#include <stdint.h>

#include <spa/buffer/buffer.h>
#include <spa/param/audio/raw.h>
#include <spa/pod/builder.h>
#include <spa/pod/pod.h>
#include <spa/support/plugin.h>
#include <spa/utils/dict.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The version that this header describes, and the oldest one that the daemon still takes. */
#define HS_PLUGIN_INTERFACE_VERSION 3
#define HS_PLUGIN_INTERFACE_VERSION_MIN 2

/** Followed by the plug-in's name in upper case: the type for get_interface. */
#define HS_PLUGIN_INTERFACE_TYPE_PREFIX "Spa:Pointer:Interface:HearSense:"
/** Followed by the plug-in's name: the name of its SPA factory. */
#define HS_PLUGIN_FACTORY_PREFIX "hear-sense."

/** What the plug-in is about to hear; owned by the daemon, valid from init until deinit. */
struct hs_stream_info {
	/** Sample format, rate in Hz, number of channels and their positions; flags are always 0. */
	struct spa_audio_info_raw info;
	/** Name of the PipeWire node, such as "AudioDevice0Input0.Unprocessed". */
	char source_name[128];
	/** How the device is connected ("internal", for instance); empty when unknown. */
	char connection_type[128];
	/** Which acoustic set-up the device stands in; empty when unknown. */
	char acoustic_id[128];
};

/** One topic that an event belongs to, for clients that sort events; any text may be null. */
struct hs_event_topic {
	const char *name;
	/** For people. */
	const char *nice_name;
	/** Where `name` comes from. `namespace` is a keyword in C++, hence the underscore there. */
#ifdef __cplusplus
	const char *namespace_;
#else
	const char *namespace;
#endif
};

/** Bits of hs_event_info.data_types. */
#define HS_EVENT_DATA_STATS (1u << 0)
#define HS_EVENT_DATA_EVENT (1u << 1)

/** What the daemon publishes about an event beside its value; static data of the plug-in. */
struct hs_event_info {
	/** The title that the event's description POD carries; a valid D-Bus member name. */
	const char *name;
	/** For people. */
	const char *nice_name;
	bool isDeprecated;
	bool isApplicationData;
	/** The event tells a state rather than a moment. Before version 3 it also makes the event public. */
	bool isPropertyState;
	/** `n_topics` pointers; the daemon publishes the first three. */
	const struct hs_event_topic *const *topics;
	uint64_t n_topics;
	/** From version 3: published on the main bus, for everyone; else on private buses only. */
	bool is_public;
	/** HS_EVENT_DATA_ bits: which kinds of data the event carries. */
	uint32_t data_types;
};

/**
 * The plug-in's functions. Any of them may be null, which counts as an answer of -EOPNOTSUPP.
 * `obj` is the interface's `data`. Functions with a result return a negative errno on failure.
 *
 * Settings and events are described alike, by an object of type SPA_TYPE_OBJECT_PropInfo with the
 * properties SPA_PROP_INFO_name (String), SPA_PROP_INFO_description (String) and SPA_PROP_INFO_type,
 * whose value gives both the type and the present value: Bool, Id (an unsigned 32-bit number), Int,
 * Long, Float, Double, String, Array of one of these, or Struct of alternating String names and
 * scalar values. An array or a structure can be an event but not a setting.
 */
struct hs_plugin_methods {
	/** Of this table; the daemon does not read it. */
	uint32_t version;

	/** Gets ready for a stream; `config` is the plug-in's configuration. Negative: not ready, no audio. */
	int (*init)(void *obj, const struct hs_stream_info *info, const struct spa_dict *config);
	/** Undoes init. */
	void (*deinit)(void *obj);
	/** Audio is about to flow. Negative, -EOPNOTSUPP excepted: refused, no audio. */
	int (*activate)(void *obj);
	/** Audio has stopped. */
	void (*deactivate)(void *obj);
	/**
	 * With index 0 and null pointers: the number of settings. Else builds the description of setting
	 * `index` into `builder` (4096 bytes) and points `result` at it.
	 */
	int (*get_setting)(void *obj, uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder);
	/** The same for events; `result` is null when there is no value. */
	int (*get_event)(void *obj, uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder);
	/** Builds a Struct of alternating setting names and present values into `builder` (4096 bytes). */
	int (*get_settings)(void *obj, struct spa_pod_builder *builder);
	/** Takes a Struct of one setting's name and its new value. Negative: refused, nothing changed. */
	int (*set_settings)(void *obj, const struct spa_pod *settings);
	/** Hears one buffer, in the format that init was told. The buffer is the daemon's. */
	void (*process)(void *obj, struct spa_buffer *buffer);
};

/** What get_interface answers. The first four fields are those of every SPA interface. */
struct hs_plugin_interface {
	/** HS_PLUGIN_INTERFACE_TYPE_PREFIX and the name in upper case. */
	const char *type;
	/** HS_PLUGIN_INTERFACE_VERSION. */
	uint32_t version;
	const struct hs_plugin_methods *funcs;
	/** First argument of every function. */
	void *data;

	/** For log lines and counters. */
	const char *name;
	/** Element of the D-Bus interface names and object paths: letters, digits and "_", no digit first. */
	const char *interface_name;
	/** File of the schema that clients read, relative to the daemon's schema directory; may be null. */
	const char *schema;
	/** File of the schema of the settings file, relative to the same directory; may be null. */
	const char *settings_schema;
	/** `n_events` pointers. */
	const struct hs_event_info *const *events;
	uint64_t n_events;

	/**
	 * Written by the daemon: tells it that event `index` has a new value. The daemon calls get_event
	 * before this returns; what get_event itself notifies meanwhile is dropped.
	 */
	void (*notify_event)(struct hs_plugin_interface *interface, uint32_t index);
	/** Written by the daemon and its own. */
	void *host_data;
};

#ifdef __cplusplus
}
#endif

#endif /* HEAR_SENSE_PLUGIN_H */
