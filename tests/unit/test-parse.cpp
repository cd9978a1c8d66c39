#include "parse.hpp"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <malloc.h>

#include "comma-locale.hpp"
#include "log-capture.hpp"
#include "owned.hpp"

namespace {

/** What hs_parse_array gives for all elements of `text`. */
class packed
{
public:
	packed(std::string_view text, const char *complex_type)
		: packed{text, complex_type, hs_parse_array_count(text.data(), text.size())}
	{
	}

	packed(std::string_view text, const char *complex_type, uint32_t count)
	{
		void *out = nullptr;
		hs_parse_array(text.data(), text.size(), count, &out, complex_type, &size);
		elements.reset(out);
	}

	template <typename T>
	std::vector<T> as() const
	{
		const T *begin = static_cast<const T *>(elements.get());
		return {begin, begin + size / sizeof(T)};
	}

	/** The texts, which are freed. */
	std::vector<std::string> take_texts() const
	{
		std::vector<std::string> texts;
		for (uint32_t i = 0; i < size / 1024; i++) {
			const hs_malloc_ptr<char> text{static_cast<char **>(elements.get())[i]};
			texts.emplace_back(text.get());
		}
		return texts;
	}

	hs_malloc_ptr<void> elements;
	uint32_t size = 12345;
};

template <typename T>
using numbers = std::vector<T>;

} // namespace

TEST(ParseNumber, TakesTheWholeRangeOfUint32)
{
	uint32_t value = 7;
	EXPECT_TRUE(hs_parse_uint32("0", &value));
	EXPECT_EQ(value, 0u);
	EXPECT_TRUE(hs_parse_uint32("4294967295", &value));
	EXPECT_EQ(value, 4294967295u);
	EXPECT_FALSE(hs_parse_uint32("4294967296", &value));
	EXPECT_FALSE(hs_parse_uint32("-1", &value));
	EXPECT_FALSE(hs_parse_uint32("99999999999999999999", &value));
}

TEST(ParseNumber, TakesTheWholeRangeOfInt32)
{
	int32_t value = 7;
	EXPECT_TRUE(hs_parse_int32("-2147483648", &value));
	EXPECT_EQ(value, std::numeric_limits<int32_t>::min());
	EXPECT_TRUE(hs_parse_int32("2147483647", &value));
	EXPECT_EQ(value, std::numeric_limits<int32_t>::max());
	EXPECT_FALSE(hs_parse_int32("2147483648", &value));
	EXPECT_FALSE(hs_parse_int32("-2147483649", &value));
	EXPECT_FALSE(hs_parse_int32("9223372036854775808", &value));
}

TEST(ParseNumber, TakesTheWholeRangeOfInt64)
{
	int64_t value = 7;
	EXPECT_TRUE(hs_parse_int64("-9223372036854775808", &value));
	EXPECT_EQ(value, std::numeric_limits<int64_t>::min());
	EXPECT_TRUE(hs_parse_int64("9223372036854775807", &value));
	EXPECT_EQ(value, std::numeric_limits<int64_t>::max());
	EXPECT_FALSE(hs_parse_int64("9223372036854775808", &value));
}

TEST(ParseNumber, TakesHexadecimalAndOctalIntegers)
{
	uint32_t id;
	int32_t word;
	int64_t number;
	EXPECT_TRUE(hs_parse_uint32("0x10", &id));
	EXPECT_EQ(id, 16u);
	EXPECT_TRUE(hs_parse_int32("-010", &word));
	EXPECT_EQ(word, -8);
	EXPECT_TRUE(hs_parse_int64("0xfF", &number));
	EXPECT_EQ(number, 255);
}

TEST(ParseNumber, TakesDecimalFractionsAndExponents)
{
	float single;
	double real;
	EXPECT_TRUE(hs_parse_float("1.5", &single));
	EXPECT_EQ(single, 1.5f);
	EXPECT_TRUE(hs_parse_double("-2.5e3", &real));
	EXPECT_EQ(real, -2500.0);
	EXPECT_TRUE(hs_parse_double("1e300", &real));
	EXPECT_FALSE(hs_parse_float("1e300", &single));
	EXPECT_FALSE(hs_parse_double("1e999", &real));
}

TEST(ParseNumber, ARejectedTextLeavesTheResultUntouched)
{
	for (const char *text :
	     {static_cast<const char *>(nullptr), "", " ", "x", "5 ", "5x", "0x", "--5", "1,5"}) {
		SCOPED_TRACE(text ? text : "null");
		uint32_t id = 7;
		int32_t word = 7;
		int64_t number = 7;
		float single = 7;
		double real = 7;
		EXPECT_FALSE(hs_parse_uint32(text, &id));
		EXPECT_FALSE(hs_parse_int32(text, &word));
		EXPECT_FALSE(hs_parse_int64(text, &number));
		EXPECT_FALSE(hs_parse_float(text, &single));
		EXPECT_FALSE(hs_parse_double(text, &real));
		EXPECT_EQ(id, 7u);
		EXPECT_EQ(word, 7);
		EXPECT_EQ(number, 7);
		EXPECT_EQ(single, 7);
		EXPECT_EQ(real, 7);
	}
}

TEST(ParseNumber, AnErrorOfAnEarlierCallDoesNotCount)
{
	double real;
	int64_t number;
	errno = ERANGE;
	EXPECT_TRUE(hs_parse_int64("5", &number));
	errno = ERANGE;
	EXPECT_TRUE(hs_parse_double("5", &real));
}

TEST(ParseNumber, DecimalsHaveAPointInEveryLocale)
{
	const hs_comma_locale locale;
	ASSERT_TRUE(hs_comma_locale::active());

	float single;
	double real;
	EXPECT_TRUE(hs_parse_float("1.5", &single));
	EXPECT_EQ(single, 1.5f);
	EXPECT_TRUE(hs_parse_double("1.5", &real));
	EXPECT_EQ(real, 1.5);
	EXPECT_FALSE(hs_parse_double("1,5", &real));
	EXPECT_EQ(packed("[ 0.25 ]", "ad").as<double>(), numbers<double>{0.25});
}

TEST(ParseArray, AnElementThatIsNoInt32KeepsItsSlotAndIsWarnedOfOnce)
{
	const hs_log_capture log;
	const packed array{"[1, x, 3]", "ai"};
	EXPECT_EQ(array.size, 12u);
	EXPECT_EQ(array.as<int32_t>(), (numbers<int32_t>{1, 0, 3}));
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to parse 'x' as int32_t"), 1u) << log.text();
	EXPECT_EQ(log.lines().size(), 1u);
}

TEST(ParseArray, AnElementBeyondUint32KeepsItsSlotAndIsWarnedOf)
{
	const hs_log_capture log;
	EXPECT_EQ(packed("[4294967296]", "au").as<uint32_t>(), numbers<uint32_t>{0});
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to parse '4294967296' as uint32_t"), 1u)
		<< log.text();
	EXPECT_EQ(packed("[4294967295]", "au").as<uint32_t>(), numbers<uint32_t>{4294967295u});
	EXPECT_EQ(log.lines().size(), 1u);
}

TEST(ParseArray, AQuotedHexadecimalNumberIsANumber)
{
	const hs_log_capture log;
	EXPECT_EQ(packed("[\"0x10\", 010]", "au").as<uint32_t>(), (numbers<uint32_t>{16, 8}));
	EXPECT_EQ(log.complaints(), 0u) << log.text();
}

TEST(ParseArray, OnlyTrueAndOneAreTrueAndNothingIsWarnedOf)
{
	const hs_log_capture log;
	const packed array{"[true, 1, false, yes]", "ab"};
	EXPECT_EQ(array.size, 4u);
	EXPECT_EQ(array.as<uint8_t>(), (numbers<uint8_t>{1, 1, 0, 0}));
	EXPECT_EQ(log.complaints(), 0u) << log.text();
}

TEST(ParseArray, ABareNumberIsOneElement)
{
	EXPECT_EQ(packed("5", "ai").as<int32_t>(), numbers<int32_t>{5});
}

TEST(ParseArray, ValuesWithoutBracketsAreElements)
{
	EXPECT_EQ(packed("1,2 3", "ai").as<int32_t>(), (numbers<int32_t>{1, 2, 3}));
}

TEST(ParseArray, AnEmptyArrayHasSizeZeroAndABuffer)
{
	for (const char *type : {"ab", "au", "ai", "ax", "ad", "as"}) {
		const packed array{"[]", type};
		EXPECT_EQ(array.size, 0u);
		EXPECT_NE(array.elements, nullptr);
	}
}

TEST(ParseArray, AnotherTypeIsWarnedOfAndLeavesTheBufferUntouched)
{
	for (const char *type :
	     {static_cast<const char *>(nullptr), "", "a", "i", "af", "a{sv}", "(ib)", "aii", "ay"}) {
		SCOPED_TRACE(type ? type : "null");
		const hs_log_capture log;
		int untouched;
		void *out = &untouched;
		uint32_t size = 7;
		hs_parse_array("[1]", 3, 1, &out, type, &size);
		EXPECT_EQ(out, &untouched);
		EXPECT_EQ(size, 0u);
		ASSERT_EQ(log.lines().size(), 1u);
		EXPECT_EQ(log.lines()[0].level, SPA_LOG_LEVEL_WARN);
		EXPECT_EQ(log.lines()[0].text, "Unkown array type.");
	}
}

TEST(ParseArray, Int64AndDoubleElementsAreEightBytes)
{
	const hs_log_capture log;
	const packed longs{"[-9223372036854775808, z]", "ax"};
	EXPECT_EQ(longs.size, 16u);
	EXPECT_EQ(longs.as<int64_t>(), (numbers<int64_t>{std::numeric_limits<int64_t>::min(), 0}));
	const packed doubles{"[1.5, \"1,5\"]", "ad"};
	EXPECT_EQ(doubles.size, 16u);
	EXPECT_EQ(doubles.as<double>(), (numbers<double>{1.5, 0}));
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to parse 'z' as int64_t"), 1u) << log.text();
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to parse '1,5' as double"), 1u) << log.text();
}

TEST(ParseArray, TextElementsAreToldAs1024BytesEach)
{
	const packed array{"[ one, \"two words\", \"\" ]", "as"};
	EXPECT_EQ(array.size, 3u * 1024);
	EXPECT_GE(malloc_usable_size(array.elements.get()), array.size);
	EXPECT_EQ(array.take_texts(), (std::vector<std::string>{"one", "two words", ""}));
}

TEST(ParseArray, EscapesAreDecoded)
{
	const packed array{R"(["\n\r\b\t\f\"\\\/", "\u0041\u00e4\u20ac\ud83c\udfa4"])", "as"};
	EXPECT_EQ(array.take_texts(),
		  (std::vector<std::string>{"\n\r\b\t\f\"\\/", "A\u00e4\u20ac\U0001F3A4"}));
}

TEST(ParseArray, ATokenOf511BytesIsTakenAndALongerOneEndsTheWalk)
{
	const std::string fits(511, 'x');
	EXPECT_EQ(packed("[" + fits + ", after]", "as").take_texts(),
		  (std::vector<std::string>{fits, "after"}));
	EXPECT_EQ(packed("[before, " + fits + "x, after]", "as").take_texts(),
		  std::vector<std::string>{"before"});

	/* The quotes count. */
	const std::string quoted(509, 'x');
	EXPECT_EQ(packed("[\"" + quoted + "\"]", "as").take_texts(), std::vector<std::string>{quoted});
	EXPECT_TRUE(packed("[\"" + quoted + "x\"]", "as").take_texts().empty());
}

TEST(ParseArray, ATokenThatCannotBeDecodedEndsTheWalk)
{
	EXPECT_EQ(packed("[1, \"\xff\", 3]", "ai").as<int32_t>(), numbers<int32_t>{1});
	EXPECT_EQ(packed("[1, \"\\x\", 3]", "ai").as<int32_t>(), numbers<int32_t>{1});
}

TEST(ParseArray, TheLengthBoundsATextWithoutTerminator)
{
	EXPECT_EQ(packed(std::string_view{"[1, 2]garbage", 6}, "ai").as<int32_t>(), (numbers<int32_t>{1, 2}));
	EXPECT_EQ(packed(std::string_view{"12345", 3}, "ai").as<int32_t>(), numbers<int32_t>{123});

	/* A copy of its very size, so that a read past the end does not go unseen. */
	for (const std::string_view text :
	     {"[\"abc\\", "[\"a\\u12", "[\"\\ud83c\\u", "[1, 2", "[", "\"", "[[", "{a"}) {
		const std::vector<char> exact{text.begin(), text.end()};
		packed({exact.data(), exact.size()}, "as").take_texts();
	}
}

TEST(ParseArray, NoTextHasNoElements)
{
	EXPECT_EQ(hs_parse_array_count(nullptr, 0), 0u);
	EXPECT_EQ(packed("", "ai").size, 0u);
	/* What an array event without elements is stored as. */
	EXPECT_EQ(packed(" ]", "ai").size, 0u);
}

TEST(ParseArray, TakesNoMoreElementsThanAskedFor)
{
	EXPECT_EQ(packed("[1, 2, 3]", "ai", 2).as<int32_t>(), (numbers<int32_t>{1, 2}));
	EXPECT_EQ(packed("[a, b]", "as", 1).take_texts(), std::vector<std::string>{"a"});
}

TEST(ParseArray, FewerElementsThanAskedForGiveTheirOwnSize)
{
	EXPECT_EQ(packed("[1, 2]", "ai", 5).as<int32_t>(), (numbers<int32_t>{1, 2}));
}

TEST(ParseArray, TheOpeningOfANestedArrayCountsAsAnElement)
{
	EXPECT_EQ(packed("[ [1,2], 3 ]", "as").take_texts(), (std::vector<std::string>{"[", "3"}));
}
