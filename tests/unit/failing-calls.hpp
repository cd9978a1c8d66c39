/*
 * Lets the daemon's calls of sd-bus and of PipeWire fail, one at a time.
 *
 * A program linked with this and with --wrap=<function> for all of HS_FAILING_CALLS notes from where each of
 * them is called. In a shared library those are the library's own calls only, so that a test around it calls
 * the real ones. Without a test, HS_FAIL_CALL=<function>:<n> in the environment has the n-th call fail, and
 * HS_TRACE_CALLS has each call written to standard error, as "call <function>". Those that join the
 * graph tell their arguments after the object as well: "call pw_core_get_registry 3 0".
 *
 *	hs_calls_begin();
 *	play();
 *	for (const auto &[call, count] : hs_calls_seen()) {
 *		hs_calls_begin();
 *		hs_calls_fail(call, 1);
 *		play();
 *	}
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

struct pw_core;
struct pw_registry;

/** One place that calls a function. */
struct hs_call {
	std::string function;
	/** Offset of the instruction after the call, in the program or library. */
	uintptr_t place;

	auto operator<=>(const hs_call &) const = default;
};

/** Forgets all calls and failures so far. */
void hs_calls_begin();
/** How often each place has called since. */
const std::map<hs_call, size_t> &hs_calls_seen();

/** From now on the n-th call from there fails, once. */
void hs_calls_fail(const hs_call &call, size_t n);
/** Whether that failure has come. */
bool hs_calls_have_failed();

/** How often the main loop was told to quit since hs_calls_begin. */
size_t hs_calls_quits();

/** The calls of these are noted as well. They are inline, so the objects' own tables are replaced. */
void hs_calls_watch(pw_core *core);
void hs_calls_watch(pw_registry *registry);
