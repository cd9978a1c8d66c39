/* SPDX-License-Identifier: MIT */
/*
 * What a plug-in derives from.
 */
#ifndef HEAR_SENSE_SDK_BASE_HPP
#define HEAR_SENSE_SDK_BASE_HPP

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <spa/buffer/buffer.h>
#include <spa/debug/types.h>
#include <spa/param/audio/raw.h>
#include <spa/param/audio/type-info.h>
#include <spa/support/log.h>
#include <spa/utils/dict.h>

#include <hear-sense/plugin.h>
#include <hear-sense/sdk/audio.hpp>
#include <hear-sense/sdk/config.hpp>
#include <hear-sense/sdk/table.hpp>

namespace hear_sense {

/** What a plug-in is called, and which audio it takes. */
struct plugin_info {
	/** That of its configuration file, without ".conf": letters, digits and "_", no digit first. */
	std::string name{};
	/** In D-Bus names and paths: `name` but for case. Where empty, `name` with a capital letter first. */
	std::string interface_name{};
	/** Files in the schema directory; may be empty. */
	std::string schema{};
	std::string settings_schema{};
	/** Of F32P, F32, S16P and S16 those that the plug-in takes; its users are told of the first. */
	std::vector<spa_audio_format> formats = {SPA_AUDIO_FORMAT_F32P, SPA_AUDIO_FORMAT_F32, SPA_AUDIO_FORMAT_S16P,
						 SPA_AUDIO_FORMAT_S16};
	/** Of all events that have none of their own. */
	std::vector<topic> topics{};
};

/** What a plug-in is made with. It is handed on to the base class and need not be looked into. */
struct host {
	/** Borrowed from the factory. */
	const plugin_info &info;
	/** Null where nobody reads a log. */
	spa_log *log;
	/** "plugin.config" of the configuration file; valid while the plug-in is constructed. */
	const spa_dict *config;
};

namespace detail {

struct handle;

/* SPA's macros for these warn in C++. `log` may be null. */

inline const spa_log_methods *methods_of(const spa_log *log)
{
	const auto *methods = log ? static_cast<const spa_log_methods *>(log->iface.cb.funcs) : nullptr;
	return methods && methods->version >= 1 ? methods : nullptr;
}

inline void init_log_topic(const spa_log *log, spa_log_topic *topic)
{
	const spa_log_methods *methods = methods_of(log);
	if (methods && methods->topic_init)
		methods->topic_init(log->iface.cb.data, topic);
}

inline void write_log(const spa_log *log, spa_log_level level, const spa_log_topic *topic, const char *text)
{
	const spa_log_methods *methods = methods_of(log);
	if (methods && methods->logt && level <= (topic && topic->has_custom_level ? topic->level : log->level))
		methods->logt(log->iface.cb.data, level, topic, __FILE__, __LINE__, "plugin", "%s", text);
}

} // namespace detail

/** What plug-ins of every sample type have in common. Derive from plugin or plugin_s16. */
class plugin_base : public table
{
public:
	explicit plugin_base(const host &from)
	    : table{from.info.topics}, config{from.info.name + ".conf"}, host_info{from.info}, host_log{from.log}
	{
		topic_name = HS_PLUGIN_FACTORY_PREFIX + host_info.name;
		topic.version = SPA_VERSION_LOG_TOPIC;
		topic.topic = topic_name.c_str();
		detail::init_log_topic(host_log, &topic);
		config.assign(from.config);
	}

protected:
	/** Gets ready to hear stream(). Negative: it can not be heard, as refuse() has said. */
	virtual int start()
	{
		return 0;
	}

	/** Undoes a start() that went well. */
	virtual void stop()
	{
	}

	/** What is heard; from start() to stop(). */
	const hs_stream_info &stream() const
	{
		return *stream_info;
	}

	/** The SPA position of each channel. */
	std::span<const uint32_t> positions() const
	{
		return {stream_info->info.position, stream_info->info.channels};
	}

	/** "plugin.config" of the configuration file. */
	configuration config;

	/** The name that the configuration file has. */
	const std::string &name() const
	{
		return host_info.name;
	}

	/**
	 * For start(): has each block be `frames` long, whatever the buffers are, and begin `hop` frames after the
	 * last one (1 to `frames`; `frames` where left out). Without it blocks are as long as the buffers, but not
	 * longer than 1024 frames.
	 */
	void hear_in_blocks(size_t frames, size_t hop = 0)
	{
		if (frames == 0 || hop > frames)
			throw std::invalid_argument("a block has at least one frame, and no more hops than frames");
		block_frames = frames;
		block_hop = hop == 0 ? frames : hop;
	}

	/** Writes a line to the daemon's log; up to 1023 bytes. */
	[[gnu::format(printf, 3, 4)]] void log(spa_log_level level, const char *format, ...) const
	{
		char text[1024];
		va_list arguments;
		va_start(arguments, format);
		std::vsnprintf(text, sizeof(text), format, arguments);
		va_end(arguments);
		detail::write_log(host_log, level, &topic, text);
	}

	/** For start(): logs why the stream can not be heard, and what to change; returns `error`. */
	int refuse(int error, const char *why) const
	{
		refuse(*stream_info, why);
		return error;
	}

private:
	friend struct detail::handle;

	virtual void prepare_blocks(const spa_audio_info_raw &info, size_t frames, size_t hop) = 0;
	virtual void hear(const spa_buffer &buffer) = 0;

	void refuse(const hs_stream_info &stream, const char *why) const
	{
		const char *format = spa_debug_type_find_short_name(spa_type_audio_format, stream.info.format);
		log(SPA_LOG_LEVEL_ERROR, "cannot hear %s (%s, %u channel%s, %u Hz): %s", stream.source_name,
		    format ? format : "an unknown format", stream.info.channels,
		    stream.info.channels == 1 ? "" : "s", stream.info.rate, why);
	}

	/*
	 * What the daemon asks for.
	 */

	int open(const hs_stream_info &info, const spa_dict *new_config)
	{
		close();
		const std::vector<spa_audio_format> &formats = host_info.formats;
		if (!is_known_format(info.info.format) ||
		    std::find(formats.begin(), formats.end(), info.info.format) == formats.end()) {
			const char *name = formats.empty()
						   ? "F32P"
						   : spa_debug_type_find_short_name(spa_type_audio_format, formats[0]);
			const std::string advice = "set audio.format to " + std::string{name ? name : "F32P"} + " in " +
						   host_info.name + ".conf";
			refuse(info, advice.c_str());
			return -ENOTSUP;
		}
		if (info.info.channels == 0 || info.info.channels > SPA_AUDIO_MAX_CHANNELS || info.info.rate == 0) {
			refuse(info, "it needs a rate, and from 1 to 64 channels");
			return -EINVAL;
		}
		config.assign(new_config);
		/* A copy: the daemon writes a new format into its own before it tells us of it. */
		stream_info = info;
		const int result = begin();
		if (result < 0)
			stream_info.reset();
		return result;
	}

	void close()
	{
		try {
			end();
		} catch (...) {
			stream_info.reset();
			throw;
		}
		stream_info.reset();
	}

	int begin()
	{
		if (!stream_info)
			return -EINVAL;
		if (is_hearing)
			return 0;
		block_frames = block_hop = 0;
		const int result = start();
		if (result < 0)
			return result;
		is_hearing = true;
		prepare_blocks(stream_info->info, block_frames, block_hop);
		return 0;
	}

	void end()
	{
		try {
			if (std::exchange(is_hearing, false))
				stop();
		} catch (...) {
			reset_events();
			throw;
		}
		reset_events();
	}

	const plugin_info &host_info;
	spa_log *host_log;
	std::string topic_name;
	spa_log_topic topic{};
	std::optional<hs_stream_info> stream_info;
	size_t block_frames = 0;
	size_t block_hop = 0;
	bool is_hearing = false;
};

/** A plug-in that has its samples as `Sample`, from whatever format they come in. */
template <sample Sample>
class basic_plugin : public plugin_base
{
public:
	using plugin_base::plugin_base;

protected:
	/** One span of samples for each channel, all of one length. */
	using channels = std::span<const std::span<const Sample>>;

	/** Hears one block, which is not empty; the samples are gone when it returns. */
	virtual void process(channels heard) = 0;

	/** For process(): what it hears, as libraries in C take it: where the samples of each channel begin. */
	const Sample *const *block_data() const
	{
		return blocks.data();
	}

	/** For process(): frames of audio before the block, since start(). */
	uint64_t block_begin() const
	{
		return blocks.begin();
	}

private:
	void prepare_blocks(const spa_audio_info_raw &info, size_t frames, size_t hop) override
	{
		blocks.prepare(info.format, info.channels, frames, hop);
	}

	void hear(const spa_buffer &buffer) override
	{
		blocks.hear(buffer, [this](channels heard) { process(heard); });
	}

	block_cutter<Sample> blocks;
};

/** A plug-in that hears float samples. */
class plugin : public basic_plugin<float>
{
public:
	using basic_plugin::basic_plugin;
};

/** A plug-in that hears 16-bit samples. */
class plugin_s16 : public basic_plugin<int16_t>
{
public:
	using basic_plugin::basic_plugin;
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_BASE_HPP */
