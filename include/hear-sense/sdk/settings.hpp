/* SPDX-License-Identifier: MIT */
/*
 * Settings: values that clients write and the plug-in reads.
 */
#ifndef HEAR_SENSE_SDK_SETTINGS_HPP
#define HEAR_SENSE_SDK_SETTINGS_HPP

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include <spa/pod/builder.h>

#include <hear-sense/sdk/table.hpp>
#include <hear-sense/sdk/values.hpp>

namespace hear_sense {

/** How a setting is declared. */
template <scalar T>
struct setting_info {
	/** A D-Bus member name, unique among the settings of the plug-in, whatever its case. */
	std::string title;
	std::string description{};
	std::string unit{};
	T initial{};
};

template <number T>
struct setting_info<T> {
	std::string title;
	std::string description{};
	std::string unit{};
	T initial{};
	/** Both are in the range. */
	T minimum = detail::lowest<T>;
	T maximum = detail::highest<T>;
};

/**
 * A setting of type T. What is of another type, outside the range, not finite, or a text that is not UTF-8 or
 * longer than max_text, is refused with -EINVAL.
 */
template <scalar T>
class setting final : public setting_base
{
public:
	setting(table &table, setting_info<T> info)
	    : setting_base{table, std::move(info.title), std::move(info.description), info.unit}
	{
		if constexpr (number<T>) {
			minimum = info.minimum;
			maximum = info.maximum;
		}
		if (!allows(info.initial))
			detail::refuse(title(), "has a default outside its range");
		current = std::move(info.initial);
	}

	const T &value() const
	{
		return current;
	}

	bool allows(const T &value) const
	{
		if constexpr (number<T>)
			return detail::is_finite(value) && value >= minimum && value <= maximum;
		else if constexpr (std::same_as<T, std::string>)
			return value.size() <= max_text && detail::is_text(value);
		else
			return true;
	}

	void build_value(spa_pod_builder *builder) const override
	{
		detail::build(builder, current);
	}

private:
	int take(const spa_pod *value) override
	{
		std::optional<T> wanted = detail::read<T>(value);
		if (!wanted || !allows(*wanted))
			return -EINVAL;
		std::swap(current, *wanted);
		int result = 0;
		try {
			result = owner.setting_changed(*this);
		} catch (...) {
			std::swap(current, *wanted);
			throw;
		}
		if (result < 0)
			std::swap(current, *wanted);
		return result;
	}

	T current{};
	T minimum{};
	T maximum{};
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_SETTINGS_HPP */
