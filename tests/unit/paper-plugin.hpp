/*
 * A plug-in without a library, and sources on it without audio: the records that the daemon would have made,
 * in the context's lists and destroyed with them. The object must outlive the context.
 *
 *	hs_paper_plugin plugin{context, "Ear"};
 *	plugin.add_event({.title = "Noise", .is_public = true});
 *	hs_source *source = plugin.add_source("AudioDevice0Input0.Unprocessed");
 */
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/parser.h>

#include <hear-sense/plugin.h>

#include "context.hpp"
#include "dbus.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "props.hpp"
#include "source-name.hpp"
#include "source.hpp"

struct hs_paper_setting {
	std::string title;
	std::string type = "boolean";
	std::string value = "false";
	/** "" for none. */
	std::string complex_type = "";
};

struct hs_paper_event {
	std::string title;
	std::string type = "boolean";
	std::string value = "false";
	/** "" for none. */
	std::string complex_type = "";
	bool is_public = false;
	/** Of the plug-in's own description: a structure of these booleans, or a boolean where it is empty. */
	std::vector<std::string> members = {};
};

class hs_paper_plugin
{
public:
	hs_paper_plugin(hs_context *context, std::string plugin_name) : name{std::move(plugin_name)}
	{
		methods.get_event = on_get_event;
		methods.get_settings = on_get_settings;
		methods.set_settings = on_set_settings;
		interface.version = HS_PLUGIN_INTERFACE_VERSION;
		interface.funcs = &methods;
		interface.data = this;
		interface.name = name.c_str();
		interface.interface_name = name.c_str();

		plugin = new hs_plugin{};
		std::snprintf(plugin->name, sizeof(plugin->name), "%s", name.c_str());
		plugin->context = context;
		plugin->schema_path = "/schemas";
		spa_list_init(&plugin->sources);
		spa_list_append(&context->plugins, &plugin->link);
	}

	hs_paper_plugin(const hs_paper_plugin &) = delete;
	hs_paper_plugin &operator=(const hs_paper_plugin &) = delete;

	void add_setting(hs_paper_setting setting)
	{
		settings.push_back(std::move(setting));
	}

	/** The record that describes the event, for a test to fill further. */
	hs_event_info &add_event(hs_paper_event event)
	{
		events.push_back(std::move(event));
		hs_event_info &info = infos.emplace_back();
		info.name = events.back().title.c_str();
		info.is_public = events.back().is_public;
		info_pointers.push_back(&info);
		interface.events = info_pointers.data();
		interface.n_events = info_pointers.size();
		return info;
	}

	/** A source with the settings and events added so far, not published yet. */
	hs_source *add_source(const std::string &node_name)
	{
		auto *source = new hs_source{};
		spa_list_init(&source->dbus_objects);
		source->name = node_name;
		source->plugin = plugin;
		source->interface = &interface;
		add_tables(source);
		add_names(source);
		spa_list_append(&plugin->sources, &source->link);
		return source;
	}

	hs_plugin *record() const
	{
		return plugin;
	}

	std::string name;
	hs_plugin_interface interface{};
	/** Each set_settings so far, as "NAME=VALUE"; "NAME" without a value. */
	std::vector<std::string> told;
	/** What set_settings answers. */
	int answer = 0;
	/** What get_settings tells; negative for nothing. */
	int64_t transient_count = -1;

private:
	static const char *or_null(const std::string &text)
	{
		return text.empty() ? nullptr : text.c_str();
	}

	void add_tables(hs_source *source)
	{
		source->settings = pw_properties_new(nullptr, nullptr);
		for (const hs_paper_setting &s : settings)
			hs_props_add_object(source->settings, {{"title", or_null(s.title)},
							       {"type", or_null(s.type)},
							       {"complexType", or_null(s.complex_type)},
							       {"value", s.value.c_str()}});
		for (const hs_paper_event &e : events) {
			const auto index = static_cast<uint32_t>(source->events.size());
			source->events.push_back(
				{index, {}, e.title, hs_schema_type_by_name(e.type.c_str()), e.complex_type, e.value});
			source->event_interfaces.push_back(std::string{HS_DBUS_EVENTS_PREFIX} + name + "." + e.title);
			source->event_public.push_back(e.is_public);
			source->event_published.push_back(false);
		}
	}

	void add_names(hs_source *source)
	{
		const std::string root = HS_DBUS_ROOT_PATH;
		source->settings_interface = HS_DBUS_SETTINGS_PREFIX + name;
		source->node_path = root + "/" + hs_source_name_to_path(source->name);
		source->object_path = source->node_path + "/" + name;
		source->device_name = hs_source_name_to_device(source->name);
		source->device_path = root + "/" + source->device_name;
	}

	int get_event(uint32_t index, spa_pod **result, spa_pod_builder *builder) const
	{
		if (!result)
			return static_cast<int>(events.size());
		if (index >= events.size())
			return -EINVAL;
		const hs_paper_event &event = events[index];
		spa_pod_frame object;
		spa_pod_builder_push_object(builder, &object, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(builder, event.title.c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
		if (event.members.empty()) {
			spa_pod_builder_bool(builder, true);
		} else {
			spa_pod_frame members;
			spa_pod_builder_push_struct(builder, &members);
			for (const std::string &member : event.members) {
				spa_pod_builder_string(builder, member.c_str());
				spa_pod_builder_bool(builder, true);
			}
			spa_pod_builder_pop(builder, &members);
		}
		*result = static_cast<spa_pod *>(spa_pod_builder_pop(builder, &object));
		return 0;
	}

	int get_settings(spa_pod_builder *builder) const
	{
		if (transient_count < 0)
			return -EOPNOTSUPP;
		spa_pod_builder_add_struct(builder, SPA_POD_String("IndicateTransientAudioDisturbance"),
					   SPA_POD_Long(transient_count));
		return 0;
	}

	int set_settings(const spa_pod *pod)
	{
		spa_pod_parser parser;
		spa_pod_frame frame;
		spa_pod_parser_pod(&parser, pod);
		spa_pod_parser_push_struct(&parser, &frame);
		const char *title = nullptr;
		bool b = false;
		int64_t x = 0;
		spa_pod_parser_get_string(&parser, &title);
		std::string text = title ? title : "(no name)";
		if (spa_pod_parser_get_bool(&parser, &b) == 0)
			text += b ? "=true" : "=false";
		else if (spa_pod_parser_get_long(&parser, &x) == 0)
			text += "=" + std::to_string(x);
		told.push_back(text);
		return answer;
	}

	static int on_get_event(void *data, uint32_t index, spa_pod **result, spa_pod_builder *builder)
	{
		return static_cast<const hs_paper_plugin *>(data)->get_event(index, result, builder);
	}

	static int on_get_settings(void *data, spa_pod_builder *builder)
	{
		return static_cast<const hs_paper_plugin *>(data)->get_settings(builder);
	}

	static int on_set_settings(void *data, const spa_pod *settings)
	{
		return static_cast<hs_paper_plugin *>(data)->set_settings(settings);
	}

	hs_plugin_methods methods{};
	std::deque<hs_paper_setting> settings;
	std::deque<hs_paper_event> events;
	std::deque<hs_event_info> infos;
	std::vector<const hs_event_info *> info_pointers;
	/** Owned by the context. */
	hs_plugin *plugin;
};
