/* SPDX-License-Identifier: MIT */
/*
 * The plug-in "loudness": how loud it is at a microphone, and an alarm.
 *
 * This is the plug-in interface around the meter and the alarm. An instance hears one microphone. It has a
 * meter from init or activate until deactivate, so that a pause neither holds memory nor leaves old audio in
 * the windows.
 */
#include "loudness-buffer.hpp"
#include "loudness-events.hpp"
#include "loudness-meter.hpp"
#include "loudness-settings.hpp"

#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>

#include <spa/debug/types.h>
#include <spa/param/audio/raw.h>
#include <spa/param/audio/type-info.h>
#include <spa/support/log.h>
#include <spa/utils/defs.h>

#include <hear-sense/plugin.h>

#undef SPA_LOG_TOPIC_DEFAULT
#define SPA_LOG_TOPIC_DEFAULT &self.topic

namespace {

constexpr const char *factory_name = HS_PLUGIN_FACTORY_PREFIX "loudness";
constexpr const char *interface_type = HS_PLUGIN_INTERFACE_TYPE_PREFIX "LOUDNESS";

struct instance : spa_handle {
	hs_plugin_interface interface;
	spa_log *log;
	spa_log_topic topic;

	loudness_settings settings;
	/** A copy: the daemon writes a new format into its own before it tells us of it. */
	std::optional<hs_stream_info> stream;
	std::unique_ptr<loudness_meter> meter;
	loudness_event_values values;
};

instance &instance_of(void *object)
{
	return *static_cast<instance *>(object);
}

void notify(instance &self, loudness_event_index index)
{
	if (self.interface.notify_event)
		self.interface.notify_event(&self.interface, index);
}

/** Takes over what was heard in the last 100 ms. A buffer may hold several looks, each told by itself. */
void publish(instance &self, const loudness_values &heard)
{
	loudness_event_values now = self.values;
	now.alarm.update(heard.momentary, self.settings.threshold, self.settings.hold_time,
			 self.meter->look_interval());
	now.loudness.momentary = loudness_to_tenths(heard.momentary);
	now.loudness.short_term = loudness_to_tenths(heard.short_term);
	now.loudness.peak = loudness_to_tenths(heard.peak);
	now.level = loudness_to_tenths(heard.level);

	/* What is not news is kept back, or a steady room would keep the bus busy. */
	const bool is_loudness_news = self.values.loudness.is_outdated_by(now.loudness);
	if (!is_loudness_news)
		now.loudness = self.values.loudness;
	const bool is_alarm_news = now.alarm.is_raised != self.values.alarm.is_raised;
	const bool is_level_news = now.level != self.values.level;

	self.values = now;
	if (is_loudness_news)
		notify(self, LOUDNESS_EVENT_LOUDNESS);
	if (is_alarm_news)
		notify(self, LOUDNESS_EVENT_ALARM);
	if (is_level_news)
		notify(self, LOUDNESS_EVENT_LEVEL);
}

void process(void *object, spa_buffer *buffer)
{
	instance &self = instance_of(object);
	if (!self.meter)
		return;

	std::array<loudness_channel, SPA_AUDIO_MAX_CHANNELS> all;
	const std::span<loudness_channel> channels{all.data(), self.stream->info.channels};
	const size_t n_frames = loudness_find_samples(self.stream->info.format, *buffer, channels);
	for (size_t frame = 0; frame < n_frames;) {
		frame = self.meter->hear(channels, frame, n_frames);
		if (const std::optional<loudness_values> heard = self.meter->look())
			publish(self, *heard);
	}
}

void rest(instance &self)
{
	self.meter.reset();
	self.values = {};
}

int refuse(const instance &self, const hs_stream_info &stream, int error, const char *why)
{
	const char *format = spa_debug_type_find_name(spa_type_audio_format, stream.info.format);
	if (self.log)
		spa_log_error(self.log, "cannot hear %s (%s, %u channels, %u Hz): %s", stream.source_name,
			      format ? format : "an unknown format", stream.info.channels, stream.info.rate,
			      why);
	return error;
}

int make_meter(instance &self)
{
	const spa_audio_info_raw &info = self.stream->info;
	if (info.channels <= SPA_AUDIO_MAX_CHANNELS)
		self.meter = loudness_meter::create(info.rate, {info.position, info.channels});
	if (!self.meter)
		return refuse(self, *self.stream, -EINVAL,
			      "this rate or number of channels cannot be measured");
	return 0;
}

int init(void *object, const hs_stream_info *info, const spa_dict *)
{
	instance &self = instance_of(object);
	rest(self);
	self.stream.reset();
	if (!loudness_format_is_known(info->info.format))
		return refuse(self, *info, -ENOTSUP, "set audio.format to F32P in loudness.conf");
	self.stream = *info;
	return make_meter(self);
}

void deinit(void *object)
{
	instance &self = instance_of(object);
	rest(self);
	self.stream.reset();
}

int activate(void *object)
{
	instance &self = instance_of(object);
	if (!self.stream)
		return -EINVAL;
	return self.meter ? 0 : make_meter(self);
}

/** The alarm goes with the audio: nothing would ever clear it. */
void deactivate(void *object)
{
	rest(instance_of(object));
}

/** Whether the daemon asks for the number of settings or events instead of one of them. */
bool is_count(uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	return index == 0 && !result && !builder;
}

int get_setting(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	if (is_count(index, result, builder))
		return loudness_n_settings;
	if (!result || !builder)
		return -EINVAL;
	*result = nullptr;
	if (index >= loudness_n_settings)
		return -EINVAL;
	*result = loudness_build_setting(instance_of(object).settings, index, builder);
	return *result ? 0 : -ENOSPC;
}

int get_event(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder)
{
	if (is_count(index, result, builder))
		return static_cast<int>(loudness_events().size());
	if (!result || !builder)
		return -EINVAL;
	*result = nullptr;
	if (index >= loudness_events().size())
		return -EINVAL;
	*result = loudness_build_event(instance_of(object).values, static_cast<loudness_event_index>(index),
				       builder);
	return *result ? 0 : -ENOSPC;
}

int get_settings(void *object, spa_pod_builder *builder)
{
	return loudness_build_settings(instance_of(object).settings, builder) ? 0 : -ENOSPC;
}

int set_settings(void *object, const spa_pod *settings)
{
	return loudness_take_setting(instance_of(object).settings, settings);
}

constexpr hs_plugin_methods methods{
	.version = 0,
	.init = init,
	.deinit = deinit,
	.activate = activate,
	.deactivate = deactivate,
	.get_setting = get_setting,
	.get_event = get_event,
	.get_settings = get_settings,
	.set_settings = set_settings,
	.process = process,
};

/*
 * The SPA factory.
 */

int get_interface(spa_handle *handle, const char *type, void **interface)
{
	if (std::string_view{type} != interface_type)
		return -ENOENT;
	*interface = &static_cast<instance *>(handle)->interface;
	return 0;
}

int clear(spa_handle *handle)
{
	static_cast<instance *>(handle)->~instance();
	return 0;
}

size_t get_size(const spa_handle_factory *, const spa_dict *)
{
	return sizeof(instance);
}

int make_instance(const spa_handle_factory *, spa_handle *memory, const spa_dict *,
		  const spa_support *support, uint32_t n_support)
{
	instance &self = *new (memory) instance{};
	self.version = SPA_VERSION_HANDLE;
	self.get_interface = get_interface;
	self.clear = clear;
	self.log = static_cast<spa_log *>(spa_support_find(support, n_support, SPA_TYPE_INTERFACE_Log));
	self.topic.version = SPA_VERSION_LOG_TOPIC;
	self.topic.topic = "hear-sense.loudness";
	spa_log_topic_init(self.log, &self.topic);

	self.interface.type = interface_type;
	self.interface.version = HS_PLUGIN_INTERFACE_VERSION;
	self.interface.funcs = &methods;
	self.interface.data = &self;
	self.interface.name = "Loudness";
	self.interface.interface_name = "Loudness";
	self.interface.schema = "loudness.json";
	self.interface.settings_schema = "loudness-settings.json";
	self.interface.events = loudness_events().data();
	self.interface.n_events = loudness_events().size();
	return 0;
}

constexpr spa_interface_info interface_info{.type = interface_type};

int enum_interface_info(const spa_handle_factory *, const spa_interface_info **info, uint32_t *index)
{
	if (*index > 0)
		return 0;
	*info = &interface_info;
	(*index)++;
	return 1;
}

constexpr spa_handle_factory factory{
	.version = SPA_VERSION_HANDLE_FACTORY,
	.name = factory_name,
	.info = nullptr,
	.get_size = get_size,
	.init = make_instance,
	.enum_interface_info = enum_interface_info,
};

} // namespace

extern "C" SPA_EXPORT int spa_handle_factory_enum(const spa_handle_factory **result, uint32_t *index)
{
	if (*index > 0)
		return 0;
	*result = &factory;
	(*index)++;
	return 1;
}
