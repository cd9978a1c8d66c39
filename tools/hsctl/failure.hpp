/*
 * How hsctl gives up: with a text that says what happened and what to do, and the exit status.
 */
#pragma once

#include <stdexcept>
#include <string>

namespace hs_ctl {

enum status {
	STATUS_OK = 0,
	/** The daemon refused, or could not do it. */
	STATUS_FAILED = 1,
	/** A command line, a name or a value that is wrong. */
	STATUS_USAGE = 2,
	/** There is no bus, or no daemon on it, or it does not answer. */
	STATUS_UNREACHABLE = 3,
};

/** Caught in main alone, printed, and `result` is the exit status. */
struct failure : std::runtime_error {
	failure(status exit_status, const std::string &text) : std::runtime_error(text), result(exit_status)
	{
	}

	status result;
};

/** The user has no right to it. */
struct denied : failure {
	explicit denied(const std::string &text) : failure(STATUS_FAILED, text)
	{
	}
};

} // namespace hs_ctl
