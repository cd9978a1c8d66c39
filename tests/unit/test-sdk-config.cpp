/*
 * What the layer for plug-ins reads of a configuration, and what it refuses.
 */
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <hear-sense/sdk/config.hpp>

#include "comma-locale.hpp"

namespace {

using hear_sense::configuration;

configuration make_config(const std::vector<spa_dict_item> &items)
{
	configuration made{"tried.conf"};
	const spa_dict dict = SPA_DICT_INIT(items.data(), static_cast<uint32_t>(items.size()));
	made.assign(&dict);
	return made;
}

/** What std::invalid_argument tells that `function` throws. */
template <typename Function>
std::string refusal(const Function &function)
{
	try {
		function();
	} catch (const std::invalid_argument &error) {
		return error.what();
	}
	return "nothing was refused";
}

TEST(Config, IsTheTextsOfItsKeys)
{
	configuration config = make_config({{"model", "a b"}, {"empty", ""}, {"null", nullptr}});
	EXPECT_STREQ(config("model"), "a b");
	EXPECT_STREQ(config("empty"), "");
	EXPECT_STREQ(config("null"), "");
	EXPECT_EQ(config("other"), nullptr);
	EXPECT_EQ(config.read_text("model", "none"), "a b");
	EXPECT_EQ(config.read_text("other", "none"), "none");
	EXPECT_EQ(config.read_text("other"), "");
	config.assign(nullptr);
	EXPECT_EQ(config("model"), nullptr);
}

TEST(Config, ReadsNumbersOfAnyType)
{
	const configuration config = make_config({{"count", "4294967295"},
						  {"shift", "-3"},
						  {"gain", "0.5"},
						  {"level", "-1e-3"},
						  {"large", "5000000000"}});
	EXPECT_EQ(config.read_number<uint32_t>("count", {.otherwise = 1}), 4294967295U);
	EXPECT_EQ(config.read_number<int32_t>("shift", {.otherwise = 1}), -3);
	EXPECT_EQ(config.read_number<float>("gain", {.otherwise = 1.0F}), 0.5F);
	EXPECT_EQ(config.read_number<double>("level", {.otherwise = 1.0}), -0.001);
	EXPECT_EQ(config.read_number<size_t>("large", {.otherwise = 1}), size_t{5000000000});
	EXPECT_EQ(config.read_number<double>("other", {.otherwise = 1.0}), 1.0);
}

TEST(Config, ReadsNumbersAlikeInEveryLocale)
{
	const hs_comma_locale locale;
	ASSERT_TRUE(hs_comma_locale::active());
	const configuration config = make_config({{"gain", "0.5"}, {"comma", "0,5"}});
	EXPECT_EQ(config.read_number<double>("gain", {.otherwise = 1.0}), 0.5);
	EXPECT_THROW(config.read_number<double>("comma", {.otherwise = 1.0}), std::invalid_argument);
}

TEST(Config, RefusesWhatIsNoNumber)
{
	for (const char *bad : {"", "loud", "nan", "inf", "1x", "1 2", "1e999"}) {
		const configuration config = make_config({{"gain", bad}});
		EXPECT_EQ(refusal([&] { config.read_number<double>("gain", {.otherwise = 1.0}); }),
			  "tried.conf: set \"gain\" to a number")
			<< bad;
	}
	for (const char *bad : {"", "-1", "1.5", "4294967296", "0x10"}) {
		const configuration config = make_config({{"count", bad}});
		EXPECT_EQ(refusal([&] { config.read_number<uint32_t>("count", {.otherwise = 1}); }),
			  "tried.conf: set \"count\" to a whole number")
			<< bad;
	}
}

TEST(Config, RefusesWhatIsOutsideTheRange)
{
	const configuration config = make_config({{"low", "0"}, {"high", "9"}, {"first", "1"}, {"last", "8"}});
	for (const char *good : {"first", "last"})
		EXPECT_GT(config.read_number<int32_t>(good, {.otherwise = 1, .minimum = 1, .maximum = 8}), 0);
	EXPECT_EQ(refusal([&] { config.read_number<int32_t>("low", {.otherwise = 1, .minimum = 1, .maximum = 8}); }),
		  "tried.conf: set \"low\" to a whole number from 1 to 8");
	EXPECT_EQ(refusal([&] { config.read_number<int32_t>("high", {.otherwise = 1, .maximum = 8}); }),
		  "tried.conf: set \"high\" to a whole number to 8");
	EXPECT_EQ(refusal([&] { config.read_number<float>("low", {.otherwise = 1.0F, .minimum = 0.5F}); }),
		  "tried.conf: set \"low\" to a number from 0.500000");
}

TEST(Config, RefusesThatANumberWithoutADefaultIsMissing)
{
	EXPECT_EQ(refusal([] { make_config({}).read_number<uint32_t>("bands", {.otherwise = 0, .minimum = 1}); }),
		  "tried.conf: set \"bands\" to a whole number from 1");
	const double nothing = std::numeric_limits<double>::quiet_NaN();
	EXPECT_THROW(make_config({}).read_number<double>("gain", {.otherwise = nothing}), std::invalid_argument);
}

TEST(Config, ReadsFlagsAndRefusesOtherWords)
{
	const configuration config =
		make_config({{"on", "true"}, {"one", "1"}, {"off", "false"}, {"zero", "0"}, {"odd", "yes"}});
	EXPECT_TRUE(config.read_flag("on", false) && config.read_flag("one", false));
	EXPECT_FALSE(config.read_flag("off", true) || config.read_flag("zero", true));
	EXPECT_TRUE(config.read_flag("other", true));
	EXPECT_FALSE(config.read_flag("other", false));
	EXPECT_EQ(refusal([&] { config.read_flag("odd", false); }), "tried.conf: set \"odd\" to true or false");
}

TEST(Config, RefusesKeysThatWereNotAskedFor)
{
	const configuration config =
		make_config({{"count", "1"}, {"fast", "true"}, {"model", "a"}, {"preview", "false"}});
	config("model");
	config.read_flag("fast", false);
	EXPECT_EQ(refusal([&] { config.refuse_unknown(); }), "tried.conf: take out \"count\", which is unknown");
	config.read_number<uint32_t>("count", {.otherwise = 1});
	EXPECT_NO_THROW(config.refuse_unknown());
}

} // namespace
