/*
 * Standard output: lines, tables and JSON. Columns and colours are for a terminal only.
 *
 * Failure: a reader that has gone throws reader_gone; anything else a failure.
 */
#pragma once

#include <string>
#include <vector>

#include "value.hpp"

namespace hs_ctl {

enum class form {
	text,
	/** JSON on one line, or on several. */
	short_json,
	pretty_json,
};

enum class colour {
	none,
	bold,
	faint,
	green,
	red,
};

/** Nobody reads standard output any more: an end, not an error. */
struct reader_gone {
};

/** Where output goes, and how. */
struct output {
	form style = form::text;
	bool is_terminal = false;
	bool has_colours = false;
};

output make_output(form style);

/** Writes the text and flushes. */
void put(const std::string &text);

/** Writes the value in the form of the output, which is one of JSON. */
void put_json(const output &out, const json &value);

/** A diagnostic on standard error. */
void complain(const std::string &text);

struct cell {
	std::string text;
	colour shade = colour::none;
};

using row = std::vector<cell>;

struct table {
	row header;
	std::vector<row> rows;
};

/** On a terminal with its header and in columns; else without, a tab between fields. */
std::string render(const output &out, const table &shown);

/** The text, coloured where there are colours. */
std::string paint(const output &out, const cell &shown);

/** Columns that the text takes in a terminal, a character of UTF-8 being one. */
size_t width_of(const std::string &text);

} // namespace hs_ctl
