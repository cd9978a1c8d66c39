/*
 * A plug-in with any number of scalar events that costs no more than a plug-in must, and a source on it.
 *
 * The library and the handle are those of the unit tests, the functions are this file's.
 */
#pragma once

#include <cerrno>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>

#include <hear-sense/plugin.h>

#include <benchmark/benchmark.h>

#include "daemon-bed.hpp"
#include "dbus.hpp"
#include "pod.hpp"
#include "pw-source.hpp"
#include "source.hpp"

/** Events of every scalar type but texts, in turn. */
class hs_bench_plugin
{
public:
	explicit hs_bench_plugin(size_t n_events)
	{
		methods.get_event = on_get_event;
		for (size_t i = 0; i < n_events; ++i) {
			std::string title = (i < 10 ? "Event0" : "Event") + std::to_string(i);
			descriptions.push_back("About " + title);
			titles.push_back(std::move(title));
			hs_event_info &info = infos.emplace_back();
			info.name = titles.back().c_str();
			pointers.push_back(&info);
		}
	}

	hs_bench_plugin(const hs_bench_plugin &) = delete;
	hs_bench_plugin &operator=(const hs_bench_plugin &) = delete;

	/** Takes the place of the functions and events in an interface. */
	void serve(hs_plugin_interface *interface)
	{
		interface->funcs = &methods;
		interface->data = this;
		interface->events = pointers.data();
		interface->n_events = pointers.size();
	}

	/** What the daemon asks for after each buffer, and nothing more. */
	void build_all()
	{
		for (uint32_t i = 0; i < titles.size(); ++i) {
			hs_pod_buffer buffer;
			spa_pod_builder builder{};
			spa_pod_builder_init(&builder, buffer.data, sizeof(buffer.data));
			spa_pod *pod = nullptr;
			methods.get_event(this, i, &pod, &builder);
			benchmark::DoNotOptimize(pod);
			benchmark::ClobberMemory();
		}
	}

	/** Gives each event another value. */
	void change()
	{
		++round;
	}

	static constexpr size_t double_event = 0;

private:
	spa_pod *build(uint32_t index, spa_pod_builder *builder) const
	{
		spa_pod_frame frame{};
		spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(builder, titles[index].c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
		spa_pod_builder_string(builder, descriptions[index].c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
		const auto number = static_cast<int32_t>(round + index);
		switch (index % 5) {
		case double_event:
			spa_pod_builder_double(builder, -20 - 0.125 * number);
			break;
		case 1:
			spa_pod_builder_bool(builder, number % 2);
			break;
		case 2:
			spa_pod_builder_int(builder, number);
			break;
		case 3:
			spa_pod_builder_long(builder, int64_t{1000000007} * number);
			break;
		default:
			spa_pod_builder_float(builder, 0.5f * static_cast<float>(number));
			break;
		}
		return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &frame));
	}

	static int on_get_event(void *data, uint32_t index, spa_pod **result, spa_pod_builder *builder)
	{
		const auto *self = static_cast<const hs_bench_plugin *>(data);
		if (!result)
			return static_cast<int>(self->titles.size());
		if (index >= self->titles.size())
			return -EINVAL;
		*result = self->build(index, builder);
		return 1;
	}

	hs_plugin_methods methods{};
	std::deque<std::string> titles;
	std::deque<std::string> descriptions;
	std::deque<hs_event_info> infos;
	std::vector<const hs_event_info *> pointers;
	uint32_t round = 0;
};

/** The daemon's own source on such a plug-in, with a stream that is linked to nothing. */
class hs_bench_source
{
public:
	hs_bench_source(hs_daemon_bed &bed, size_t n_events) : plugin{n_events}
	{
		node.name = "AudioDevice0Input0.Unprocessed";
		node.registered = true;
		bed.host.prepare = [this](hs_handmade_plugin &made) { plugin.serve(&made.interface); };
		const std::string name = "p" + std::to_string(n_events);
		hs_plugin *record = bed.add_plugin("motion");
		source = hs_source_new(record, node.name.c_str(), nullptr, (bed.settings + "/" + name).c_str(), &node);
		if (!source)
			throw std::runtime_error{"the daemon takes no source"};
	}

	/* The bed would only do it when the functions above are gone. */
	~hs_bench_source()
	{
		hs_dbus_remove_source(source);
		hs_source_destroy(source);
	}

	hs_bench_source(const hs_bench_source &) = delete;
	hs_bench_source &operator=(const hs_bench_source &) = delete;

	hs_bench_plugin plugin;
	/** Borrowed from the bed. */
	hs_source *source;

private:
	hs_pw_source node{};
};
