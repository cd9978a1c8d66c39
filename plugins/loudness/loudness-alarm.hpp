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

	/** Hears of the loudness at the next look, `interval` seconds after the last one; times are in seconds. */
	void update(double loudness, double threshold, double hold_time, double interval)
	{
		quiet_looks = loudness > threshold ? 0 : quiet_looks + 1;
		/* A product, where a sum would drift past the end of the time. */
		const double quiet_time = static_cast<double>(quiet_looks) * interval;
		is_raised = quiet_looks == 0 || (is_raised && quiet_time < hold_time);
	}
};
