/*
 * A host for the loudness plug-in: loads the library and drives one handle through its interface.
 */
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <spa/param/audio/raw.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/pod/parser.h>
#include <spa/support/log.h>
#include <spa/utils/type.h>

#include <dlfcn.h>

#include <hear-sense/plugin.h>

inline constexpr uint32_t loudness_event = 0;
inline constexpr uint32_t alarm_event = 1;
inline constexpr uint32_t level_event = 2;

inline constexpr const char *source_name = "AudioDevice0Input0.Unprocessed";

/*
 * What a host provides.
 */

struct log_line {
	spa_log_level level;
	std::string topic;
	std::string text;
};

struct recording_log : spa_log {
	std::vector<log_line> lines;
};

inline void on_logt(void *object, spa_log_level level, const spa_log_topic *topic, const char *, int,
		    const char *, const char *format, ...)
{
	char text[1024];
	va_list arguments;
	va_start(arguments, format);
	std::vsnprintf(text, sizeof(text), format, arguments);
	va_end(arguments);
	static_cast<recording_log *>(object)->lines.push_back({level, topic ? topic->topic : "", text});
}

inline void on_topic_init(void *, spa_log_topic *)
{
}

inline constexpr spa_log_methods log_methods = [] {
	spa_log_methods methods{};
	methods.version = SPA_VERSION_LOG_METHODS;
	methods.logt = on_logt;
	methods.topic_init = on_topic_init;
	return methods;
}();

/** A value of a setting or event, or one member of a structure. */
struct value {
	uint32_t type = SPA_TYPE_None;
	double number = 0.0;
	bool truth = false;
};

struct description {
	std::string name;
	std::string text;
	/** Of the value. */
	uint32_t type = SPA_TYPE_None;
	/** A scalar is a single member without a name. */
	std::vector<std::pair<std::string, value>> members;

	double operator[](const std::string &member) const
	{
		for (const auto &[key, value] : members) {
			if (key == member)
				return value.type == SPA_TYPE_Bool ? value.truth : value.number;
		}
		ADD_FAILURE() << "no member " << member;
		return 0.0;
	}
};

inline value read_value(const spa_pod *pod)
{
	value value{.type = SPA_POD_TYPE(pod)};
	if (spa_pod_get_double(pod, &value.number) < 0 && spa_pod_get_bool(pod, &value.truth) < 0)
		ADD_FAILURE() << "neither a double nor a boolean but " << value.type;
	return value;
}

inline description read_description(const spa_pod *pod)
{
	description description;
	if (!pod || !spa_pod_is_object_type(pod, SPA_TYPE_OBJECT_PropInfo)) {
		ADD_FAILURE() << "no description";
		return description;
	}
	const spa_pod_prop *name = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_name);
	const spa_pod_prop *text = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_description);
	const spa_pod_prop *type = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_type);
	const char *string;
	if (!name || !text || !type || spa_pod_get_string(&name->value, &string) < 0) {
		ADD_FAILURE() << "no name, description or type";
		return description;
	}
	description.name = string;
	if (spa_pod_get_string(&text->value, &string) == 0)
		description.text = string;
	description.type = SPA_POD_TYPE(&type->value);
	if (description.type != SPA_TYPE_Struct) {
		description.members.emplace_back("", read_value(&type->value));
		return description;
	}

	spa_pod_parser parser;
	spa_pod_frame frame;
	spa_pod *member;
	spa_pod_parser_pod(&parser, &type->value);
	spa_pod_parser_push_struct(&parser, &frame);
	while (spa_pod_parser_get_string(&parser, &string) == 0 &&
	       spa_pod_parser_get_pod(&parser, &member) == 0)
		description.members.emplace_back(string, read_value(member));
	return description;
}

/** A spa_buffer with blocks of its own. */
struct buffer {
	explicit buffer(std::vector<std::vector<float>> blocks)
		: samples(std::move(blocks))
		, chunks(samples.size())
		, datas(samples.size())
	{
		for (size_t i = 0; i < samples.size(); i++) {
			const auto size = static_cast<uint32_t>(samples[i].size() * sizeof(float));
			chunks[i].size = size;
			datas[i].type = SPA_DATA_MemPtr;
			datas[i].maxsize = size;
			datas[i].data = samples[i].data();
			datas[i].chunk = &chunks[i];
		}
		raw.n_datas = static_cast<uint32_t>(datas.size());
		raw.datas = datas.data();
	}

	std::vector<std::vector<float>> samples;
	std::vector<spa_chunk> chunks;
	std::vector<spa_data> datas;
	spa_buffer raw{};
};

struct told_event {
	uint32_t index;
	/** Frames heard when it was told, up to the buffer's end. */
	size_t frames;
	description value;
};

/** One handle of the plug-in, and what it has told. */
class plugin {
public:
	explicit plugin(bool has_log = true)
	{
		log.level = SPA_LOG_LEVEL_TRACE;
		log.iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_Log, SPA_VERSION_LOG, &log_methods, &log);

		library.reset(dlopen(LOUDNESS_LIBRARY, RTLD_NOW | RTLD_LOCAL));
		if (!library) {
			ADD_FAILURE() << dlerror();
			std::abort();
		}
		const auto enumerate = reinterpret_cast<spa_handle_factory_enum_func_t>(
			dlsym(library.get(), SPA_HANDLE_FACTORY_ENUM_FUNC_NAME));
		uint32_t index = 0;
		EXPECT_EQ(enumerate(&factory, &index), 1);
		memory.reset(static_cast<spa_handle *>(std::calloc(1, factory->get_size(factory, nullptr))));
		const spa_support support =
			SPA_SUPPORT_INIT(SPA_TYPE_INTERFACE_Log, static_cast<spa_log *>(&log));
		EXPECT_EQ(factory->init(factory, memory.get(), nullptr, &support, has_log ? 1 : 0), 0);
		void *result = nullptr;
		EXPECT_EQ(memory->get_interface(memory.get(), "Spa:Pointer:Interface:HearSense:LOUDNESS",
						&result),
			  0);
		interface = static_cast<hs_plugin_interface *>(result);
		interface->notify_event = on_notify;
		interface->host_data = this;
	}

	~plugin()
	{
		memory->clear(memory.get());
	}

	plugin(const plugin &) = delete;
	plugin &operator=(const plugin &) = delete;

	int init(uint32_t rate, const std::vector<uint32_t> &positions,
		 spa_audio_format format = SPA_AUDIO_FORMAT_F32P)
	{
		stream = {};
		stream.info.format = format;
		stream.info.rate = rate;
		stream.info.channels = static_cast<uint32_t>(positions.size());
		std::copy_n(positions.begin(), std::min<size_t>(positions.size(), SPA_AUDIO_MAX_CHANNELS),
			    stream.info.position);
		std::snprintf(stream.source_name, sizeof(stream.source_name), "%s", source_name);
		const spa_dict config = SPA_DICT_INIT(nullptr, 0);
		return interface->funcs->init(interface->data, &stream, &config);
	}

	/** Ready for mono at 48 kHz. */
	void start()
	{
		ASSERT_EQ(init(48000, {SPA_AUDIO_CHANNEL_MONO}), 0);
		ASSERT_EQ(interface->funcs->activate(interface->data), 0);
	}

	void process(buffer &buffer)
	{
		interface->funcs->process(interface->data, &buffer.raw);
	}

	/** Hears one signal per channel in planar buffers. */
	void hear(const std::vector<std::vector<float>> &signals, size_t portion = 1024)
	{
		for (size_t first = 0; first < signals[0].size(); first += portion) {
			const size_t n = std::min(portion, signals[0].size() - first);
			std::vector<std::vector<float>> blocks;
			for (const std::vector<float> &signal : signals) {
				const auto begin = signal.begin() + static_cast<std::ptrdiff_t>(first);
				blocks.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(n));
			}
			buffer buffer{std::move(blocks)};
			frames += n;
			process(buffer);
		}
	}

	void hear_mono(const std::vector<float> &signal, size_t portion = 1024)
	{
		hear({signal}, portion);
	}

	description event(uint32_t index)
	{
		return fetch(interface->funcs->get_event, index);
	}

	description setting(uint32_t index)
	{
		return fetch(interface->funcs->get_setting, index);
	}

	int set(const spa_pod *pod)
	{
		return interface->funcs->set_settings(interface->data, pod);
	}

	int set(const char *name, double number)
	{
		return set_with(name, [number](spa_pod_builder &builder) {
			spa_pod_builder_double(&builder, number);
		});
	}

	template <typename Build>
	int set_with(const char *name, Build build)
	{
		alignas(8) std::array<uint8_t, 1024> memory_of_pod;
		spa_pod_builder builder{};
		spa_pod_frame frame;
		spa_pod_builder_init(&builder, memory_of_pod.data(), memory_of_pod.size());
		spa_pod_builder_push_struct(&builder, &frame);
		spa_pod_builder_string(&builder, name);
		build(builder);
		return set(static_cast<spa_pod *>(spa_pod_builder_pop(&builder, &frame)));
	}

	size_t count(uint32_t index) const
	{
		return static_cast<size_t>(
			std::count_if(told.begin(), told.end(),
				      [index](const told_event &event) { return event.index == index; }));
	}

	recording_log log{};
	const spa_handle_factory *factory = nullptr;
	hs_plugin_interface *interface = nullptr;
	hs_stream_info stream{};
	std::vector<told_event> told;
	size_t frames = 0;

private:
	struct close_library {
		void operator()(void *handle) const noexcept
		{
			dlclose(handle);
		}
	};
	struct free_memory {
		void operator()(void *pointer) const noexcept
		{
			std::free(pointer);
		}
	};

	using get_function = int (*)(void *, uint32_t, spa_pod **, spa_pod_builder *);

	description fetch(get_function get, uint32_t index)
	{
		alignas(8) std::array<uint8_t, 4096> memory_of_pod;
		spa_pod_builder builder{};
		spa_pod *pod = nullptr;
		spa_pod_builder_init(&builder, memory_of_pod.data(), memory_of_pod.size());
		EXPECT_GE(get(interface->data, index, &pod, &builder), 0);
		return read_description(pod);
	}

	static void on_notify(hs_plugin_interface *interface, uint32_t index)
	{
		auto *self = static_cast<plugin *>(interface->host_data);
		ASSERT_EQ(interface, self->interface);
		self->told.push_back({index, self->frames, self->event(index)});
	}

	/** Closed after the handle was cleared. */
	std::unique_ptr<void, close_library> library;
	std::unique_ptr<spa_handle, free_memory> memory;
};

inline std::vector<float> sine(uint32_t rate, double seconds, double dbfs)
{
	std::vector<float> samples(static_cast<size_t>(std::lround(seconds * rate)));
	for (size_t i = 0; i < samples.size(); i++)
		samples[i] = static_cast<float>(
			std::pow(10.0, dbfs / 20.0) *
			std::sin(2.0 * std::numbers::pi * 1000.0 * static_cast<double>(i) / rate));
	return samples;
}

inline std::vector<float> silence(double seconds)
{
	return std::vector<float>(static_cast<size_t>(std::lround(seconds * 48000.0)));
}

inline std::vector<float> operator+(std::vector<float> a, const std::vector<float> &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

inline std::vector<float> steady_noise(double seconds)
{
	std::mt19937 generator{1};
	std::normal_distribution<float> noise{0.0F, 0.003F};
	std::vector<float> samples = silence(seconds);
	for (float &sample : samples)
		sample = noise(generator);
	return samples;
}

/** Everything told, as text; `frames` of a buffer's end would differ between portions. */
inline std::vector<std::string> texts(const std::vector<told_event> &told)
{
	std::vector<std::string> lines;
	for (const told_event &event : told) {
		std::string line = std::to_string(event.index);
		for (const auto &[name, value] : event.value.members)
			line += " " + name + "=" + std::to_string(value.number) + (value.truth ? "!" : "");
		lines.push_back(line);
	}
	return lines;
}

inline void expect_rest(plugin &plugin)
{
	EXPECT_EQ(plugin.event(loudness_event)["Momentary"], -70.0);
	EXPECT_EQ(plugin.event(loudness_event)["ShortTerm"], -70.0);
	EXPECT_EQ(plugin.event(loudness_event)["Peak"], -120.0);
	EXPECT_EQ(plugin.event(alarm_event)["Detected"], false);
	EXPECT_EQ(plugin.event(alarm_event)["Report"], false);
	EXPECT_EQ(plugin.event(level_event)[""], -120.0);
}
