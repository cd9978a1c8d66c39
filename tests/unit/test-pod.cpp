#include "pod.hpp"

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>

#include "comma-locale.hpp"
#include "failing.hpp"
#include "log-capture.hpp"

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
	return hs_must_fail("new") ? nullptr : ::operator new(size);
}

namespace {

/** A POD as a plug-in builds it, of any size. */
class pod_buffer
{
public:
	explicit pod_buffer(size_t size = hs_pod_buffer::size) : words(size / 8)
	{
		spa_pod_builder_init(&builder, words.data(), static_cast<uint32_t>(size));
	}

	const spa_pod *pod() const
	{
		return reinterpret_cast<const spa_pod *>(words.data());
	}

	uint8_t *bytes()
	{
		return reinterpret_cast<uint8_t *>(words.data());
	}

	size_t size() const
	{
		return SPA_POD_SIZE(pod());
	}

	/** Begins a description; the value is built next, then finish() is called. */
	void describe(const char *name = "Level", const char *text = "How loud it is")
	{
		spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_PropInfo, 0);
		if (name) {
			spa_pod_builder_prop(&builder, SPA_PROP_INFO_name, 0);
			spa_pod_builder_string(&builder, name);
		}
		if (text) {
			spa_pod_builder_prop(&builder, SPA_PROP_INFO_description, 0);
			spa_pod_builder_string(&builder, text);
		}
		spa_pod_builder_prop(&builder, SPA_PROP_INFO_type, 0);
	}

	void finish()
	{
		ASSERT_NE(spa_pod_builder_pop(&builder, &frame), nullptr);
	}

	spa_pod_builder builder;

private:
	std::vector<uint64_t> words;
	spa_pod_frame frame;
};

template <typename T>
void build_array(pod_buffer &buffer, uint32_t type, const std::vector<T> &elements)
{
	buffer.describe();
	spa_pod_builder_array(&buffer.builder, sizeof(T), type, static_cast<uint32_t>(elements.size()),
			      elements.data());
	buffer.finish();
}

template <typename T>
hs_pod_ptr parse_array(uint32_t type, const std::vector<T> &elements)
{
	pod_buffer buffer{1 << 16};
	build_array(buffer, type, elements);
	hs_pod_ptr parsed = hs_pod_parse(buffer.pod());
	if (parsed) {
		EXPECT_EQ(parsed->element_size, sizeof(T));
		EXPECT_EQ(parsed->element_type, type);
		EXPECT_EQ(parsed->n_elements, elements.size());
		if (!elements.empty()) {
			EXPECT_EQ(std::memcmp(parsed->elements, elements.data(), elements.size() * sizeof(T)),
				  0);
		}
		EXPECT_EQ(parsed->type, "array");
		EXPECT_EQ(hs_pod_value_text(*parsed), parsed->json);
	}
	return parsed;
}

/** Elements of four bytes each. */
struct short_text {
	char text[4];
};

/** A structure with one member of each scalar type. */
void build_struct(pod_buffer &buffer)
{
	buffer.describe("State");
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, "Detected");
	spa_pod_builder_bool(&buffer.builder, true);
	spa_pod_builder_string(&buffer.builder, "Id");
	spa_pod_builder_id(&buffer.builder, 3000000000u);
	spa_pod_builder_string(&buffer.builder, "Count");
	spa_pod_builder_int(&buffer.builder, -5);
	spa_pod_builder_string(&buffer.builder, "Time");
	spa_pod_builder_long(&buffer.builder, 1234567890123);
	spa_pod_builder_string(&buffer.builder, "Level");
	spa_pod_builder_float(&buffer.builder, 0.5f);
	spa_pod_builder_string(&buffer.builder, "Peak");
	spa_pod_builder_double(&buffer.builder, -0.25);
	spa_pod_builder_string(&buffer.builder, "Report");
	spa_pod_builder_string(&buffer.builder, "glass");
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
}

/** A plug-in may hand out a malformed description for every buffer, so that is for who asks only. */
void expect_refused(const spa_pod *pod, const hs_log_capture &log, spa_log_level level = SPA_LOG_LEVEL_DEBUG)
{
	EXPECT_EQ(hs_pod_parse(pod), nullptr);
	EXPECT_EQ(log.count(level), 1u) << log.text();
	EXPECT_EQ(log.lines().size(), 1u) << log.text();
}

/** What hs_pod_build gives, taken apart. */
struct built {
	explicit built(hs_malloc_ptr<spa_pod> built_pod) : pod{std::move(built_pod)}
	{
		if (!pod)
			return;
		EXPECT_EQ(pod->type, uint32_t{SPA_TYPE_Struct});
		const auto *first = static_cast<const spa_pod *>(SPA_POD_BODY_CONST(pod.get()));
		const char *text = nullptr;
		EXPECT_EQ(spa_pod_get_string(first, &text), 0);
		name = text;
		const auto *second = static_cast<const spa_pod *>(spa_pod_next(first));
		if (spa_pod_is_inside(SPA_POD_BODY(pod.get()), pod->size, second)) {
			value = second;
			EXPECT_FALSE(
				spa_pod_is_inside(SPA_POD_BODY(pod.get()), pod->size, spa_pod_next(second)));
		}
	}

	hs_malloc_ptr<spa_pod> pod;
	std::string name;
	/** Null where there is only the name. */
	const spa_pod *value = nullptr;
};

uint32_t inferred_type(const char *value)
{
	const built setting{hs_pod_build("x", value, nullptr, nullptr)};
	return setting.value ? setting.value->type : uint32_t{SPA_TYPE_None};
}

template <typename T>
std::vector<T> elements_of(const spa_pod *array, uint32_t type)
{
	EXPECT_TRUE(spa_pod_is_array(array));
	EXPECT_EQ(SPA_POD_ARRAY_VALUE_TYPE(array), type);
	EXPECT_EQ(SPA_POD_ARRAY_VALUE_SIZE(array), sizeof(T));
	const T *begin = static_cast<const T *>(SPA_POD_ARRAY_VALUES(array));
	return {begin, begin + SPA_POD_ARRAY_N_VALUES(array)};
}

void expect_only_name_and_warning(const char *value, const char *type, const std::string &warning)
{
	SCOPED_TRACE(value);
	const hs_log_capture log;
	const built setting{hs_pod_build("gain", value, type, nullptr)};
	ASSERT_NE(setting.pod, nullptr);
	EXPECT_EQ(setting.name, "gain");
	EXPECT_EQ(setting.value, nullptr);
	ASSERT_EQ(log.lines().size(), 1u) << log.text();
	EXPECT_EQ(log.lines()[0].level, SPA_LOG_LEVEL_WARN);
	EXPECT_EQ(log.lines()[0].text, warning);
}

} // namespace

TEST(SchemaTypes, AreInTheOrderInWhichTheyAreSearched)
{
	const std::vector<hs_schema_type> expected = {
		{"boolean", 2, "b"}, {"uint32", 3, "u"}, {"int32", 4, "i"},
		{"int64", 5, "x"},   {"float", 6, "f"},	 {"double", 7, "d"},
		{"string", 8, "s"},  {"array", 13, "a"}, {"struct", 14, "()"},
	};
	for (size_t i = 0; i < expected.size(); i++) {
		EXPECT_STREQ(hs_schema_types[i].name, expected[i].name);
		EXPECT_EQ(hs_schema_types[i].id, expected[i].id);
		EXPECT_STREQ(hs_schema_types[i].signature, expected[i].signature);
	}
	EXPECT_EQ(hs_schema_types[expected.size()].name, nullptr);
}

TEST(SchemaTypes, AreFoundByNameIdAndSignature)
{
	EXPECT_EQ(hs_schema_type_by_name("int64"), &hs_schema_types[3]);
	EXPECT_EQ(hs_schema_type_by_id(SPA_TYPE_Struct), &hs_schema_types[8]);
	EXPECT_EQ(hs_schema_type_by_signature("d"), &hs_schema_types[5]);
	EXPECT_EQ(hs_schema_type_by_signature("()"), &hs_schema_types[8]);
}

TEST(SchemaTypes, WhatIsInNoRowIsNotFound)
{
	EXPECT_EQ(hs_schema_type_by_name(nullptr), nullptr);
	EXPECT_EQ(hs_schema_type_by_name(""), nullptr);
	EXPECT_EQ(hs_schema_type_by_name("Boolean"), nullptr);
	EXPECT_EQ(hs_schema_type_by_id(0), nullptr);
	EXPECT_EQ(hs_schema_type_by_id(SPA_TYPE_Choice), nullptr);
	EXPECT_EQ(hs_schema_type_by_signature(nullptr), nullptr);
	EXPECT_EQ(hs_schema_type_by_signature("ai"), nullptr);
	EXPECT_EQ(hs_schema_type_by_signature(""), nullptr);
}

TEST(PodNew, CopiesTheGivenTexts)
{
	std::string title = "Gain";
	const hs_pod_ptr pod = hs_pod_new(title.c_str(), "How much", "float", "1.5");
	title[0] = 'X';
	EXPECT_EQ(pod->title, "Gain");
	EXPECT_EQ(pod->description, "How much");
	EXPECT_EQ(pod->type, "float");
	EXPECT_STREQ(pod->value, "1.5");
	EXPECT_STREQ(pod->json, "");
	EXPECT_STREQ(pod->signature, "");
	EXPECT_EQ(pod->n_elements, 0u);
	EXPECT_EQ(pod->elements, nullptr);
	EXPECT_EQ(pod->members, nullptr);
	EXPECT_EQ(hs_pod_value_text(*pod), pod->value);
}

TEST(PodNew, AnyTextMayBeNull)
{
	const hs_pod_ptr pod = hs_pod_new(nullptr, nullptr, nullptr, nullptr);
	EXPECT_FALSE(pod->title);
	EXPECT_FALSE(pod->description);
	EXPECT_FALSE(pod->type);
	EXPECT_STREQ(pod->value, "");
	EXPECT_EQ(hs_pod_value_text(*pod), pod->value);
}

TEST(PodNew, AValueIsCutAt511Bytes)
{
	const std::string fits(511, 'x');
	EXPECT_EQ(hs_pod_new("a", "b", "string", fits.c_str())->value, fits);
	EXPECT_EQ(hs_pod_new("a", "b", "string", (fits + "yz").c_str())->value, fits);
}

TEST(PodNew, AValueIsNotCutInsideACharacter)
{
	for (const std::string character : {"\u00e4", "\u20ac", "\U0001F3A4"}) {
		for (size_t inside = 1; inside < character.size(); inside++) {
			const std::string before(511 - inside, 'x');
			EXPECT_EQ(hs_pod_new("a", "b", "string", (before + character + "z").c_str())->value,
				  before);
		}
		const std::string before(511 - character.size(), 'x');
		EXPECT_EQ(hs_pod_new("a", "b", "string", (before + character + "z").c_str())->value,
			  before + character);
	}
}

TEST(PodNewDeathTest, AFailedAllocationAborts)
{
	hs_fail_call("new", 1, ENOMEM);
	EXPECT_EXIT(hs_pod_new("a", "b", "c", "d"), testing::KilledBySignal(SIGABRT),
		    "'new_pod' failed at .*pod\\.cpp:[0-9]+ hs_pod_new\\(\\)");
	hs_fail_call("", 0, 0);
}

TEST(PodFree, NullIsIgnored)
{
	hs_pod_free(nullptr);
}

TEST(PodParse, NullGivesNull)
{
	EXPECT_EQ(hs_pod_parse(nullptr), nullptr);
}

TEST(PodParse, GivesNameDescriptionTypeAndValue)
{
	const hs_log_capture log;
	pod_buffer buffer;
	buffer.describe("Level", "How loud it is");
	spa_pod_builder_int(&buffer.builder, -7);
	buffer.finish();

	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_EQ(pod->title, "Level");
	EXPECT_EQ(pod->description, "How loud it is");
	EXPECT_EQ(pod->type, "int32");
	EXPECT_STREQ(pod->value, "-7");
	EXPECT_EQ(hs_pod_value_text(*pod), pod->value);
	ASSERT_EQ(log.lines().size(), 1u) << log.text();
	EXPECT_EQ(log.lines()[0].level, SPA_LOG_LEVEL_TRACE);
	EXPECT_EQ(log.lines()[0].text, "Parsed POD Level with type int32.");
}

TEST(PodParse, NameAndDescriptionMayBeMissing)
{
	const hs_log_capture log;
	pod_buffer buffer;
	buffer.describe(nullptr, nullptr);
	spa_pod_builder_bool(&buffer.builder, true);
	buffer.finish();

	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_FALSE(pod->title);
	EXPECT_FALSE(pod->description);
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_TRACE, "Parsed POD (null) with type boolean.")) << log.text();
}

TEST(PodParse, FormatsEveryScalar)
{
	const auto parse = [](auto build, const char *type) {
		pod_buffer buffer;
		buffer.describe();
		build(&buffer.builder);
		buffer.finish();
		const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
		EXPECT_NE(pod, nullptr);
		EXPECT_EQ(pod->type, type);
		return std::string{pod->value};
	};
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_bool(b, true); }, "boolean"), "true");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_bool(b, false); }, "boolean"), "false");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_id(b, 2147483647); }, "uint32"), "2147483647");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_int(b, INT32_MIN); }, "int32"), "-2147483648");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_long(b, INT64_MIN); }, "int64"),
		  "-9223372036854775808");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_float(b, 1.5f); }, "float"), "1.500000");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_float(b, 0.1f); }, "float"), "0.100000");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_double(b, -1e-7); }, "double"), "-0.000000");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_double(b, INFINITY); }, "double"), "inf");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_string(b, "a \"b\\"); }, "string"), "a \"b\\");
	EXPECT_EQ(parse([](auto *b) { spa_pod_builder_string(b, ""); }, "string"), "");
}

TEST(PodParse, FormatsRealNumbersLikePrintf)
{
	const double infinity = INFINITY;
	for (const double number : {0.0, 1.0 / 3, 2.5e-7, 123456789.987654321, 1e22, DBL_MAX, -DBL_MAX,
				    DBL_MIN, -infinity, 0.5e-6, 1.5e-6}) {
		pod_buffer buffer;
		buffer.describe();
		spa_pod_builder_double(&buffer.builder, number);
		buffer.finish();
		char expected[512];
		std::snprintf(expected, sizeof(expected), "%lf", number);
		EXPECT_STREQ(hs_pod_parse(buffer.pod())->value, expected);
	}
}

TEST(PodParse, DecimalsHaveAPointInEveryLocale)
{
	const hs_comma_locale locale;
	ASSERT_TRUE(hs_comma_locale::active());
	pod_buffer buffer;
	buffer.describe();
	spa_pod_builder_double(&buffer.builder, 1234567.5);
	buffer.finish();
	EXPECT_STREQ(hs_pod_parse(buffer.pod())->value, "1234567.500000");
}

TEST(PodParse, AUint32Of3000000000IsShownNegative)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_builder_id(&buffer.builder, 3000000000u);
	buffer.finish();
	EXPECT_STREQ(hs_pod_parse(buffer.pod())->value, "-1294967296");
}

TEST(PodParse, AStringIsCutAt511Bytes)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_builder_string(&buffer.builder, std::string(600, 'x').c_str());
	buffer.finish();
	EXPECT_EQ(hs_pod_parse(buffer.pod())->value, std::string(511, 'x'));
}

TEST(PodParse, TheOrderOfThePropertiesDoesNotMatterAndOthersAreSkipped)
{
	pod_buffer buffer;
	spa_pod_frame frame;
	spa_pod_builder_push_object(&buffer.builder, &frame, SPA_TYPE_OBJECT_PropInfo, 0);
	spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_type, 0);
	spa_pod_builder_bool(&buffer.builder, true);
	spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_id, 0);
	spa_pod_builder_id(&buffer.builder, 1);
	spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_description, 0);
	spa_pod_builder_string(&buffer.builder, "description");
	spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_name, 0);
	spa_pod_builder_string(&buffer.builder, "name");
	spa_pod_builder_pop(&buffer.builder, &frame);

	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_EQ(pod->title, "name");
	EXPECT_EQ(pod->description, "description");
	EXPECT_STREQ(pod->value, "true");
}

TEST(PodParse, ArraysBecomeJsonAndASignature)
{
	EXPECT_STREQ(parse_array<int32_t>(SPA_TYPE_Int, {1, -2})->json, "[ 1, -2 ]");
	EXPECT_STREQ(parse_array<int32_t>(SPA_TYPE_Int, {1})->signature, "ai");
	EXPECT_STREQ(parse_array<int32_t>(SPA_TYPE_Bool, {1, 0})->json, "[ true, false ]");
	EXPECT_STREQ(parse_array<int32_t>(SPA_TYPE_Bool, {1})->signature, "ab");
	EXPECT_STREQ(parse_array<uint32_t>(SPA_TYPE_Id, {5, 3000000000u})->json, "[ 5, -1294967296 ]");
	EXPECT_STREQ(parse_array<uint32_t>(SPA_TYPE_Id, {5})->signature, "au");
	EXPECT_STREQ(parse_array<int64_t>(SPA_TYPE_Long, {INT64_MAX})->json, "[ 9223372036854775807 ]");
	EXPECT_STREQ(parse_array<int64_t>(SPA_TYPE_Long, {5})->signature, "ax");
	EXPECT_STREQ(parse_array<float>(SPA_TYPE_Float, {0.5f, 2})->json, "[ 0.500000, 2.000000 ]");
	EXPECT_STREQ(parse_array<double>(SPA_TYPE_Double, {0.25})->json, "[ 0.250000 ]");
	EXPECT_STREQ(parse_array<short_text>(SPA_TYPE_String, {{"one"}, {"2"}})->json, "[ one, 2 ]");
	EXPECT_STREQ(parse_array<short_text>(SPA_TYPE_String, {{"one"}})->signature, "as");
}

TEST(PodParse, FloatAndDoubleArraysHaveTheSameSignature)
{
	EXPECT_STREQ(parse_array<float>(SPA_TYPE_Float, {0.5f})->signature, "ad");
	EXPECT_STREQ(parse_array<double>(SPA_TYPE_Double, {0.5})->signature, "ad");
}

TEST(PodParse, AnArrayOfAnotherTypeHasNoSignature)
{
	const hs_pod_ptr pod = parse_array<spa_rectangle>(SPA_TYPE_Rectangle, {{1, 2}});
	ASSERT_NE(pod, nullptr);
	EXPECT_STREQ(pod->signature, "N/A");
	EXPECT_STREQ(pod->json, " ]");
}

TEST(PodParse, AnEmptyArrayHasNoElements)
{
	const hs_pod_ptr pod = parse_array<int32_t>(SPA_TYPE_Int, {});
	ASSERT_NE(pod, nullptr);
	EXPECT_STREQ(pod->json, " ]");
	EXPECT_STREQ(pod->signature, "ai");
}

TEST(PodParse, AnArrayThatWasBuiltWithoutAnyChildIsEmpty)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_array(&buffer.builder, &frame);
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_EQ(pod->n_elements, 0u);
	EXPECT_STREQ(pod->json, " ]");
	EXPECT_STREQ(pod->signature, "N/A");
}

TEST(PodParse, AnArrayTextOf2047BytesFitsAndALongerOneIsRefused)
{
	/* "[ " and " ]" round 681 numbers with 680 times ", " between them. */
	std::vector<int32_t> elements(681, 1);
	{
		const hs_log_capture log;
		elements.back() = 10;
		const hs_pod_ptr pod = parse_array<int32_t>(SPA_TYPE_Int, elements);
		ASSERT_NE(pod, nullptr) << log.text();
		EXPECT_EQ(std::strlen(pod->json), 2046u);
		EXPECT_EQ(log.complaints(), 0u) << log.text();
	}
	{
		elements.back() = 100;
		const hs_pod_ptr pod = parse_array<int32_t>(SPA_TYPE_Int, elements);
		ASSERT_NE(pod, nullptr);
		EXPECT_EQ(std::strlen(pod->json), 2047u);
		EXPECT_EQ(std::string{pod->json}.substr(2040), ", 100 ]");
	}
	{
		const hs_log_capture log;
		elements.back() = 1000;
		EXPECT_EQ(parse_array<int32_t>(SPA_TYPE_Int, elements), nullptr);
		ASSERT_EQ(log.lines().size(), 1u) << log.text();
		EXPECT_EQ(log.lines()[0].level, SPA_LOG_LEVEL_DEBUG);
		EXPECT_EQ(log.lines()[0].text, "Array Level is too long");
	}
}

TEST(PodParse, AStructureBecomesAJsonObjectAndASignature)
{
	pod_buffer buffer;
	build_struct(buffer);
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_EQ(pod->type, "struct");
	EXPECT_STREQ(pod->json, "{\n"
				"  \"Detected\": \"true\",\n"
				"  \"Id\": \"-1294967296\",\n"
				"  \"Count\": \"-5\",\n"
				"  \"Time\": \"1234567890123\",\n"
				"  \"Level\": \"0.500000\",\n"
				"  \"Peak\": \"-0.250000\",\n"
				"  \"Report\": \"glass\"\n }");
	EXPECT_STREQ(pod->signature, "(buixdds)");
	EXPECT_EQ(hs_pod_value_text(*pod), pod->json);
	ASSERT_NE(pod->members, nullptr);
	EXPECT_EQ(pod->members->type, uint32_t{SPA_TYPE_Struct});
}

TEST(PodParse, AnIntAndABoolMemberHaveSignatureIb)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, "a");
	spa_pod_builder_int(&buffer.builder, 1);
	spa_pod_builder_string(&buffer.builder, "b");
	spa_pod_builder_bool(&buffer.builder, false);
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_STREQ(pod->signature, "(ib)");
	EXPECT_STREQ(pod->json, "{\n  \"a\": \"1\",\n  \"b\": \"false\"\n }");
}

TEST(PodParse, AStructureWithoutMembersIsEmpty)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_STREQ(pod->json, "\n }");
	EXPECT_STREQ(pod->signature, "()");
}

TEST(PodParse, TextsOfAStructureReadBackAsThemselves)
{
	const char *text = "a \"b\" \\ c\n}";
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, "na\"me");
	spa_pod_builder_string(&buffer.builder, text);
	spa_pod_builder_string(&buffer.builder, "after");
	spa_pod_builder_int(&buffer.builder, 1);
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	const hs_properties_ptr members{pw_properties_new_string(pod->json)};
	EXPECT_STREQ(pw_properties_get(members.get(), "na\"me"), text);
	EXPECT_STREQ(pw_properties_get(members.get(), "after"), "1");
}

TEST(PodParse, BytesThatAreNoUtf8AreReplaced)
{
	pod_buffer buffer;
	buffer.describe("na\xffme", "\xc3");
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, "k\xff");
	spa_pod_builder_string(&buffer.builder, "v\xff\u00e4");
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_EQ(pod->title, "na\ufffdme");
	EXPECT_EQ(pod->description, "\ufffd");
	EXPECT_STREQ(pod->json, "{\n  \"k\ufffd\": \"v\ufffd\u00e4\"\n }");
	EXPECT_STREQ(parse_array<short_text>(SPA_TYPE_String, {{"\xff"}})->json, "[ \ufffd ]");
	EXPECT_STREQ(hs_pod_new("a", "b", "string", "\xff")->value, "\ufffd");
}

TEST(PodParse, AStringMemberIsCutAt511Bytes)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, "a");
	spa_pod_builder_string(&buffer.builder, std::string(600, 'x').c_str());
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	EXPECT_EQ(hs_pod_parse(buffer.pod())->json, "{\n  \"a\": \"" + std::string(511, 'x') + "\"\n }");
}

TEST(PodParse, AStructureWhoseTextIsTooLongIsRefused)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	for (const char *name : {"a", "b", "c", "d", "e"}) {
		spa_pod_builder_string(&buffer.builder, name);
		spa_pod_builder_string(&buffer.builder, std::string(500, 'x').c_str());
	}
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	const hs_log_capture log;
	expect_refused(buffer.pod(), log);
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_DEBUG, "Structure Level is too long")) << log.text();
}

TEST(PodParse, AMemberThatIsNoScalarIsRefusedWithBothWarnings)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_frame inner;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, "good");
	spa_pod_builder_int(&buffer.builder, 1);
	spa_pod_builder_string(&buffer.builder, "nested");
	spa_pod_builder_push_struct(&buffer.builder, &inner);
	spa_pod_builder_pop(&buffer.builder, &inner);
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();

	const hs_log_capture log;
	EXPECT_EQ(hs_pod_parse(buffer.pod()), nullptr);
	ASSERT_EQ(log.lines().size(), 2u) << log.text();
	EXPECT_EQ(log.lines()[0].text, "Failed to parse simple type 'NULL' in nested.");
	EXPECT_EQ(log.lines()[1].text, "Could not parse struct POD type for 14.");
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN), 2u);
}

TEST(PodParse, AMemberWhoseNameIsNoStringIsRefusedWithBothWarnings)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_int(&buffer.builder, 1);
	spa_pod_builder_int(&buffer.builder, 2);
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();

	const hs_log_capture log;
	EXPECT_EQ(hs_pod_parse(buffer.pod()), nullptr);
	ASSERT_EQ(log.lines().size(), 2u) << log.text();
	EXPECT_EQ(log.lines()[0].text, "Failed to parse simple type 'NULL' in (null).");
	EXPECT_EQ(log.lines()[1].text, "Could not parse struct POD type for 14.");
}

TEST(PodParse, MemberNamesThatAreEmptyTooLongOrThereTwiceAreRefused)
{
	for (const std::string &name : {std::string{}, std::string{"a"}, std::string(129, 'x')}) {
		pod_buffer buffer;
		buffer.describe();
		spa_pod_frame frame;
		spa_pod_builder_push_struct(&buffer.builder, &frame);
		spa_pod_builder_string(&buffer.builder, "a");
		spa_pod_builder_int(&buffer.builder, 1);
		spa_pod_builder_string(&buffer.builder, name.c_str());
		spa_pod_builder_string(&buffer.builder, "text");
		spa_pod_builder_pop(&buffer.builder, &frame);
		buffer.finish();

		const hs_log_capture log;
		EXPECT_EQ(hs_pod_parse(buffer.pod()), nullptr) << name;
		ASSERT_EQ(log.lines().size(), 2u) << log.text();
		EXPECT_EQ(log.lines()[0].text, "Member name '" + name + "' is empty, too long or there twice.");
		EXPECT_EQ(log.lines()[1].text, "Could not parse struct POD type for 14.");
	}
}

TEST(PodParse, AMemberNameOf128BytesIsTaken)
{
	const std::string name(128, 'x');
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, name.c_str());
	spa_pod_builder_int(&buffer.builder, 1);
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_EQ(pod->json, "{\n  \"" + name + "\": \"1\"\n }");
}

TEST(PodParse, AStructureTextOf2047BytesFitsAndALongerOneIsRefused)
{
	/* "{\n" and "\n }", 11 bytes beside each of four values, and ",\n" that the last member has not. */
	constexpr size_t rest = 2047 - (2 + 3) - 4 * 11 + 2 - 3 * 511;
	for (const size_t length : {rest, rest + 1}) {
		pod_buffer buffer;
		buffer.describe();
		spa_pod_frame frame;
		spa_pod_builder_push_struct(&buffer.builder, &frame);
		for (const auto &[name, n] :
		     {std::pair{"a", size_t{511}}, {"b", size_t{511}}, {"c", size_t{511}}, {"d", length}}) {
			spa_pod_builder_string(&buffer.builder, name);
			spa_pod_builder_string(&buffer.builder, std::string(n, 'x').c_str());
		}
		spa_pod_builder_pop(&buffer.builder, &frame);
		buffer.finish();
		const hs_log_capture log;
		const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
		EXPECT_EQ(pod != nullptr, length == rest) << log.text();
		if (pod) {
			EXPECT_EQ(std::strlen(pod->json), 2047u);
		}
	}
}

TEST(PodParse, ANameWithoutValueIsRefused)
{
	pod_buffer buffer;
	buffer.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&buffer.builder, &frame);
	spa_pod_builder_string(&buffer.builder, "alone");
	spa_pod_builder_pop(&buffer.builder, &frame);
	buffer.finish();

	const hs_log_capture log;
	EXPECT_EQ(hs_pod_parse(buffer.pod()), nullptr);
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_WARN, "Failed to parse simple type 'NULL' in alone."))
		<< log.text();
}

TEST(PodParse, AnotherValueTypeIsWarnedOfWithItsId)
{
	pod_buffer rectangle;
	rectangle.describe();
	spa_pod_builder_rectangle(&rectangle.builder, 1, 2);
	rectangle.finish();
	{
		const hs_log_capture log;
		expect_refused(rectangle.pod(), log, SPA_LOG_LEVEL_WARN);
		EXPECT_EQ(log.lines()[0].text, "Could not parse unknown POD type for 10.");
	}

	pod_buffer choice;
	choice.describe();
	spa_pod_frame frame;
	spa_pod_builder_push_choice(&choice.builder, &frame, SPA_CHOICE_None, 0);
	spa_pod_builder_int(&choice.builder, 1);
	spa_pod_builder_pop(&choice.builder, &frame);
	choice.finish();
	{
		const hs_log_capture log;
		expect_refused(choice.pod(), log, SPA_LOG_LEVEL_WARN);
		EXPECT_EQ(log.lines()[0].text, "Could not parse unknown POD type for 19.");
	}
}

TEST(PodParse, AValueOfMoreThan0xfffffBytesIsRefused)
{
	for (const uint32_t n : {0xfffff - 8u, 0xfffff - 8u + 1u}) {
		const hs_log_capture log;
		pod_buffer buffer{0x110000};
		buffer.describe();
		/* One element of another type, so that only the size counts. */
		const std::vector<char> element(n);
		spa_pod_builder_array(&buffer.builder, n, SPA_TYPE_Bytes, 1, element.data());
		buffer.finish();
		const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
		EXPECT_EQ(pod != nullptr, n + 8 <= 0xfffff);
		EXPECT_EQ(log.count(SPA_LOG_LEVEL_DEBUG), pod ? 0u : 1u) << log.text();
	}
}

TEST(PodParse, WhatIsNoDescriptionIsRefused)
{
	{
		const hs_log_capture log;
		const spa_pod_int number = SPA_POD_INIT_Int(5);
		expect_refused(&number.pod, log);
	}
	{
		const hs_log_capture log;
		/* An object of four bytes has no room for its type and id. */
		alignas(8) const uint32_t words[] = {4, SPA_TYPE_Object, SPA_TYPE_OBJECT_PropInfo};
		expect_refused(reinterpret_cast<const spa_pod *>(words), log);
	}
	{
		const hs_log_capture log;
		pod_buffer buffer;
		spa_pod_frame frame;
		spa_pod_builder_push_object(&buffer.builder, &frame, SPA_TYPE_OBJECT_Props, 0);
		spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_type, 0);
		spa_pod_builder_int(&buffer.builder, 1);
		spa_pod_builder_pop(&buffer.builder, &frame);
		expect_refused(buffer.pod(), log);
	}
	{
		const hs_log_capture log;
		pod_buffer buffer;
		spa_pod_frame frame;
		spa_pod_builder_push_object(&buffer.builder, &frame, SPA_TYPE_OBJECT_PropInfo, 0);
		spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(&buffer.builder, "name");
		spa_pod_builder_pop(&buffer.builder, &frame);
		expect_refused(buffer.pod(), log);
	}
}

TEST(PodParse, AScalarThatIsTooSmallForItsTypeIsRefused)
{
	for (const uint32_t type : {SPA_TYPE_Bool, SPA_TYPE_Id, SPA_TYPE_Int, SPA_TYPE_Long, SPA_TYPE_Float,
				    SPA_TYPE_Double, SPA_TYPE_String}) {
		SCOPED_TRACE(type);
		const hs_log_capture log;
		pod_buffer buffer;
		buffer.describe();
		const uint32_t size = type == SPA_TYPE_String				 ? 0
				      : type == SPA_TYPE_Long || type == SPA_TYPE_Double ? 4
											 : 3;
		const spa_pod head = SPA_POD_INIT(size, type);
		spa_pod_builder_raw(&buffer.builder, &head, sizeof(head));
		spa_pod_builder_raw_padded(&buffer.builder, "\1\1\1\1", size);
		buffer.finish();
		expect_refused(buffer.pod(), log);
	}
}

TEST(PodParse, AStringWithoutTerminatorIsRefused)
{
	const hs_log_capture log;
	pod_buffer buffer;
	buffer.describe();
	const spa_pod head = SPA_POD_INIT(8, SPA_TYPE_String);
	spa_pod_builder_raw(&buffer.builder, &head, sizeof(head));
	spa_pod_builder_raw(&buffer.builder, "12345678", 8);
	buffer.finish();
	expect_refused(buffer.pod(), log);
}

TEST(PodParse, ANameWithoutTerminatorCountsAsMissing)
{
	pod_buffer buffer;
	spa_pod_frame frame;
	spa_pod_builder_push_object(&buffer.builder, &frame, SPA_TYPE_OBJECT_PropInfo, 0);
	spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_name, 0);
	const spa_pod head = SPA_POD_INIT(8, SPA_TYPE_String);
	spa_pod_builder_raw(&buffer.builder, &head, sizeof(head));
	spa_pod_builder_raw(&buffer.builder, "12345678", 8);
	spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_description, 0);
	spa_pod_builder_int(&buffer.builder, 5);
	spa_pod_builder_prop(&buffer.builder, SPA_PROP_INFO_type, 0);
	spa_pod_builder_int(&buffer.builder, 5);
	spa_pod_builder_pop(&buffer.builder, &frame);
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_FALSE(pod->title);
	EXPECT_FALSE(pod->description);
}

TEST(PodParse, AnArrayWhoseElementsAreTooSmallForTheirTypeIsRefused)
{
	for (const uint32_t type :
	     {SPA_TYPE_Bool, SPA_TYPE_Id, SPA_TYPE_Int, SPA_TYPE_Long, SPA_TYPE_Float, SPA_TYPE_Double}) {
		SCOPED_TRACE(type);
		const hs_log_capture log;
		pod_buffer buffer;
		buffer.describe();
		spa_pod_builder_array(&buffer.builder, 2, type, 4, "\1\1\1\1\1\1\1\1");
		buffer.finish();
		expect_refused(buffer.pod(), log);
		EXPECT_EQ(log.lines()[0].text, "Array Level is malformed");
	}
}

TEST(PodParse, AStringArrayWithoutTerminatorsIsRefused)
{
	const hs_log_capture log;
	pod_buffer buffer;
	buffer.describe();
	spa_pod_builder_array(&buffer.builder, 4, SPA_TYPE_String, 2, "one\0four");
	buffer.finish();
	expect_refused(buffer.pod(), log);
}

TEST(PodParse, AnArrayWithoutItsHeaderIsRefused)
{
	const hs_log_capture log;
	pod_buffer buffer;
	buffer.describe();
	const spa_pod head = SPA_POD_INIT(4, SPA_TYPE_Array);
	spa_pod_builder_raw(&buffer.builder, &head, sizeof(head));
	spa_pod_builder_raw_padded(&buffer.builder, "\4\0\0\0", 4);
	buffer.finish();
	expect_refused(buffer.pod(), log);
}

TEST(PodParse, AnArrayOfElementsOfNoSizeHasNone)
{
	pod_buffer buffer;
	buffer.describe();
	/* Eight bytes that belong to no element. */
	const spa_pod_array head = {{sizeof(spa_pod_array_body) + 8, SPA_TYPE_Array}, {{0, SPA_TYPE_Int}}};
	spa_pod_builder_raw(&buffer.builder, &head, sizeof(head));
	spa_pod_builder_raw(&buffer.builder, "12345678", 8);
	buffer.finish();
	const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
	ASSERT_NE(pod, nullptr);
	EXPECT_EQ(pod->n_elements, 0u);
	EXPECT_STREQ(pod->json, " ]");
}

TEST(PodParse, ElementsAtOddAddressesAreRead)
{
	/* Nine bytes each, of which the first eight count. */
	char elements[18] = {};
	const double numbers[] = {0.5, -2};
	std::memcpy(elements, &numbers[0], 8);
	std::memcpy(elements + 9, &numbers[1], 8);
	pod_buffer buffer;
	buffer.describe();
	spa_pod_builder_array(&buffer.builder, 9, SPA_TYPE_Double, 2, elements);
	buffer.finish();
	EXPECT_STREQ(hs_pod_parse(buffer.pod())->json, "[ 0.500000, -2.000000 ]");
}

TEST(PodParse, APodAtAnOddAddressIsRefused)
{
	pod_buffer buffer;
	build_struct(buffer);
	std::vector<uint8_t> moved(buffer.size() + 1);
	std::memcpy(moved.data() + 1, buffer.pod(), buffer.size());
	const hs_log_capture log;
	expect_refused(reinterpret_cast<const spa_pod *>(moved.data() + 1), log);
}

/*
 * Damaged descriptions: each one lies in memory of its very size, so that the sanitizers see a read past
 * its end. What comes out does not matter, but every refusal is logged.
 */
class PodParseDamaged : public testing::TestWithParam<void (*)(pod_buffer &)>
{
protected:
	PodParseDamaged()
	{
		GetParam()(original);
	}

	/** Parses the first `size` bytes, which the outermost size is adapted to. */
	static void parse(const uint8_t *bytes, size_t size)
	{
		const hs_malloc_ptr<uint8_t> exact{static_cast<uint8_t *>(std::malloc(size))};
		std::memcpy(exact.get(), bytes, size);
		const auto body = static_cast<uint32_t>(size - sizeof(spa_pod));
		std::memcpy(exact.get(), &body, sizeof(body));

		const hs_log_capture log;
		const hs_pod_ptr pod = hs_pod_parse(reinterpret_cast<const spa_pod *>(exact.get()));
		if (!pod) {
			EXPECT_GE(log.lines().size(), 1u);
			return;
		}
		EXPECT_LT(strnlen(pod->value, sizeof(pod->value)), sizeof(pod->value));
		EXPECT_LT(strnlen(pod->json, sizeof(pod->json)), sizeof(pod->json));
		EXPECT_LT(strnlen(pod->signature, sizeof(pod->signature)), sizeof(pod->signature));
	}

	pod_buffer original;
};

TEST_P(PodParseDamaged, CutAnywhereReadsNothingPastItsEnd)
{
	for (size_t size = sizeof(spa_pod); size <= original.size(); size++)
		parse(original.bytes(), size);
}

TEST_P(PodParseDamaged, WithAnyWordReplacedReadsNothingPastItsEnd)
{
	const uint32_t words[] = {0,	      1,	  2,	   3,	       4,	  5,   6,
				  7,	      8,	  9,	   12,	       13,	  14,  15,
				  16,	      19,	  32,	   255,	       ~0u,	  ~7u, 0xfffff,
				  0x7fffffff, 0x80000000, 0x40001, 0x01010101, 0xfffffff0};
	for (size_t at = sizeof(uint32_t); at + sizeof(uint32_t) <= original.size(); at += sizeof(uint32_t)) {
		for (const uint32_t word : words) {
			std::vector<uint8_t> damaged{original.bytes(), original.bytes() + original.size()};
			std::memcpy(&damaged[at], &word, sizeof(word));
			parse(damaged.data(), damaged.size());
		}
	}
}

TEST_P(PodParseDamaged, WithRandomBytesReadsNothingPastItsEnd)
{
	std::minstd_rand random{42};
	for (int round = 0; round < 2000; round++) {
		std::vector<uint8_t> damaged{original.bytes(), original.bytes() + original.size()};
		for (auto n = random() % 4 + 1; n > 0; n--)
			damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
		parse(damaged.data(), damaged.size());
	}
}

INSTANTIATE_TEST_SUITE_P(
	Descriptions, PodParseDamaged,
	testing::Values([](pod_buffer &buffer) { build_struct(buffer); },
			[](pod_buffer &buffer) {
				build_array<int32_t>(buffer, SPA_TYPE_Int, {1, 2, 3});
			},
			[](pod_buffer &buffer) {
				build_array<double>(buffer, SPA_TYPE_Double, {1, 2});
			},
			[](pod_buffer &buffer) {
				build_array<short_text>(buffer, SPA_TYPE_String, {{"one"}, {"two"}});
			},
			[](pod_buffer &buffer) {
				buffer.describe();
				spa_pod_builder_string(&buffer.builder, "a text");
				buffer.finish();
			},
			[](pod_buffer &buffer) {
				buffer.describe();
				spa_pod_builder_long(&buffer.builder, 5);
				buffer.finish();
			}));

TEST(PodReadScalar, TellsWhatTheParserTells)
{
	const auto expect_alike = [](auto build) {
		pod_buffer buffer;
		buffer.describe();
		build(&buffer.builder);
		buffer.finish();
		const hs_pod_ptr parsed = hs_pod_parse(buffer.pod());
		ASSERT_NE(parsed, nullptr);
		SCOPED_TRACE(*parsed->type);
		hs_pod_scalar scalar;
		ASSERT_TRUE(hs_pod_read_scalar(buffer.pod(), &scalar));
		EXPECT_EQ(parsed->title, scalar.title);
		EXPECT_EQ(parsed->type, scalar.type->name);
		EXPECT_STREQ(scalar.value, parsed->value);
	};
	expect_alike([](auto *b) { spa_pod_builder_bool(b, true); });
	expect_alike([](auto *b) { spa_pod_builder_id(b, 3000000000u); });
	expect_alike([](auto *b) { spa_pod_builder_int(b, INT32_MIN); });
	expect_alike([](auto *b) { spa_pod_builder_long(b, INT64_MIN); });
	expect_alike([](auto *b) { spa_pod_builder_float(b, 0.1f); });
	expect_alike([](auto *b) { spa_pod_builder_double(b, -DBL_MAX); });
	expect_alike([](auto *b) { spa_pod_builder_string(b, std::string(511, 'x').c_str()); });
}

TEST(PodReadScalar, LeavesToTheParserWhatHasToBeCutOrMendedAndWhatHasNoName)
{
	const auto reads = [](const char *name, const std::string &value) {
		pod_buffer buffer;
		buffer.describe(name);
		spa_pod_builder_string(&buffer.builder, value.c_str());
		buffer.finish();
		hs_pod_scalar scalar;
		return hs_pod_read_scalar(buffer.pod(), &scalar);
	};
	EXPECT_TRUE(reads("name", "text"));
	EXPECT_FALSE(reads("name", std::string(512, 'x')));
	EXPECT_FALSE(reads("name", "te\xffxt"));
	EXPECT_FALSE(reads("na\xffme", "text"));
	EXPECT_FALSE(reads(nullptr, "text"));
}

TEST(PodReadScalar, ReadsNoArrayNoStructureAndNothingThatIsNoDescription)
{
	hs_pod_scalar scalar;
	pod_buffer array;
	build_array<int32_t>(array, SPA_TYPE_Int, {1});
	EXPECT_FALSE(hs_pod_read_scalar(array.pod(), &scalar));
	pod_buffer structure;
	build_struct(structure);
	EXPECT_FALSE(hs_pod_read_scalar(structure.pod(), &scalar));
	pod_buffer number;
	spa_pod_builder_int(&number.builder, 1);
	EXPECT_FALSE(hs_pod_read_scalar(number.pod(), &scalar));
}

TEST(PodBuild, GivesAStructOfNameAndValueOfItsExactSize)
{
	const built setting{hs_pod_build("gain", "5", "int32", nullptr)};
	ASSERT_NE(setting.value, nullptr);
	EXPECT_EQ(setting.name, "gain");
	EXPECT_EQ(setting.value->type, uint32_t{SPA_TYPE_Int});
	/* A string of five bytes and a number of four, each padded and with its header. */
	EXPECT_EQ(setting.pod->size, 16u + 16u);
}

TEST(PodBuild, BuildsEveryScalar)
{
	bool flag;
	uint32_t id;
	int32_t word;
	int64_t number;
	float single;
	double real;
	const char *text;
	const auto build = [](const char *value, const char *type) {
		const hs_log_capture log;
		built setting{hs_pod_build("x", value, type, nullptr)};
		EXPECT_EQ(log.complaints(), 0u) << log.text();
		return setting;
	};
	EXPECT_EQ(spa_pod_get_bool(build("true", "boolean").value, &flag), 0);
	EXPECT_TRUE(flag);
	EXPECT_EQ(spa_pod_get_bool(build("false", "boolean").value, &flag), 0);
	EXPECT_FALSE(flag);
	EXPECT_EQ(spa_pod_get_id(build("4294967295", "uint32").value, &id), 0);
	EXPECT_EQ(id, 4294967295u);
	EXPECT_EQ(spa_pod_get_int(build("-0x10", "int32").value, &word), 0);
	EXPECT_EQ(word, -16);
	EXPECT_EQ(spa_pod_get_long(build("-9223372036854775808", "int64").value, &number), 0);
	EXPECT_EQ(number, INT64_MIN);
	EXPECT_EQ(spa_pod_get_float(build("0.5", "float").value, &single), 0);
	EXPECT_EQ(single, 0.5f);
	EXPECT_EQ(spa_pod_get_double(build("1e300", "double").value, &real), 0);
	EXPECT_EQ(real, 1e300);

	const built string = build("a \"text\"", "string");
	EXPECT_EQ(spa_pod_get_string(string.value, &text), 0);
	EXPECT_STREQ(text, "a \"text\"");
	const built empty = build("", "string");
	EXPECT_EQ(spa_pod_get_string(empty.value, &text), 0);
	EXPECT_STREQ(text, "");
}

TEST(PodBuild, TheEndsOfARangeAndNumbersOfAnyBaseAreTaken)
{
	const auto build = [](const char *value, const char *type) {
		return built{hs_pod_build("x", value, type, nullptr)};
	};
	uint32_t id = 1;
	int32_t word = 0;
	int64_t number = 0;
	float single = 0;
	double real = 0;
	EXPECT_EQ(spa_pod_get_id(build("0", "uint32").value, &id), 0);
	EXPECT_EQ(id, 0u);
	EXPECT_EQ(spa_pod_get_id(build("0xffffffff", "uint32").value, &id), 0);
	EXPECT_EQ(id, UINT32_MAX);
	EXPECT_EQ(spa_pod_get_id(build("010", "uint32").value, &id), 0);
	EXPECT_EQ(id, 8u);
	EXPECT_EQ(spa_pod_get_int(build("2147483647", "int32").value, &word), 0);
	EXPECT_EQ(word, INT32_MAX);
	EXPECT_EQ(spa_pod_get_int(build("-2147483648", "int32").value, &word), 0);
	EXPECT_EQ(word, INT32_MIN);
	EXPECT_EQ(spa_pod_get_int(build("010", "int32").value, &word), 0);
	EXPECT_EQ(word, 8);
	EXPECT_EQ(spa_pod_get_long(build("9223372036854775807", "int64").value, &number), 0);
	EXPECT_EQ(number, INT64_MAX);
	EXPECT_EQ(spa_pod_get_long(build("-0x10", "int64").value, &number), 0);
	EXPECT_EQ(number, -16);
	EXPECT_EQ(spa_pod_get_float(build("3.40282347e+38", "float").value, &single), 0);
	EXPECT_EQ(single, FLT_MAX);
	EXPECT_EQ(spa_pod_get_double(build("-1.7976931348623157e308", "double").value, &real), 0);
	EXPECT_EQ(real, -DBL_MAX);
}

TEST(PodBuild, AUint32BeyondItsRangeLeavesOnlyTheName)
{
	expect_only_name_and_warning("4294967296", "uint32",
				     "Failed to parse \"gain\"=\"4294967296\" as uint32");
}

TEST(PodBuild, ATextThatIsNoValueOfItsTypeLeavesOnlyTheName)
{
	const std::initializer_list<std::pair<const char *, const char *>> cases = {
		{"1", "boolean"}, {"TRUE", "boolean"},	   {"", "boolean"},
		{"", "uint32"},	  {"-1", "uint32"},	   {"5 ", "uint32"},
		{"", "int32"},	  {"2147483648", "int32"}, {"-2147483649", "int32"},
		{"1.5", "int32"}, {"", "int64"},	   {"9223372036854775808", "int64"},
		{"", "float"},	  {"1,5", "float"},	   {"1e300", "float"},
		{"", "double"},	  {"1.5x", "double"},	   {"1e999", "double"},
	};
	for (const auto &[value, type] : cases)
		expect_only_name_and_warning(
			value, type, "Failed to parse \"gain\"=\"" + std::string{value} + "\" as " + type);
}

TEST(PodBuild, AnUnsupportedTypeLeavesOnlyTheName)
{
	expect_only_name_and_warning("{}", "struct", "Unsupported type 'struct' (\"gain\"=\"{}\")");
	expect_only_name_and_warning("5", "number", "Unsupported type 'number' (\"gain\"=\"5\")");
	expect_only_name_and_warning("5", "", "Unsupported type '' (\"gain\"=\"5\")");
}

TEST(PodBuild, TheTypeIsInferredFromTheText)
{
	const std::initializer_list<std::pair<const char *, uint32_t>> cases = {
		{"true", SPA_TYPE_Bool},
		{"false", SPA_TYPE_Bool},
		{"True", SPA_TYPE_String},
		{"-1", SPA_TYPE_Int},
		{"5", SPA_TYPE_Id},
		{"0", SPA_TYPE_Id},
		{"0x10", SPA_TYPE_Id},
		{"4294967295", SPA_TYPE_Id},
		{"4294967296", SPA_TYPE_Long},
		{"-2147483648", SPA_TYPE_Int},
		{"-2147483649", SPA_TYPE_Long},
		{"-3000000000", SPA_TYPE_Long},
		{"1.5", SPA_TYPE_Float},
		{"9223372036854775808", SPA_TYPE_Float},
		{"1e-50", SPA_TYPE_String},
		{"1,5", SPA_TYPE_String},
		{"1.5 ", SPA_TYPE_String},
		{"", SPA_TYPE_String},
		{"text", SPA_TYPE_String},
	};
	for (const auto &[value, type] : cases) {
		SCOPED_TRACE(value);
		EXPECT_EQ(inferred_type(value), type);
	}
}

TEST(PodBuild, DecimalsHaveAPointInEveryLocale)
{
	const hs_comma_locale locale;
	ASSERT_TRUE(hs_comma_locale::active());
	EXPECT_EQ(inferred_type("1.5"), uint32_t{SPA_TYPE_Float});
	EXPECT_EQ(inferred_type("1,5"), uint32_t{SPA_TYPE_String});
}

TEST(PodBuild, ANullNameIsAnEmptyString)
{
	const built setting{hs_pod_build(nullptr, "5", "int32", nullptr)};
	ASSERT_NE(setting.value, nullptr);
	EXPECT_EQ(setting.name, "");

	const hs_log_capture log;
	const built refused{hs_pod_build(nullptr, "x", "int32", nullptr)};
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_WARN, "Failed to parse \"(null)\"=\"x\" as int32"))
		<< log.text();
}

TEST(PodBuildDeathTest, ANullValueAborts)
{
	EXPECT_EXIT(hs_pod_build("gain", nullptr, "int32", nullptr), testing::KilledBySignal(SIGABRT),
		    "'value' failed at .*pod-build\\.cpp:[0-9]+ hs_pod_build\\(\\)");
}

TEST(PodBuild, BuildsArraysOfEveryElementType)
{
	const built booleans{hs_pod_build("x", "[true, 0, 1]", "array", "ab")};
	EXPECT_EQ(elements_of<int32_t>(booleans.value, SPA_TYPE_Bool), (std::vector<int32_t>{1, 0, 1}));
	const built ids{hs_pod_build("x", "[4294967295]", "array", "au")};
	EXPECT_EQ(elements_of<uint32_t>(ids.value, SPA_TYPE_Id), std::vector<uint32_t>{4294967295u});
	const built ints{hs_pod_build("x", "[ -1, 2, 3 ]", "array", "ai")};
	EXPECT_EQ(elements_of<int32_t>(ints.value, SPA_TYPE_Int), (std::vector<int32_t>{-1, 2, 3}));
	const built longs{hs_pod_build("x", "[5000000000]", "array", "ax")};
	EXPECT_EQ(elements_of<int64_t>(longs.value, SPA_TYPE_Long), std::vector<int64_t>{5000000000});
	const built doubles{hs_pod_build("x", "[0.5, 2]", "array", "ad")};
	EXPECT_EQ(elements_of<double>(doubles.value, SPA_TYPE_Double), (std::vector<double>{0.5, 2}));
	const built strings{hs_pod_build("x", "[one, \"\", \"2 3\"]", "array", "as")};
	const auto texts = elements_of<short_text>(strings.value, SPA_TYPE_String);
	ASSERT_EQ(texts.size(), 3u);
	EXPECT_STREQ(texts[0].text, "one");
	EXPECT_STREQ(texts[1].text, "");
	EXPECT_STREQ(texts[2].text, "2 3");
}

TEST(PodBuild, AnArrayThatIsBuiltParsesBackToItsText)
{
	for (const char *type : {"ab", "au", "ai", "ax", "ad", "as"}) {
		SCOPED_TRACE(type);
		const built setting{hs_pod_build("x", "[ 1, 0 ]", "array", type)};
		ASSERT_NE(setting.value, nullptr);
		pod_buffer buffer;
		buffer.describe();
		spa_pod_builder_primitive(&buffer.builder, setting.value);
		buffer.finish();
		const hs_pod_ptr pod = hs_pod_parse(buffer.pod());
		ASSERT_NE(pod, nullptr);
		EXPECT_STREQ(pod->signature, type);
		EXPECT_EQ(pod->n_elements, 2u);
	}
}

TEST(PodBuild, AnArrayWithoutElementsAddsNothing)
{
	const hs_log_capture log;
	const built setting{hs_pod_build("gain", "[]", "array", "ai")};
	ASSERT_NE(setting.pod, nullptr);
	EXPECT_EQ(setting.name, "gain");
	EXPECT_EQ(setting.value, nullptr);
	EXPECT_EQ(log.complaints(), 0u) << log.text();
}

TEST(PodBuild, AnArrayOfUnknownElementsAddsNothing)
{
	for (const char *type : {static_cast<const char *>(nullptr), "af", "a{sv}", "()"}) {
		const hs_log_capture log;
		const built setting{hs_pod_build("gain", "[1]", "array", type)};
		ASSERT_NE(setting.pod, nullptr);
		EXPECT_EQ(setting.value, nullptr);
		EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_WARN, "Unkown array type.")) << log.text();
	}
}

TEST(PodBuild, WhatOutgrowsTheBufferGivesNull)
{
	/* 4096 bytes: the Struct's header, a name of 8 + 8 bytes, the value's header and its text. */
	EXPECT_NE(hs_pod_build("gain", std::string(4096 - 8 - 16 - 8 - 1, 'x').c_str(), "string", nullptr),
		  nullptr);
	EXPECT_EQ(hs_pod_build("gain", std::string(4096 - 8 - 16 - 8, 'x').c_str(), "string", nullptr),
		  nullptr);
	EXPECT_EQ(hs_pod_build(std::string(5000, 'x').c_str(), "5", "int32", nullptr), nullptr);
	EXPECT_EQ(hs_pod_build(std::string(5000, 'x').c_str(), "x", "int32", nullptr), nullptr);

	std::string numbers = "[";
	for (int i = 0; i < 2100; i++)
		numbers += "1,";
	numbers += "]";
	for (const char *type : {"ab", "au", "ai", "ax", "ad", "as"})
		EXPECT_EQ(hs_pod_build("gain", numbers.c_str(), "array", type), nullptr) << type;

	/* Few elements, but all as wide as the longest. */
	const std::string wide = "[" + std::string(500, 'x') + ",a,b,c,d,e,f,g,h]";
	EXPECT_EQ(hs_pod_build("gain", wide.c_str(), "array", "as"), nullptr);
}

TEST(PodValueIsValid, BooleansAndStringsAlwaysAre)
{
	for (const char *type : {"boolean", "string"}) {
		for (const char *value : {"", "x", "true"})
			EXPECT_TRUE(hs_pod_value_is_valid(*hs_schema_type_by_name(type), value));
	}
}

TEST(PodValueIsValid, NumbersMustBeInTheirRange)
{
	const auto valid = [](const char *type, const char *value) {
		return hs_pod_value_is_valid(*hs_schema_type_by_name(type), value);
	};
	for (const char *type : {"uint32", "int32", "int64", "float", "double"}) {
		SCOPED_TRACE(type);
		EXPECT_TRUE(valid(type, "0x10"));
		EXPECT_FALSE(valid(type, ""));
		EXPECT_FALSE(valid(type, "x"));
		EXPECT_FALSE(valid(type, nullptr));
	}
	EXPECT_TRUE(valid("uint32", "4294967295"));
	EXPECT_FALSE(valid("uint32", "4294967296"));
	EXPECT_FALSE(valid("uint32", "-1294967296"));
	EXPECT_TRUE(valid("int32", "-2147483648"));
	EXPECT_FALSE(valid("int32", "2147483648"));
	EXPECT_TRUE(valid("int64", "2147483648"));
	EXPECT_FALSE(valid("int64", "9223372036854775808"));
	EXPECT_TRUE(valid("float", "1.5"));
	EXPECT_FALSE(valid("float", "1e300"));
	EXPECT_TRUE(valid("double", "1e300"));
	EXPECT_FALSE(valid("double", "1,5"));
}

TEST(PodValueIsValid, ComplexTypesHaveNoScalars)
{
	EXPECT_FALSE(hs_pod_value_is_valid(*hs_schema_type_by_name("array"), "[ 1 ]"));
	EXPECT_FALSE(hs_pod_value_is_valid(*hs_schema_type_by_name("struct"), "{ }"));
}
