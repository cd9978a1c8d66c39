/*
 * hsctl trigger and indicate: what the daemon is told to do.
 */
#include "bus.hpp"
#include "commands.hpp"
#include "model.hpp"
#include "names.hpp"

namespace hs_ctl {

namespace {

const char *method_of(const std::string &what)
{
	if (what == "speaker")
		return "IndicateInternalSpeakerActive";
	if (what == "continuous")
		return "IndicateContinuousAudioDisturbance";
	return "IndicateTransientAudioDisturbance";
}

} // namespace

void trigger(const options &parsed)
{
	const bus_ptr bus = open_bus(parsed.of_user);
	const model all = make_model(read_objects(bus.get()));
	const instance &of = find_instance(all, parsed.plugin);
	call_method(bus.get(), of.path, need_trigger(of, parsed.title).trigger_interface, "TriggerEvent", nullptr);
}

void indicate(const options &parsed)
{
	const json argument = parsed.value.empty() ? json() : json(parsed.value == "on");
	const bus_ptr bus = open_bus(parsed.of_user);
	const model all = make_model(read_objects(bus.get()));
	for (const chain *each : find_chains(all, parsed.chain))
		call_method(bus.get(), each->path, CHAIN_INTERFACE, method_of(parsed.what), argument);
}

} // namespace hs_ctl
