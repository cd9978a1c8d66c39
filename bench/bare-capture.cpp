/* SPDX-License-Identifier: MIT */
/*
 * The least that a PipeWire client can do with the sound of some nodes: a stream for each that takes a buffer
 * and gives it back.
 *
 *	bare-capture [--idle | --loudness] NODE...
 *
 * The nodes are sinks. With --loudness each stream also has the meter of the plug-in "loudness". With --idle
 * they are microphones, and no buffers flow.
 * Prints "ready" when every stream has had a buffer, or is paused.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include "loudness-meter.hpp"

namespace {

struct client {
	pw_main_loop *loop;
	size_t n_streams = 0;
	size_t n_ready = 0;
	bool is_idle = false;
	bool measures = false;
};

void tell_ready(client *all)
{
	if (++all->n_ready == all->n_streams) {
		std::puts("ready");
		std::fflush(stdout);
	}
}

struct capture {
	client *all;
	pw_stream *stream;
	spa_hook listener;
	bool is_ready;
	std::unique_ptr<loudness_meter> meter;
	std::vector<float> block;
};

void set_ready(capture *self)
{
	if (!self->is_ready)
		tell_ready(self->all);
	self->is_ready = true;
}

void measure(capture *self, const spa_data &data)
{
	const auto *samples = SPA_PTROFF(data.data, data.chunk->offset, const float);
	self->block.insert(self->block.end(), samples, samples + data.chunk->size / sizeof(float));
	const size_t n_frames = self->meter->look_frames();
	while (self->block.size() >= n_frames) {
		const std::span<const float> channel{self->block.data(), n_frames};
		self->meter->look({&channel, 1});
		self->block.erase(self->block.begin(), self->block.begin() + static_cast<std::ptrdiff_t>(n_frames));
	}
}

void on_process(void *data)
{
	auto *self = static_cast<capture *>(data);
	pw_buffer *buffer = pw_stream_dequeue_buffer(self->stream);
	if (!buffer)
		return;
	if (self->meter)
		measure(self, buffer->buffer->datas[0]);
	pw_stream_queue_buffer(self->stream, buffer);
	set_ready(self);
}

void on_param_changed(void *data, uint32_t id, const spa_pod *param)
{
	auto *self = static_cast<capture *>(data);
	spa_audio_info_raw info{};
	if (!param || id != SPA_PARAM_Format || spa_format_audio_raw_parse(param, &info) < 0)
		return;
	if (self->all->measures)
		self->meter = loudness_meter::create(info.rate, std::span{info.position, info.channels});
}

void on_state_changed(void *data, pw_stream_state, pw_stream_state state, const char *error)
{
	auto *self = static_cast<capture *>(data);
	if (state == PW_STREAM_STATE_ERROR) {
		std::fprintf(stderr, "stream: %s\n", error ? error : "(null)");
		std::exit(EXIT_FAILURE);
	}
	if (state == PW_STREAM_STATE_PAUSED && self->all->is_idle)
		set_ready(self);
}

constexpr pw_stream_events stream_events = [] {
	pw_stream_events events{};
	events.version = PW_VERSION_STREAM_EVENTS;
	events.state_changed = on_state_changed;
	events.param_changed = on_param_changed;
	events.process = on_process;
	return events;
}();

bool connect(capture *self, pw_core *core, const char *node)
{
	const std::string name = std::string{"bare-"} + node;
	pw_properties *props = pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
						 PW_KEY_NODE_NAME, name.c_str(), PW_KEY_TARGET_OBJECT, node, nullptr);
	if (!self->all->is_idle)
		pw_properties_set(props, PW_KEY_STREAM_CAPTURE_SINK, "true");
	self->stream = pw_stream_new(core, "bare-capture", props);
	pw_stream_add_listener(self->stream, &self->listener, &stream_events, self);

	uint8_t buffer[1024];
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
	spa_audio_info_raw info{};
	info.format = SPA_AUDIO_FORMAT_F32P;
	const spa_pod *params[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
	const auto flags = static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
							(self->all->is_idle ? PW_STREAM_FLAG_INACTIVE : 0));
	return pw_stream_connect(self->stream, SPA_DIRECTION_INPUT, PW_ID_ANY, flags, params, 1) >= 0;
}

} // namespace

int main(int argc, char *argv[])
{
	pw_init(nullptr, nullptr);
	client all;
	int first_node = 1;
	if (argc > 1 && std::string_view{argv[1]}.starts_with("--")) {
		all.is_idle = std::strcmp(argv[1], "--idle") == 0;
		all.measures = std::strcmp(argv[1], "--loudness") == 0;
		first_node = 2;
	}
	all.loop = pw_main_loop_new(nullptr);
	pw_context *context = pw_context_new(pw_main_loop_get_loop(all.loop), nullptr, 0);
	pw_core *core = pw_context_connect(context, nullptr, 0);
	if (!core) {
		std::perror("PipeWire");
		return EXIT_FAILURE;
	}
	all.n_streams = static_cast<size_t>(argc - first_node);
	std::deque<capture> captures;
	for (int i = first_node; i < argc; ++i) {
		capture &made = captures.emplace_back();
		made.all = &all;
		if (!connect(&made, core, argv[i])) {
			std::perror(argv[i]);
			return EXIT_FAILURE;
		}
	}
	pw_main_loop_run(all.loop);
	return EXIT_SUCCESS;
}
