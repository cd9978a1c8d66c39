#include "event-json.hpp"

#include <cmath>
#include <cstring>
#include <vector>

#include <nlohmann/json.hpp>

#include <pipewire/properties.h>
#include <spa/utils/string.h>

#include "owned.hpp"
#include "parse.hpp"
#include "pod.hpp"

namespace hs_tool {

namespace {

using json = nlohmann::ordered_json;
using optional_json = std::optional<json>;

json real(double number)
{
	return std::isfinite(number) ? json(number) : json(nullptr);
}

/** The scalar of that D-Bus type in the text. */
optional_json scalar(char type, const char *text)
{
	uint32_t id;
	int32_t word;
	int64_t number;
	double value;
	if (!text || (type != 's' && !*text))
		return std::nullopt;

	switch (type) {
	case 'b':
		return spa_streq(text, "true");
	case 's':
		return text;
	case 'u':
		return hs_parse_uint32(text, &id) ? optional_json(id) : std::nullopt;
	case 'i':
		return hs_parse_int32(text, &word) ? optional_json(word) : std::nullopt;
	case 'x':
		return hs_parse_int64(text, &number) ? optional_json(number) : std::nullopt;
	case 'f':
	case 'd':
		return hs_parse_double(text, &value) ? optional_json(real(value)) : std::nullopt;
	default:
		return std::nullopt;
	}
}

template <typename T>
json elements(const void *data, size_t n)
{
	json all = json::array();
	const auto *values = static_cast<const T *>(data);
	for (size_t i = 0; i < n; ++i)
		all.push_back(values[i]);
	return all;
}

json texts(void *data, size_t n)
{
	json all = json::array();
	auto *values = static_cast<char **>(data);
	for (size_t i = 0; i < n; ++i) {
		const hs_malloc_ptr<char> text(values[i]);
		all.push_back(text.get());
	}
	return all;
}

json reals(const void *data, size_t n)
{
	json all = json::array();
	for (size_t i = 0; i < n; ++i)
		all.push_back(real(static_cast<const double *>(data)[i]));
	return all;
}

/** The array in the text, read as the daemon reads it. */
optional_json array(const char *complex_type, const char *text)
{
	if (!complex_type || std::strlen(complex_type) != 2)
		return std::nullopt;
	const size_t length = std::strlen(text);
	const uint32_t n = hs_parse_array_count(text, length);
	if (n == 0)
		return json::array();
	void *data = nullptr;
	uint32_t size = 0;
	hs_parse_array(text, length, n, &data, complex_type, &size);
	const hs_malloc_ptr<void> owner(data);

	switch (complex_type[1]) {
	case 'b':
		return elements<bool>(data, size);
	case 'u':
		return elements<uint32_t>(data, size / sizeof(uint32_t));
	case 'i':
		return elements<int32_t>(data, size / sizeof(int32_t));
	case 'x':
		return elements<int64_t>(data, size / sizeof(int64_t));
	case 'd':
		return reals(data, size / sizeof(double));
	case 's':
		return texts(data, size / HS_PARSE_TEXT_SIZE);
	default:
		return std::nullopt;
	}
}

/** The structure in the text: the daemon cannot publish it where one of its members cannot be. */
optional_json structure(const char *complex_type, const char *text)
{
	json all = json::object();
	const hs_properties_ptr members(pw_properties_new_string(text));
	const char *type = complex_type && complex_type[0] == '(' ? complex_type + 1 : "";
	void *state = nullptr;
	while (const char *name = pw_properties_iterate(members.get(), &state)) {
		const char *value = pw_properties_get(members.get(), name);
		const optional_json member = value && *value ? scalar(*type, value) : std::nullopt;
		if (!member)
			return std::nullopt;
		all[name] = *member;
		++type;
	}
	return all;
}

void add_line(const json &value, std::string *line)
{
	const char *separator = "";
	if (value.is_object()) {
		*line += '{';
		for (const auto &[key, member] : value.items()) {
			*line += separator + json(key).dump(-1, ' ', false, json::error_handler_t::replace) + ": ";
			add_line(member, line);
			separator = ", ";
		}
		*line += '}';
	} else if (value.is_array()) {
		*line += '[';
		for (const json &element : value) {
			*line += separator;
			add_line(element, line);
			separator = ", ";
		}
		*line += ']';
	} else {
		*line += value.dump(-1, ' ', false, json::error_handler_t::replace);
	}
}

} // namespace

std::optional<json> value_json(const char *type_name, const char *complex_type, const char *text)
{
	const hs_schema_type *type = hs_schema_type_by_name(type_name);
	if (!type || !text)
		return std::nullopt;
	if (spa_streq(type_name, "array"))
		return array(complex_type, text);
	if (spa_streq(type_name, "struct"))
		return structure(complex_type, text);
	return scalar(type->signature[0], text);
}

std::string to_line(const json &value)
{
	std::string line;
	add_line(value, &line);
	return line;
}

} // namespace hs_tool
