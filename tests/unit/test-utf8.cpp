#include "utf8.hpp"

#include <gtest/gtest.h>

using namespace std::string_view_literals;

namespace {

constexpr std::string_view taken[] = {
	""sv,
	"plain"sv,
	"K\xc3\xbc"
	"che"sv,
	"\xe2\x82\xac"sv,
	"\xf0\x9f\x8e\xa4"sv,
	"\xc2\x80"sv,
	"\xe0\xa0\x80"sv,
	"\xf0\x90\x80\x80"sv,
	"\xed\x9f\xbf"sv,
	"\xee\x80\x80"sv,
	"\xf4\x8f\xbf\xbd"sv,
};

/** Each is one byte sequence that is no character, and how many bytes it has. */
constexpr std::string_view refused[] = {
	"\xff"sv,	      /* no byte of UTF-8 */
	"\x80"sv,	      /* continues nothing */
	"\xc3"sv,	      /* cut */
	"\xe2\x82"sv,	      /* cut */
	"\xc0\xaf"sv,	      /* overlong */
	"\xe0\x80\xaf"sv,     /* overlong */
	"\xe0\x9f\xbf"sv,     /* overlong */
	"\xf0\x80\x80\xaf"sv, /* overlong */
	"\xf0\x8f\xbf\xbd"sv, /* overlong */
	"\xed\xa0\x80"sv,     /* surrogate */
	"\xed\xbf\xbf"sv,     /* surrogate */
	"\xef\xb7\x90"sv,     /* noncharacter */
	"\xef\xbf\xbf"sv,     /* noncharacter */
	"\xf0\x9f\xbf\xbe"sv, /* noncharacter of a higher plane */
	"\xf4\x90\x80\x80"sv, /* past the last code point */
	"\xf5\x80\x80\x80"sv, /* past the last code point */
};

std::string repeated(size_t n)
{
	std::string text;
	while (n-- > 0)
		text += "\xef\xbf\xbd";
	return text;
}

} // namespace

TEST(Utf8, CharactersOfEveryLengthAreTaken)
{
	for (const std::string_view text : taken) {
		EXPECT_TRUE(hs_utf8_is_valid(text)) << text;
		EXPECT_EQ(hs_utf8_repair(text), text);
	}
}

TEST(Utf8, WhatTheBusRefusesIsRefused)
{
	for (const std::string_view text : refused) {
		EXPECT_FALSE(hs_utf8_is_valid(text)) << testing::PrintToString(std::string(text));
		EXPECT_FALSE(hs_utf8_is_valid(std::string("before ") + std::string(text) + " after"));
	}
}

TEST(Utf8, EveryByteThatIsNoCharacterIsReplacedAndTheRestIsKept)
{
	for (const std::string_view text : refused) {
		const std::string broken = "a" + std::string(text) + "b";
		EXPECT_EQ(hs_utf8_repair(broken), "a" + repeated(text.size()) + "b")
			<< testing::PrintToString(std::string(text));
		EXPECT_TRUE(hs_utf8_is_valid(hs_utf8_repair(broken)));
	}
}
