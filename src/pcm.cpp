#include "pcm.hpp"

#include <cerrno>
#include <new>
#include <string>
#include <type_traits>

#include <pipewire/keys.h>
#include <pipewire/stream.h>
#include <spa/param/audio/format-utils.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "context.hpp"
#include "log.hpp"
#include "metadata.hpp"
#include "pcm-event.hpp"
#include "pcm-format.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "pw-source.hpp"
#include "registry.hpp"
#include "source.hpp"
#include "stream-retire.hpp"

static_assert(std::is_standard_layout_v<hs_pcm>);

namespace {

const char *plugin_name(const hs_pcm *pcm)
{
	return pcm->source->plugin->name;
}

const char *source_name(const hs_pcm *pcm)
{
	return pcm->source->name.c_str();
}

void state_changed(hs_pcm *pcm, pw_stream_state old, pw_stream_state state, const char *error)
{
	hs_source *source = pcm->source;
	pw_log_debug("State changed: %d -> %d for %s on %s)", old, state, plugin_name(pcm), source_name(pcm));

	switch (state) {
	case PW_STREAM_STATE_PAUSED:
		if (old == PW_STREAM_STATE_STREAMING && source->is_active) {
			hs_pcm_plugin_deactivate(pcm);
			hs_pcm_handle_events(source, true);
		}
		break;
	case PW_STREAM_STATE_STREAMING:
		if (hs_pcm_plugin_activate(pcm))
			hs_pcm_handle_events(source, true);
		break;
	case PW_STREAM_STATE_UNCONNECTED:
		pw_log_debug("%p: source disconnected", static_cast<void *>(pcm));
		if (old == PW_STREAM_STATE_PAUSED)
			hs_pcm_plugin_deinit(pcm);
		break;
	case PW_STREAM_STATE_ERROR:
		pw_log_error("%p: %s %s source error: %s", static_cast<void *>(pcm), plugin_name(pcm), source_name(pcm),
			     error ? error : "(null)");
		break;
	case PW_STREAM_STATE_CONNECTING:
		break;
	}
}

void reinit_plugin(hs_pcm *pcm)
{
	const bool was_active = pcm->source->is_active;
	if (was_active)
		hs_pcm_plugin_deactivate(pcm);
	hs_pcm_plugin_deinit(pcm);
	if (hs_pcm_plugin_init(pcm) && was_active)
		hs_pcm_plugin_activate(pcm);
}

void param_changed(hs_pcm *pcm, uint32_t id, const spa_pod *param)
{
	if (!param || id != SPA_PARAM_Format) {
		pw_log_debug("No format");
		return;
	}

	uint32_t media_type = 0;
	uint32_t media_subtype = 0;
	if (spa_format_parse(param, &media_type, &media_subtype) < 0) {
		pw_log_warn("Could not parse format");
		return;
	}
	if (media_type != SPA_MEDIA_TYPE_audio || media_subtype != SPA_MEDIA_SUBTYPE_raw) {
		pw_log_error("Wrong media type: %d/%d", static_cast<int>(media_type), static_cast<int>(media_subtype));
		return;
	}

	spa_audio_info_raw &info = pcm->info.info;
	if (hs_pcm_parse_format(param, &info))
		pw_log_debug("Rate: %d channels: %d format: %d\n", static_cast<int>(info.rate),
			     static_cast<int>(info.channels), static_cast<int>(info.format));
	else
		pw_log_warn("Could not parse raw audio");

	hs_pcm_update_description(pcm);
	reinit_plugin(pcm);
	pcm->format_ready = true;
}

/** Logs and returns false where the buffer can not be handed to a plug-in. */
bool check_buffer(const pw_buffer *buffer)
{
	const spa_buffer *data = buffer->buffer;
	if (!data) {
		pw_log_error("No buffer allocated in %p", static_cast<const void *>(buffer));
		return false;
	}
	if (data->n_datas == 0) {
		pw_log_error("No data members present in %p", static_cast<const void *>(data));
		return false;
	}
	if (!data->datas) {
		pw_log_error("No buffer data present in %p", static_cast<const void *>(data->datas));
		return false;
	}
	for (uint32_t i = 0; i < data->n_datas; ++i) {
		if (!data->datas[i].data) {
			pw_log_error("Data undefined in %p", static_cast<const void *>(&data->datas[i]));
			return false;
		}
	}
	return true;
}

/** Null, after an error line, where there is no buffer; one that fails its check stays dequeued. */
pw_buffer *dequeue_buffer(hs_pcm *pcm)
{
	if (!pcm->stream) {
		pw_log_error("Unable to dequeue audio buffer: Undefined audio stream");
		return nullptr;
	}
	pw_buffer *buffer = pw_stream_dequeue_buffer(pcm->stream);
	if (!buffer) {
		const char *error = nullptr;
		const pw_stream_state state = pw_stream_get_state(pcm->stream, &error);
		if (error)
			pw_log_error("Unable to dequeue audio stream: %s. Stream state: %d", error, state);
		else
			pw_log_error("Unable to dequeue audio stream: Unknown error");
		return nullptr;
	}
	return check_buffer(buffer) ? buffer : nullptr;
}

/** They have left the cache since the last buffer, and come back while PipeWire looks for this one. */
void prefetch(const hs_source *source)
{
	__builtin_prefetch(source->interface);
	hs_events_prefetch_records(source->events);
}

void process(hs_pcm *pcm)
{
	hs_source *source = pcm->source;
	prefetch(source);
	HS_ASSERT(source->handle);
	pw_log_trace("process");

	pw_buffer *buffer = dequeue_buffer(pcm);
	if (!buffer) {
		pw_log_error("Could not dequeue buffer: %m");
		return;
	}
	if (source->is_active) {
		hs_events_prefetch_said(source->events);
		hs_plugin_process(source->interface, buffer->buffer);
		hs_pcm_handle_events(source, false);
	}
	pw_stream_queue_buffer(pcm->stream, buffer);
}

void on_state_changed(void *data, pw_stream_state old, pw_stream_state state, const char *error)
{
	state_changed(static_cast<hs_pcm *>(data), old, state, error);
}

void on_param_changed(void *data, uint32_t id, const spa_pod *param)
{
	param_changed(static_cast<hs_pcm *>(data), id, param);
}

void on_process(void *data)
{
	process(static_cast<hs_pcm *>(data));
}

constexpr pw_stream_events stream_events = [] {
	pw_stream_events events{};
	events.version = PW_VERSION_STREAM_EVENTS;
	events.state_changed = on_state_changed;
	events.param_changed = on_param_changed;
	events.process = on_process;
	return events;
}();

bool create_stream(hs_pcm *pcm)
{
	if (pcm->stream)
		return true;
	/* Callbacks already run while the stream connects. */
	if (!pcm->source->pcm)
		pcm->source->pcm = pcm;

	hs_properties_ptr props = hs_source_get_pcm_properties(pcm->source);
	hs_pcm_format_from_props(props.get(), &pcm->info.info);
	if (pcm->node && pcm->node->media_class == "Audio/Sink") {
		/* Hear what the sink plays, without keeping it running. */
		pw_properties_set(props.get(), PW_KEY_STREAM_CAPTURE_SINK, "true");
		pw_properties_set(props.get(), PW_KEY_NODE_PASSIVE, "follow");
	}

	hs_pod_buffer buffer;
	const spa_pod *params[] = {hs_pcm_build_format(pcm->info.info, &buffer)};

	pcm->stream = pw_stream_new(hs_context_get()->core, "audio-src", props.release());
	if (!pcm->stream) {
		pw_log_error("Could not create pw_stream: %m");
		return false;
	}
	pw_stream_add_listener(pcm->stream, &pcm->listener, &stream_events, pcm);

	constexpr auto flags = static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_INACTIVE |
							    PW_STREAM_FLAG_MAP_BUFFERS);
	if (pw_stream_connect(pcm->stream, SPA_DIRECTION_INPUT, PW_ID_ANY, flags, params, params[0] ? 1 : 0) < 0) {
		pw_log_error("Couldn't connect to stream for plugin '%s' to node '%s': %m", plugin_name(pcm),
			     source_name(pcm));
		return false;
	}
	return true;
}

} // namespace

hs_pcm *hs_pcm_new(hs_source *source, hs_pw_source *node)
{
	auto *pcm = new (std::nothrow) hs_pcm{};
	HS_ASSERT(pcm);
	pcm->source = source;
	pcm->node = node;
	if (!create_stream(pcm))
		pw_log_warn("Could not create stream for %s", source_name(pcm));
	return pcm;
}

void hs_pcm_destroy(hs_pcm *pcm)
{
	if (!pcm)
		return;
	pw_log_debug("%p: destroy pcm", static_cast<void *>(pcm));
	if (pcm->stream) {
		pw_log_debug("%p: destroy stream", static_cast<void *>(pcm->stream));
		if (pw_stream_get_state(pcm->stream, nullptr) != PW_STREAM_STATE_CONNECTING)
			pw_stream_disconnect(pcm->stream);
		spa_hook_remove(&pcm->listener);
		hs_stream_retire(pcm->stream);
	}
	delete pcm;
}

bool hs_pcm_start_stream(hs_pcm *pcm)
{
	if (!pcm || pcm->stream_active || !pcm->stream)
		return false;
	if (!pcm->source->enabled || hs_source_get_n_consumers(pcm->source) == 0)
		return false;

	pw_stream_set_active(pcm->stream, true);
	pcm->stream_active = true;
	pw_log_debug("%p: activate stream", static_cast<void *>(pcm->stream));
	return true;
}

void hs_pcm_stop_stream(hs_pcm *pcm)
{
	pw_log_debug("%p: stop pcm", static_cast<void *>(pcm));
	if (!pcm->stream)
		return;
	pw_log_debug("%p: deactivate stream", static_cast<void *>(pcm->stream));
	pw_stream_set_active(pcm->stream, false);
	pcm->stream_active = false;
}

bool hs_pcm_plugin_init(hs_pcm *pcm)
{
	HS_ASSERT(!pcm->source->is_active);
	hs_source *source = pcm->source;
	if (source->is_initialized)
		return true;

	pw_log_debug("Initialize %s on %s", plugin_name(pcm), source_name(pcm));
	const int result = hs_plugin_init(source->interface, &pcm->info, &source->plugin->config->dict);
	if (result < 0) {
		pw_log_info("Plugin %s on %s could not be initialized, code: %d", plugin_name(pcm), source_name(pcm),
			    result);
		hs_pcm_stop_stream(pcm);
		return false;
	}
	source->is_initialized = true;
	return true;
}

void hs_pcm_plugin_deinit(hs_pcm *pcm)
{
	hs_source *source = pcm->source;
	if (!source->is_initialized)
		return;
	pw_log_debug("Deinitialize %s on %s", plugin_name(pcm), source_name(pcm));
	source->is_initialized = false;
	hs_plugin_deinit(source->interface);
}

bool hs_pcm_plugin_activate(hs_pcm *pcm)
{
	hs_source *source = pcm->source;
	if (!source->is_initialized || source->is_active)
		return source->is_active;

	pw_log_debug("Activate %s on %s", plugin_name(pcm), source_name(pcm));
	const int result = hs_plugin_activate(source->interface);
	if (result < 0 && result != -EOPNOTSUPP) {
		pw_log_info("Plugin %s on %s could not be activated, code: %d", plugin_name(pcm), source_name(pcm),
			    result);
		hs_pcm_stop_stream(pcm);
		return false;
	}
	source->is_active = true;
	return true;
}

void hs_pcm_plugin_deactivate(hs_pcm *pcm)
{
	hs_source *source = pcm->source;
	if (!source->is_active)
		return;
	pw_log_debug("Deactivate %s on %s", plugin_name(pcm), source_name(pcm));
	source->is_active = false;
	hs_plugin_deactivate(source->interface);
}

void hs_pcm_update_description(hs_pcm *pcm)
{
	const hs_metadata *metadata = hs_context_get()->registry->metadata;
	const std::string connection_type = hs_metadata_get(metadata, source_name(pcm), "connection_type");
	const std::string acoustic_id = hs_metadata_get(metadata, source_name(pcm), "acoustic_id");

	hs_stream_info &info = pcm->info;
	spa_scnprintf(info.source_name, sizeof(info.source_name), "%s", source_name(pcm));
	spa_scnprintf(info.connection_type, sizeof(info.connection_type), "%s", connection_type.c_str());
	spa_scnprintf(info.acoustic_id, sizeof(info.acoustic_id), "%s", acoustic_id.c_str());
}
