#include "props.hpp"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log-capture.hpp"

namespace {

hs_properties_ptr make_table(std::initializer_list<hs_props_member> entries)
{
	hs_properties_ptr table{pw_properties_new(nullptr, nullptr)};
	for (const hs_props_member &entry : entries)
		pw_properties_set(table.get(), entry.key, entry.value);
	return table;
}

std::string to_json(const hs_properties_ptr &table)
{
	char buffer[4096];
	EXPECT_EQ(hs_props_to_json(table.get(), buffer, sizeof(buffer)), 0);
	return buffer;
}

std::string value_of(const hs_properties_ptr &table, const char *title)
{
	const hs_properties_ptr object = hs_props_find(table.get(), title);
	const char *value = object ? pw_properties_get(object.get(), "value") : nullptr;
	return value ? value : "(none)";
}

/** A table as a source has it for its settings. */
hs_properties_ptr make_settings()
{
	hs_properties_ptr table = make_table({
		{"$schema", "/usr/share/schema.json"},
		{"path", "/etc/title Gain/value"},
	});
	hs_props_add_object(table.get(), {{"name", "enable"},
					  {"title", "Enable"},
					  {"type", "boolean"},
					  {"value", "false"},
					  {"defaultValue", "false"}});
	hs_props_add_object(table.get(),
			    {{"name", "gain"}, {"title", "Gain"}, {"type", "float"}, {"value", "1.5"}});
	return table;
}

} // namespace

TEST(PropsToJson, AnEmptyTableIsTwoLines)
{
	EXPECT_EQ(to_json(make_table({})), "{\n\n }");
}

TEST(PropsToJson, EveryMemberHasItsLineAndKeepsItsComma)
{
	EXPECT_EQ(to_json(make_table({{"b", "1"}, {"a", ""}})), "{\n  \"b\": \"1\",\n  \"a\": \"\",\n\n }");
}

TEST(PropsToJson, AnObjectIsNotQuoted)
{
	EXPECT_EQ(to_json(make_table({{"a", "{ \"x\": \"\\\\\" }"}, {"b", " {}"}, {"c", "[ 1 ]"}})),
		  "{\n  \"a\": { \"x\": \"\\\\\" },\n  \"b\": \" {}\",\n  \"c\": \"[ 1 ]\",\n\n }");
}

TEST(PropsToJson, QuotesBackslashesAndControlCharactersAreEscapedInQuotedValues)
{
	EXPECT_EQ(to_json(make_table({{"a", "\"\\/\b\f\n\r\t\x01\x1f\x7f\u00e4"}})),
		  "{\n  \"a\": \"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u001f\\u007f\u00e4\",\n\n }");
}

TEST(PropsToJson, EveryTextReadsBackAsItself)
{
	for (const char *text : {"a\"b", "a\\b", "a\nb", "C:\\dir", "\\", "\"", "}", "]", "#", "\x7f", "\x01",
				 "\u00e4\u20ac\U0001F3A4", "null", "[ \"x\" ]", ""}) {
		SCOPED_TRACE(text);
		const std::string json = to_json(make_table({{"value", text}, {"after", "kept"}}));
		const hs_properties_ptr read{pw_properties_new_string(json.c_str())};
		EXPECT_STREQ(pw_properties_get(read.get(), "value"), text);
		EXPECT_STREQ(pw_properties_get(read.get(), "after"), "kept");
	}
}

TEST(PropsToJson, ANullTableIsNoEntry)
{
	char buffer[16];
	EXPECT_EQ(hs_props_to_json(nullptr, buffer, sizeof(buffer)), -ENOENT);
	EXPECT_EQ(hs_props_to_json(nullptr, nullptr, 0), -ENOENT);
	EXPECT_EQ(-ENOENT, -2);
}

TEST(PropsToJson, NoBufferIsNoSpace)
{
	char buffer[16];
	const hs_properties_ptr table = make_table({});
	EXPECT_EQ(hs_props_to_json(table.get(), nullptr, 16), -ENOSPC);
	EXPECT_EQ(hs_props_to_json(table.get(), buffer, 0), -ENOSPC);
	EXPECT_EQ(-ENOSPC, -28);
}

TEST(PropsToJson, NeverWritesPastTheBuffer)
{
	const hs_properties_ptr table = make_table({{"key", "quoted \"\x01"}, {"object", "{ 1 }"}});
	const std::string whole = to_json(table);
	for (size_t size = 1; size <= whole.size() + 2; size++) {
		/* Of its very size, so that a write past the end does not go unseen. */
		std::vector<char> buffer(size, '#');
		const int res = hs_props_to_json(table.get(), buffer.data(), size);
		if (size > whole.size()) {
			EXPECT_EQ(res, 0);
			EXPECT_EQ(whole, buffer.data());
		} else {
			EXPECT_EQ(res, -ENOSPC);
			EXPECT_LT(strnlen(buffer.data(), size), size);
		}
	}
}

TEST(PropsAddObject, TheFirstValueIsTheKey)
{
	const hs_properties_ptr table = make_table({});
	hs_props_add_object(table.get(), {{"title", "Level"}, {"type", "double"}, {"value", "0.5"}});
	EXPECT_EQ(table->dict.n_items, 1u);
	EXPECT_STREQ(pw_properties_get(table.get(), "Level"),
		     "{\n  \"title\": \"Level\",\n  \"type\": \"double\",\n  \"value\": \"0.5\",\n\n }");
}

TEST(PropsAddObject, MembersWithoutKeyOrValueAreLeftOut)
{
	const hs_properties_ptr table = make_table({});
	hs_props_add_object(
		table.get(),
		{{"name", nullptr}, {"", "x"}, {nullptr, "y"}, {"title", "Level"}, {"type", nullptr}});
	EXPECT_EQ(table->dict.n_items, 1u);
	EXPECT_STREQ(pw_properties_get(table.get(), "Level"), "{\n  \"title\": \"Level\",\n\n }");
}

TEST(PropsAddObject, WithoutAnyMemberNothingIsAdded)
{
	const hs_properties_ptr table = make_table({});
	hs_props_add_object(table.get(), {});
	hs_props_add_object(table.get(), {{"name", nullptr}});
	EXPECT_EQ(table->dict.n_items, 0u);
}

TEST(PropsAddObject, AnExistingEntryIsNeverReplaced)
{
	const hs_properties_ptr table = make_table({{"Level", "kept"}});
	hs_props_add_object(table.get(), {{"title", "Level"}, {"value", "1"}});
	EXPECT_STREQ(pw_properties_get(table.get(), "Level"), "kept");
	EXPECT_EQ(table->dict.n_items, 1u);
}

TEST(PropsAddObject, AnObjectOf1024BytesIsWarnedOfAndNotAdded)
{
	const size_t frame = std::strlen("{\n  \"t\": \"a\",\n  \"v\": \"\",\n\n }");
	const std::string fits(1023 - frame, 'x');
	const std::string longer = fits + "x";

	const hs_log_capture log;
	const hs_properties_ptr table = make_table({});
	hs_props_add_object(table.get(), {{"t", "a"}, {"v", fits.c_str()}});
	ASSERT_NE(pw_properties_get(table.get(), "a"), nullptr);
	EXPECT_EQ(std::strlen(pw_properties_get(table.get(), "a")), 1023u);
	EXPECT_EQ(log.complaints(), 0u) << log.text();

	hs_props_add_object(table.get(), {{"t", "b"}, {"v", longer.c_str()}});
	EXPECT_EQ(pw_properties_get(table.get(), "b"), nullptr);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "b is left out, it is too long"), 1u) << log.text();
}

TEST(PropsFind, FindsByTitleNotByKey)
{
	const hs_properties_ptr table = make_settings();
	EXPECT_EQ(value_of(table, "Gain"), "1.5");
	EXPECT_EQ(value_of(table, "Enable"), "false");
	EXPECT_EQ(value_of(table, "gain"), "(none)");
	EXPECT_EQ(value_of(table, "enable"), "(none)");
}

TEST(PropsFind, GivesACopyOfTheWholeObject)
{
	const hs_properties_ptr table = make_settings();
	const hs_properties_ptr object = hs_props_find(table.get(), "Enable");
	ASSERT_NE(object, nullptr);
	EXPECT_EQ(object->dict.n_items, 5u);
	pw_properties_set(object.get(), "value", "true");
	EXPECT_EQ(value_of(table, "Enable"), "false");
}

TEST(PropsFind, ATableThatIsNullHasNothing)
{
	EXPECT_EQ(hs_props_find(nullptr, "Gain"), nullptr);
}

TEST(PropsFind, EntriesThatAreNoObjectsAreNotMistakenForOnes)
{
	/* As flat texts these would read as title = Gain. */
	const hs_properties_ptr table =
		make_table({{"path", "title Gain"}, {"$schema", "title=Gain"}, {"x", ""}});
	EXPECT_EQ(hs_props_find(table.get(), "Gain"), nullptr);
	EXPECT_EQ(hs_props_find(table.get(), nullptr), nullptr);
}

TEST(PropsFind, CopesWithMalformedObjects)
{
	for (const char *text :
	     {"{", "{}", "{ title", "{ title = ", "{ title = { title = Gain } }", "{ \"title", "{ [",
	      "{ title = null }", "{ {", "{ title = \"Gai", "{ title \"\\"}) {
		SCOPED_TRACE(text);
		const hs_properties_ptr table = make_table({{"a", text}});
		EXPECT_EQ(hs_props_find(table.get(), "Gain"), nullptr);
	}
}

TEST(PropsFind, AKeyWithoutValueIsNoTitle)
{
	const hs_properties_ptr table = make_table({{"a", "{ title }"}});
	EXPECT_EQ(hs_props_find(table.get(), ""), nullptr);
	EXPECT_NE(hs_props_find(table.get(), nullptr), nullptr);
}

TEST(PropsFind, AStructureIsNoTitle)
{
	const hs_properties_ptr table = make_table({{"a", "{ title = [ x ] }"}, {"b", "{ title = { x = y } }"}});
	EXPECT_EQ(hs_props_find(table.get(), "["), nullptr);
	EXPECT_EQ(hs_props_find(table.get(), "{"), nullptr);
}

TEST(PropsFind, ATitleIsNotLookedForInNestedObjects)
{
	const hs_properties_ptr table = make_table({
		{"a", "{ nested = { title = Gain } list = [ title Gain ] title = Other }"},
		{"b", "{ value = { x = [ 1 { y = 2 } ] } title = Gain value = right }"},
	});
	EXPECT_EQ(value_of(table, "Gain"), "right");
}

TEST(PropsFind, FindsTitlesThatAreWrittenWithEscapes)
{
	const hs_properties_ptr table = make_table({});
	hs_props_add_object(table.get(), {{"title", "a\"b\\"}, {"value", "1"}});
	EXPECT_EQ(value_of(table, "a\"b\\"), "1");
}

TEST(PropsFind, TheFirstOfTwoEqualTitlesCounts)
{
	const hs_properties_ptr table =
		make_table({{"a", "{ title = Gain value = 1 }"}, {"b", "{ title = Gain value = 2 }"}});
	EXPECT_EQ(value_of(table, "Gain"), "1");
}

TEST(PropsSetValue, ChangesTheValueOnly)
{
	const hs_log_capture log;
	const hs_properties_ptr table = make_settings();
	hs_props_set_value(table.get(), "Enable", "true");
	EXPECT_STREQ(pw_properties_get(table.get(), "enable"),
		     "{\n  \"name\": \"enable\",\n  \"title\": \"Enable\",\n  \"type\": \"boolean\",\n"
		     "  \"value\": \"true\",\n  \"defaultValue\": \"false\",\n\n }");
	EXPECT_EQ(value_of(table, "Gain"), "1.5");
	EXPECT_STREQ(pw_properties_get(table.get(), "$schema"), "/usr/share/schema.json");
	EXPECT_STREQ(pw_properties_get(table.get(), "path"), "/etc/title Gain/value");
	EXPECT_EQ(log.complaints(), 0u) << log.text();
}

TEST(PropsSetValue, AValueThatNeedsEscapesReadsBackAsItself)
{
	const hs_properties_ptr table = make_settings();
	hs_props_set_value(table.get(), "Gain", "a\"b\\c\nd");
	EXPECT_EQ(value_of(table, "Gain"), "a\"b\\c\nd");
	hs_props_set_value(table.get(), "Gain", "2");
	EXPECT_EQ(value_of(table, "Gain"), "2");
}

TEST(PropsSetValue, AnObjectValueIsKeptAsItIs)
{
	const hs_properties_ptr table = make_settings();
	const char *object = "{\n  \"Report\": \"a\\\"b\"\n }";
	hs_props_set_value(table.get(), "Gain", object);
	EXPECT_EQ(value_of(table, "Gain"), object);
	EXPECT_EQ(value_of(table, "Enable"), "false");
}

TEST(PropsSetValue, TwoAbsentTitlesAreEqual)
{
	const hs_properties_ptr table = make_table({{"a", "{ title = x }"}, {"b", "{ value = 1 }"}});
	hs_props_set_value(table.get(), nullptr, "2");
	EXPECT_STREQ(pw_properties_get(table.get(), "b"), "{\n  \"value\": \"2\",\n\n }");
	EXPECT_STREQ(pw_properties_get(table.get(), "a"), "{ title = x }");
}

TEST(PropsSetValue, ATitleThatIsNotThereIsAnErrorAndChangesNothing)
{
	const hs_log_capture log;
	const hs_properties_ptr table = make_settings();
	const std::string before = to_json(table);
	hs_props_set_value(table.get(), "Volume", "3");
	EXPECT_EQ(to_json(table), before);
	ASSERT_EQ(log.lines().size(), 1u);
	EXPECT_EQ(log.lines()[0].level, SPA_LOG_LEVEL_ERROR);
	EXPECT_EQ(log.lines()[0].text, "Failed to set value 3 for props title Volume");
}

TEST(PropsSetValue, AValueThatIsTooLongIsAnErrorAndChangesNothing)
{
	const hs_log_capture log;
	const hs_properties_ptr table = make_settings();
	const std::string before = to_json(table);
	const std::string value(1000, 'x');
	hs_props_set_value(table.get(), "Gain", value.c_str());
	EXPECT_EQ(to_json(table), before);
	EXPECT_TRUE(
		log.contains(SPA_LOG_LEVEL_ERROR, "Failed to set value " + value + " for props title Gain"));
	EXPECT_EQ(log.complaints(), 1u);
}

TEST(PropsSetValue, AnObjectOf1023BytesFitsAndALongerOneDoesNot)
{
	const hs_log_capture log;
	const hs_properties_ptr table = make_table({});
	hs_props_add_object(table.get(), {{"title", "Gain"}, {"value", ""}});
	const size_t left = 1023 - std::strlen(pw_properties_get(table.get(), "Gain"));
	const std::string fits(left, 'x');
	hs_props_set_value(table.get(), "Gain", fits.c_str());
	EXPECT_EQ(value_of(table, "Gain"), fits);
	EXPECT_EQ(std::strlen(pw_properties_get(table.get(), "Gain")), 1023u);
	EXPECT_EQ(log.complaints(), 0u) << log.text();

	hs_props_set_value(table.get(), "Gain", (fits + "y").c_str());
	EXPECT_EQ(value_of(table, "Gain"), fits);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_ERROR, "Failed to set value " + fits + "y for props title Gain"), 1u);
}

TEST(PropsSetValue, ATableThatIsNullIsAnError)
{
	const hs_log_capture log;
	hs_props_set_value(nullptr, "Gain", "1");
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_ERROR, "Failed to set value 1 for props title Gain"))
		<< log.text();
}

TEST(Props, PlainValueSurvivesInAnEntry)
{
	const hs_properties_ptr table{pw_properties_new(nullptr, nullptr)};
	hs_props_add_object(table.get(), {{"name", "room"}, {"title", "Room"}, {"value", "hall"}, {"defaultValue", "hall"}});
	for (const char *value : {"", "attic", "a \"quoted\" word", "back\\slash", "two\nlines", "5", "null", "[ 1"})
		EXPECT_TRUE(hs_props_value_survives(table.get(), "Room", value)) << value;
	EXPECT_STREQ(pw_properties_get(hs_props_find(table.get(), "Room").get(), "value"), "hall");
}

TEST(Props, ValueThatChangesTheEntryDoesNotSurvive)
{
	const hs_properties_ptr table{pw_properties_new(nullptr, nullptr)};
	hs_props_add_object(table.get(), {{"name", "room"}, {"title", "Room"}, {"value", "hall"}, {"defaultValue", "hall"}});
	EXPECT_FALSE(hs_props_value_survives(table.get(), "Room", "{ a = b"));
	EXPECT_FALSE(hs_props_value_survives(table.get(), "Room", std::string(1024, 'x').c_str()));
	EXPECT_FALSE(hs_props_value_survives(table.get(), "Attic", "hall"));
	EXPECT_FALSE(hs_props_value_survives(nullptr, "Room", "hall"));
}
