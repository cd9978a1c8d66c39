/*
 * The brackets of a configuration file, which PipeWire's parser does not look at: it takes what it can get.
 */
#pragma once

#include <optional>
#include <string>

namespace hs_tool {

/** What is wrong with the brackets or quotes of the text, with the line; nothing where they are well. */
std::optional<std::string> find_bracket_error(const std::string &text);

} // namespace hs_tool
