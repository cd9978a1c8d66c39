/* Patterns of node names. */
#include "fuzz.hpp"

#include <algorithm>
#include <cctype>

#include "node-pattern.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	hs_fuzz_input input{data, size};
	const std::string name = input.text();
	const std::string pattern = input.text();

	const bool matches = hs_node_pattern_matches(pattern.c_str(), name.c_str());
	HS_REQUIRE(matches == hs_node_pattern_matches(pattern.c_str(), name.c_str()));

	/* A pattern without special characters is a part of the name. */
	const bool is_plain = std::all_of(pattern.begin(), pattern.end(), [](char c) {
		return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
	});
	if (is_plain && pattern.size() < 1000)
		HS_REQUIRE(matches == (name.find(pattern) != std::string::npos));
	return 0;
}
