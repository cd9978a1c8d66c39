#include "pcm-event.hpp"

#include "dbus.hpp"
#include "event.hpp"
#include "pcm.hpp"
#include "pw-source.hpp"
#include "source.hpp"

namespace {

/** Until every plug-in was tried on the node its objects may not be published yet. */
bool node_is_registered(const hs_source *source)
{
	return source->pcm && source->pcm->node && source->pcm->node->registered;
}

void tell(void *data, const hs_event &event, bool is_report)
{
	auto *source = static_cast<hs_source *>(data);
	if (node_is_registered(source))
		hs_dbus_signal_event(source, event, is_report);
}

} // namespace

void hs_pcm_handle_events(hs_source *source, bool force)
{
	hs_events_handle_all(source->interface, source->events, force, tell, source);
}

void hs_pcm_handle_event(hs_pcm *pcm, uint32_t index, bool force)
{
	/* One event that is asked for by itself goes out even where nobody enabled it. */
	hs_events_handle_one(pcm->source->interface, pcm->source->events, index, force, tell, pcm->source);
}
