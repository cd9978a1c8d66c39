#include "output.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include <unistd.h>

#include "failure.hpp"

namespace hs_ctl {

namespace {

constexpr size_t gap = 2;

const char *escape_of(colour shade)
{
	switch (shade) {
	case colour::none:
		return "";
	case colour::bold:
		return "\033[1m";
	case colour::faint:
		return "\033[2m";
	case colour::green:
		return "\033[32m";
	case colour::red:
		return "\033[31m";
	}
	return "";
}

bool wants_colours()
{
	const char *no_color = std::getenv("NO_COLOR");
	const char *terminal = std::getenv("TERM");
	return !(no_color && *no_color) && terminal && std::strcmp(terminal, "dumb") != 0;
}

std::string render_tabs(const table &shown)
{
	std::string text;
	for (const row &each : shown.rows) {
		const char *separator = "";
		for (const cell &field : each) {
			text += separator + field.text;
			separator = "\t";
		}
		text += '\n';
	}
	return text;
}

std::vector<size_t> measure(const std::vector<row> &rows)
{
	std::vector<size_t> widths;
	for (const row &each : rows) {
		widths.resize(std::max(widths.size(), each.size()));
		for (size_t i = 0; i < each.size(); ++i)
			widths[i] = std::max(widths[i], width_of(each[i].text));
	}
	return widths;
}

} // namespace

output make_output(form style)
{
	const bool is_terminal = isatty(STDOUT_FILENO) == 1;
	return {style, is_terminal, is_terminal && wants_colours()};
}

void put(const std::string &text)
{
	errno = 0;
	const size_t written = std::fwrite(text.data(), 1, text.size(), stdout);
	if (written == text.size() && std::fflush(stdout) == 0)
		return;
	if (errno == EPIPE)
		throw reader_gone();
	throw failure(STATUS_FAILED, fmt::format("Could not write: {}", std::strerror(errno)));
}

void put_json(const output &out, const json &value)
{
	const int indent = out.style == form::pretty_json ? 2 : -1;
	put(value.dump(indent, ' ', false, json::error_handler_t::replace) + "\n");
}

void complain(const std::string &text)
{
	std::fprintf(stderr, "hsctl: %s\n", text.c_str());
}

std::string render(const output &out, const table &shown)
{
	if (!out.is_terminal)
		return render_tabs(shown);
	std::vector<row> rows{shown.header};
	for (cell &field : rows.front())
		field.shade = colour::bold;
	rows.insert(rows.end(), shown.rows.begin(), shown.rows.end());

	const std::vector<size_t> widths = measure(rows);
	std::string text;
	for (const row &each : rows) {
		for (size_t i = 0; i < each.size(); ++i) {
			text += paint(out, each[i]);
			if (i + 1 < each.size())
				text.append(widths[i] - width_of(each[i].text) + gap, ' ');
		}
		text += '\n';
	}
	return text;
}

std::string paint(const output &out, const cell &shown)
{
	if (!out.has_colours || shown.shade == colour::none)
		return shown.text;
	return escape_of(shown.shade) + shown.text + "\033[0m";
}

size_t width_of(const std::string &text)
{
	const auto begins_character = [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; };
	return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins_character));
}

} // namespace hs_ctl
