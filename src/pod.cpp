#include "pod.hpp"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include <spa/param/props.h>
#include <spa/pod/pod.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "log.hpp"
#include "parse.hpp"
#include "text-writer.hpp"
#include "utf8.hpp"

const hs_schema_type hs_schema_types[] = {
	{"boolean", SPA_TYPE_Bool, "b"},   {"uint32", SPA_TYPE_Id, "u"},
	{"int32", SPA_TYPE_Int, "i"},	   {"int64", SPA_TYPE_Long, "x"},
	{"float", SPA_TYPE_Float, "f"},	   {"double", SPA_TYPE_Double, "d"},
	{"string", SPA_TYPE_String, "s"},  {"array", SPA_TYPE_Array, "a"},
	{"struct", SPA_TYPE_Struct, "()"}, {nullptr, 0, nullptr},
};

namespace {

/** Largest value that a description may have, in bytes. */
constexpr uint32_t max_value_size = 0xfffff;

/** Of a structure's member: with every character escaped it is still a key that a table takes. */
constexpr size_t max_name_size = 128;

using digits = decltype(hs_pod_scalar::digits);

struct description {
	const char *name;
	const char *text;
	const spa_pod *value;
};

constexpr size_t padded(size_t size)
{
	return (size + 7) & ~size_t{7};
}

const void *body_of(const spa_pod *pod)
{
	return pod + 1;
}

/** The POD that begins at `data`; null where it is not wholly inside the `size` bytes. */
const spa_pod *pod_at(const void *data, size_t size)
{
	const auto *pod = static_cast<const spa_pod *>(data);

	if (size < sizeof(spa_pod) || pod->size > size - sizeof(spa_pod))
		return nullptr;
	return pod;
}

/** The text at `data`; null where it is not terminated within the `size` bytes. */
const char *text_at(const void *data, size_t size)
{
	return size > 0 && std::memchr(data, '\0', size) ? static_cast<const char *>(data) : nullptr;
}

const char *text_of(const spa_pod *pod)
{
	return pod->type == SPA_TYPE_String ? text_at(body_of(pod), pod->size) : nullptr;
}

/** Elements of arrays may lie at any address, so values are copied out. */
template <typename T>
bool read(const void *data, size_t size, T *value)
{
	if (size < sizeof(T))
		return false;
	std::memcpy(value, data, sizeof(T));
	return true;
}

const char *format_integer(int64_t number, digits &buffer)
{
	*std::to_chars(buffer, buffer + sizeof(buffer) - 1, number).ptr = '\0';
	return buffer;
}

/** Like "%f", with a point in every locale. */
const char *format_real(double number, digits &buffer)
{
	*std::to_chars(buffer, buffer + sizeof(buffer) - 1, number, std::chars_format::fixed, 6).ptr = '\0';
	return buffer;
}

/** The value as text: the string itself, or a number in `buffer`; null where there is no such scalar. */
const char *scalar_text(uint32_t type, const void *data, size_t size, digits &buffer)
{
	int32_t word;
	int64_t number;
	float single;
	double real;

	switch (type) {
	case SPA_TYPE_Bool:
		if (!read(data, size, &word))
			return nullptr;
		return word ? "true" : "false";
	case SPA_TYPE_Id:
	case SPA_TYPE_Int:
		return read(data, size, &word) ? format_integer(word, buffer) : nullptr;
	case SPA_TYPE_Long:
		return read(data, size, &number) ? format_integer(number, buffer) : nullptr;
	case SPA_TYPE_Float:
		return read(data, size, &single) ? format_real(single, buffer) : nullptr;
	case SPA_TYPE_Double:
		return read(data, size, &real) ? format_real(real, buffer) : nullptr;
	case SPA_TYPE_String:
		return text_at(data, size);
	default:
		return nullptr;
	}
}

/** `text` cut to what a buffer of `size` bytes holds, but not inside a UTF-8 character. */
std::string_view cut(std::string_view text, size_t size)
{
	if (text.size() < size)
		return text;

	size_t n = size - 1;
	while (n > size - 4 && (static_cast<unsigned char>(text[n]) & 0xc0) == 0x80)
		n--;
	return text.substr(0, n);
}

/** The text itself, or where the bus would not take it a repaired copy, kept in `copy`. */
const char *valid_text(const char *text, std::string *copy)
{
	if (hs_utf8_is_valid(text))
		return text;
	*copy = hs_utf8_repair(text);
	return copy->c_str();
}

/** For log lines. */
const char *title_of(const hs_pod &pod)
{
	return pod.title ? pod.title->c_str() : "(null)";
}

/** The PODs of a structure one by one. */
class pod_walk
{
public:
	explicit pod_walk(const spa_pod *parent) : at{static_cast<const uint8_t *>(body_of(parent))}, left{parent->size}
	{
	}

	bool at_end() const
	{
		return left == 0;
	}

	/** Null at the end and for a POD that runs past it. */
	const spa_pod *next()
	{
		const spa_pod *pod = pod_at(at, left);
		const size_t step = pod ? padded(sizeof(*pod) + pod->size) : left;
		at += std::min(step, left);
		left -= std::min(step, left);
		return pod;
	}

private:
	const uint8_t *at;
	size_t left;
};

/** False where the POD is no description object, or a part of it runs past its end. */
bool read_description(const spa_pod *pod, description *result)
{
	if (reinterpret_cast<uintptr_t>(pod) % alignof(spa_pod) != 0)
		return false;
	if (pod->type != SPA_TYPE_Object || pod->size < sizeof(spa_pod_object_body))
		return false;
	const auto *body = static_cast<const spa_pod_object_body *>(body_of(pod));
	if (body->type != SPA_TYPE_OBJECT_PropInfo)
		return false;

	*result = {};
	const auto *at = reinterpret_cast<const uint8_t *>(body + 1);
	size_t left = pod->size - sizeof(*body);
	while (left > 0) {
		if (left < sizeof(spa_pod_prop))
			return false;
		const auto *prop = reinterpret_cast<const spa_pod_prop *>(at);
		const spa_pod *value = pod_at(&prop->value, left - offsetof(spa_pod_prop, value));
		if (!value)
			return false;

		if (prop->key == SPA_PROP_INFO_name && !result->name)
			result->name = text_of(value);
		else if (prop->key == SPA_PROP_INFO_description && !result->text)
			result->text = text_of(value);
		else if (prop->key == SPA_PROP_INFO_type && !result->value)
			result->value = value;

		const size_t step = padded(sizeof(spa_pod_prop) + value->size);
		if (step >= left)
			break;
		at += step;
		left -= step;
	}
	return result->value && result->value->size <= max_value_size;
}

const char *array_signature(uint32_t element_type)
{
	switch (element_type) {
	case SPA_TYPE_Bool:
		return "ab";
	case SPA_TYPE_Id:
		return "au";
	case SPA_TYPE_Int:
		return "ai";
	case SPA_TYPE_Long:
		return "ax";
	case SPA_TYPE_Float:
	case SPA_TYPE_Double:
		return "ad";
	case SPA_TYPE_String:
		return "as";
	default:
		return nullptr;
	}
}

/** Reads the array `value` into the record; false where it is malformed or its text is too long. */
bool parse_array(hs_pod *pod, const spa_pod *value)
{
	if (value->size < sizeof(spa_pod_array_body)) {
		pw_log_debug("Array %s is malformed", title_of(*pod));
		return false;
	}
	const auto *body = static_cast<const spa_pod_array_body *>(body_of(value));
	const size_t size = value->size - sizeof(*body);
	const char *signature = array_signature(body->child.type);

	pod->element_size = body->child.size;
	pod->element_type = body->child.type;
	pod->n_elements = pod->element_size > 0 ? static_cast<uint32_t>(size / pod->element_size) : 0;
	pod->elements = body + 1;

	hs_text_writer json{pod->json, sizeof(pod->json)};
	json.add("[ ");
	for (uint32_t i = 0; signature && i < pod->n_elements && !json.full(); i++) {
		const auto *element = static_cast<const uint8_t *>(pod->elements) + size_t{i} * pod->element_size;
		digits buffer;
		const char *text = scalar_text(pod->element_type, element, pod->element_size, buffer);
		if (!text) {
			pw_log_debug("Array %s is malformed", title_of(*pod));
			return false;
		}
		std::string copy;
		json.add(valid_text(text, &copy));
		json.add(", ");
	}
	json.replace_last(2, " ]");

	hs_text_writer{pod->signature, sizeof(pod->signature)}.add(signature ? signature : "N/A");
	if (json.full()) {
		pw_log_debug("Array %s is too long", title_of(*pod));
		return false;
	}
	return true;
}

/**
 * Adds one line to `json`, one code to `signature` and the name to `names`; either POD may be null. A name that
 * is empty, too long or there already is none: one line would stand for two codes, or none for one.
 */
bool parse_member(const spa_pod *key, const spa_pod *value, hs_text_writer *json, hs_text_writer *signature,
		  std::vector<std::string> *names)
{
	const char *name = key ? text_of(key) : nullptr;
	digits buffer;
	const char *text = name && value ? scalar_text(value->type, body_of(value), value->size, buffer) : nullptr;
	if (!text) {
		pw_log_warn("Failed to parse simple type '%s' in %s.", "NULL", name ? name : "(null)");
		return false;
	}

	std::string copy;
	const char *valid_name = valid_text(name, &copy);
	const size_t length = std::strlen(valid_name);
	if (length == 0 || length > max_name_size ||
	    std::find(names->begin(), names->end(), valid_name) != names->end()) {
		pw_log_warn("Member name '%s' is empty, too long or there twice.", name);
		return false;
	}
	names->emplace_back(valid_name);
	json->add("  \"");
	json->add_escaped(valid_name);
	json->add("\": \"");
	json->add_escaped(cut(valid_text(text, &copy), sizeof(hs_pod::value)));
	json->add("\",\n");
	signature->add(value->type == SPA_TYPE_Float ? "d" : hs_schema_type_by_id(value->type)->signature);
	return true;
}

/** Reads the structure `params` into the record; false where it is malformed or its text is too long. */
bool parse_struct(hs_pod *pod, const spa_pod *params)
{
	HS_ASSERT(params);
	pod->members = params;

	hs_text_writer json{pod->json, sizeof(pod->json)};
	hs_text_writer signature{pod->signature, sizeof(pod->signature)};
	json.add("{\n");
	signature.add("(");

	std::vector<std::string> names;
	pod_walk walk{params};
	while (!walk.at_end()) {
		const spa_pod *key = walk.next();
		const spa_pod *value = walk.next();
		if (!parse_member(key, value, &json, &signature, &names)) {
			pw_log_warn("Could not parse struct POD type for %d.", static_cast<int>(params->type));
			return false;
		}
		if (json.full())
			break;
	}
	json.replace_last(2, "\n }");
	signature.add(")");

	/* The text of a member is longer than its code, so the signature is whole where the text is. */
	if (json.full()) {
		pw_log_debug("Structure %s is too long", title_of(*pod));
		return false;
	}
	return true;
}

} // namespace

const hs_schema_type *hs_schema_type_by_name(const char *name)
{
	for (const hs_schema_type *type = hs_schema_types; name && type->name; type++) {
		if (spa_streq(type->name, name))
			return type;
	}
	return nullptr;
}

const hs_schema_type *hs_schema_type_by_id(uint32_t id)
{
	for (const hs_schema_type *type = hs_schema_types; type->name; type++) {
		if (type->id == id)
			return type;
	}
	return nullptr;
}

const hs_schema_type *hs_schema_type_by_signature(const char *signature)
{
	for (const hs_schema_type *type = hs_schema_types; type->name; type++) {
		if (spa_streq(type->signature, signature))
			return type;
	}
	return nullptr;
}

void hs_pod_free(hs_pod *pod)
{
	delete pod;
}

hs_pod_ptr hs_pod_new(const char *title, const char *description, const char *type, const char *value)
{
	hs_pod_ptr new_pod{new (std::nothrow) hs_pod{}};
	HS_ASSERT(new_pod);

	std::string copy;
	if (title)
		new_pod->title = valid_text(title, &copy);
	if (description)
		new_pod->description = valid_text(description, &copy);
	if (type)
		new_pod->type = type;
	if (value)
		hs_text_writer{new_pod->value, sizeof(new_pod->value)}.add(
			cut(valid_text(value, &copy), sizeof(new_pod->value)));
	return new_pod;
}

hs_pod_ptr hs_pod_parse(const spa_pod *pod)
{
	if (!pod)
		return nullptr;

	description about;
	if (!read_description(pod, &about)) {
		pw_log_debug("Could not parse description POD.");
		return nullptr;
	}
	const hs_schema_type *type = hs_schema_type_by_id(about.value->type);
	if (!type) {
		pw_log_warn("Could not parse unknown POD type for %d.", static_cast<int>(about.value->type));
		return nullptr;
	}

	hs_pod_ptr parsed;
	if (type->id == SPA_TYPE_Array) {
		parsed = hs_pod_new(about.name, about.text, type->name, nullptr);
		if (!parse_array(parsed.get(), about.value))
			return nullptr;
	} else if (type->id == SPA_TYPE_Struct) {
		parsed = hs_pod_new(about.name, about.text, type->name, nullptr);
		if (!parse_struct(parsed.get(), about.value))
			return nullptr;
	} else {
		digits buffer;
		const char *value = scalar_text(type->id, body_of(about.value), about.value->size, buffer);
		if (!value) {
			pw_log_debug("Value of %s is malformed", about.name ? about.name : "(null)");
			return nullptr;
		}
		parsed = hs_pod_new(about.name, about.text, type->name, value);
	}
	pw_log_trace("Parsed POD %s with type %s.", title_of(*parsed), type->name);
	return parsed;
}

bool hs_pod_read_scalar(const spa_pod *pod, hs_pod_scalar *scalar)
{
	description about;
	if (!read_description(pod, &about) || !about.name)
		return false;
	const hs_schema_type *type = hs_schema_type_by_id(about.value->type);
	if (!type)
		return false;
	const char *value = scalar_text(type->id, body_of(about.value), about.value->size, scalar->digits);
	if (!value)
		return false;
	const bool is_text = type->id == SPA_TYPE_String;
	if (is_text && (std::strlen(value) >= sizeof(hs_pod::value) || !hs_utf8_is_valid(value)))
		return false;
	if (!hs_utf8_is_valid(about.name))
		return false;
	scalar->title = about.name;
	scalar->type = type;
	scalar->value = value;
	return true;
}

const char *hs_pod_value_text(const hs_pod &pod)
{
	return pod.type == "array" || pod.type == "struct" ? pod.json : pod.value;
}

bool hs_pod_value_is_valid(const hs_schema_type &type, const char *value)
{
	int32_t word;
	uint32_t id;
	int64_t number;
	float single;
	double real;

	switch (type.id) {
	case SPA_TYPE_Bool:
	case SPA_TYPE_String:
		return true;
	case SPA_TYPE_Id:
		return hs_parse_uint32(value, &id);
	case SPA_TYPE_Int:
		return hs_parse_int32(value, &word);
	case SPA_TYPE_Long:
		return hs_parse_int64(value, &number);
	case SPA_TYPE_Float:
		return hs_parse_float(value, &single);
	case SPA_TYPE_Double:
		return hs_parse_double(value, &real);
	default:
		return false;
	}
}
