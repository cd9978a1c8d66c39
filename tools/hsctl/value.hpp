/*
 * Values of settings and events: a D-Bus signature, and the content as JSON holds it.
 *
 * A structure is an object, NaN and infinity are null.
 */
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace hs_ctl {

using json = nlohmann::ordered_json;

struct value {
	std::string signature;
	json content;
};

/** "boolean", "uint32", "int32", "int64", "double", "string", "array of ..." or "struct"; else the signature. */
std::string type_name(const std::string &signature);

/** For people: texts bare, members as "Name: value", null as "-". Control characters are shown as "?". */
std::string to_text(const json &content);

/** A number as short as it can be told: what a float was before it became a double. */
std::string number_text(double number);

/** The text as a value of a scalar signature; throws a failure that says what is expected. */
json parse_value(const std::string &signature, const std::string &text);

} // namespace hs_ctl
