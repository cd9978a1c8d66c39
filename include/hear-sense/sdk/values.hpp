/* SPDX-License-Identifier: MIT */
/*
 * What a setting, an event or a member of a structure can be: the types, their PODs, names and texts.
 */
#ifndef HEAR_SENSE_SDK_VALUES_HPP
#define HEAR_SENSE_SDK_VALUES_HPP

#include <algorithm>
#include <cctype>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/utils/type.h>

namespace hear_sense {

/** Numbers as the bus has them: u, i, x, d and d. */
template <typename T>
concept number = std::same_as<T, uint32_t> || std::same_as<T, int32_t> || std::same_as<T, int64_t> ||
	std::same_as<T, float> || std::same_as<T, double>;

/** What a setting, an event or a member of a structure can be. */
template <typename T>
concept scalar = number<T> || std::same_as<T, bool> || std::same_as<T, std::string>;

/** Longest text that a setting or an event can hold, in bytes. */
constexpr size_t max_text = 511;

namespace detail {

/* Constants: GCC 12 breaks down over calls where these stand. */
template <typename T>
constexpr T lowest = std::numeric_limits<T>::lowest();
template <typename T>
constexpr T highest = std::numeric_limits<T>::max();

/*
 * How values look in PODs.
 */

/** A std::string is handed over as a view, so that telling one takes no memory. */
template <scalar T>
using argument = std::conditional_t<std::same_as<T, std::string>, std::string_view, T>;

/** The most bytes that a value takes as a POD. */
template <scalar T>
constexpr size_t room = sizeof(spa_pod) + (std::same_as<T, std::string> ? SPA_ROUND_UP_N(max_text + 1, 8) : 8);

template <scalar T>
void build(spa_pod_builder *builder, const T &value)
{
	if constexpr (std::same_as<T, bool>)
		spa_pod_builder_bool(builder, value);
	else if constexpr (std::same_as<T, uint32_t>)
		spa_pod_builder_id(builder, value);
	else if constexpr (std::same_as<T, int32_t>)
		spa_pod_builder_int(builder, value);
	else if constexpr (std::same_as<T, int64_t>)
		spa_pod_builder_long(builder, value);
	else if constexpr (std::same_as<T, float>)
		spa_pod_builder_float(builder, value);
	else if constexpr (std::same_as<T, double>)
		spa_pod_builder_double(builder, value);
	else
		spa_pod_builder_string(builder, value.c_str());
}

/** Nothing where the POD is of another type. */
template <scalar T>
std::optional<T> read(const spa_pod *pod)
{
	std::conditional_t<std::same_as<T, std::string>, const char *, T> value{};
	int result;
	if constexpr (std::same_as<T, bool>)
		result = spa_pod_get_bool(pod, &value);
	else if constexpr (std::same_as<T, uint32_t>)
		result = spa_pod_get_id(pod, &value);
	else if constexpr (std::same_as<T, int32_t>)
		result = spa_pod_get_int(pod, &value);
	else if constexpr (std::same_as<T, int64_t>)
		result = spa_pod_get_long(pod, &value);
	else if constexpr (std::same_as<T, float>)
		result = spa_pod_get_float(pod, &value);
	else if constexpr (std::same_as<T, double>)
		result = spa_pod_get_double(pod, &value);
	else
		result = spa_pod_get_string(pod, &value);
	return result < 0 ? std::nullopt : std::optional<T>{value};
}

template <number T>
constexpr uint32_t pod_type()
{
	if constexpr (std::same_as<T, uint32_t>)
		return SPA_TYPE_Id;
	else if constexpr (std::same_as<T, int32_t>)
		return SPA_TYPE_Int;
	else if constexpr (std::same_as<T, int64_t>)
		return SPA_TYPE_Long;
	else if constexpr (std::same_as<T, float>)
		return SPA_TYPE_Float;
	else
		return SPA_TYPE_Double;
}

template <scalar T>
bool is_finite(const T &value)
{
	if constexpr (std::floating_point<T>)
		return std::isfinite(value);
	else
		return true;
}

/*
 * Texts and names.
 */

/** Bytes of the UTF-8 character that `text` begins with; 0 where it begins with none that D-Bus takes. */
inline size_t character_size(std::string_view text)
{
	const auto byte = [text](size_t i) {
		return i < text.size() ? static_cast<unsigned char>(text[i]) : uint32_t{0};
	};
	const uint32_t first = byte(0);
	if (first < 0x80)
		return first == 0 ? 0 : 1;
	if (first < 0xc0 || first >= 0xf8)
		return 0;
	const size_t size = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
	uint32_t code = first & (0x7fU >> size);
	for (size_t i = 1; i < size; i++) {
		if ((byte(i) & 0xc0) != 0x80)
			return 0;
		code = code << 6 | (byte(i) & 0x3f);
	}
	const uint32_t smallest = size == 2 ? 0x80 : size == 3 ? 0x800 : 0x10000;
	const bool is_surrogate = code >= 0xd800 && code < 0xe000;
	return code < smallest || code > 0x10ffff || is_surrogate ? 0 : size;
}

inline bool is_text(std::string_view text)
{
	while (!text.empty()) {
		const size_t size = character_size(text);
		if (size == 0)
			return false;
		text.remove_prefix(size);
	}
	return true;
}

/** Makes `to` what an event can hold of `text`; takes no memory where `to` has room for max_text. */
inline void assign_text(std::string &to, std::string_view text)
{
	to.clear();
	/* The daemon takes a value that begins so for an object. */
	if (text.starts_with('{'))
		to.push_back(' ');
	while (!text.empty()) {
		const size_t size = character_size(text);
		if (to.size() + std::max<size_t>(size, 1) > max_text)
			return;
		if (size == 0)
			to.push_back('?');
		else
			to.append(text.substr(0, size));
		text.remove_prefix(std::max<size_t>(size, 1));
	}
}

inline bool is_letter(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

inline bool is_digit(char c)
{
	return c >= '0' && c <= '9';
}

/** A D-Bus member name: letters, digits and "_", no digit first, 255 characters at most. */
inline bool is_name(std::string_view text)
{
	return !text.empty() && text.size() <= 255 && is_letter(text.front()) &&
	       std::all_of(text.begin(), text.end(), [](char c) { return is_letter(c) || is_digit(c); });
}

/** A D-Bus member name for any text: a capital letter first, "_" for what is no letter or digit. */
inline std::string name_for(std::string_view text)
{
	constexpr size_t longest = 200;
	std::string name{text.substr(0, longest)};
	for (char &c : name)
		c = is_letter(c) || is_digit(c) ? c : '_';
	if (name.empty() || is_digit(name.front()))
		name.insert(0, "_");
	name.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(name.front())));
	return name;
}

/** Settings that differ in case only would share their place in the settings file. */
inline bool same_but_for_case(std::string_view a, std::string_view b)
{
	return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
		return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
	});
}

[[noreturn]] inline void refuse(std::string_view title, const char *why)
{
	throw std::invalid_argument("\"" + std::string{title} + "\" " + why);
}

} // namespace detail

} // namespace hear_sense

#endif /* HEAR_SENSE_SDK_VALUES_HPP */
