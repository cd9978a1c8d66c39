/*
 * What `top` shows of a model: a row for each plug-in on a source, with meters and lamps. Knows no terminal.
 */
#pragma once

#include <map>
#include <string>
#include <vector>

#include "model.hpp"

namespace hs_ctl {

/** The smallest and the largest number that an event has had. */
struct span {
	double least;
	double most;
};

/** By the name of the plug-in on its source, "/" and the event's title. */
using spans = std::map<std::string, span>;

enum class piece_kind {
	name,
	enabled,
	disabled,
	meter,
	lamp_on,
	lamp_off,
	value,
};

struct piece {
	piece_kind kind;
	std::string text;
};

using pieces = std::vector<piece>;

/** Takes the present numbers into account. */
void widen_spans(const model &all, spans *seen);

/** "####----" for the place of the number in its span. */
std::string meter_text(double number, const span &of, size_t width);

/** A row for each plug-in, in the model's order; the names are filled up to one width. */
std::vector<pieces> make_rows(const model &all, const spans &seen);

} // namespace hs_ctl
