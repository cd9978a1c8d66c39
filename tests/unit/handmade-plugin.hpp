/*
 * A plug-in that lives in the test: its methods do what the test tells them and write down who was called.
 *
 *	hs_handmade_plugin plugin;
 *	plugin.events = {hs_describe_int("Level", 3)};
 *	plugin.activate_result = -EINVAL;
 *
 * The interface is as real as one from a library; hs_plugin_load_spa_handle is not needed for it.
 */
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>

#include <hear-sense/plugin.h>

/** Builds the description of a setting or event, or null. */
using hs_description = std::function<spa_pod *(spa_pod_builder *)>;
/** Builds one value. */
using hs_add_value = std::function<void(spa_pod_builder *)>;

inline hs_description hs_describe(std::string title, hs_add_value add)
{
	return [title = std::move(title), add = std::move(add)](spa_pod_builder *builder) {
		spa_pod_frame frame{};
		spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(builder, title.c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
		spa_pod_builder_string(builder, ("About " + title).c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
		add(builder);
		return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &frame));
	};
}

inline hs_description hs_describe_bool(std::string title, bool value)
{
	return hs_describe(std::move(title), [value](spa_pod_builder *b) { spa_pod_builder_bool(b, value); });
}

inline hs_description hs_describe_int(std::string title, int32_t value)
{
	return hs_describe(std::move(title), [value](spa_pod_builder *b) { spa_pod_builder_int(b, value); });
}

inline hs_description hs_describe_string(std::string title, std::string value)
{
	return hs_describe(std::move(title), [value = std::move(value)](spa_pod_builder *b) {
		spa_pod_builder_string(b, value.c_str());
	});
}

inline hs_description hs_describe_ints(std::string title, std::vector<int32_t> values)
{
	return hs_describe(std::move(title), [values = std::move(values)](spa_pod_builder *b) {
		spa_pod_builder_array(b, sizeof(int32_t), SPA_TYPE_Int, static_cast<uint32_t>(values.size()),
		                      values.data());
	});
}

/** A structure of booleans. */
inline hs_description hs_describe_flags(std::string title, std::vector<std::pair<std::string, bool>> members)
{
	return hs_describe(std::move(title), [members = std::move(members)](spa_pod_builder *b) {
		spa_pod_frame frame{};
		spa_pod_builder_push_struct(b, &frame);
		for (const auto &[name, value] : members) {
			spa_pod_builder_string(b, name.c_str());
			spa_pod_builder_bool(b, value);
		}
		spa_pod_builder_pop(b, &frame);
	});
}

/** A whole number in a description of so many bytes, a multiple of 8. */
inline hs_description hs_describe_of_size(std::string title, size_t size)
{
	return [title = std::move(title), size](spa_pod_builder *builder) {
		spa_pod_frame frame{};
		spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(builder, title.c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
		spa_pod_builder_int(builder, 1);
		spa_pod_builder_prop(builder, SPA_PROP_INFO_labels, 0);
		const std::vector<uint8_t> rest(size - builder->state.offset - sizeof(spa_pod));
		spa_pod_builder_bytes(builder, rest.data(), static_cast<uint32_t>(rest.size()));
		return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &frame));
	};
}

/** The plug-in has no value to give. */
inline spa_pod *hs_describe_nothing(spa_pod_builder *)
{
	return nullptr;
}

/** A POD, but no description. */
inline spa_pod *hs_describe_nonsense(spa_pod_builder *builder)
{
	const uint32_t offset = builder->state.offset;
	spa_pod_builder_int(builder, 42);
	return spa_pod_builder_deref(builder, offset);
}

struct hs_handmade_plugin {
	hs_handmade_plugin()
	{
		methods.init = on_init;
		methods.deinit = on_deinit;
		methods.activate = on_activate;
		methods.deactivate = on_deactivate;
		methods.get_setting = on_get_setting;
		methods.get_event = on_get_event;
		methods.get_settings = on_get_settings;
		methods.set_settings = on_set_settings;
		methods.process = on_process;
		interface.type = HS_PLUGIN_INTERFACE_TYPE_PREFIX "MOTION";
		interface.version = HS_PLUGIN_INTERFACE_VERSION;
		interface.funcs = &methods;
		interface.data = this;
		interface.name = "Motion Detector";
		interface.interface_name = "Mover";
		interface.schema = "motion.schema.json";
		interface.settings_schema = "motion.settings.json";
	}

	hs_handmade_plugin(const hs_handmade_plugin &) = delete;
	hs_handmade_plugin &operator=(const hs_handmade_plugin &) = delete;

	/** Adds the static record of an event, without which clients can not read all of its properties. */
	hs_event_info &add_info(const char *name)
	{
		hs_event_info &info = infos.emplace_back();
		info.name = name;
		info_pointers.push_back(&info);
		interface.events = info_pointers.data();
		interface.n_events = info_pointers.size();
		return info;
	}

	/** How often the method was called. */
	size_t count(std::string_view method) const
	{
		return static_cast<size_t>(std::count(calls.begin(), calls.end(), method));
	}

	hs_plugin_methods methods{};
	hs_plugin_interface interface {
	};

	/** All calls in order, but those that only ask for a number. */
	std::vector<std::string> calls;
	/** Called at the start of every method, with its name. */
	std::function<void(const std::string &)> at_call;

	int init_result = 0;
	int activate_result = 0;
	int set_settings_result = 0;
	int get_settings_result = 0;
	/** In place of the number of descriptions, unless it is negative. */
	int n_events = -1;
	int n_settings = -1;
	std::vector<hs_description> settings;
	std::vector<hs_description> events;
	/** What get_settings builds. */
	hs_add_value present_settings;

	hs_stream_info stream{};
	/** The configuration that init was given. */
	std::vector<std::pair<std::string, std::string>> config;
	/** What set_settings was given: "Gain = Int 5", or "Gain" for a Struct with only the name. */
	std::vector<std::string> taken;
	size_t n_event_counts = 0;
	spa_buffer *heard = nullptr;

private:
	std::deque<hs_event_info> infos;
	std::vector<const hs_event_info *> info_pointers;

	static hs_handmade_plugin *begin(void *obj, const char *method)
	{
		auto *self = static_cast<hs_handmade_plugin *>(obj);
		self->calls.emplace_back(method);
		if (self->at_call)
			self->at_call(method);
		return self;
	}

	static int on_init(void *obj, const hs_stream_info *info, const spa_dict *config)
	{
		auto *self = begin(obj, "init");
		self->stream = *info;
		self->config.clear();
		const spa_dict_item *item;
		spa_dict_for_each(item, config) self->config.emplace_back(item->key, item->value);
		return self->init_result;
	}

	static void on_deinit(void *obj)
	{
		begin(obj, "deinit");
	}

	static int on_activate(void *obj)
	{
		return begin(obj, "activate")->activate_result;
	}

	static void on_deactivate(void *obj)
	{
		begin(obj, "deactivate");
	}

	static int on_get_setting(void *obj, uint32_t index, spa_pod **result, spa_pod_builder *builder)
	{
		auto *self = static_cast<hs_handmade_plugin *>(obj);
		if (!result && !builder)
			return self->n_settings >= 0 ? self->n_settings
			                             : static_cast<int>(self->settings.size());
		begin(obj, "get_setting");
		return describe(self->settings, index, result, builder);
	}

	static int on_get_event(void *obj, uint32_t index, spa_pod **result, spa_pod_builder *builder)
	{
		auto *self = static_cast<hs_handmade_plugin *>(obj);
		if (!result && !builder) {
			++self->n_event_counts;
			return self->n_events >= 0 ? self->n_events : static_cast<int>(self->events.size());
		}
		begin(obj, "get_event");
		return describe(self->events, index, result, builder);
	}

	static int describe(const std::vector<hs_description> &descriptions, uint32_t index, spa_pod **result,
	                    spa_pod_builder *builder)
	{
		if (index >= descriptions.size())
			return -EINVAL;
		*result = descriptions[index](builder);
		return 1;
	}

	static int on_get_settings(void *obj, spa_pod_builder *builder)
	{
		auto *self = begin(obj, "get_settings");
		if (self->present_settings)
			self->present_settings(builder);
		return self->get_settings_result;
	}

	static int on_set_settings(void *obj, const spa_pod *settings)
	{
		auto *self = begin(obj, "set_settings");
		self->taken.push_back(text_of(settings));
		return self->set_settings_result;
	}

	static void on_process(void *obj, spa_buffer *buffer)
	{
		begin(obj, "process")->heard = buffer;
	}

	static std::string text_of(const spa_pod *settings)
	{
		if (!spa_pod_is_struct(settings))
			return "no Struct";
		std::string text;
		const void *body = SPA_POD_BODY_CONST(settings);
		const auto *member = static_cast<const spa_pod *>(body);
		for (; spa_pod_is_inside(body, SPA_POD_BODY_SIZE(settings), member);
		     member = static_cast<const spa_pod *>(spa_pod_next(member)))
			text += (text.empty() ? "" : " = ") + scalar_text(member);
		return text;
	}

	static std::string scalar_text(const spa_pod *pod)
	{
		const char *text = nullptr;
		bool truth = false;
		int32_t word = 0;
		int64_t number = 0;
		uint32_t id = 0;
		float real = 0;
		if (spa_pod_get_string(pod, &text) == 0)
			return text;
		if (spa_pod_get_bool(pod, &truth) == 0)
			return truth ? "Bool true" : "Bool false";
		if (spa_pod_get_int(pod, &word) == 0)
			return "Int " + std::to_string(word);
		if (spa_pod_get_long(pod, &number) == 0)
			return "Long " + std::to_string(number);
		if (spa_pod_get_id(pod, &id) == 0)
			return "Id " + std::to_string(id);
		if (spa_pod_get_float(pod, &real) == 0)
			return "Float " + std::to_string(real);
		return "type " + std::to_string(pod->type);
	}
};
