/*
 * How the tool gives up: with a text for people that says what happened, to what and what to do.
 */
#pragma once

#include <stdexcept>

namespace hs_tool {

/** Caught in main alone, printed, and the exit status is that of an error. */
struct failure : std::runtime_error {
	using std::runtime_error::runtime_error;
};

} // namespace hs_tool
