/* SPDX-License-Identifier: MIT */
/*
 * Where exactly a peak is, of which there are a few values only: of a spectrum, or of an autocorrelation.
 */
#ifndef HEAR_SENSE_SDK_PEAK_HPP
#define HEAR_SENSE_SDK_PEAK_HPP

#include <concepts>

namespace hear_sense {

template <std::floating_point T>
struct peak {
	/** From the middle one of the three values, in steps from one to the next. */
	T offset;
	T height;
};

/** The top of a parabola through three values; the middle one itself where it is no peak. */
template <std::floating_point T>
constexpr peak<T> find_peak(T before, T middle, T after)
{
	const T curvature = before - 2 * middle + after;
	const T offset = curvature < 0 ? T{0.5} * (before - after) / curvature : 0;
	return {offset, middle - T{0.25} * (before - after) * offset};
}

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_PEAK_HPP */
