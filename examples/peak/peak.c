/* SPDX-License-Identifier: MIT */
/*
 * The plug-in "peak", in C: the largest sample of each interval.
 */
#include <hear-sense/plugin.h>

#include <errno.h>
#include <math.h>
#include <string.h>

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/pod/parser.h>
#include <spa/utils/defs.h>

#define NAME "peak"
#define TYPE HS_PLUGIN_INTERFACE_TYPE_PREFIX "PEAK"

/** What silence reads, in dBFS. */
#define FLOOR (-100.0)

/** One microphone's. The handle comes first, so that both have one address. */
struct instance {
	struct spa_handle handle;
	struct hs_plugin_interface interface;

	/** The setting, in seconds, and its range. */
	double interval;
	/** The event, in dBFS. */
	double peak;

	uint32_t rate;
	uint32_t channels;
	float largest;
	uint64_t frames;
};

static const double shortest_interval = 0.1;
static const double longest_interval = 60.0;

/*
 * Settings and events, as PODs.
 */

static void begin_description(struct spa_pod_builder *builder, struct spa_pod_frame *object, const char *title,
			      const char *description)
{
	spa_pod_builder_push_object(builder, object, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
	spa_pod_builder_string(builder, title);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
	spa_pod_builder_string(builder, description);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
}

static int describe(uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder, const char *title,
		    const char *description, double value)
{
	struct spa_pod_frame object;

	/* There is one of them. */
	if (index == 0 && !result && !builder)
		return 1;
	if (!result || !builder)
		return -EINVAL;
	*result = NULL;
	if (index > 0)
		return -EINVAL;
	begin_description(builder, &object, title, description);
	spa_pod_builder_double(builder, value);
	*result = spa_pod_builder_pop(builder, &object);
	return *result ? 0 : -ENOSPC;
}

static int get_setting(void *object, uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder)
{
	const struct instance *self = object;
	return describe(index, result, builder, "Interval", "How often the peak is told (s)", self->interval);
}

static int get_event(void *object, uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder)
{
	const struct instance *self = object;
	return describe(index, result, builder, "Peak", "Largest sample of the last interval (dBFS)", self->peak);
}

static int get_settings(void *object, struct spa_pod_builder *builder)
{
	const struct instance *self = object;
	struct spa_pod_frame members;

	spa_pod_builder_push_struct(builder, &members);
	spa_pod_builder_string(builder, "Interval");
	spa_pod_builder_double(builder, self->interval);
	return spa_pod_builder_pop(builder, &members) ? 0 : -ENOSPC;
}

static int set_settings(void *object, const struct spa_pod *settings)
{
	struct instance *self = object;
	struct spa_pod_parser parser;
	struct spa_pod_frame members;
	const char *name;
	struct spa_pod *value;
	double number;
	bool indicated;

	if (!settings)
		return -EINVAL;
	spa_pod_parser_pod(&parser, settings);
	if (spa_pod_parser_push_struct(&parser, &members) < 0 || spa_pod_parser_get_string(&parser, &name) < 0 ||
	    spa_pod_parser_get_pod(&parser, &value) < 0 || spa_pod_parser_current(&parser))
		return -EINVAL;

	/* Told to every plug-in: the daemon goes no further once one has refused. */
	if (strcmp(name, "IndicateInternalSpeakerActive") == 0 ||
	    strcmp(name, "IndicateContinuousAudioDisturbance") == 0)
		return spa_pod_get_bool(value, &indicated) < 0 ? -EINVAL : 0;

	/* So put that what is no number is refused as well. */
	if (strcmp(name, "Interval") != 0 || spa_pod_get_double(value, &number) < 0 ||
	    !(number >= shortest_interval && number <= longest_interval))
		return -EINVAL;
	self->interval = number;
	return 0;
}

/*
 * Audio.
 */

static int init(void *object, const struct hs_stream_info *info, const struct spa_dict *config)
{
	struct instance *self = object;

	(void)config;
	self->channels = 0;
	if (info->info.format != SPA_AUDIO_FORMAT_F32P)
		return -ENOTSUP;
	if (info->info.rate == 0 || info->info.channels == 0 || info->info.channels > SPA_AUDIO_MAX_CHANNELS)
		return -EINVAL;
	self->rate = info->info.rate;
	self->channels = info->info.channels;
	return 0;
}

static int activate(void *object)
{
	struct instance *self = object;

	self->largest = 0.0F;
	self->frames = 0;
	return 0;
}

/** While there is no audio, the event says what it says of silence. */
static void deactivate(void *object)
{
	struct instance *self = object;
	self->peak = FLOOR;
}

static void deinit(void *object)
{
	struct instance *self = object;

	deactivate(object);
	self->channels = 0;
}

/** The samples of one channel; none where the block can not be used. Nothing in it is to be trusted. */
static const float *find_samples(const struct spa_data *block, uint32_t *n_samples)
{
	uint32_t offset;

	*n_samples = 0;
	if (!block->data || !block->chunk || block->maxsize == 0 || (block->chunk->flags & SPA_CHUNK_FLAG_CORRUPTED))
		return NULL;
	offset = block->chunk->offset % block->maxsize;
	if (offset % sizeof(float) != 0)
		return NULL;
	*n_samples = SPA_MIN(block->chunk->size, block->maxsize - offset) / (uint32_t)sizeof(float);
	return SPA_PTROFF(block->data, offset, const float);
}

static void process(void *object, struct spa_buffer *buffer)
{
	struct instance *self = object;
	uint32_t n_frames = 0;

	for (uint32_t c = 0; c < SPA_MIN(buffer->n_datas, self->channels); c++) {
		uint32_t n_samples;
		const float *samples = find_samples(&buffer->datas[c], &n_samples);

		for (uint32_t i = 0; i < n_samples; i++) {
			/* False for what is no number. */
			if (fabsf(samples[i]) > self->largest && isfinite(samples[i]))
				self->largest = fabsf(samples[i]);
		}
		n_frames = SPA_MAX(n_frames, n_samples);
	}

	self->frames += n_frames;
	if ((double)self->frames < self->interval * self->rate)
		return;
	self->peak = SPA_MAX(FLOOR, 20.0 * log10(self->largest));
	self->largest = 0.0F;
	self->frames = 0;
	/* The daemon fetches the event before this returns. */
	if (self->interface.notify_event)
		self->interface.notify_event(&self->interface, 0);
}

/*
 * The handle and its factory.
 */

static const struct hs_event_topic topic = {.name = "Audio", .nice_name = "Audio", .namespace = "com.example"};
static const struct hs_event_topic *const topics[] = {&topic};
static const struct hs_event_info peak_event = {
	.name = "Peak",
	.nice_name = "Peak",
	.topics = topics,
	.n_topics = SPA_N_ELEMENTS(topics),
	.is_public = true,
	.data_types = HS_EVENT_DATA_STATS,
};
static const struct hs_event_info *const events[] = {&peak_event};

static const struct hs_plugin_methods methods = {
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

static int get_interface(struct spa_handle *handle, const char *type, void **interface)
{
	if (strcmp(type, TYPE) != 0)
		return -ENOENT;
	*interface = &((struct instance *)handle)->interface;
	return 0;
}

static int clear(struct spa_handle *handle)
{
	(void)handle;
	return 0;
}

static size_t get_size(const struct spa_handle_factory *factory, const struct spa_dict *params)
{
	(void)factory;
	(void)params;
	return sizeof(struct instance);
}

static int make_instance(const struct spa_handle_factory *factory, struct spa_handle *handle,
			 const struct spa_dict *info, const struct spa_support *support, uint32_t n_support)
{
	struct instance *self = (struct instance *)handle;

	(void)factory;
	(void)info;
	(void)support;
	(void)n_support;
	*self = (struct instance){
		.handle =
			{
				.version = SPA_VERSION_HANDLE,
				.get_interface = get_interface,
				.clear = clear,
			},
		.interface =
			{
				.type = TYPE,
				.version = HS_PLUGIN_INTERFACE_VERSION,
				.funcs = &methods,
				.data = self,
				.name = "Peak",
				.interface_name = "Peak",
				.events = events,
				.n_events = SPA_N_ELEMENTS(events),
			},
		.interval = 1.0,
		.peak = FLOOR,
	};
	return 0;
}

static int enum_interface_info(const struct spa_handle_factory *factory, const struct spa_interface_info **info,
			       uint32_t *index)
{
	static const struct spa_interface_info offered = {.type = TYPE};

	(void)factory;
	if (*index > 0)
		return 0;
	*info = &offered;
	(*index)++;
	return 1;
}

static const struct spa_handle_factory peak_factory = {
	.version = SPA_VERSION_HANDLE_FACTORY,
	.name = HS_PLUGIN_FACTORY_PREFIX NAME,
	.get_size = get_size,
	.init = make_instance,
	.enum_interface_info = enum_interface_info,
};

SPA_EXPORT int spa_handle_factory_enum(const struct spa_handle_factory **factory, uint32_t *index)
{
	if (*index > 0)
		return 0;
	*factory = &peak_factory;
	(*index)++;
	return 1;
}
