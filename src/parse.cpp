#include "parse.hpp"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <spa/utils/json.h>
#include <spa/utils/string.h>

#include <locale.h>

#include "assert.hpp"
#include "log.hpp"

namespace {

/** Longest token of an array, its terminator included. */
constexpr size_t token_size = 512;

locale_t c_locale()
{
	static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);

	HS_ASSERT(locale);
	return locale;
}

/** Whether a strto* call that began with errno 0 took the whole of a text that is not empty. */
bool consumed(const char *text, const char *end)
{
	return errno == 0 && end != text && *end == '\0';
}

void store_bool(const char *text, void *slot)
{
	*static_cast<bool *>(slot) = spa_streq(text, "true") || spa_streq(text, "1");
}

void store_uint32(const char *text, void *slot)
{
	if (!hs_parse_uint32(text, static_cast<uint32_t *>(slot)))
		pw_log_warn("Failed to parse '%s' as uint32_t", text);
}

void store_int32(const char *text, void *slot)
{
	if (!hs_parse_int32(text, static_cast<int32_t *>(slot)))
		pw_log_warn("Failed to parse '%s' as int32_t", text);
}

void store_int64(const char *text, void *slot)
{
	if (!hs_parse_int64(text, static_cast<int64_t *>(slot)))
		pw_log_warn("Failed to parse '%s' as int64_t", text);
}

void store_double(const char *text, void *slot)
{
	if (!hs_parse_double(text, static_cast<double *>(slot)))
		pw_log_warn("Failed to parse '%s' as double", text);
}

void store_text(const char *text, void *slot)
{
	char *copy = strdup(text);

	HS_ASSERT(copy);
	*static_cast<char **>(slot) = copy;
}

struct element_type {
	const char *signature;
	/** Bytes from one element to the next. */
	uint32_t stride;
	/** Bytes that an element is told to have. */
	uint32_t size;
	void (*store)(const char *text, void *slot);
};

constexpr element_type element_types[] = {
	{"ab", sizeof(bool), sizeof(bool), store_bool},	       {"au", sizeof(uint32_t), sizeof(uint32_t), store_uint32},
	{"ai", sizeof(int32_t), sizeof(int32_t), store_int32}, {"ax", sizeof(int64_t), sizeof(int64_t), store_int64},
	{"ad", sizeof(double), sizeof(double), store_double},  {"as", sizeof(char *), HS_PARSE_TEXT_SIZE, store_text},
};

const element_type *find_element_type(const char *signature)
{
	for (const element_type &type : element_types) {
		if (spa_streq(type.signature, signature))
			return &type;
	}
	return nullptr;
}

/* g++ at -O3 sees a copy in the decoder that could lack its terminator; the decoder writes one. */
#pragma GCC diagnostic push
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wstringop-truncation"
#endif
bool decode(const char *token, int length, char (&element)[token_size])
{
	return spa_json_parse_stringn(token, length, element, token_size) > 0;
}
#pragma GCC diagnostic pop

/** The elements of a JSON array one by one, or the values of a text that is none. */
class array_walk
{
public:
	array_walk(const char *text, size_t length)
	{
		spa_json_init(&outer, text, length);
		if (spa_json_enter_array(&outer, &elements) <= 0)
			spa_json_init(&elements, text, length);
	}

	array_walk(const array_walk &) = delete;
	array_walk &operator=(const array_walk &) = delete;

	/** The next element decoded into `element`; false at the end or at one that cannot be decoded. */
	bool next(char (&element)[token_size])
	{
		const char *value;
		const int length = spa_json_next(&elements, &value);
		if (length <= 0 || static_cast<size_t>(length) >= token_size)
			return false;

		/* The decoder reads what follows a backslash, also where the text ends with that. */
		char token[token_size];
		std::memcpy(token, value, static_cast<size_t>(length));
		token[length] = '\0';
		return decode(token, length, element);
	}

private:
	spa_json outer;
	spa_json elements;
};

} // namespace

bool hs_parse_uint32(const char *text, uint32_t *value)
{
	if (!text)
		return false;

	char *end;
	errno = 0;
	const unsigned long long number = std::strtoull(text, &end, 0);
	if (!consumed(text, end) || number > UINT32_MAX)
		return false;
	*value = static_cast<uint32_t>(number);
	return true;
}

bool hs_parse_int32(const char *text, int32_t *value)
{
	int64_t number;
	if (!hs_parse_int64(text, &number) || number < INT32_MIN || number > INT32_MAX)
		return false;
	*value = static_cast<int32_t>(number);
	return true;
}

bool hs_parse_int64(const char *text, int64_t *value)
{
	if (!text)
		return false;

	char *end;
	errno = 0;
	const int64_t number = std::strtoll(text, &end, 0);
	if (!consumed(text, end))
		return false;
	*value = number;
	return true;
}

bool hs_parse_float(const char *text, float *value)
{
	if (!text)
		return false;

	char *end;
	errno = 0;
	const float number = strtof_l(text, &end, c_locale());
	if (!consumed(text, end))
		return false;
	*value = number;
	return true;
}

bool hs_parse_double(const char *text, double *value)
{
	if (!text)
		return false;

	char *end;
	errno = 0;
	const double number = strtod_l(text, &end, c_locale());
	if (!consumed(text, end))
		return false;
	*value = number;
	return true;
}

uint32_t hs_parse_array_count(const char *text, size_t length)
{
	array_walk walk{text, length};
	char element[token_size];
	uint32_t count = 0;

	while (walk.next(element))
		count++;
	return count;
}

void hs_parse_array(const char *text, size_t length, uint32_t count, void **out, const char *complex_type,
		    uint32_t *out_size)
{
	const element_type *type = find_element_type(complex_type);
	if (!type) {
		pw_log_warn("Unkown array type.");
		*out_size = 0;
		return;
	}

	/* What is told must fit, and there is a buffer even for no elements. */
	count = std::min(count, UINT32_MAX / type->size);
	void *packed = std::calloc(std::max(count, 1u), type->size);
	HS_ASSERT(packed);

	array_walk walk{text, length};
	char element[token_size];
	uint32_t n = 0;
	while (n < count && walk.next(element)) {
		type->store(element, static_cast<char *>(packed) + size_t{n} * type->stride);
		n++;
	}
	*out = packed;
	*out_size = n * type->size;
}
