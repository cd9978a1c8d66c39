#include "conf-syntax.hpp"

#include <algorithm>
#include <string_view>
#include <vector>

namespace hs_tool {

namespace {

struct bracket {
	char opening;
	size_t line;
};

std::string in_line(size_t line)
{
	return " in line " + std::to_string(line);
}

/** Where the text in quotes that begins at `at` ends: at its last quote, or at the end of all. */
size_t end_of_quoted(const std::string &text, size_t at)
{
	for (++at; at < text.size() && text[at] != '"'; ++at) {
		if (text[at] == '\\')
			++at;
	}
	return at;
}

/** The last character of the bare word that begins at `at`. */
size_t end_of_word(const std::string &text, size_t at)
{
	/* Brackets that open are letters there, those that close are not. */
	const size_t end = text.find_first_of(" \t\r\n:,=]}", at);
	return (end == std::string::npos ? text.size() : end) - 1;
}

} // namespace

std::optional<std::string> find_bracket_error(const std::string &text)
{
	std::vector<bracket> open;
	size_t line = 1;
	for (size_t i = 0; i < text.size(); ++i) {
		const char c = text[i];
		const size_t first = i;
		if (c == '#') {
			i = std::min(text.find('\n', i), text.size()) - 1;
		} else if (c == '"') {
			i = end_of_quoted(text, i);
			if (i >= text.size())
				return "The quote" + in_line(line) + " is not closed.";
		} else if (c == '{' || c == '[') {
			open.push_back({c, line});
		} else if (c == '}' || c == ']') {
			const char wanted = c == '}' ? '{' : '[';
			if (open.empty())
				return std::string("The ") + c + in_line(line) +
				       " closes nothing; what follows is not read.";
			if (open.back().opening != wanted)
				return std::string("The ") + c + in_line(line) + " is to close the " +
				       open.back().opening + in_line(open.back().line) + ".";
			open.pop_back();
		} else if (std::string_view(" \t\r\n:,=").find(c) == std::string_view::npos) {
			i = end_of_word(text, i);
		}
		for (size_t at = first; at <= i && at < text.size(); ++at)
			line += text[at] == '\n' ? 1 : 0;
	}
	if (open.empty())
		return std::nullopt;
	return std::string("The ") + open.front().opening + in_line(open.front().line) +
	       " is not closed, or one after it: what follows is taken for a part of it.";
}

} // namespace hs_tool
