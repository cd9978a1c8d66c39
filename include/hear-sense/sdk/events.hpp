/* SPDX-License-Identifier: MIT */
/*
 * Events: values that the plug-in writes and clients read.
 */
#ifndef HEAR_SENSE_SDK_EVENTS_HPP
#define HEAR_SENSE_SDK_EVENTS_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <spa/pod/builder.h>

#include <hear-sense/sdk/table.hpp>
#include <hear-sense/sdk/values.hpp>

namespace hear_sense {

namespace detail {

/** The value of an event or of a member of one. */
template <scalar T>
class cell
{
public:
	explicit cell(argument<T> value)
	{
		if constexpr (std::same_as<T, std::string>) {
			current.reserve(max_text);
			spare.reserve(max_text);
		}
		set(value);
		initial = current;
	}

	/** Whether the value has changed; a number that is not finite is not stored. */
	bool set(argument<T> value)
	{
		if constexpr (std::same_as<T, std::string>) {
			assign_text(spare, value);
			if (spare == current)
				return false;
			std::swap(spare, current);
		} else {
			if (!is_finite(value) || value == current)
				return false;
			current = value;
		}
		return true;
	}

	void reset()
	{
		/* Within what both have reserved. */
		current = initial;
	}

	T current{};

private:
	T initial{};
	T spare{};
};

} // namespace detail

/** An event whose value is one T. */
template <scalar T>
class event final : public event_base
{
public:
	/** `initial` is what it tells whenever there is no audio. */
	event(table &table, event_info info, detail::argument<T> initial = {})
	    : event_base{table, std::move(info)}, own{initial}
	{
	}

	const T &value() const
	{
		return own.current;
	}

	/**
	 * Whether the value has changed. A number that is not finite is not stored. A text is cut to max_text,
	 * what is not UTF-8 in it becomes "?", and one that begins with "{" gets a blank before it.
	 */
	bool set(detail::argument<T> value)
	{
		const bool is_changed = own.set(value);
		if (is_changed)
			value_changed();
		return is_changed;
	}

	/** Sets it, and notifies where it has changed. */
	void tell(detail::argument<T> value)
	{
		if (set(value))
			notify();
	}

	void build_value(spa_pod_builder *builder) const override
	{
		detail::build(builder, own.current);
	}

private:
	void reset() override
	{
		own.reset();
		value_changed();
	}

	size_t room() const override
	{
		return detail::room<T>;
	}

	detail::cell<T> own;
};

/**
 * An event whose value is a fixed number of numbers. The daemon publishes about 900 characters of it: some 60
 * real numbers.
 */
template <number T>
class array_event final : public event_base
{
public:
	/** `size` is 1 at least. */
	array_event(table &table, event_info info, size_t size, T initial = {})
	    : event_base{table, std::move(info)}, first{initial}, elements(size, initial)
	{
		if (size == 0)
			detail::refuse(title(), "is an array without elements");
	}

	std::span<const T> values() const
	{
		return elements;
	}

	/** Whether it has changed. Elements beyond the size are left out; numbers that are not finite not stored. */
	bool set(std::span<const T> values)
	{
		bool is_changed = false;
		for (size_t i = 0; i < std::min(values.size(), elements.size()); i++) {
			if (!detail::is_finite(values[i]) || values[i] == elements[i])
				continue;
			elements[i] = values[i];
			is_changed = true;
		}
		if (is_changed)
			value_changed();
		return is_changed;
	}

	/** Sets it, and notifies where it has changed. */
	void tell(std::span<const T> values)
	{
		if (set(values))
			notify();
	}

	void build_value(spa_pod_builder *builder) const override
	{
		spa_pod_builder_array(builder, sizeof(T), detail::pod_type<T>(), static_cast<uint32_t>(elements.size()),
				      elements.data());
	}

private:
	void reset() override
	{
		std::fill(elements.begin(), elements.end(), first);
		value_changed();
	}

	size_t room() const override
	{
		return sizeof(spa_pod_array) + SPA_ROUND_UP_N(elements.size() * sizeof(T), 8);
	}

	T first;
	std::vector<T> elements;
};

class struct_event;

/** A member of any type. */
class member_base
{
public:
	member_base(const member_base &) = delete;
	member_base &operator=(const member_base &) = delete;

protected:
	member_base(struct_event &event, std::string name);
	virtual ~member_base() = default;

	void value_changed() const;

private:
	friend class struct_event;
	virtual void build_value(spa_pod_builder *builder) const = 0;
	virtual void reset() = 0;
	/** The most bytes that the value takes as a POD. */
	virtual size_t room() const = 0;

	const struct_event &owner;
	std::string own_name;
};

/** An event whose value is a structure; its members are objects of their own, made after it. */
class struct_event : public event_base
{
public:
	struct_event(table &table, event_info info) : event_base{table, std::move(info)}
	{
	}

	void build_value(spa_pod_builder *builder) const override
	{
		spa_pod_frame frame;
		spa_pod_builder_push_struct(builder, &frame);
		for (const member_base *member : members) {
			spa_pod_builder_string_len(builder, member->own_name.c_str(),
						   static_cast<uint32_t>(member->own_name.size()));
			member->build_value(builder);
		}
		spa_pod_builder_pop(builder, &frame);
	}

private:
	friend class member_base;

	void add(member_base *member)
	{
		check_open(member->own_name);
		if (!detail::is_name(member->own_name))
			detail::refuse(title(), "has a member whose name is not made of letters, digits and \"_\"");
		for (const member_base *other : members) {
			if (other->own_name == member->own_name)
				detail::refuse(title(), "has two members of one name");
		}
		members.push_back(member);
	}

	void reset() override
	{
		for (member_base *member : members)
			member->reset();
		value_changed();
	}

	size_t room() const override
	{
		size_t all = sizeof(spa_pod);
		for (const member_base *member : members)
			all += sizeof(spa_pod) + SPA_ROUND_UP_N(member->own_name.size() + 1, 8) + member->room();
		return all;
	}

	bool has_value() const override
	{
		return !members.empty();
	}

	std::vector<member_base *> members;
};

inline member_base::member_base(struct_event &event, std::string name) : owner{event}, own_name{std::move(name)}
{
	event.add(this);
}

inline void member_base::value_changed() const
{
	owner.value_changed();
}

/** One member of a structure. */
template <scalar T>
class member final : public member_base
{
public:
	/** Letters, digits and "_"; unique in its structure. */
	member(struct_event &event, std::string name, detail::argument<T> initial = {})
	    : member_base{event, std::move(name)}, own{fit(initial)}
	{
	}

	const T &value() const
	{
		return own.current;
	}

	/** As event::set; and a text that is empty becomes "-", for clients cannot read an empty member. */
	bool set(detail::argument<T> value)
	{
		const bool is_changed = own.set(fit(value));
		if (is_changed)
			value_changed();
		return is_changed;
	}

private:
	static detail::argument<T> fit(detail::argument<T> value)
	{
		if constexpr (std::same_as<T, std::string>)
			return value.empty() ? std::string_view{"-"} : value;
		else
			return value;
	}

	void build_value(spa_pod_builder *builder) const override
	{
		detail::build(builder, own.current);
	}

	void reset() override
	{
		own.reset();
	}

	size_t room() const override
	{
		return detail::room<T>;
	}

	detail::cell<T> own;
};

/** The structure of a detection: Detected, and Report, which says that the change is worth telling. */
class detection final : public struct_event
{
public:
	detection(table &table, event_info info) : struct_event{table, std::move(info)}
	{
	}

	bool is_detected() const
	{
		return detected.value();
	}

	/** Notifies where it has changed. Every detection is worth a report. */
	void tell(bool is_detected_now)
	{
		report.set(is_detected_now);
		if (detected.set(is_detected_now))
			notify();
	}

private:
	member<bool> detected{*this, "Detected"};
	member<bool> report{*this, "Report"};
};

/**
 * The structure of what happens again and again: Count, for no two to be equal, so that each one is published, and
 * Time, in seconds since the audio began. Other members come after these.
 */
class occurrences : public struct_event
{
public:
	occurrences(table &table, event_info info) : struct_event{table, std::move(info)}
	{
	}

	/** Notifies of one more; its other members are set before. */
	void tell(double seconds)
	{
		count.set(count.value() + 1);
		last.set(seconds);
		notify();
	}

private:
	member<uint32_t> count{*this, "Count"};
	member<double> last{*this, "Time"};
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_EVENTS_HPP */
