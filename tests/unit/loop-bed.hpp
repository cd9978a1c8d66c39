/*
 * The daemon's loop, really running, with a test's script called from inside it.
 *
 * The script has the loop go on by step(), so that it sees each poll by itself. A watchdog quits a loop that
 * does not end.
 */
#pragma once

#include <csignal>
#include <functional>
#include <utility>

#include <gtest/gtest.h>

#include <pipewire/loop.h>
#include <pipewire/main-loop.h>
#include <pipewire/pipewire.h>

#include <time.h>

#include "loop.hpp"

class hs_loop_bed
{
public:
	hs_loop_bed()
	{
		pw_init(nullptr, nullptr);
		daemon_loop = hs_loop_new();
	}

	~hs_loop_bed()
	{
		destroy();
		pw_deinit();
	}

	hs_loop_bed(const hs_loop_bed &) = delete;
	hs_loop_bed &operator=(const hs_loop_bed &) = delete;

	void destroy()
	{
		hs_loop_destroy(std::exchange(daemon_loop, nullptr));
	}

	hs_loop *get() const
	{
		return daemon_loop;
	}

	pw_loop *pipewire() const
	{
		return pw_main_loop_get_loop(daemon_loop->main_loop);
	}

	/** Runs the loop with `bus` as its main bus; it quits after `to_do`. */
	int run(sd_bus *bus, const std::function<void()> &to_do)
	{
		return run_until_quit(bus, [this, &to_do] {
			to_do();
			hs_loop_do_quit(daemon_loop, 0);
		});
	}

	/** The same, but the loop must come to quit by itself. */
	int run_until_quit(sd_bus *bus, std::function<void()> to_do)
	{
		script = std::move(to_do);
		timespec limit{60, 0};
		spa_source *timer = pw_loop_add_timer(pipewire(), on_watchdog, this);
		pw_loop_update_timer(pipewire(), timer, &limit, nullptr, false);
		start = pw_loop_add_idle(pipewire(), true, on_start, this);
		const int result = hs_loop_run(daemon_loop, bus);
		if (start)
			pw_loop_destroy_source(pipewire(), start);
		pw_loop_destroy_source(pipewire(), timer);
		return result;
	}

	/** One poll of the loop, hooks and all, of at most some milliseconds. */
	void step()
	{
		pw_loop_iterate(pipewire(), 2);
	}

private:
	static void on_start(void *data)
	{
		auto *bed = static_cast<hs_loop_bed *>(data);
		pw_loop_destroy_source(bed->pipewire(), std::exchange(bed->start, nullptr));
		bed->script();
	}

	static void on_watchdog(void *data, uint64_t)
	{
		ADD_FAILURE() << "the loop did not quit";
		pw_main_loop_quit(static_cast<hs_loop_bed *>(data)->daemon_loop->main_loop);
	}

	hs_loop *daemon_loop = nullptr;
	spa_source *start = nullptr;
	std::function<void()> script;
};
