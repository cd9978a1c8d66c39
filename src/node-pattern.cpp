#include "node-pattern.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <vector>

#include <regex.h>

#include "log.hpp"

namespace {

/* The C library compiles nested groups recursively: some ten thousand of them overflow the stack. */
constexpr size_t max_pattern_length = 1023;
/*
 * It also writes out repetitions, one inside the other ("x++++++" is 64 times x), and where they repeat what may be
 * left out, as in "(x*)*", each can double the time that it takes. These many are done within a fraction of a second.
 */
constexpr size_t max_written_out_elements = 256;
constexpr size_t max_repeated_options = 16;

/** The larger number of an interval such as "{2,5}"; 1 where there is none. */
size_t max_repetitions(const char *interval)
{
	size_t most = 1;
	for (const char *c = interval; *c && *c != '}'; ++c) {
		if (std::isdigit(static_cast<unsigned char>(*c)) && !std::isdigit(static_cast<unsigned char>(c[-1])))
			most = std::max<size_t>(most, std::strtoul(c, nullptr, 10));
	}
	return std::min(most, max_pattern_length);
}

/** The last character of a bracket expression; that of the pattern where it has no end. */
const char *end_of_bracket(const char *bracket)
{
	const char *c = bracket + 1;
	c += *c == '^';
	c += *c == ']';
	for (; *c && *c != ']'; ++c) {
		if (c[0] != '[' || !c[1] || !std::strchr(":.=", c[1]))
			continue;
		const char close[] = {c[1], ']', '\0'};
		const char *end = std::strstr(c + 2, close);
		if (!end)
			break;
		c = end + 1;
	}
	return *c == ']' ? c : bracket + std::strlen(bracket) - 1;
}

/** What there is of a pattern. */
struct extent {
	size_t elements;
	/** What may be left out. */
	size_t options;
};

constexpr extent option = {1, 1};

extent operator+(extent a, extent b)
{
	return {std::min(a.elements + b.elements, max_pattern_length + 1),
		std::min(a.options + b.options, max_pattern_length + 1)};
}

extent operator*(extent a, size_t times)
{
	return {std::min(a.elements * times, max_pattern_length + 1),
		std::min(a.options * times, max_pattern_length + 1)};
}

/** Whether an alternative ends where `c` stands. */
bool is_end_of_alternative(char c)
{
	return c == '\0' || c == '|' || c == ')';
}

/** Whether an anchor, or an alternative without anything in it, begins at `c`. */
bool matches_nothing(const char *c)
{
	switch (*c) {
	case '^':
	case '$':
		return true;
	case '\\':
		return c[1] && std::strchr("bB<>`'", c[1]);
	case '(':
	case '|':
		return is_end_of_alternative(c[1]);
	default:
		return false;
	}
}

struct shape {
	/** Elements of the whole pattern once its repetitions are written out. */
	size_t n_elements;
	/** How often something that may be left out is repeated. */
	size_t n_repeated_options;
	/** It has a "\1" or the like. */
	bool refers_back;
};

shape measure(const char *pattern)
{
	/* What stands before the last element, for the pattern and each group that is open. */
	std::vector<extent> before{{}};
	extent element = {0, is_end_of_alternative(*pattern)};
	size_t n_repeated_options = 0;
	bool refers_back = false;
	for (const char *c = pattern; *c; ++c) {
		const bool is_interval = *c == '{' && std::strchr(c, '}');
		if (*c == '+') {
			element = element * 2;
			n_repeated_options += element.options;
		} else if (*c == '*') {
			n_repeated_options += element.options;
			element = element + option;
		} else if (*c == '?') {
			element = element + option;
		} else if (is_interval) {
			const bool may_be_none = c[1] == '0' || c[1] == ',';
			element = element * max_repetitions(c);
			n_repeated_options += element.options;
			element.options += may_be_none;
			c = std::strchr(c, '}');
		} else if (*c == ')' && before.size() > 1) {
			element = element + before.back();
			before.pop_back();
		} else {
			before.back() = before.back() + element;
			element = matches_nothing(c) ? option : extent{*c != '(', 0};
			if (*c == '(')
				before.emplace_back();
			else if (*c == '[')
				c = end_of_bracket(c);
			else if (*c == '\\' && c[1])
				refers_back |= std::isdigit(static_cast<unsigned char>(*++c)) != 0;
		}
	}
	const extent whole = std::accumulate(before.begin(), before.end(), element);
	return {whole.elements, n_repeated_options, refers_back};
}

/** What the C library would take too long for; null where there is nothing of that kind. */
const char *slow_part(const char *pattern)
{
	static constexpr char too_long[] = "it is too long, or its repetitions are";
	const size_t length = std::strlen(pattern);
	if (length > max_pattern_length)
		return too_long;
	const shape found = measure(pattern);
	if (found.n_elements > std::max(length, max_written_out_elements) ||
	    found.n_repeated_options > max_repeated_options)
		return too_long;
	return found.refers_back ? "it refers back to a group" : nullptr;
}

} // namespace

std::string hs_node_pattern_fault(const char *pattern)
{
	if (const char *part = slow_part(pattern))
		return part;
	regex_t compiled;
	const int error = regcomp(&compiled, pattern, REG_EXTENDED | REG_NOSUB);
	if (error == 0) {
		regfree(&compiled);
		return "";
	}
	char text[128];
	regerror(error, &compiled, text, sizeof(text));
	return text;
}

bool hs_node_pattern_matches(const char *pattern, const char *node_name)
{
	regex_t compiled;
	if (slow_part(pattern) || regcomp(&compiled, pattern, REG_EXTENDED) != 0) {
		pw_log_warn("Could not compile pattern");
		return false;
	}
	const bool matches = regexec(&compiled, node_name, 0, nullptr, 0) == 0;
	regfree(&compiled);
	return matches;
}
