#include "script.hpp"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include <spa/utils/json.h>

namespace {

bool parse_value(spa_json &iter, const char *value, int length, Json &out);

std::string unquoted(const char *value, int length)
{
	std::vector<char> buffer(static_cast<std::size_t>(length) + 1);

	spa_json_parse_stringn(value, length, buffer.data(), length + 1);
	return buffer.data();
}

bool parse_array(spa_json &iter, Json &out)
{
	spa_json inner{};
	const char *value = nullptr;
	int length = 0;

	spa_json_enter(&iter, &inner);
	while ((length = spa_json_next(&inner, &value)) > 0) {
		if (!parse_value(inner, value, length, out.items.emplace_back()))
			return false;
	}
	return length == 0;
}

bool parse_object(spa_json &iter, Json &out)
{
	spa_json inner{};
	const char *value = nullptr;
	int length = 0;

	spa_json_enter(&iter, &inner);
	while ((length = spa_json_next(&inner, &value)) > 0) {
		JsonMember &member = out.members.emplace_back();
		member.name = unquoted(value, length);
		length = spa_json_next(&inner, &value);
		if (length <= 0 || !parse_value(inner, value, length, member.value))
			return false;
	}
	return length == 0;
}

bool parse_value(spa_json &iter, const char *value, int length, Json &out)
{
	if (spa_json_is_array(value, length)) {
		out.kind = Json::Kind::array;
		return parse_array(iter, out);
	}
	if (spa_json_is_object(value, length)) {
		out.kind = Json::Kind::object;
		return parse_object(iter, out);
	}
	if (spa_json_is_null(value, length))
		out.kind = Json::Kind::null;
	else if (spa_json_is_string(value, length))
		out.kind = Json::Kind::string;
	else
		out.kind = Json::Kind::bare;
	out.text = unquoted(value, length);
	return true;
}

} // namespace

const Json &Json::at(std::string_view key) const
{
	static const Json nothing;

	for (const JsonMember &member : members) {
		if (member.name == key)
			return member.value;
	}
	return nothing;
}

bool Json::is_true() const
{
	return kind == Kind::bare && text == "true";
}

std::int64_t Json::integer(std::int64_t otherwise) const
{
	if (kind != Kind::bare)
		return otherwise;
	return std::strtoll(text.c_str(), nullptr, 0);
}

std::string Json::str(std::string_view otherwise) const
{
	if (kind != Kind::bare && kind != Kind::string)
		return std::string(otherwise);
	return text;
}

std::optional<std::string> Json::text_or_null(std::string_view otherwise) const
{
	if (kind == Kind::null)
		return std::nullopt;
	return str(otherwise);
}

std::optional<Json> json_parse(std::string_view text)
{
	spa_json iter{};
	const char *value = nullptr;
	Json result;

	spa_json_init(&iter, text.data(), text.size());
	const int length = spa_json_next(&iter, &value);
	if (length <= 0 || !parse_value(iter, value, length, result))
		return std::nullopt;
	return result;
}

std::optional<std::string> read_file(const std::string &path)
{
	std::ifstream file(path, std::ios::binary);

	if (!file)
		return std::nullopt;
	return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}
