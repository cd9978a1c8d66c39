#include "stream-retire.hpp"

#include <new>
#include <type_traits>

#include <pipewire/core.h>
#include <pipewire/stream.h>
#include <spa/utils/hook.h>

#include "assert.hpp"
#include "context.hpp"
#include "log.hpp"

namespace {

struct retired_stream {
	/** Owned. */
	pw_stream *stream;
	spa_hook stream_listener;
	spa_hook core_listener;
	/** The number of the answer that is waited for, once the stream is set up. */
	int sequence;
	/** In the context's retired streams. */
	spa_list link;
};

static_assert(std::is_standard_layout_v<retired_stream>);

void retired_stream_destroy(retired_stream *retired)
{
	pw_log_debug("%p: destroy retired stream", static_cast<void *>(retired->stream));
	spa_list_remove(&retired->link);
	spa_hook_remove(&retired->stream_listener);
	spa_hook_remove(&retired->core_listener);
	pw_stream_destroy(retired->stream);
	delete retired;
}

/* A stream must not be destroyed from inside its own events: the next answer of the server comes outside. */
void on_state_changed(void *data, pw_stream_state, pw_stream_state, const char *)
{
	auto *retired = static_cast<retired_stream *>(data);
	retired->sequence = pw_core_sync(hs_context_get()->core, PW_ID_CORE, 0);
}

void on_done(void *data, uint32_t id, int sequence)
{
	auto *retired = static_cast<retired_stream *>(data);
	if (id == PW_ID_CORE && sequence == retired->sequence)
		retired_stream_destroy(retired);
}

constexpr pw_stream_events stream_events = [] {
	pw_stream_events events{};
	events.version = PW_VERSION_STREAM_EVENTS;
	events.state_changed = on_state_changed;
	return events;
}();

constexpr pw_core_events core_events = [] {
	pw_core_events events{};
	events.version = PW_VERSION_CORE_EVENTS;
	events.done = on_done;
	return events;
}();

void destroy_once_set_up(hs_context *context, pw_stream *stream)
{
	auto *retired = new (std::nothrow) retired_stream{};
	HS_ASSERT(retired);
	retired->stream = stream;
	retired->sequence = -1;
	spa_list_append(&context->retired_streams, &retired->link);
	pw_stream_add_listener(stream, &retired->stream_listener, &stream_events, retired);
	pw_core_add_listener(context->core, &retired->core_listener, &core_events, retired);
}

} // namespace

void hs_stream_retire(pw_stream *stream)
{
	if (pw_stream_get_state(stream, nullptr) == PW_STREAM_STATE_CONNECTING) {
		destroy_once_set_up(hs_context_get(), stream);
		return;
	}
	pw_stream_destroy(stream);
}

void hs_stream_retire_finish()
{
	spa_list *streams = &hs_context_get()->retired_streams;
	while (!spa_list_is_empty(streams))
		retired_stream_destroy(spa_list_first(streams, retired_stream, link));
}
