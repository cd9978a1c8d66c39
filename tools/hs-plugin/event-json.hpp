/*
 * Values of events as JSON, and JSON as lines.
 */
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace hs_tool {

/**
 * The text that the daemon keeps of a value, in the types that clients see; nothing where the daemon could not
 * publish it. `type` names an hs_schema_type, `complex_type` is the signature of an array or structure. NaN
 * and infinity, which JSON lacks, are null.
 */
std::optional<nlohmann::ordered_json> value_json(const char *type, const char *complex_type, const char *text);

/** On one line, with a blank after each ":" and ",". Bytes that are no UTF-8 are replaced. */
std::string to_line(const nlohmann::ordered_json &json);

} // namespace hs_tool
