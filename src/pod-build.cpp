#include "pod.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <spa/pod/builder.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "log.hpp"
#include "parse.hpp"

namespace {

const char *infer_type(const char *value)
{
	if (spa_streq(value, "true") || spa_streq(value, "false"))
		return "boolean";

	int64_t number;
	if (hs_parse_int64(value, &number)) {
		if (number >= 0 && number <= UINT32_MAX)
			return "uint32";
		return number >= INT32_MIN && number <= INT32_MAX ? "int32" : "int64";
	}

	float real;
	return hs_parse_float(value, &real) ? "float" : "string";
}

/** Adds a scalar; false where `value` is no text of that type. */
bool add_scalar(spa_pod_builder *builder, const hs_schema_type &type, const char *value)
{
	uint32_t id;
	int32_t word;
	int64_t number;
	float single;
	double real;

	switch (type.id) {
	case SPA_TYPE_Bool:
		if (!spa_streq(value, "true") && !spa_streq(value, "false"))
			return false;
		spa_pod_builder_bool(builder, spa_streq(value, "true"));
		return true;
	case SPA_TYPE_Id:
		if (!hs_parse_uint32(value, &id))
			return false;
		spa_pod_builder_id(builder, id);
		return true;
	case SPA_TYPE_Int:
		if (!hs_parse_int32(value, &word))
			return false;
		spa_pod_builder_int(builder, word);
		return true;
	case SPA_TYPE_Long:
		if (!hs_parse_int64(value, &number))
			return false;
		spa_pod_builder_long(builder, number);
		return true;
	case SPA_TYPE_Float:
		if (!hs_parse_float(value, &single))
			return false;
		spa_pod_builder_float(builder, single);
		return true;
	case SPA_TYPE_Double:
		if (!hs_parse_double(value, &real))
			return false;
		spa_pod_builder_double(builder, real);
		return true;
	case SPA_TYPE_String:
		spa_pod_builder_string(builder, value);
		return true;
	default:
		HS_UNREACHABLE();
	}
}

/** Adds `n` elements that lie side by side; false where they cannot fit into any POD of ours. */
bool add_elements(spa_pod_builder *builder, uint32_t size, uint32_t type, size_t n, const void *elements)
{
	if (n > hs_pod_buffer::size / size)
		return false;
	spa_pod_builder_array(builder, size, type, static_cast<uint32_t>(n), elements);
	return true;
}

bool add_booleans(spa_pod_builder *builder, const bool *booleans, size_t n)
{
	/* A boolean in a POD is a word wide. */
	const std::vector<int32_t> words(booleans, booleans + n);

	return add_elements(builder, sizeof(int32_t), SPA_TYPE_Bool, n, words.data());
}

/** Takes the texts over. */
bool add_strings(spa_pod_builder *builder, char *const *strings, size_t n)
{
	const std::vector<hs_malloc_ptr<char>> texts(strings, strings + n);

	/* Elements of an array are all as wide as the longest. */
	size_t width = 0;
	for (const auto &text : texts)
		width = std::max(width, std::strlen(text.get()) + 1);
	if (n > hs_pod_buffer::size / width)
		return false;

	std::vector<char> children(n * width);
	for (size_t i = 0; i < n; i++)
		std::strcpy(&children[i * width], texts[i].get());
	spa_pod_builder_array(builder, static_cast<uint32_t>(width), SPA_TYPE_String, static_cast<uint32_t>(n),
			      children.data());
	return true;
}

/** Adds the JSON array `value`, nothing where it has no elements; false where it cannot fit. */
bool add_array(spa_pod_builder *builder, const char *value, const char *complex_type)
{
	const size_t length = std::strlen(value);
	const uint32_t n = hs_parse_array_count(value, length);
	void *elements = nullptr;
	uint32_t size;
	hs_parse_array(value, length, n, &elements, complex_type, &size);
	const hs_malloc_ptr<void> owner{elements};
	if (size == 0)
		return true;

	const hs_schema_type *type = hs_schema_type_by_signature(complex_type + 1);
	HS_ASSERT(type);
	switch (type->id) {
	case SPA_TYPE_Bool:
		return add_booleans(builder, static_cast<const bool *>(elements), n);
	case SPA_TYPE_String:
		return add_strings(builder, static_cast<char *const *>(elements), n);
	default:
		return add_elements(builder, size / n, type->id, n, elements);
	}
}

/** Adds the value, nothing where the text does not fit the type; false where it cannot fit into the POD. */
bool add_value(spa_pod_builder *builder, const char *name, const char *value, const char *type_name,
	       const char *complex_type)
{
	const hs_schema_type *type = hs_schema_type_by_name(type_name);

	if (!type || type->id == SPA_TYPE_Struct) {
		pw_log_warn("Unsupported type '%s' (\"%s\"=\"%s\")", type_name, name ? name : "(null)", value);
		return true;
	}
	if (type->id == SPA_TYPE_Array)
		return add_array(builder, value, complex_type);
	if (!add_scalar(builder, *type, value))
		pw_log_warn("Failed to parse \"%s\"=\"%s\" as %s", name ? name : "(null)", value, type_name);
	return true;
}

} // namespace

hs_malloc_ptr<spa_pod> hs_pod_build(const char *name, const char *value, const char *type, const char *complex_type)
{
	HS_ASSERT(value);

	hs_pod_buffer buffer;
	spa_pod_builder builder;
	spa_pod_frame frame;
	spa_pod_builder_init(&builder, buffer.data, sizeof(buffer.data));
	spa_pod_builder_push_struct(&builder, &frame);
	spa_pod_builder_string(&builder, name);
	if (!add_value(&builder, name, value, type ? type : infer_type(value), complex_type))
		return nullptr;

	const void *built = spa_pod_builder_pop(&builder, &frame);
	if (!built)
		return nullptr;
	const size_t size = SPA_POD_SIZE(&frame.pod);
	hs_malloc_ptr<spa_pod> pod{static_cast<spa_pod *>(std::malloc(size))};
	HS_ASSERT(pod);
	std::memcpy(pod.get(), built, size);
	return pod;
}
