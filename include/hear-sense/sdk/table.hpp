/* SPDX-License-Identifier: MIT */
/*
 * All settings and events of one plug-in, and what they have in common.
 *
 * Each is an object with a description and a value. It is made with the table that it belongs to (the plug-in
 * itself), most simply as a member of the plug-in, and stands in that table from then on, in the order of
 * making. Those that are known at run time only live in a container whose elements keep their place, such as
 * a std::deque. They must live as long as the plug-in.
 *
 * Failure: constructors throw std::invalid_argument for what no client could read (a title that is no D-Bus
 * member name or is taken, a default outside its range); the plug-in is then not loaded, and the log says why.
 *
 * Memory is taken by constructors, and by settings that are texts; never by telling an event.
 */
#ifndef HEAR_SENSE_SDK_TABLE_HPP
#define HEAR_SENSE_SDK_TABLE_HPP

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <spa/pod/builder.h>
#include <spa/pod/parser.h>
#include <spa/utils/type.h>

#include <hear-sense/plugin.h>
#include <hear-sense/sdk/described.hpp>
#include <hear-sense/sdk/values.hpp>

namespace hear_sense {

class table;

/** A setting of any type. */
class setting_base : public described
{
protected:
	setting_base(table &owner, std::string title, std::string description, const std::string &unit);
	~setting_base() override = default;

	table &owner;

private:
	friend class table;
	/** Takes over a value that somebody wrote: 0, or a negative errno and nothing has changed. */
	virtual int take(const spa_pod *value) = 0;
};

struct topic {
	std::string name;
	/** For people. */
	std::string nice_name{};
	/** Where `name` comes from, as a reversed domain: "com.example". */
	std::string name_space{};
};

/** How an event is declared; the value's type and first value are the event's own. */
struct event_info {
	/** A D-Bus member name, unique among the events of the plug-in. */
	std::string title;
	/** For people; the title where empty. */
	std::string nice_name{};
	std::string description{};
	std::string unit{};
	/** Told on the main bus, to everyone; else on private buses only. */
	bool is_public = true;
	/** A state, rather than a moment. */
	bool is_property_state = false;
	bool is_deprecated = false;
	bool is_application_data = false;
	/** HS_EVENT_DATA_STATS, HS_EVENT_DATA_EVENT or both. */
	uint32_t data_types = HS_EVENT_DATA_STATS;
	/** The daemon publishes the first three. Where empty, those of the plug-in. */
	std::vector<topic> topics{};
};

/** An event of any type. */
class event_base : public described
{
public:
	/** Its place in the table. */
	uint32_t index() const
	{
		return own_index;
	}

	/** Tells the daemon that there is a new value, which it fetches before this returns. */
	void notify() const;

protected:
	event_base(table &owner, event_info info);
	~event_base() override = default;

	/** For all that writes the value: it is described anew when the daemon asks. */
	void value_changed() const;
	/** For what the value is made of: its place is measured when the plug-in is constructed. */
	void check_open(std::string_view part) const;

private:
	friend class table;
	/** Back to the value that it was declared with. */
	virtual void reset() = 0;
	/** The most bytes that the value takes as a POD. */
	virtual size_t room() const = 0;
	virtual bool has_value() const
	{
		return true;
	}

	table &owner;
	uint32_t own_index = 0;
	event_info texts;
	std::vector<hs_event_topic> topics;
	std::vector<const hs_event_topic *> topic_pointers;
	hs_event_info record{};
};

/** All settings and events of one plug-in, each in the order of making. */
class table
{
public:
	table(const table &) = delete;
	table &operator=(const table &) = delete;

	std::span<setting_base *const> settings() const
	{
		return all_settings;
	}
	std::span<event_base *const> events() const
	{
		return all_events;
	}

protected:
	/** `topics` (borrowed) are those of all events that have none of their own. */
	explicit table(const std::vector<topic> &topics) : common_topics{topics}
	{
	}
	virtual ~table() = default;

	/**
	 * A title for a setting whose name is not known before, such as "3d-effect": "_3d_effect", or one with more "_"
	 * at its end where that is taken.
	 */
	std::string free_setting_title(std::string_view name) const
	{
		std::string title = detail::name_for(name);
		while (is_daemons_setting(title) || has_setting(title))
			title.push_back('_');
		return title;
	}

	/** The same for an event. */
	std::string free_event_title(std::string_view name) const
	{
		std::string title = detail::name_for(name);
		while (is_daemons_property(title) || has_event(title))
			title.push_back('_');
		return title;
	}

	/** Builds a Struct of names and present values; null where it does not fit the builder. */
	spa_pod *build_settings(spa_pod_builder *builder) const
	{
		spa_pod_frame members;
		spa_pod_builder_push_struct(builder, &members);
		for (const setting_base *setting : all_settings) {
			spa_pod_builder_string(builder, setting->title().c_str());
			setting->build_value(builder);
		}
		return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &members));
	}

	size_t n_events() const
	{
		return descriptions.size();
	}

	/** The description of the event of that index; null where it does not fit the builder. */
	spa_pod *describe_event(uint32_t index, spa_pod_builder *builder)
	{
		return descriptions.describe(index, builder);
	}

	void prefetch_events() const
	{
		descriptions.prefetch();
	}

	/** Takes a Struct of a name and a value: 0, or a negative errno and nothing has changed. */
	int take_setting(const spa_pod *pod)
	{
		if (!pod)
			return -EINVAL;
		spa_pod_parser parser;
		spa_pod_frame members;
		const char *name = nullptr;
		spa_pod *value = nullptr;
		spa_pod_parser_pod(&parser, pod);
		if (spa_pod_parser_push_struct(&parser, &members) < 0 ||
		    spa_pod_parser_get_string(&parser, &name) < 0 || spa_pod_parser_get_pod(&parser, &value) < 0 ||
		    spa_pod_parser_current(&parser))
			return -EINVAL;
		for (setting_base *setting : all_settings) {
			if (setting->title() == name)
				return setting->take(value);
		}
		/* Told to every plug-in: the daemon goes no further once one has refused. */
		if (name == std::string_view{"IndicateInternalSpeakerActive"} ||
		    name == std::string_view{"IndicateContinuousAudioDisturbance"}) {
			const std::optional<bool> state = detail::read<bool>(value);
			if (!state)
				return -EINVAL;
			indicated(name, *state);
			return 0;
		}
		return -EINVAL;
	}

	void reset_events()
	{
		for (event_base *event : all_events)
			event->reset();
	}

	/** From here on the table stays as it is, and `interface` tells what it holds. */
	void publish(hs_plugin_interface &interface)
	{
		for (const event_base *event : all_events) {
			if (!event->has_value())
				detail::refuse(event->title(), "is a structure without members");
			records.push_back(&event->record);
			descriptions.add(*event, event->room());
		}
		interface.events = records.data();
		interface.n_events = records.size();
		listener = &interface;
	}

private:
	friend class setting_base;
	friend class event_base;
	template <scalar T>
	friend class setting;

	/** Hears that `changed` has a new value; negative, or an exception, to refuse it: the old value returns. */
	virtual int setting_changed(const setting_base &changed)
	{
		static_cast<void>(changed);
		return 0;
	}

	/** Hears what the device says of itself: "IndicateInternalSpeakerActive", for instance. */
	virtual void indicated(std::string_view name, bool state)
	{
		static_cast<void>(name);
		static_cast<void>(state);
	}

	/** The daemon keeps these beside the settings of the plug-in. */
	static bool is_daemons_setting(std::string_view title)
	{
		constexpr std::string_view all[] = {"enable", "enableevent", "path", "schema"};
		return std::any_of(std::begin(all), std::end(all),
				   [&](std::string_view own) { return detail::same_but_for_case(title, own); });
	}

	bool has_setting(std::string_view title) const
	{
		return std::any_of(all_settings.begin(), all_settings.end(), [&](const setting_base *other) {
			return detail::same_but_for_case(title, other->title());
		});
	}

	/** The daemon has properties of these names beside the value. */
	static bool is_daemons_property(std::string_view title)
	{
		constexpr std::string_view all[] = {
			"DataTypes",	  "EnableEvent",     "EventName",	"NiceName",	  "Source",
			"Topic0Name",	  "Topic0Namespace", "Topic0NiceName",	"Topic1Name",	  "Topic1Namespace",
			"Topic1NiceName", "Topic2Name",	     "Topic2Namespace", "Topic2NiceName", "isApplicationData",
			"isDeprecated",	  "isPropertyState"};
		return std::find(std::begin(all), std::end(all), title) != std::end(all);
	}

	bool has_event(std::string_view title) const
	{
		return std::any_of(all_events.begin(), all_events.end(),
				   [&](const event_base *other) { return title == other->title(); });
	}

	void check_open(std::string_view title) const
	{
		if (listener)
			detail::refuse(title, "comes too late: the plug-in is constructed already");
	}

	void add(setting_base *setting)
	{
		const std::string &title = setting->title();
		check_open(title);
		if (is_daemons_setting(title))
			detail::refuse(title, "is a setting of the daemon's own");
		if (has_setting(title))
			detail::refuse(title, "is the title of another setting, but for case");
		all_settings.push_back(setting);
	}

	uint32_t add(event_base *event)
	{
		check_open(event->title());
		if (is_daemons_property(event->title()))
			detail::refuse(event->title(), "is a property of the daemon's own");
		if (has_event(event->title()))
			detail::refuse(event->title(), "is the title of another event");
		all_events.push_back(event);
		return static_cast<uint32_t>(all_events.size() - 1);
	}

	/* Needed for each buffer, so first. */
	detail::ready_descriptions descriptions;
	/** Belongs to the handle; null until the plug-in is constructed. */
	hs_plugin_interface *listener = nullptr;
	std::vector<event_base *> all_events;
	std::vector<setting_base *> all_settings;
	std::vector<const hs_event_info *> records;
	const std::vector<topic> &common_topics;
};

inline setting_base::setting_base(table &table, std::string title, std::string description, const std::string &unit)
    : described{std::move(title), std::move(description), unit}, owner{table}
{
	owner.add(this);
}

inline event_base::event_base(table &table, event_info info)
    : described{info.title, info.description, info.unit}, owner{table}, texts{std::move(info)}
{
	if (texts.nice_name.empty())
		texts.nice_name = texts.title;
	if (texts.topics.empty())
		texts.topics = owner.common_topics;
	topics.reserve(texts.topics.size());
	for (const topic &topic : texts.topics) {
		topics.push_back({topic.name.c_str(), topic.nice_name.c_str(), topic.name_space.c_str()});
		topic_pointers.push_back(&topics.back());
	}
	record.name = title().c_str();
	record.nice_name = texts.nice_name.c_str();
	record.isDeprecated = texts.is_deprecated;
	record.isApplicationData = texts.is_application_data;
	record.isPropertyState = texts.is_property_state;
	record.topics = topic_pointers.data();
	record.n_topics = topic_pointers.size();
	record.is_public = texts.is_public;
	record.data_types = texts.data_types;
	own_index = owner.add(this);
}

inline void event_base::value_changed() const
{
	owner.descriptions.value_changed(own_index);
}

inline void event_base::check_open(std::string_view part) const
{
	owner.check_open(part);
}

inline void event_base::notify() const
{
	if (owner.listener && owner.listener->notify_event)
		owner.listener->notify_event(owner.listener, own_index);
}

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_TABLE_HPP */
