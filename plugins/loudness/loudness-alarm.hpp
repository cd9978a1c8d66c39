/* SPDX-License-Identifier: MIT */
/*
 * The alarm: raised at once when it is too loud, cleared when it has been quiet for a while.
 */
#pragma once

#include <cstdint>

struct loudness_alarm {
	bool is_raised = false;
	/** Looks since it was last too loud. */
	uint64_t quiet_looks = 0;

	/**
	 * Hears of the loudness at the next look, `interval` seconds after the last one. The alarm stands
	 * from the look at which the loudness is above `threshold` until it has not been so for `hold_time`
	 * seconds.
	 */
	void update(double loudness, double threshold, double hold_time, double interval)
	{
		if (loudness > threshold) {
			is_raised = true;
			quiet_looks = 0;
			return;
		}
		/* A product, where a sum would drift past the end of the time. */
		quiet_looks++;
		if (static_cast<double>(quiet_looks) * interval >= hold_time)
			is_raised = false;
	}
};
