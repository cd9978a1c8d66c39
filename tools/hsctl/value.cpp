#include "value.hpp"

#include <charconv>
#include <cmath>
#include <limits>

#include <fmt/format.h>

#include <strings.h>

#include "failure.hpp"

namespace hs_ctl {

namespace {

/** The daemon keeps no more of a text. */
constexpr size_t max_text_size = 127;

struct named_type {
	const char *signature;
	const char *name;
};

constexpr named_type types[] = {
	{"b", "boolean"}, {"u", "uint32"}, {"i", "int32"},	{"x", "int64"},
	{"d", "double"},  {"s", "string"}, {"a{sv}", "struct"},
};

constexpr const char *true_words[] = {"true", "on", "yes", "1"};
constexpr const char *false_words[] = {"false", "off", "no", "0"};

template <size_t N>
bool is_one_of(const std::string &text, const char *const (&words)[N])
{
	for (const char *word : words) {
		if (strcasecmp(text.c_str(), word) == 0)
			return true;
	}
	return false;
}

[[noreturn]] void refuse(const std::string &text, const std::string &expected)
{
	throw failure(STATUS_USAGE, fmt::format("'{}' is not {}", text, expected));
}

json parse_bool(const std::string &text)
{
	if (is_one_of(text, true_words))
		return true;
	if (is_one_of(text, false_words))
		return false;
	refuse(text, "a boolean: true or false");
}

/** A sign, and digits that may be hexadecimal after "0x". */
template <typename T>
json parse_integer(const std::string &text)
{
	using limits = std::numeric_limits<T>;
	const bool is_negative = text.starts_with('-');
	const char *begin = text.data() + (is_negative || text.starts_with('+') ? 1 : 0);
	const char *end = text.data() + text.size();
	int base = 10;
	if (end - begin > 2 && begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'X')) {
		base = 16;
		begin += 2;
	}
	uint64_t size = 0;
	const auto [stop, error] = std::from_chars(begin, end, size, base);
	const uint64_t most = static_cast<uint64_t>(limits::max());
	const uint64_t least = limits::is_signed ? most + 1 : 0;
	if (error != std::errc() || stop != end || size > (is_negative ? least : most))
		refuse(text, fmt::format("a whole number from {} to {}", limits::min(), limits::max()));
	const uint64_t number = is_negative ? 0 - size : size;
	return static_cast<T>(number);
}

json parse_real(const std::string &text)
{
	double number = 0;
	const char *begin = text.data() + (text.starts_with('+') && !text.starts_with("+-") ? 1 : 0);
	const char *end = text.data() + text.size();
	const auto [stop, error] = std::from_chars(begin, end, number);
	if (error != std::errc() || stop != end || !std::isfinite(number))
		refuse(text, "a finite number");
	return number;
}

bool is_utf8(const std::string &text)
{
	try {
		static_cast<void>(json(text).dump());
		return true;
	} catch (const json::type_error &) {
		return false;
	}
}

json parse_text(const std::string &text)
{
	if (text.size() > max_text_size)
		throw failure(STATUS_USAGE, fmt::format("The text has {} bytes; the daemon keeps {} at most",
							text.size(), max_text_size));
	if (!is_utf8(text))
		throw failure(STATUS_USAGE, "The text is not UTF-8");
	return text;
}

/** What a plug-in says must not steer the terminal. */
std::string printable(std::string text)
{
	for (char &c : text) {
		if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
			c = '?';
	}
	return text;
}

std::string join(const json &content)
{
	std::string text;
	for (const auto &[key, member] : content.items()) {
		if (!text.empty())
			text += ", ";
		if (content.is_object())
			text += printable(key) + ": ";
		text += to_text(member);
	}
	return text;
}

} // namespace

std::string type_name(const std::string &signature)
{
	for (const named_type &type : types) {
		if (signature == type.signature)
			return type.name;
	}
	if (signature.size() == 2 && signature[0] == 'a')
		return "array of " + type_name(signature.substr(1));
	return signature;
}

std::string number_text(double number)
{
	const auto single = static_cast<float>(number);
	if (static_cast<double>(single) == number)
		return fmt::format("{}", single);
	return fmt::format("{}", number);
}

std::string to_text(const json &content)
{
	if (content.is_string())
		return printable(content.get<std::string>());
	if (content.is_number_float())
		return number_text(content.get<double>());
	if (content.is_object())
		return join(content);
	if (content.is_array())
		return "[" + join(content) + "]";
	if (content.is_null())
		return "-";
	return content.dump();
}

json parse_value(const std::string &signature, const std::string &text)
{
	if (signature == "b")
		return parse_bool(text);
	if (signature == "u")
		return parse_integer<uint32_t>(text);
	if (signature == "i")
		return parse_integer<int32_t>(text);
	if (signature == "x")
		return parse_integer<int64_t>(text);
	if (signature == "d")
		return parse_real(text);
	if (signature == "s")
		return parse_text(text);
	throw failure(STATUS_USAGE, fmt::format("A value of type {} cannot be written", type_name(signature)));
}

} // namespace hs_ctl
