/*
 * A host for plug-ins that are written in a test: drives one handle through its interface, and reads what it
 * describes as the daemon does.
 */
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <spa/param/audio/raw.h>
#include <spa/pod/builder.h>
#include <spa/support/log.h>
#include <spa/utils/dict.h>

#include <hear-sense/plugin.hpp>

#include "pod.hpp"

/*
 * What a host provides.
 */

struct sdk_log : spa_log {
	struct line {
		spa_log_level level;
		std::string topic;
		std::string text;
	};

	sdk_log() : spa_log{}
	{
		static constexpr spa_log_methods methods = [] {
			spa_log_methods table{};
			table.version = SPA_VERSION_LOG_METHODS;
			table.logt = on_logt;
			return table;
		}();
		level = SPA_LOG_LEVEL_INFO;
		iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_Log, SPA_VERSION_LOG, &methods, this);
	}

	static void on_logt(void *object, spa_log_level line_level, const spa_log_topic *topic, const char *, int,
			    const char *, const char *format, ...)
	{
		char text[1024];
		va_list arguments;
		va_start(arguments, format);
		std::vsnprintf(text, sizeof(text), format, arguments);
		va_end(arguments);
		static_cast<sdk_log *>(object)->lines.push_back({line_level, topic ? topic->topic : "", text});
	}

	std::vector<line> lines;
};

/** A buffer with blocks of its own; `raw` is what a plug-in gets, and may be spoilt. */
struct sdk_buffer {
	explicit sdk_buffer(std::vector<std::vector<std::byte>> contents)
	    : blocks(std::move(contents)), chunks(blocks.size()), datas(blocks.size())
	{
		for (size_t i = 0; i < blocks.size(); i++) {
			chunks[i].size = static_cast<uint32_t>(blocks[i].size());
			datas[i].type = SPA_DATA_MemPtr;
			datas[i].maxsize = chunks[i].size;
			datas[i].data = blocks[i].data();
			datas[i].chunk = &chunks[i];
		}
		raw.n_datas = static_cast<uint32_t>(datas.size());
		raw.datas = datas.data();
	}

	std::vector<std::vector<std::byte>> blocks;
	std::vector<spa_chunk> chunks;
	std::vector<spa_data> datas;
	spa_buffer raw{};
};

template <typename Sample>
std::vector<std::byte> bytes_of_samples(const std::vector<Sample> &samples)
{
	std::vector<std::byte> bytes(samples.size() * sizeof(Sample));
	if (!samples.empty())
		std::memcpy(bytes.data(), samples.data(), bytes.size());
	return bytes;
}

/** One signal per channel as a planar buffer. */
template <typename Sample>
sdk_buffer planar(const std::vector<std::vector<Sample>> &signals)
{
	std::vector<std::vector<std::byte>> blocks;
	for (const std::vector<Sample> &signal : signals)
		blocks.push_back(bytes_of_samples(signal));
	return sdk_buffer{std::move(blocks)};
}

template <typename Sample>
sdk_buffer interleaved(const std::vector<std::vector<Sample>> &signals)
{
	std::vector<Sample> samples;
	for (size_t frame = 0; frame < signals[0].size(); frame++) {
		for (const std::vector<Sample> &signal : signals)
			samples.push_back(signal[frame]);
	}
	return sdk_buffer{{bytes_of_samples(samples)}};
}

/*
 * The host.
 */

struct sdk_told {
	uint32_t index;
	/** As the daemon reads it, fetched while the plug-in notifies. */
	std::string value;

	bool operator==(const sdk_told &) const = default;
};

class sdk_host
{
public:
	explicit sdk_host(const hear_sense::factory &maker, const std::vector<spa_dict_item> &config = {})
	{
		const spa_dict dict = SPA_DICT_INIT(config.data(), static_cast<uint32_t>(config.size()));
		const spa_support support = SPA_SUPPORT_INIT(SPA_TYPE_INTERFACE_Log, static_cast<spa_log *>(&log));
		memory.reset(static_cast<spa_handle *>(std::calloc(1, maker.get_size(&maker, nullptr))));
		result = spa_handle_factory_init(&maker, memory.get(), &dict, &support, 1);
		if (result < 0)
			return;
		void *found = nullptr;
		EXPECT_EQ(memory->get_interface(memory.get(), maker.interface_type(), &found), 0);
		interface = static_cast<hs_plugin_interface *>(found);
		interface->notify_event = on_notify;
		interface->host_data = this;
	}

	~sdk_host()
	{
		clear();
	}

	sdk_host(const sdk_host &) = delete;
	sdk_host &operator=(const sdk_host &) = delete;

	void clear()
	{
		if (interface)
			memory->clear(memory.get());
		interface = nullptr;
	}

	int init(uint32_t channels = 1, spa_audio_format format = SPA_AUDIO_FORMAT_F32P,
		 const std::vector<spa_dict_item> &config = {})
	{
		stream = {};
		stream.info.format = format;
		stream.info.rate = 48000;
		stream.info.channels = channels;
		for (uint32_t c = 0; c < std::min<uint32_t>(channels, SPA_AUDIO_MAX_CHANNELS); c++)
			stream.info.position[c] = SPA_AUDIO_CHANNEL_AUX0 + c;
		std::snprintf(stream.source_name, sizeof(stream.source_name), "Mic0");
		const spa_dict dict = SPA_DICT_INIT(config.data(), static_cast<uint32_t>(config.size()));
		return interface->funcs->init(interface->data, &stream, &dict);
	}
	int activate()
	{
		return interface->funcs->activate(interface->data);
	}
	void deactivate()
	{
		interface->funcs->deactivate(interface->data);
	}
	void deinit()
	{
		interface->funcs->deinit(interface->data);
	}
	void process(sdk_buffer &buffer)
	{
		interface->funcs->process(interface->data, &buffer.raw);
	}
	void process(sdk_buffer &&buffer)
	{
		process(buffer);
	}

	/** The description as the daemon reads it; null where it can not. */
	hs_pod_ptr setting(uint32_t index)
	{
		return fetch(interface->funcs->get_setting, index);
	}
	hs_pod_ptr event(uint32_t index)
	{
		return fetch(interface->funcs->get_event, index);
	}
	std::string setting_text(uint32_t index)
	{
		const hs_pod_ptr pod = setting(index);
		return pod ? hs_pod_value_text(*pod) : "no setting";
	}
	std::string event_text(uint32_t index)
	{
		const hs_pod_ptr pod = event(index);
		return pod ? hs_pod_value_text(*pod) : "no event";
	}

	int set(const spa_pod *pod)
	{
		return interface->funcs->set_settings(interface->data, pod);
	}
	/** What the daemon sends where a client writes `text`. */
	int set(const char *name, const char *text, const char *type)
	{
		return set(hs_pod_build(name, text, type, nullptr).get());
	}

	sdk_log log;
	/** Of making the handle. */
	int result = 0;
	hs_plugin_interface *interface = nullptr;
	hs_stream_info stream{};
	std::vector<sdk_told> told;

private:
	struct free_memory {
		void operator()(void *pointer) const noexcept
		{
			std::free(pointer);
		}
	};

	using get_function = int (*)(void *, uint32_t, spa_pod **, spa_pod_builder *);

	hs_pod_ptr fetch(get_function get, uint32_t index)
	{
		spa_pod_builder builder = SPA_POD_BUILDER_INIT(place.data, static_cast<uint32_t>(hs_pod_buffer::size));
		spa_pod *pod = nullptr;
		EXPECT_EQ(get(interface->data, index, &pod, &builder), 0) << index;
		return hs_pod_parse(pod);
	}

	static void on_notify(hs_plugin_interface *interface, uint32_t index)
	{
		auto *self = static_cast<sdk_host *>(interface->host_data);
		ASSERT_EQ(interface, self->interface);
		self->told.push_back({index, self->event_text(index)});
	}

	std::unique_ptr<spa_handle, free_memory> memory;
	hs_pod_buffer place{};
};

/** A host of one plug-in of class `Plugin`, named "tried". */
template <typename Plugin>
class sdk_hosted
{
public:
	explicit sdk_hosted(hear_sense::plugin_info info = {.name = "tried"},
			    const std::vector<spa_dict_item> &config = {})
	    : maker{std::move(info), make}, host{maker, config}
	{
	}

	sdk_host *operator->()
	{
		return &host;
	}

	/** The plug-in itself; null once it is gone. */
	Plugin *plugin = nullptr;

private:
	static inline sdk_hosted *made_for = nullptr;

	static std::unique_ptr<hear_sense::plugin_base> make(const hear_sense::host &from)
	{
		auto made = std::make_unique<Plugin>(from);
		made_for->plugin = made.get();
		return made;
	}

	/** Before the host, which makes the plug-in. */
	bool is_first = (made_for = this);
	hear_sense::factory maker;
	sdk_host host;
};
