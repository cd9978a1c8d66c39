/*
 * A plug-in that is good, and the many that come of it when one thing is made wrong.
 *
 * Built once for each mistake, with BROKEN_<MISTAKE> defined and PLUGIN_NAME the plug-in's name; without a
 * mistake it is what hs-plugin check must find good. It measures the level of what it hears, ten times a
 * second, and has settings and events of many types.
 */
#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/parser.h>
#include <spa/support/log.h>
#include <spa/utils/string.h>

#include <hear-sense/plugin.h>

#define QUIET (-120.0)
#define MAX_GAIN 10.0
#define MAX_DEPTH 1000u
#define LOOKS_PER_SECOND 10u

enum { SETTING_GAIN, SETTING_DEPTH, SETTING_MODE, SETTING_LOUD_ONLY, N_SETTINGS };
enum { EVENT_LEVEL, EVENT_ALARM, EVENT_STATE, EVENT_WORDS, N_EVENTS };

#ifdef BROKEN_SETTING_TITLE
#define GAIN_TITLE "My gain"
#else
#define GAIN_TITLE "Gain"
#endif
#ifdef BROKEN_SETTING_TWICE
#define LOUD_ONLY_TITLE "gain"
#else
#define LOUD_ONLY_TITLE "LoudOnly"
#endif
#ifdef BROKEN_EVENT_TITLE
#define LEVEL_TITLE "1Level"
#elif defined(BROKEN_EVENT_RESERVED)
#define LEVEL_TITLE "NiceName"
#elif defined(BROKEN_EVENT_TWICE)
#define LEVEL_TITLE "Alarm"
#else
#define LEVEL_TITLE "Level"
#endif

struct instance {
	struct spa_handle handle;
	struct hs_plugin_interface interface;
	struct spa_log *log;

	double gain;
	uint32_t depth;
	char mode[128];
	bool loud_only;

	bool ready;
	struct spa_audio_info_raw format;
	/* Of the samples since the last look. */
	double *power;
	uint32_t n_heard;
	double level;
	bool detected;
	uint64_t looks;
	bool was_refused;
};

#ifdef BROKEN_SHARED_STATE
static double shared_power;
#endif
#ifdef BROKEN_REMEMBERS
static uint32_t n_instances;
#endif
#ifdef BROKEN_SHARED_INTERFACE
static struct hs_plugin_interface shared_interface;
#endif
#ifdef BROKEN_LEAK_MEMORY
static void *volatile lost;
#endif
#ifdef BROKEN_UNRESOLVED
extern int nobody_has_this_function(void);
#endif

static void notify(struct instance *self, uint32_t index)
{
	if (self->interface.notify_event)
		self->interface.notify_event(&self->interface, index);
}

#ifdef BROKEN_OWN_THREAD
static void *notify_from_thread(void *data)
{
	notify(data, EVENT_LEVEL);
	return NULL;
}
#endif

/* Burns processor time. */
#if defined(BROKEN_SLOW) || defined(BROKEN_DENORMALS)
static void dawdle(double seconds)
{
	struct timespec start, now;
	clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
	do {
		clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
	} while ((double)(now.tv_sec - start.tv_sec) + (double)(now.tv_nsec - start.tv_nsec) * 1e-9 < seconds);
}
#endif

/*
 * Hearing.
 */

static void rest(struct instance *self)
{
	self->n_heard = 0;
	self->level = QUIET;
#ifndef BROKEN_STICKY_NAN
	if (self->power)
		*self->power = 0;
#endif
	self->detected = false;
	self->looks = 0;
#ifdef BROKEN_REMEMBERS
	self->looks = n_instances;
#endif
}

static void deinit(void *object)
{
	struct instance *self = object;
	self->ready = false;
	rest(self);
	free(self->power);
	self->power = NULL;
}

static int init(void *object, const struct hs_stream_info *info, const struct spa_dict *config)
{
	struct instance *self = object;
	(void)config;
#ifdef BROKEN_DOUBLE_INIT
	if (self->power)
		abort();
#endif
#ifdef BROKEN_NO_RESTART
	if (self->was_refused)
		return -EBUSY;
	self->was_refused = true;
#endif
	deinit(self);
#ifdef BROKEN_DIRTY_REFUSAL
	if (self->was_refused)
		return -EINVAL;
#endif
#ifdef BROKEN_HANGS
	while (info->info.channels == 8)
		usleep(1000);
#endif
#ifdef BROKEN_LOW_RATE
	self->looks = 10 / (info->info.rate / 16000);
#endif
#ifdef BROKEN_NO_FORMAT
	return -ENOTSUP;
#endif
	if (info->info.format != SPA_AUDIO_FORMAT_F32P || info->info.rate < 8000 || info->info.channels < 1 ||
	    info->info.channels > SPA_AUDIO_MAX_CHANNELS) {
		self->was_refused = true;
		return -EINVAL;
	}
	self->format = info->info;
	self->power = calloc(1, sizeof(*self->power));
	if (!self->power)
		return -ENOMEM;
	self->ready = true;
	rest(self);
	return 0;
}

static int activate(void *object)
{
	struct instance *self = object;
	if (!self->ready)
		return -EINVAL;
	rest(self);
	return 0;
}

static void deactivate(void *object)
{
	rest(object);
}

/* Takes over what was heard since the last look. */
static void look(struct instance *self)
{
#ifdef BROKEN_SHARED_STATE
	const double mean = shared_power / self->n_heard;
	shared_power = 0;
#else
	const double mean = *self->power / self->n_heard;
#endif
	double level = mean > 1e-12 ? 10 * log10(mean) : QUIET;
#ifdef BROKEN_SILENCE
	level = 10 * log10(mean);
#endif
#ifdef BROKEN_FULL_SCALE
	level = 1 / (1 - mean);
#endif
#ifdef BROKEN_NOISE
	if (level > -30 && level < -3)
		level = sqrt(level);
#endif
#ifdef BROKEN_REMEMBERS
	level += (double)n_instances;
#endif
#if defined(BROKEN_PASSES_NAN) || defined(BROKEN_STICKY_NAN)
	if (!isfinite(mean))
		level = (double)NAN;
#else
	if (!isfinite(mean))
		level = QUIET;
#endif
#ifdef BROKEN_STICKY_NAN
	if (isfinite(mean))
#endif
		*self->power = 0;
	self->n_heard = 0;
	self->level = round(level);
	self->detected = level > -20;
	self->looks++;
	notify(self, EVENT_LEVEL);
	notify(self, EVENT_ALARM);
#ifdef BROKEN_UNKNOWN_INDEX
	notify(self, N_EVENTS);
#endif
#ifdef BROKEN_OWN_THREAD
	pthread_t thread;
	if (pthread_create(&thread, NULL, notify_from_thread, self) == 0)
		pthread_join(thread, NULL);
#endif
}

static void hear(struct instance *self, const float *samples, uint32_t n)
{
	for (uint32_t i = 0; i < n; ++i) {
		const double sample = (double)samples[i] * self->gain;
#ifdef BROKEN_DENORMALS
		if (samples[i] != 0 && fabsf(samples[i]) < 1e-38F)
			dawdle(2e-6);
#endif
#ifdef BROKEN_SHARED_STATE
		shared_power += sample * sample;
#else
		*self->power += sample * sample;
#endif
		if (++self->n_heard == self->format.rate / LOOKS_PER_SECOND)
			look(self);
	}
}

static void process(void *object, struct spa_buffer *buffer)
{
	struct instance *self = object;
#ifndef BROKEN_EARLY_PROCESS
	if (!self->ready)
		return;
#endif
	struct spa_data *data = &buffer->datas[0];
	float *samples = data->data;
	uint32_t n = data->chunk->size / (uint32_t)sizeof(float);
#ifdef BROKEN_EIGHT_CHANNELS
	if (buffer->n_datas == 8)
		abort();
#endif
#ifdef BROKEN_EMPTY_BUFFER
	if (n == 0)
		abort();
#endif
#ifdef BROKEN_SINGLE_FRAME
	if (n / 2 == 0 && n > 0)
		abort();
#endif
#ifdef BROKEN_ODD_BUFFER
	n = (n + 7) / 8 * 8;
#endif
#ifdef BROKEN_LARGE_BUFFER
	double copy[n * 4 + 1];
	memset(copy, 0, sizeof(copy));
	self->n_heard += copy[n] > 1 ? 1 : 0;
#endif
#ifdef BROKEN_WRITES_BUFFER
	if (n > 0)
		samples[n / 2] += 1.0F;
#endif
#ifdef BROKEN_EXTREME
	char depth[self->depth + 1];
	memset(depth, 0, sizeof(depth));
	self->n_heard += depth[self->depth] > 1 ? 1u : 0u;
#endif
#ifdef BROKEN_SLOW
	dawdle(0.004);
#endif
#ifdef BROKEN_WAITS
	usleep(100);
#endif
#ifdef BROKEN_LOGS_ERROR
	if (self->detected)
		spa_log_error(self->log, "the meter is broken");
#endif
	hear(self, samples, n);
}

/*
 * Settings.
 */

static void describe(struct spa_pod_builder *builder, struct spa_pod_frame *frame, const char *title, const char *text)
{
	spa_pod_builder_push_object(builder, frame, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
	spa_pod_builder_string(builder, title);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
	spa_pod_builder_string(builder, text);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
}

static bool is_count(uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder)
{
	return index == 0 && !result && !builder;
}

static int get_setting(void *object, uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder)
{
	static const char *const titles[] = {GAIN_TITLE, "Depth", "Mode", LOUD_ONLY_TITLE};
	struct instance *self = object;
	struct spa_pod_frame frame;
	if (is_count(index, result, builder))
		return N_SETTINGS;
	*result = NULL;
	if (index >= N_SETTINGS)
		return -EINVAL;
#ifdef BROKEN_SETTING_POD
	if (index == SETTING_MODE) {
		spa_pod_builder_int(builder, 42);
		*result = spa_pod_builder_deref(builder, 0);
		return 0;
	}
#endif
	describe(builder, &frame, titles[index], "What it says");
	switch (index) {
	case SETTING_GAIN:
		spa_pod_builder_double(builder, self->gain);
		break;
	case SETTING_DEPTH:
		spa_pod_builder_id(builder, self->depth);
		break;
	case SETTING_MODE:
		spa_pod_builder_string(builder, self->mode);
		break;
	default:
		spa_pod_builder_bool(builder, self->loud_only);
	}
	*result = spa_pod_builder_pop(builder, &frame);
	return *result ? 0 : -ENOSPC;
}

static int get_settings(void *object, struct spa_pod_builder *builder)
{
	struct instance *self = object;
	return spa_pod_builder_add_struct(builder, SPA_POD_String(GAIN_TITLE), SPA_POD_Double(self->gain),
					  SPA_POD_String("Depth"), SPA_POD_Id(self->depth), SPA_POD_String("Mode"),
					  SPA_POD_String(self->mode), SPA_POD_String(LOUD_ONLY_TITLE),
					  SPA_POD_Bool(self->loud_only))
		       ? 0
		       : -ENOSPC;
}

static int take_gain(struct instance *self, const struct spa_pod *value)
{
	double gain;
#ifdef BROKEN_WRONG_TYPE
	if (spa_pod_is_string(value))
		return 0;
#endif
	if (spa_pod_get_double(value, &gain) < 0)
		return -EINVAL;
#ifdef BROKEN_TAKES_NAN
	if (isnan(gain))
		return 0;
#endif
#ifdef BROKEN_HALF_REFUSED
	if (isfinite(gain))
		self->gain = gain;
#endif
#ifdef BROKEN_SETTING_DEFAULT
	if (gain <= 1)
		return -EINVAL;
#endif
	if (!(gain >= 0 && gain <= MAX_GAIN))
		return -EINVAL;
	self->gain = gain;
	return 0;
}

static int take(struct instance *self, const char *title, const struct spa_pod *value)
{
	uint32_t depth;
	const char *mode;
	if (spa_streq(title, GAIN_TITLE))
		return take_gain(self, value);
	if (spa_streq(title, "Depth")) {
		if (spa_pod_get_id(value, &depth) < 0)
			return -EINVAL;
#if !defined(BROKEN_EXTREME) && !defined(BROKEN_SETTING_HUGE)
		if (depth > MAX_DEPTH)
			return -EINVAL;
#endif
		self->depth = depth;
		return 0;
	}
	if (spa_streq(title, "Mode")) {
		if (spa_pod_get_string(value, &mode) < 0 || strlen(mode) >= sizeof(self->mode))
			return -EINVAL;
		strcpy(self->mode, mode);
		return 0;
	}
	if (spa_streq(title, LOUD_ONLY_TITLE))
		return spa_pod_get_bool(value, &self->loud_only) < 0 ? -EINVAL : 0;
#ifdef BROKEN_UNKNOWN_NAME
	return 0;
#else
	return -ENOENT;
#endif
}

static int set_settings(void *object, const struct spa_pod *settings)
{
	struct spa_pod_parser parser;
	struct spa_pod_frame frame;
	const char *title;
	struct spa_pod *value;
	if (!spa_pod_is_struct(settings))
		return -EINVAL;
	spa_pod_parser_pod(&parser, settings);
	if (spa_pod_parser_push_struct(&parser, &frame) < 0 || spa_pod_parser_get_string(&parser, &title) < 0)
		return -EINVAL;
#ifdef BROKEN_NAME_ALONE
	value = NULL;
	spa_pod_parser_get_pod(&parser, &value);
	if (value->type == SPA_TYPE_None)
		return -EINVAL;
#else
	if (spa_pod_parser_get_pod(&parser, &value) < 0)
		return -EINVAL;
#endif
	return take(object, title, value);
}

/*
 * Events.
 */

static void add_flags(struct instance *self, struct spa_pod_builder *builder)
{
	struct spa_pod_frame members;
	spa_pod_builder_push_struct(builder, &members);
	spa_pod_builder_string(builder, "Detected");
	spa_pod_builder_bool(builder, self->detected);
	spa_pod_builder_string(builder, "Report");
	spa_pod_builder_bool(builder, self->detected);
	spa_pod_builder_pop(builder, &members);
}

static void add_state(struct instance *self, struct spa_pod_builder *builder)
{
	struct spa_pod_frame members;
	spa_pod_builder_push_struct(builder, &members);
	spa_pod_builder_string(builder, "Word");
#ifdef BROKEN_EMPTY_MEMBER
	spa_pod_builder_string(builder, self->detected ? "loud" : "");
#elif defined(BROKEN_BAD_UTF8)
	spa_pod_builder_string(builder, "qui\xff"
					"et");
#elif defined(BROKEN_TOO_LONG)
	char text[1200];
	memset(text, 'x', sizeof(text) - 1);
	text[sizeof(text) - 1] = '\0';
	for (char name[] = "Aa"; name[0] < 'E'; ++name[0]) {
		spa_pod_builder_string(builder, text + 800);
		spa_pod_builder_string(builder, name);
	}
	spa_pod_builder_string(builder, "none");
#else
	spa_pod_builder_string(builder, self->detected ? "loud" : "quiet");
#endif
	spa_pod_builder_string(builder, "Depth");
	spa_pod_builder_id(builder, self->depth);
	spa_pod_builder_pop(builder, &members);
}

static void add_words(struct spa_pod_builder *builder)
{
#ifdef BROKEN_ARRAY_TEXT
	static const char words[2][16] = {"one word", "two, words"};
#else
	static const char words[2][16] = {"one", "two"};
#endif
	spa_pod_builder_array(builder, sizeof(words[0]), SPA_TYPE_String, 2, words);
}

static void add_level(struct instance *self, struct spa_pod_builder *builder)
{
#ifdef BROKEN_TYPE_CHANGES
	if (self->looks > 3) {
		spa_pod_builder_int(builder, (int)self->level);
		return;
	}
#endif
#ifdef BROKEN_CHATTY
	spa_pod_builder_double(builder, (double)self->looks++);
#else
	spa_pod_builder_double(builder, self->level);
#endif
}

static int get_event(void *object, uint32_t index, struct spa_pod **result, struct spa_pod_builder *builder)
{
	static const char *const titles[] = {LEVEL_TITLE, "Alarm", "State", "Words"};
	struct instance *self = object;
	struct spa_pod_frame frame;
	if (is_count(index, result, builder))
		return N_EVENTS;
	*result = NULL;
	if (index >= N_EVENTS)
		return -EINVAL;
#ifdef BROKEN_EVENT_POD
	if (index == EVENT_STATE) {
		spa_pod_builder_int(builder, 42);
		*result = spa_pod_builder_deref(builder, 0);
		return 0;
	}
#endif
	describe(builder, &frame, titles[index], "What it hears");
	switch (index) {
	case EVENT_LEVEL:
		add_level(self, builder);
		break;
	case EVENT_ALARM:
		add_flags(self, builder);
		break;
	case EVENT_STATE:
		add_state(self, builder);
		break;
	default:
		add_words(builder);
	}
	*result = spa_pod_builder_pop(builder, &frame);
	return *result ? 0 : -ENOSPC;
}

static const struct hs_event_info level_info = {
	.name = LEVEL_TITLE, .nice_name = "Level", .data_types = HS_EVENT_DATA_STATS};
static const struct hs_event_info alarm_info = {.name = "Alarm",
						.nice_name = "Alarm",
						.isPropertyState = true,
						.is_public = true,
						.data_types = HS_EVENT_DATA_EVENT};
static const struct hs_event_info state_info = {.name = "State",
						.nice_name = "State",
						.isPropertyState = true,
						.is_public = true,
						.data_types = HS_EVENT_DATA_STATS};
#ifndef BROKEN_EVENT_UNLISTED
static const struct hs_event_info words_info = {.name = "Words",
						.nice_name = "Words",
						.isPropertyState = true,
						.is_public = true,
						.data_types = HS_EVENT_DATA_STATS};
#endif
static const struct hs_event_info *const infos[] = {
	&level_info,
	&alarm_info,
	&state_info,
#ifndef BROKEN_EVENT_UNLISTED
	&words_info,
#endif
};

/*
 * The SPA factory.
 */

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

static const char *interface_type(void)
{
	static char type[128];
	const char *name = PLUGIN_NAME;
	size_t n = strlen(HS_PLUGIN_INTERFACE_TYPE_PREFIX);
	memcpy(type, HS_PLUGIN_INTERFACE_TYPE_PREFIX, n);
	for (; *name; ++name)
		type[n++] = *name >= 'a' && *name <= 'z' ? (char)(*name - 'a' + 'A') : *name;
	return type;
}

static int get_interface(struct spa_handle *handle, const char *type, void **interface)
{
	struct instance *self = (struct instance *)handle;
#ifdef BROKEN_NO_INTERFACE
	type = "";
#endif
	if (!spa_streq(type, interface_type()))
		return -ENOENT;
#ifdef BROKEN_SHARED_INTERFACE
	shared_interface = self->interface;
	*interface = &shared_interface;
#else
	*interface = &self->interface;
#endif
	return 0;
}

static int clear(struct spa_handle *handle)
{
	struct instance *self = (struct instance *)handle;
	free(self->power);
	self->power = NULL;
	return 0;
}

static size_t get_size(const struct spa_handle_factory *factory, const struct spa_dict *config)
{
	(void)factory;
	(void)config;
	return sizeof(struct instance);
}

static int make_instance(const struct spa_handle_factory *factory, struct spa_handle *handle,
			 const struct spa_dict *config, const struct spa_support *support, uint32_t n_support)
{
	struct instance *self = (struct instance *)handle;
	(void)factory;
	(void)config;
	self->log = spa_support_find(support, n_support, SPA_TYPE_INTERFACE_Log);
	self->handle.version = SPA_VERSION_HANDLE;
	self->handle.get_interface = get_interface;
	self->handle.clear = clear;
	self->gain = 1;
	self->depth = 5;
	self->level = QUIET;
	strcpy(self->mode, "auto");
#ifdef BROKEN_SETTING_HUGE
	self->depth = 3000000000u;
#endif
#ifdef BROKEN_REMEMBERS
	++n_instances;
#endif
#ifdef BROKEN_LEAK_DESCRIPTOR
	if (open("/dev/null", O_RDONLY | O_CLOEXEC) < 0)
		return -errno;
#endif
#ifdef BROKEN_LEAK_MEMORY
	lost = malloc(256);
#endif

#ifdef BROKEN_INTERFACE_TYPE
	self->interface.type = HS_PLUGIN_INTERFACE_TYPE_PREFIX "OTHER";
#else
	self->interface.type = interface_type();
#endif
#ifdef BROKEN_VERSION
	self->interface.version = 1;
#elif defined(BROKEN_NEWER_VERSION)
	self->interface.version = HS_PLUGIN_INTERFACE_VERSION + 1;
#else
	self->interface.version = HS_PLUGIN_INTERFACE_VERSION;
#endif
	self->interface.funcs = &methods;
	self->interface.data = self;
	self->interface.name = "Level meter";
#ifdef BROKEN_INTERFACE_NAME
	self->interface.interface_name = "LevelMeter";
#elif defined(BROKEN_BUS_NAME)
	self->interface.interface_name = PLUGIN_NAME "-meter";
#else
	self->interface.interface_name = PLUGIN_NAME;
#endif
	self->interface.events = infos;
	self->interface.n_events = SPA_N_ELEMENTS(infos);
#ifdef BROKEN_UNRESOLVED
	return nobody_has_this_function();
#endif
	return 0;
}

static int enum_interface_info(const struct spa_handle_factory *factory, const struct spa_interface_info **info,
			       uint32_t *index)
{
	static struct spa_interface_info the_info;
	(void)factory;
	if (*index > 0)
		return 0;
	the_info.type = interface_type();
	*info = &the_info;
	(*index)++;
	return 1;
}

static const struct spa_handle_factory factory_record = {
	.version = SPA_VERSION_HANDLE_FACTORY,
#ifdef BROKEN_FACTORY_NAME
	.name = HS_PLUGIN_FACTORY_PREFIX "other",
#else
	.name = HS_PLUGIN_FACTORY_PREFIX PLUGIN_NAME,
#endif
	.get_size = get_size,
	.init = make_instance,
	.enum_interface_info = enum_interface_info,
};

#ifdef BROKEN_NO_ENTRY
#define spa_handle_factory_enum some_other_function
int some_other_function(const struct spa_handle_factory **factory, uint32_t *index);
#endif

SPA_EXPORT int spa_handle_factory_enum(const struct spa_handle_factory **factory, uint32_t *index)
{
	if (*index > 0)
		return 0;
	*factory = &factory_record;
	(*index)++;
	return 1;
}
