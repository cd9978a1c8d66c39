/*
 * Values of events as JSON, and JSON as lines.
 */
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

struct pw_properties;

namespace hs_tool {

/**
 * The value of the daemon's entry of an event, in the types that clients see; nothing where the daemon
 * could not publish it. NaN and infinity, which JSON lacks, are null.
 */
std::optional<nlohmann::ordered_json> event_value(const pw_properties &event);

/** On one line, with a blank after each ":" and ",". Bytes that are no UTF-8 are replaced. */
std::string to_line(const nlohmann::ordered_json &json);

} // namespace hs_tool
