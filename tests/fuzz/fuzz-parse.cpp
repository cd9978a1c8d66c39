/* Numbers and arrays from text. */
#include "fuzz.hpp"

#include <algorithm>
#include <vector>

#include "owned.hpp"
#include "parse.hpp"

namespace {

struct packed {
	hs_malloc_ptr<void> data;
	uint32_t size = 0;
};

packed pack(std::string_view text, uint32_t count, const char *type)
{
	const std::unique_ptr<char[]> copy = hs_fuzz_copy(text);
	packed result;
	void *data = nullptr;
	hs_parse_array(copy.get(), text.size(), count, &data, type, &result.size);
	result.data.reset(data);
	return result;
}

std::vector<std::string> texts_of(std::string_view text, uint32_t count)
{
	const packed array = pack(text, count, "as");
	HS_REQUIRE(array.data && array.size % HS_PARSE_TEXT_SIZE == 0);
	std::vector<std::string> texts;
	for (uint32_t i = 0; i < array.size / HS_PARSE_TEXT_SIZE; i++) {
		const hs_malloc_ptr<char> element{static_cast<char *const *>(array.data.get())[i]};
		texts.emplace_back(element.get());
		HS_REQUIRE(texts.back().size() < 512);
	}
	return texts;
}

/** An array of numbers has the number of each text, and 0 for one that is none. */
template <typename T>
void check_numbers(std::string_view text, const std::vector<std::string> &texts, const char *type,
		   bool (*parse)(const char *, T *))
{
	const packed array = pack(text, static_cast<uint32_t>(texts.size()), type);
	HS_REQUIRE(array.data && array.size == texts.size() * sizeof(T));
	for (size_t i = 0; i < texts.size(); i++) {
		T expected{};
		static_cast<void>(parse(texts[i].c_str(), &expected));
		HS_REQUIRE(std::memcmp(static_cast<const T *>(array.data.get()) + i, &expected, sizeof(T)) == 0);
	}
}

void check_booleans(std::string_view text, const std::vector<std::string> &texts)
{
	const packed array = pack(text, static_cast<uint32_t>(texts.size()), "ab");
	HS_REQUIRE(array.data && array.size == texts.size());
	for (size_t i = 0; i < texts.size(); i++)
		HS_REQUIRE(static_cast<const bool *>(array.data.get())[i] == (texts[i] == "true" || texts[i] == "1"));
}

/** A narrower number is the wider one, where both take the text. */
void check_number(const char *text)
{
	int32_t word = 0;
	int64_t wide = 0;
	uint32_t id = 0;
	float single = 0;
	double real = 0;
	const bool is_wide = hs_parse_int64(text, &wide);
	const bool is_word = hs_parse_int32(text, &word);
	HS_REQUIRE(is_word == (is_wide && wide >= INT32_MIN && wide <= INT32_MAX));
	HS_REQUIRE(!is_word || word == wide);
	if (hs_parse_uint32(text, &id) && is_wide && wide >= 0)
		HS_REQUIRE(id == wide);
	if (is_wide) {
		int64_t again = 0;
		HS_REQUIRE(hs_parse_int64(std::to_string(wide).c_str(), &again) && again == wide);
	}
	if (hs_parse_float(text, &single) && hs_parse_double(text, &real) && single == single)
		HS_REQUIRE(static_cast<float>(real) == single ||
			   std::abs(static_cast<float>(real) / single - 1) < 1e-6f);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string_view text{reinterpret_cast<const char *>(data), size};
	const std::unique_ptr<char[]> copy = hs_fuzz_copy(text);
	const uint32_t count = hs_parse_array_count(copy.get(), size);
	HS_REQUIRE(count <= size);

	const std::vector<std::string> texts = texts_of(text, count);
	HS_REQUIRE(texts.size() == count);
	HS_REQUIRE(texts_of(text, UINT32_MAX / HS_PARSE_TEXT_SIZE / 4096).size() <= count);
	const std::vector<std::string> first = texts_of(text, count / 2);
	HS_REQUIRE(first.size() == count / 2 && std::equal(first.begin(), first.end(), texts.begin()));

	check_booleans(text, texts);
	check_numbers<uint32_t>(text, texts, "au", hs_parse_uint32);
	check_numbers<int32_t>(text, texts, "ai", hs_parse_int32);
	check_numbers<int64_t>(text, texts, "ax", hs_parse_int64);
	check_numbers<double>(text, texts, "ad", hs_parse_double);
	HS_REQUIRE(pack(text, count, "af").size == 0);

	check_number(std::string{text}.c_str());
	for (const std::string &element : texts)
		check_number(element.c_str());
	return 0;
}
