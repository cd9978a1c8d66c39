/* SPDX-License-Identifier: MIT */
/*
 * What "plugin.config" of a configuration file says, and what is wrong with it. Every plug-in has one:
 *
 *     const char *model = config("model"); // null where there is none
 *     const auto n_bands = config.read_number<uint32_t>("bands", {.otherwise = 8, .minimum = 1, .maximum = 32});
 *     const bool is_fast = config.read_flag("fast", false);
 *     config.refuse_unknown();
 *
 * Failure: std::invalid_argument that names the file and tells what to change, so most simply all is read in the
 * constructor of the plug-in.
 */
#ifndef HEAR_SENSE_SDK_CONFIG_HPP
#define HEAR_SENSE_SDK_CONFIG_HPP

#include <charconv>
#include <concepts>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <spa/utils/dict.h>

#include <hear-sense/sdk/values.hpp>

namespace hear_sense {

/** A number that need not be one of the bus. */
template <typename T>
concept config_number = std::floating_point<T> ||(std::integral<T> && !std::same_as<T, bool>);

template <config_number T>
struct config_range {
	/** Where the file does not say; if that is not in the range, the file has to. */
	T otherwise;
	T minimum = detail::lowest<T>;
	T maximum = detail::highest<T>;
};

class configuration
{
public:
	/** `file` is for messages. */
	explicit configuration(std::string file) : own_file{std::move(file)}
	{
	}

	/** Copies all entries, in place of those before; `from` may be null. */
	void assign(const spa_dict *from)
	{
		values.clear();
		for (uint32_t i = 0; from && i < from->n_items; i++)
			values.emplace(from->items[i].key, value{from->items[i].value ? from->items[i].value : ""});
	}

	/** The text of a key, or null. */
	const char *operator()(std::string_view key) const
	{
		const auto found = values.find(key);
		if (found == values.end())
			return nullptr;
		found->second.is_known = true;
		return found->second.text.c_str();
	}

	std::string read_text(std::string_view key, const std::string &otherwise = {}) const
	{
		const char *text = (*this)(key);
		return text ? text : otherwise;
	}

	/** Refuses what is no number or outside the range. */
	template <config_number T>
	T read_number(std::string_view key, const config_range<T> &range) const
	{
		const char *text = (*this)(key);
		const std::optional<T> number = text ? parse<T>(text) : range.otherwise;
		if (number && *number >= range.minimum && *number <= range.maximum)
			return *number;
		std::string allowed = std::integral<T> ? "a whole number" : "a number";
		if (range.minimum > detail::lowest<T>)
			allowed += " from " + std::to_string(range.minimum);
		if (range.maximum < detail::highest<T>)
			allowed += " to " + std::to_string(range.maximum);
		refuse("set \"" + std::string{key} + "\" to " + allowed);
	}

	/** Refuses what is not true, false, 1 or 0. */
	bool read_flag(std::string_view key, bool otherwise) const
	{
		const char *found = (*this)(key);
		if (!found)
			return otherwise;
		const std::string_view text = found;
		if (text != "true" && text != "1" && text != "false" && text != "0")
			refuse("set \"" + std::string{key} + "\" to true or false");
		return text == "true" || text == "1";
	}

	/** Once all keys that there can be were asked for: refuses any other, which is one with a typing error. */
	void refuse_unknown() const
	{
		for (const auto &[key, one] : values) {
			/* The daemon adds this one itself. */
			if (!one.is_known && key != "preview")
				refuse("take out \"" + key + "\", which is unknown");
		}
	}

	/** Throws; `what_to_change` is told together with the file. */
	[[noreturn]] void refuse(const std::string &what_to_change) const
	{
		throw std::invalid_argument(own_file + ": " + what_to_change);
	}

private:
	struct value {
		std::string text;
		/** Asked for. */
		mutable bool is_known = false;
	};

	/** Nothing where the text is not a number from end to end. */
	template <config_number T>
	static std::optional<T> parse(std::string_view text)
	{
		T number{};
		const char *end = text.data() + text.size();
		const auto [rest, error] = std::from_chars(text.data(), end, number);
		return error == std::errc{} && rest == end ? std::optional{number} : std::nullopt;
	}

	std::string own_file;
	std::map<std::string, value, std::less<>> values;
};

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_CONFIG_HPP */
