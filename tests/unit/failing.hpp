/*
 * Lets a function of the C library fail on purpose, in a program linked with --wrap=<function>.
 *
 *	hs_fail_call("fsync", 2, EIO);	// the second fsync from now on fails, once
 */
#pragma once

#include <cerrno>
#include <string_view>

namespace hs_failing {
inline std::string_view function;
inline int call;
inline int error;
} // namespace hs_failing

inline void hs_fail_call(std::string_view function, int call, int error)
{
	hs_failing::function = function;
	hs_failing::call = call;
	hs_failing::error = error;
}

/** Every wrapper asks this first; true, with errno set, for the call that is to fail. */
inline bool hs_must_fail(std::string_view function)
{
	if (function != hs_failing::function || --hs_failing::call != 0)
		return false;
	hs_failing::function = {};
	errno = hs_failing::error;
	return true;
}

/** Whether the failure has been asked for but no call has come yet. */
inline bool hs_failure_is_due()
{
	return !hs_failing::function.empty();
}
