/*
 * Texts that the bus takes: UTF-8 without surrogates and noncharacters.
 *
 * One text that it does not take makes every read of the whole object tree fail, so texts of plug-ins are
 * repaired where they come in.
 */
#pragma once

#include <string>
#include <string_view>

bool hs_utf8_is_valid(std::string_view text);

/** `text` with U+FFFD in place of every byte that belongs to no character. */
std::string hs_utf8_repair(std::string_view text);
