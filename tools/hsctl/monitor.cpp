/*
 * hsctl monitor: events as they come, a line each.
 */
#include <algorithm>
#include <ctime>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "commands.hpp"
#include "model.hpp"
#include "names.hpp"
#include "watch.hpp"

namespace hs_ctl {

namespace {

struct moment {
	timespec wall;
	uint64_t monotonic_usec;
};

moment now()
{
	moment taken{};
	clock_gettime(CLOCK_REALTIME, &taken.wall);
	taken.monotonic_usec = monotonic_usec();
	return taken;
}

/** "2026-01-31T12:00:00.123456Z" */
std::string utc_text(const timespec &wall)
{
	tm split{};
	gmtime_r(&wall.tv_sec, &split);
	char date[32];
	std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &split);
	return fmt::format("{}.{:06}Z", date, wall.tv_nsec / 1000);
}

/** "12:00:00.123" */
std::string clock_text(const timespec &wall)
{
	tm split{};
	localtime_r(&wall.tv_sec, &split);
	return fmt::format("{:02}:{:02}:{:02}.{:03}", split.tm_hour, split.tm_min, split.tm_sec,
			   wall.tv_nsec / 1000000);
}

class printer : public listener
{
public:
	printer(const watch &watched, const output &where) : of(watched), out(where)
	{
	}

	void event_came(const news &came) override
	{
		const std::string source = source_name(of.objects, came.path);
		const std::string plugin = plugin_name(came.path);
		if (!is_meant(of.patterns, plugin, source, came.title))
			return;
		if (out.style == form::text)
			put_line(plugin + "@" + source, came);
		else
			put_object(plugin, source, came);
	}

	/** Columns are as wide as what there is. */
	void measure(const model &all)
	{
		for (const instance &each : all.instances) {
			for (const event &of_it : each.events) {
				if (!of_it.is_hidden && is_meant(of.patterns, each.plugin, each.source, of_it.title))
					widen(each.name, of_it.title);
			}
		}
	}

private:
	void widen(const std::string &name, const std::string &title)
	{
		name_width = std::max(name_width, width_of(name));
		title_width = std::max(title_width, width_of(title));
	}

	void put_object(const std::string &plugin, const std::string &source, const news &came) const
	{
		const moment taken = now();
		put_json(out, {{"wall", utc_text(taken.wall)},
			       {"monotonic", static_cast<double>(taken.monotonic_usec) / 1e6},
			       {"source", source},
			       {"plugin", plugin},
			       {"event", came.title},
			       {"value", came.content}});
	}

	void put_line(const std::string &name, const news &came)
	{
		widen(name, came.title);
		const moment taken = now();
		const bool is_detected = detection_of(came.content).value_or(false);
		const double seconds = static_cast<double>(taken.monotonic_usec) / 1e6;
		put(fmt::format("{}  {:.3f}  {}{}  {}{}  {}\n", clock_text(taken.wall), seconds,
				paint(out, {name, colour::faint}), std::string(name_width - width_of(name), ' '),
				paint(out, {came.title, colour::bold}),
				std::string(title_width - width_of(came.title), ' '),
				paint(out, {to_text(came.content), is_detected ? colour::red : colour::none})));
	}

	const watch &of;
	output out;
	size_t name_width = 0;
	size_t title_width = 0;
};

/** Says which of the patterns mean nothing that is there. */
void warn_of_patterns(const watch &of)
{
	if (of.owner.empty())
		return;
	const model all = make_model(of.objects, &of.private_objects);
	for (const std::string &pattern : of.patterns) {
		bool is_used = false;
		std::vector<std::string> there_are;
		for (const instance &each : all.instances) {
			for (const event &each_event : each.events) {
				if (each_event.is_hidden)
					continue;
				is_used = is_used || is_meant({pattern}, each.plugin, each.source, each_event.title);
				there_are.push_back(each.name + "/" + each_event.title);
			}
		}
		if (!is_used)
			complain(fmt::format("'{}' means no event yet; there is:\n  {}", pattern,
					     fmt::join(there_are, "\n  ")));
	}
}

} // namespace

void monitor(const options &parsed, const output &out)
{
	output lines = out;
	if (!out.is_terminal && out.style == form::text)
		lines.style = form::short_json;
	watch watched;
	watched.patterns = parsed.patterns;
	watched.with_private = parsed.with_private;
	printer printed(watched, lines);
	watched.told = &printed;
	watch_start(&watched, parsed.of_user);
	printed.measure(make_model(watched.objects, &watched.private_objects));
	warn_of_patterns(watched);
	while (watch_wait(&watched, std::nullopt, false) != wake::ended) {
	}
}

} // namespace hs_ctl
