/*
 * hsctl top: a live view in the terminal, or with -b frames of it on standard output.
 */
#include <clocale>
#include <cstdlib>

#include <fmt/format.h>

#include <ncurses.h>
#include <unistd.h>

#include "commands.hpp"
#include "describe.hpp"
#include "failure.hpp"
#include "top-view.hpp"
#include "watch.hpp"

namespace hs_ctl {

namespace {

constexpr short green_pair = 1;
constexpr short red_pair = 2;

/** `top` looks at values, not at changes. */
class nobody : public listener
{
public:
	void event_came(const news &) override
	{
	}
};

/** The terminal as ncurses has it; given back at the end, whatever happens. */
class screen
{
public:
	screen()
	{
		std::setlocale(LC_CTYPE, "");
		made = newterm(nullptr, stdout, stdin);
		if (!made)
			throw failure(STATUS_FAILED, "The terminal is unknown (TERM); use -b");
		cbreak();
		noecho();
		curs_set(0);
		keypad(stdscr, TRUE);
		nodelay(stdscr, TRUE);
		const char *no_color = std::getenv("NO_COLOR");
		if ((no_color && *no_color) || !has_colors())
			return;
		start_color();
		use_default_colors();
		init_pair(green_pair, COLOR_GREEN, -1);
		init_pair(red_pair, COLOR_RED, -1);
		has_pairs = true;
	}

	~screen()
	{
		endwin();
		delscreen(made);
	}

	screen(const screen &) = delete;
	screen &operator=(const screen &) = delete;

	attr_t pair(short number) const
	{
		return has_pairs ? static_cast<attr_t>(COLOR_PAIR(number)) : A_NORMAL;
	}

private:
	SCREEN *made = nullptr;
	bool has_pairs = false;
};

attr_t look_of(const screen &on, piece_kind kind)
{
	switch (kind) {
	case piece_kind::name:
		return A_BOLD;
	case piece_kind::enabled:
	case piece_kind::meter:
		return on.pair(green_pair);
	case piece_kind::disabled:
	case piece_kind::lamp_off:
		return A_DIM;
	case piece_kind::lamp_on:
		return A_BOLD | on.pair(red_pair);
	case piece_kind::value:
		return A_NORMAL;
	}
	return A_NORMAL;
}

const char *title_of(const watch &of)
{
	if (of.owner.empty())
		return "hear-sense is not running; waiting for it";
	return of.objects.empty() ? "hear-sense has no node with a plug-in" : "hear-sense";
}

void draw(const screen &on, const watch &watched, const model &all, const spans &seen)
{
	erase();
	mvaddnstr(0, 0, fmt::format("{}   (q ends)", title_of(watched)).c_str(), COLS);
	int y = 2;
	for (const pieces &row : make_rows(all, seen)) {
		if (y >= LINES)
			break;
		move(y++, 0);
		for (const piece &each : row) {
			const int room = COLS - getcurx(stdscr) - 1;
			if (room <= 0 || getcury(stdscr) != y - 1)
				break;
			attrset(look_of(on, each.kind));
			addnstr(each.text.c_str(), room);
			attrset(A_NORMAL);
			if (getcurx(stdscr) < COLS - 2)
				addstr("  ");
		}
	}
	refresh();
}

model present(const watch &watched, spans *seen)
{
	model all = make_model(watched.objects, &watched.private_objects);
	widen_spans(all, seen);
	return all;
}

uint64_t delay_usec(const options &parsed)
{
	return static_cast<uint64_t>(parsed.delay * 1e6);
}

void run_live(watch *watched, const options &parsed)
{
	const screen on;
	spans seen;
	unsigned n_drawn = 0;
	while (true) {
		draw(on, *watched, present(*watched, &seen), seen);
		if (++n_drawn == parsed.frames)
			return;
		const wake why = watch_wait(watched, monotonic_usec() + delay_usec(parsed), true);
		/* Reads no key where none was pressed, and learns of a new size of the terminal. */
		const int key = getch();
		if (why == wake::ended || key == 'q' || key == 'Q' || (why == wake::input && key == ERR))
			return;
	}
}

json frame_object(const model &all)
{
	json plugins = json::array();
	for (const instance &of : all.instances) {
		plugins.push_back(describe_instance(of));
		plugins.back()["events"] = describe_values(of);
	}
	return {{"monotonic", static_cast<double>(monotonic_usec()) / 1e6}, {"plugins", plugins}};
}

std::string frame_text(const watch &watched, const model &all, const spans &seen)
{
	std::string text = fmt::format("{}\n", title_of(watched));
	for (const pieces &row : make_rows(all, seen)) {
		const char *separator = "";
		for (const piece &each : row) {
			text += separator + each.text;
			separator = "  ";
		}
		text += '\n';
	}
	return text + "\n";
}

void run_batch(watch *watched, const options &parsed, const output &out)
{
	spans seen;
	for (unsigned n_shown = 0; parsed.frames == 0 || n_shown < parsed.frames; ++n_shown) {
		if (n_shown > 0 && watch_wait(watched, monotonic_usec() + delay_usec(parsed), false) == wake::ended)
			return;
		const model all = present(*watched, &seen);
		if (out.style != form::text)
			put_json(out, frame_object(all));
		else
			put(frame_text(*watched, all, seen));
	}
}

} // namespace

void top(const options &parsed, const output &out)
{
	if (!parsed.batch && (out.style != form::text || !out.is_terminal || isatty(STDIN_FILENO) != 1))
		throw failure(STATUS_USAGE, "top draws on a terminal; for anything else use -b");
	nobody ignored;
	watch watched;
	watched.told = &ignored;
	watched.with_private = parsed.with_private;
	watched.is_talkative = parsed.batch;
	watch_start(&watched, parsed.of_user);
	if (parsed.batch)
		run_batch(&watched, parsed, out);
	else
		run_live(&watched, parsed);
}

} // namespace hs_ctl
