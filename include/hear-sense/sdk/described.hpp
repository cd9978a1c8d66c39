/* SPDX-License-Identifier: MIT */
/*
 * A title, a text for people and a value; and many of them ready to be handed over.
 */
#ifndef HEAR_SENSE_SDK_DESCRIBED_HPP
#define HEAR_SENSE_SDK_DESCRIBED_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/utils/type.h>

#include <hear-sense/sdk/values.hpp>

namespace hear_sense {

/** What settings and events have in common. */
class described
{
public:
	described(const described &) = delete;
	described &operator=(const described &) = delete;

	const std::string &title() const
	{
		return own_title;
	}

	/** For people, with the unit. */
	const std::string &description() const
	{
		return own_description;
	}

	/** The description POD with the present value; null where it does not fit the builder. */
	spa_pod *describe(spa_pod_builder *builder) const
	{
		spa_pod_frame object;
		begin_description(builder, &object);
		build_value(builder);
		return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &object));
	}

	/** All before the value, which is built next; `object` is popped after it. */
	void begin_description(spa_pod_builder *builder, spa_pod_frame *object) const
	{
		spa_pod_builder_push_object(builder, object, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(builder, own_title.c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
		spa_pod_builder_string(builder, own_description.c_str());
		spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
	}

	virtual void build_value(spa_pod_builder *builder) const = 0;

protected:
	described(std::string title, std::string description, const std::string &unit)
	    : own_title{std::move(title)}, own_description{std::move(description)}
	{
		if (!detail::is_name(own_title))
			detail::refuse(own_title, "is no title: letters, digits and \"_\", no digit first");
		if (!unit.empty())
			own_description += " (" + unit + ")";
		if (!detail::is_text(own_description))
			detail::refuse(own_title, "has a description that is not UTF-8");
	}
	virtual ~described() = default;

private:
	std::string own_title;
	std::string own_description;
};

namespace detail {

/**
 * The descriptions of all events, kept up to date side by side: the daemon asks for each of them with each buffer,
 * by when most memory of a plug-in has left the cache.
 */
class ready_descriptions
{
public:
	/** One more, whose value takes `room` bytes at most; `event` (borrowed) stays where it is. */
	void add(const described &event, size_t room)
	{
		/* An object, three keys and two texts, each with what rounds it up. */
		const size_t most = 96 + event.title().size() + event.description().size() + room;
		entry added{.event = &event,
			    .first = static_cast<uint32_t>(memory.size()),
			    .room = static_cast<uint32_t>(room)};
		memory.resize(memory.size() + most);
		spa_pod_builder builder = SPA_POD_BUILDER_INIT(&memory[added.first], static_cast<uint32_t>(most));
		spa_pod_frame object;
		event.begin_description(&builder, &object);
		added.value = builder.state.offset;
		event.build_value(&builder);
		added.size = builder.state.offset;
		spa_pod_builder_pop(&builder, &object);
		memory.resize(added.first + added.value + room);
		entries.push_back(added);
	}

	size_t size() const
	{
		return entries.size();
	}

	/** The value of that event, if it is there already, is not the one that is kept. */
	void value_changed(uint32_t index)
	{
		if (index < entries.size())
			entries[index].is_stale = true;
	}

	/** They are asked for soon. */
	void prefetch() const
	{
		prefetch_row(entries);
		prefetch_row(memory);
	}

	/** That of the event of that index; null where it does not fit the builder. */
	spa_pod *describe(uint32_t index, spa_pod_builder *builder)
	{
		entry &asked = entries[index];
		if (asked.is_stale)
			write_value(&asked);
		const uint32_t offset = builder->state.offset;
		if (spa_pod_builder_raw(builder, &memory[asked.first], asked.size) < 0)
			return nullptr;
		return static_cast<spa_pod *>(spa_pod_builder_deref(builder, offset));
	}

private:
	struct entry {
		const described *event;
		/** Where it begins in the memory, and its value in it. */
		uint32_t first;
		uint32_t value = 0;
		uint32_t room;
		uint32_t size = 0;
		bool is_stale = false;
	};

	/** The rest of a long one the processor fetches ahead by itself. */
	template <typename T>
	static void prefetch_row(const std::vector<T> &row)
	{
		constexpr size_t cache_line = 64;
		constexpr size_t most = 4096;
		const auto *first = reinterpret_cast<const std::byte *>(row.data());
		for (size_t at = 0; at < std::min(row.size() * sizeof(T), most); at += cache_line)
			__builtin_prefetch(first + at);
	}

	void write_value(entry *changed)
	{
		std::byte *first = &memory[changed->first];
		spa_pod_builder builder = SPA_POD_BUILDER_INIT(first + changed->value, changed->room);
		changed->event->build_value(&builder);
		changed->size = changed->value + builder.state.offset;
		reinterpret_cast<spa_pod *>(first)->size = changed->size - static_cast<uint32_t>(sizeof(spa_pod));
		changed->is_stale = false;
	}

	std::vector<entry> entries;
	std::vector<std::byte> memory;
};

} // namespace detail

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_DESCRIBED_HPP */
