#include "utf8.hpp"

#include <cstdint>

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";

/** How many bytes a character has that begins like this; 0 for a byte that begins none. */
size_t length_from(unsigned char first)
{
	if (first < 0x80)
		return 1;
	if (first >= 0xc2 && first < 0xe0)
		return 2;
	if (first >= 0xe0 && first < 0xf0)
		return 3;
	if (first >= 0xf0 && first < 0xf5)
		return 4;
	return 0;
}

/** Whether a code point of `length` bytes is neither overlong nor one that the bus refuses. */
bool is_allowed(uint32_t code, size_t length)
{
	constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
	const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
	const bool is_noncharacter = (code >= 0xfdd0 && code <= 0xfdef) || (code & 0xfffe) == 0xfffe;
	return code >= smallest[length] && code <= 0x10ffff && !is_surrogate && !is_noncharacter;
}

/** Bytes of the character that `text`, which is not empty, begins with; 0 where that is none. */
size_t first_character(std::string_view text)
{
	const auto first = static_cast<unsigned char>(text[0]);
	const size_t length = length_from(first);
	if (length <= 1)
		return length;
	if (length > text.size())
		return 0;
	uint32_t code = first & (0x7fu >> length);
	for (const char c : text.substr(1, length - 1)) {
		const auto byte = static_cast<unsigned char>(c);
		if ((byte & 0xc0) != 0x80)
			return 0;
		code = code << 6 | (byte & 0x3fu);
	}
	return is_allowed(code, length) ? length : 0;
}

} // namespace

bool hs_utf8_is_valid(std::string_view text)
{
	while (!text.empty()) {
		const size_t length = first_character(text);
		if (length == 0)
			return false;
		text.remove_prefix(length);
	}
	return true;
}

std::string hs_utf8_repair(std::string_view text)
{
	std::string repaired;
	repaired.reserve(text.size());
	while (!text.empty()) {
		const size_t length = first_character(text);
		repaired += length > 0 ? text.substr(0, length) : replacement;
		text.remove_prefix(length > 0 ? length : 1);
	}
	return repaired;
}
