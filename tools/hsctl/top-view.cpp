#include "top-view.hpp"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "output.hpp"

namespace hs_ctl {

namespace {

constexpr size_t meter_width = 12;

std::string span_key(const instance &of, const event &each)
{
	return of.name + "/" + each.title;
}

piece value_piece(const event &of)
{
	return {piece_kind::value, fmt::format("{} {}", of.title, to_text(of.current.content))};
}

void add_event(const instance &of, const event &each, const spans &seen, pieces *line)
{
	const json &content = each.current.content;
	const std::optional<bool> detection = detection_of(content);
	const std::optional<double> number = number_of(content);
	if (detection) {
		line->push_back({*detection ? piece_kind::lamp_on : piece_kind::lamp_off,
				 fmt::format("({}) {}", *detection ? '*' : ' ', each.title)});
		return;
	}
	const auto found = seen.find(span_key(of, each));
	if (!number || found == seen.end()) {
		line->push_back(value_piece(each));
		return;
	}
	line->push_back({piece_kind::meter, fmt::format("{} [{}] {:>8.6g}", each.title,
							meter_text(*number, found->second, meter_width), *number)});
}

} // namespace

void widen_spans(const model &all, spans *seen)
{
	for (const instance &of : all.instances) {
		for (const event &each : of.events) {
			const std::optional<double> number = number_of(each.current.content);
			if (!number)
				continue;
			span &widened = seen->try_emplace(span_key(of, each), span{*number, *number}).first->second;
			widened.least = std::min(widened.least, *number);
			widened.most = std::max(widened.most, *number);
		}
	}
}

std::string meter_text(double number, const span &of, size_t width)
{
	const double extent = of.most - of.least;
	const double place = extent > 0 ? std::clamp((number - of.least) / extent, 0.0, 1.0) : 0.0;
	const auto filled = static_cast<size_t>(std::lround(place * static_cast<double>(width)));
	return std::string(filled, '#') + std::string(width - filled, '-');
}

std::vector<pieces> make_rows(const model &all, const spans &seen)
{
	size_t width = 0;
	for (const instance &of : all.instances)
		width = std::max(width, width_of(of.name));

	std::vector<pieces> rows;
	for (const instance &of : all.instances) {
		pieces line{
			{piece_kind::name, of.name + std::string(width - width_of(of.name), ' ')},
			{of.is_enabled ? piece_kind::enabled : piece_kind::disabled, of.is_enabled ? "on " : "off"}};
		for (const event &each : of.events) {
			if (!each.is_hidden)
				add_event(of, each, seen, &line);
		}
		rows.push_back(line);
	}
	return rows;
}

} // namespace hs_ctl
