/* SPDX-License-Identifier: MIT */
/*
 * What is on at once, and stays on for a while: so that the pauses of a speaker, or of a row of bangs, do not make
 * new events.
 */
#ifndef HEAR_SENSE_SDK_HOLD_HPP
#define HEAR_SENSE_SDK_HOLD_HPP

#include <cstdint>

namespace hear_sense {

/** Off, until something is seen; off again, once it has not been seen for the hold time. */
class hold
{
public:
	/** Tells whether it is seen now, `interval` seconds after the last time, and returns is_on(). */
	bool update(bool is_seen, double interval, double hold_time)
	{
		n_unseen = is_seen ? 0 : n_unseen + 1;
		/* A product, where a sum would drift past the end of the time. */
		own_is_on = is_seen || (own_is_on && static_cast<double>(n_unseen) * interval < hold_time);
		return own_is_on;
	}

	bool is_on() const
	{
		return own_is_on;
	}

private:
	bool own_is_on = false;
	/** Updates since it was last seen. */
	uint64_t n_unseen = 0;
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_HOLD_HPP */
