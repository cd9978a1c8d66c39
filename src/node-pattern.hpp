/*
 * Patterns of node names: POSIX extended regular expressions, but none that takes the C library long.
 */
#pragma once

#include <string>

/** What is wrong with the pattern, as the end of a sentence; empty where nothing is. */
std::string hs_node_pattern_fault(const char *pattern);

/** Whether the pattern is found in the name; one with a fault is warned of and found in none. */
bool hs_node_pattern_matches(const char *pattern, const char *node_name);
