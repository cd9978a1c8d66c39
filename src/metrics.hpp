/*
 * Usage counters: how often a plug-in was enabled and disabled on a node.
 *
 * Each source has a small JSON file that other software on the device reads. The file is the only memory
 * of the counts; one that cannot be read is left alone, and its counters stand still.
 *
 * Failure: logged as a warning, never fatal.
 */
#pragma once

#include <cstdint>

struct hs_source;

enum : uint32_t { HS_METRICS_TYPE_SOURCE = 0 };

struct hs_source_metrics {
	/** Borrowed: the owner. */
	const hs_source *source;
	uint32_t enabled_count;
	uint32_t disabled_count;
};

struct hs_metrics {
	uint32_t type;
	/** Counters count only while active. */
	bool active;
	/** Owned; an hs_source_metrics for HS_METRICS_TYPE_SOURCE, else null. */
	void *data;
};

/** Sets the directory; until then no record can be created. */
void hs_metrics_init(const char *path);
void hs_metrics_deinit();

/** Null before hs_metrics_init. */
hs_metrics *hs_metrics_create(uint32_t type, const hs_source *source);
void hs_metrics_destroy(hs_metrics *metrics);

/** Writes the file, too. */
void hs_metrics_set_active(hs_metrics *metrics, bool active);
/** `counter` is "enabled_count" or "disabled_count". */
void hs_metrics_increment_counter(hs_metrics *metrics, const char *counter);
