/*
 * JSON schemas, as far as they speak of settings: of one object and its scalar members.
 *
 * Known are type, enum, const, minimum, maximum, exclusiveMinimum, exclusiveMaximum, minLength and maxLength of
 * members, and properties, patternProperties, additionalProperties and required of the object. Others take everything.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace hs_tool {

/** Why the member's schema refuses the value, such as "is below its minimum of 100"; nothing where it does not. */
std::optional<std::string> refusal(const nlohmann::ordered_json &schema, const nlohmann::ordered_json &value);

/** Why the schema refuses the object: a text for each reason. */
std::vector<std::string> refusals(const nlohmann::ordered_json &schema, const nlohmann::ordered_json &object);

/** Whether it takes properties that it does not name. */
bool takes_others(const nlohmann::ordered_json &schema);

/** The member's schema; null where the schema has no such property. */
const nlohmann::ordered_json *find_property(const nlohmann::ordered_json &schema, const std::string &name);

} // namespace hs_tool
