/*
 * A microphone that hears a steady tone: a source node of its own for PipeWire, which its adapter wraps.
 *
 * While started it drives the graph by a timer that goes on whatever happens: cycles that the machine was too slow
 * for are left out. Where another node drives, it sounds when it is asked.
 *
 * Threads: the data loop of PipeWire runs it. What the main thread changes, it has that loop change.
 */
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <numbers>
#include <type_traits>

#include <spa/node/io.h>
#include <spa/node/keys.h>
#include <spa/node/node.h>
#include <spa/node/utils.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/param.h>
#include <spa/pod/builder.h>
#include <spa/pod/filter.h>
#include <spa/support/loop.h>
#include <spa/support/plugin.h>
#include <spa/support/system.h>
#include <spa/utils/names.h>
#include <spa/utils/string.h>

#include <time.h>

namespace {

constexpr uint32_t rate = 48000;
constexpr uint32_t channels = 2;
constexpr uint32_t frequency = 440;
constexpr uint32_t stride = channels * sizeof(float);
/** What a buffer holds: the longest quantum. */
constexpr uint32_t max_frames = 8192;

struct Tone {
	spa_handle handle;
	spa_node node;
	spa_hook_list hooks;
	spa_callbacks callbacks;
	spa_loop *data_loop;
	spa_system *data_system;
	spa_source timer;
	bool has_format;
	/** The only one, written over and over: nobody holds on to a buffer of an adapter's node. */
	spa_buffer *buffer;
	spa_io_buffers *io;
	spa_io_clock *clock;
	spa_io_position *position;
	bool running;
	/** Of CLOCK_MONOTONIC, in nanoseconds. */
	uint64_t next_time;
	/** Frames of this second: a tone of whole hertz begins anew with each. */
	uint32_t frame;
};

static_assert(std::is_standard_layout_v<Tone>);

int call(spa_loop *, bool, uint32_t, const void *, size_t, void *function)
{
	(*static_cast<const std::function<void()> *>(function))();
	return 0;
}

/** Has the data loop run a function, and waits for that. */
void in_data_loop(Tone *self, std::function<void()> function)
{
	spa_loop_invoke(self->data_loop, call, 0, nullptr, 0, true, &function);
}

uint64_t now_nsec()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<uint64_t>(SPA_TIMESPEC_TO_NSEC(&now));
}

bool is_driver(const Tone *self)
{
	return !self->position || !self->clock || self->position->clock.id == self->clock->id;
}

void arm_timer(Tone *self)
{
	itimerspec when{};
	if (self->running && is_driver(self)) {
		when.it_value.tv_sec = static_cast<time_t>(self->next_time / SPA_NSEC_PER_SEC);
		when.it_value.tv_nsec = static_cast<long>(self->next_time % SPA_NSEC_PER_SEC);
	}
	spa_system_timerfd_settime(self->data_system, self->timer.fd, SPA_FD_TIMER_ABSTIME, &when, nullptr);
}

/** Starts from now where it drives, and waits to be asked where it does not. */
void restart(Tone *self)
{
	self->next_time = now_nsec();
	arm_timer(self);
}

/** Unless the last sound still waits to be taken. */
void sound(Tone *self, uint64_t frames)
{
	if (!self->io || !self->buffer || self->io->status == SPA_STATUS_HAVE_DATA)
		return;
	spa_data &data = self->buffer->datas[0];
	const auto count = static_cast<uint32_t>(std::min<uint64_t>(frames, data.maxsize / stride));
	auto *samples = static_cast<float *>(data.data);
	for (uint32_t i = 0; i < count; ++i) {
		const double turns = static_cast<double>(frequency * self->frame) / rate;
		samples = std::fill_n(samples, channels, static_cast<float>(std::sin(2 * std::numbers::pi * turns)));
		self->frame = (self->frame + 1) % rate;
	}
	*data.chunk = {.offset = 0, .size = count * stride, .stride = stride, .flags = 0};
	self->io->buffer_id = 0;
	self->io->status = SPA_STATUS_HAVE_DATA;
}

/** What a cycle of the graph takes, which may have another rate. */
uint64_t frames_per_cycle(const Tone *self)
{
	constexpr uint64_t usual = 1024;
	if (!self->position || self->position->clock.rate.denom == 0 || self->position->clock.duration == 0)
		return usual;
	const spa_io_clock &clock = self->position->clock;
	return (clock.duration * rate + clock.rate.denom - 1) / clock.rate.denom;
}

void on_timer(spa_source *source)
{
	auto *self = static_cast<Tone *>(source->data);
	uint64_t expirations = 0;
	if (spa_system_timerfd_read(self->data_system, self->timer.fd, &expirations) < 0 || !self->running)
		return;
	const uint64_t frames = frames_per_cycle(self);
	const uint64_t period = frames * SPA_NSEC_PER_SEC / rate;
	const uint64_t now = now_nsec();
	const uint64_t time = self->next_time + period > now ? self->next_time : now;
	self->next_time = time + period;
	if (self->clock) {
		self->clock->nsec = time;
		self->clock->position += self->clock->duration;
		self->clock->rate_diff = 1.0;
		self->clock->next_nsec = self->next_time;
	}
	sound(self, frames);
	arm_timer(self);
	spa_node_call_ready(&self->callbacks, SPA_STATUS_HAVE_DATA);
}

int process(void *object)
{
	auto *self = static_cast<Tone *>(object);
	if (!self->io)
		return -EIO;
	if (!is_driver(self))
		sound(self, frames_per_cycle(self));
	return self->io->status;
}

int send_command(void *object, const spa_command *command)
{
	auto *self = static_cast<Tone *>(object);
	const uint32_t id = SPA_NODE_COMMAND_ID(command);
	if (id != SPA_NODE_COMMAND_Start && id != SPA_NODE_COMMAND_Pause && id != SPA_NODE_COMMAND_Suspend)
		return -ENOTSUP;
	const bool running = id == SPA_NODE_COMMAND_Start;
	if (running && !self->buffer)
		return -EIO;
	if (running != self->running)
		in_data_loop(self, [&] {
			self->running = running;
			restart(self);
		});
	return 0;
}

int set_io(void *object, uint32_t id, void *data, size_t)
{
	auto *self = static_cast<Tone *>(object);
	if (id != SPA_IO_Clock && id != SPA_IO_Position)
		return -ENOENT;
	in_data_loop(self, [&] {
		const bool was_driver = is_driver(self);
		if (id == SPA_IO_Clock)
			self->clock = static_cast<spa_io_clock *>(data);
		else
			self->position = static_cast<spa_io_position *>(data);
		if (is_driver(self) != was_driver)
			restart(self);
	});
	return 0;
}

int port_set_io(void *object, spa_direction, uint32_t, uint32_t id, void *data, size_t)
{
	auto *self = static_cast<Tone *>(object);
	if (id != SPA_IO_Buffers)
		return -ENOENT;
	in_data_loop(self, [&] { self->io = static_cast<spa_io_buffers *>(data); });
	return 0;
}

void set_buffer(Tone *self, spa_buffer *buffer)
{
	in_data_loop(self, [&] {
		self->buffer = buffer;
		self->running = self->running && buffer;
		restart(self);
	});
}

int port_use_buffers(void *object, spa_direction, uint32_t, uint32_t, spa_buffer **buffers, uint32_t n_buffers)
{
	auto *self = static_cast<Tone *>(object);
	if (n_buffers > 0 && (!self->has_format || !buffers[0]->datas[0].data))
		return -EINVAL;
	set_buffer(self, n_buffers > 0 ? buffers[0] : nullptr);
	return 0;
}

int port_set_param(void *object, spa_direction, uint32_t, uint32_t id, uint32_t, const spa_pod *param)
{
	auto *self = static_cast<Tone *>(object);
	spa_audio_info_raw format{};
	if (id != SPA_PARAM_Format)
		return -ENOENT;
	if (param && (spa_format_audio_raw_parse(param, &format) < 0 || format.format != SPA_AUDIO_FORMAT_F32 ||
		      format.rate != rate || format.channels != channels))
		return -EINVAL;
	set_buffer(self, nullptr);
	self->has_format = param;
	return 0;
}

spa_pod *build_format(spa_pod_builder *builder, uint32_t id)
{
	spa_audio_info_raw format{};
	format.format = SPA_AUDIO_FORMAT_F32;
	format.rate = rate;
	format.channels = channels;
	format.position[0] = SPA_AUDIO_CHANNEL_FL;
	format.position[1] = SPA_AUDIO_CHANNEL_FR;
	return spa_format_audio_raw_build(builder, id, &format);
}

spa_pod *build_buffers(spa_pod_builder *builder, uint32_t id)
{
	return static_cast<spa_pod *>(spa_pod_builder_add_object(
		builder, SPA_TYPE_OBJECT_ParamBuffers, id, SPA_PARAM_BUFFERS_buffers, SPA_POD_Int(1),
		SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size, SPA_POD_Int(max_frames * stride),
		SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride)));
}

/** A parameter has one value, or none: null. */
spa_pod *build_param(const Tone *self, uint32_t id, spa_pod_builder *builder)
{
	if (id == SPA_PARAM_EnumFormat || (id == SPA_PARAM_Format && self->has_format))
		return build_format(builder, id);
	return id == SPA_PARAM_Buffers && self->has_format ? build_buffers(builder, id) : nullptr;
}

int port_enum_params(void *object, int seq, spa_direction, uint32_t, uint32_t id, uint32_t start, uint32_t,
		     const spa_pod *filter)
{
	auto *self = static_cast<Tone *>(object);
	uint8_t memory[1024];
	spa_pod_builder builder{};
	spa_pod_builder_init(&builder, memory, sizeof(memory));
	spa_pod *param = start == 0 ? build_param(self, id, &builder) : nullptr;
	spa_result_node_params result{};
	result.id = id;
	result.next = 1;
	if (param && spa_pod_filter(&builder, &result.param, param, filter) >= 0)
		spa_node_emit_result(&self->hooks, seq, 0, SPA_RESULT_TYPE_NODE_PARAMS, &result);
	return 0;
}

constexpr spa_param_info param_info(uint32_t id, uint32_t flags)
{
	spa_param_info result{};
	result.id = id;
	result.flags = flags;
	return result;
}

int add_listener(void *object, spa_hook *listener, const spa_node_events *events, void *data)
{
	auto *self = static_cast<Tone *>(object);
	const spa_dict_item items[] = {{SPA_KEY_NODE_DRIVER, "true"}};
	spa_dict props = SPA_DICT_INIT_ARRAY(items);
	spa_node_info node{};
	node.max_output_ports = 1;
	node.change_mask = SPA_NODE_CHANGE_MASK_FLAGS | SPA_NODE_CHANGE_MASK_PROPS;
	node.flags = SPA_NODE_FLAG_RT;
	node.props = &props;
	spa_param_info params[] = {
		param_info(SPA_PARAM_EnumFormat, SPA_PARAM_INFO_READ),
		param_info(SPA_PARAM_Format, SPA_PARAM_INFO_READWRITE),
		param_info(SPA_PARAM_Buffers, SPA_PARAM_INFO_READ),
	};
	spa_port_info port{};
	port.change_mask = SPA_PORT_CHANGE_MASK_FLAGS | SPA_PORT_CHANGE_MASK_PARAMS;
	port.flags = SPA_PORT_FLAG_NO_REF | SPA_PORT_FLAG_LIVE;
	port.params = params;
	port.n_params = SPA_N_ELEMENTS(params);
	spa_hook_list others{};
	spa_hook_list_isolate(&self->hooks, &others, listener, events, data);
	spa_node_emit_info(&self->hooks, &node);
	spa_node_emit_port_info(&self->hooks, SPA_DIRECTION_OUTPUT, 0, &port);
	spa_hook_list_join(&self->hooks, &others);
	return 0;
}

int set_callbacks(void *object, const spa_node_callbacks *callbacks, void *data)
{
	static_cast<Tone *>(object)->callbacks = {callbacks, data};
	return 0;
}

constexpr spa_node_methods methods = [] {
	spa_node_methods result{};
	result.version = SPA_VERSION_NODE_METHODS;
	result.add_listener = add_listener;
	result.set_callbacks = set_callbacks;
	result.set_io = set_io;
	result.send_command = send_command;
	result.port_enum_params = port_enum_params;
	result.port_set_param = port_set_param;
	result.port_use_buffers = port_use_buffers;
	result.port_set_io = port_set_io;
	result.process = process;
	return result;
}();

int get_interface(spa_handle *handle, const char *type, void **interface)
{
	if (!spa_streq(type, SPA_TYPE_INTERFACE_Node))
		return -ENOENT;
	*interface = &reinterpret_cast<Tone *>(handle)->node;
	return 0;
}

int clear(spa_handle *handle)
{
	auto *self = reinterpret_cast<Tone *>(handle);
	in_data_loop(self, [&] { spa_loop_remove_source(self->data_loop, &self->timer); });
	spa_system_close(self->data_system, self->timer.fd);
	return 0;
}

size_t get_size(const spa_handle_factory *, const spa_dict *)
{
	return sizeof(Tone);
}

int init(const spa_handle_factory *, spa_handle *handle, const spa_dict *, const spa_support *support,
	 uint32_t n_support)
{
	auto *self = new (handle) Tone{};
	self->handle.version = SPA_VERSION_HANDLE;
	self->handle.get_interface = get_interface;
	self->handle.clear = clear;
	self->node.iface = {SPA_TYPE_INTERFACE_Node, SPA_VERSION_NODE, {&methods, self}};
	spa_hook_list_init(&self->hooks);
	self->data_loop = static_cast<spa_loop *>(spa_support_find(support, n_support, SPA_TYPE_INTERFACE_DataLoop));
	self->data_system =
		static_cast<spa_system *>(spa_support_find(support, n_support, SPA_TYPE_INTERFACE_DataSystem));
	if (!self->data_loop || !self->data_system)
		return -EINVAL;
	self->timer.func = on_timer;
	self->timer.data = self;
	self->timer.mask = SPA_IO_IN;
	self->timer.fd =
		spa_system_timerfd_create(self->data_system, CLOCK_MONOTONIC, SPA_FD_CLOEXEC | SPA_FD_NONBLOCK);
	if (self->timer.fd < 0)
		return self->timer.fd;
	spa_loop_add_source(self->data_loop, &self->timer);
	return 0;
}

int enum_interface_info(const spa_handle_factory *, const spa_interface_info **, uint32_t *)
{
	return 0;
}

constexpr spa_handle_factory factory = {
	.version = SPA_VERSION_HANDLE_FACTORY,
	.name = "hs.tone",
	.info = nullptr,
	.get_size = get_size,
	.init = init,
	.enum_interface_info = enum_interface_info,
};

} // namespace

SPA_EXPORT
int spa_handle_factory_enum(const spa_handle_factory **found, uint32_t *index)
{
	if (*index > 0)
		return 0;
	*found = &factory;
	++*index;
	return 1;
}
