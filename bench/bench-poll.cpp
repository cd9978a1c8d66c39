/*
 * One poll of the daemon's loop by the number of its private buses, none of which has anything to do. What
 * wakes the loop is an event of PipeWire's, as audio does.
 */
#include <benchmark/benchmark.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>

#include <poll.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bus-client.hpp"
#include "log.hpp"
#include "loop-bed.hpp"
#include "pair.hpp"

namespace {

/** Buses with a client each at their other end that has authenticated and says nothing. */
class idle_buses
{
public:
	explicit idle_buses(size_t n_buses)
	{
		for (size_t i = 0; i < n_buses; ++i) {
			hs_bus_pair &pair = pairs.emplace_back(hs_new_bus_pair());
			while (sd_bus_is_ready(pair.server.get()) <= 0 || sd_bus_is_ready(pair.client.get()) <= 0) {
				sd_bus_process(pair.server.get(), nullptr);
				sd_bus_process(pair.client.get(), nullptr);
			}
		}
	}

	std::deque<hs_bus_pair> pairs;
};

/** Something for a loop to wake up for, as cheap as can be. */
class waker
{
public:
	explicit waker(pw_loop *its_loop) : loop{its_loop}, source{pw_loop_add_event(its_loop, on_event, nullptr)}
	{
	}

	~waker()
	{
		pw_loop_destroy_source(loop, source);
	}

	waker(const waker &) = delete;
	waker &operator=(const waker &) = delete;

	void poll_once() const
	{
		pw_loop_signal_event(loop, source);
		pw_loop_iterate(loop, 0);
	}

private:
	static void on_event(void *, uint64_t)
	{
	}

	pw_loop *loop;
	spa_source *source;
};

/** The daemon's loop with a main bus and so many private ones, from inside it. */
void with_daemon_loop(size_t n_buses, const std::function<void(const std::function<void()> &poll_once)> &use)
{
	idle_buses main{1};
	idle_buses others{n_buses};
	hs_loop_bed bed;
	for (hs_bus_pair &pair : others.pairs)
		hs_loop_add_bus(bed.get(), sd_bus_ref(pair.server.get()));
	bed.run(main.pairs[0].server.get(), [&] {
		const waker wake{bed.pipewire()};
		const auto poll_once = [&wake] { wake.poll_once(); };
		/* What the buses had left to do is done then. */
		for (int i = 0; i < 100; ++i)
			poll_once();
		use(poll_once);
	});
}

/** The same by hand: as little as a loop can do that asks every bus before each poll. */
class bare_loop
{
public:
	/** `always` has it tell the kernel each time what it waits for. */
	bare_loop(size_t n_buses, bool always) : buses{n_buses + 1}, rearms_always{always}
	{
		pw_init(nullptr, nullptr);
		loop = pw_loop_new(nullptr);
		for (hs_bus_pair &pair : buses.pairs) {
			watch &w = watches.emplace_back();
			w.bus = pair.server.get();
			w.io = pw_loop_add_io(loop, sd_bus_get_fd(w.bus), SPA_IO_IN, false, on_io, nullptr);
			w.timer = pw_loop_add_timer(loop, on_timer, nullptr);
		}
		hooks.version = SPA_VERSION_LOOP_CONTROL_HOOKS;
		hooks.before = before;
		pw_loop_add_hook(loop, &hook, &hooks, this);
		wake.emplace(loop);
		pw_loop_enter(loop);
		for (int i = 0; i < 100; ++i)
			poll_once();
	}

	~bare_loop()
	{
		pw_loop_leave(loop);
		spa_hook_remove(&hook);
		wake.reset();
		for (const watch &w : watches) {
			pw_loop_destroy_source(loop, w.io);
			pw_loop_destroy_source(loop, w.timer);
		}
		pw_loop_destroy(loop);
		pw_deinit();
	}

	bare_loop(const bare_loop &) = delete;
	bare_loop &operator=(const bare_loop &) = delete;

	void poll_once() const
	{
		wake->poll_once();
	}

private:
	struct watch {
		sd_bus *bus;
		spa_source *io;
		spa_source *timer;
		int events = POLLIN;
		uint64_t usec = 0;
	};

	void ask(watch &w)
	{
		const int events = sd_bus_get_events(w.bus);
		if (rearms_always || events != w.events)
			pw_loop_update_io(loop, w.io, events & POLLOUT ? SPA_IO_IN | SPA_IO_OUT : SPA_IO_IN);
		w.events = events;

		uint64_t usec = 0;
		sd_bus_get_timeout(w.bus, &usec);
		if (rearms_always || usec != w.usec) {
			timespec never{0x7fffffff, 0};
			pw_loop_update_timer(loop, w.timer, &never, nullptr, true);
		}
		w.usec = usec;
	}

	static void before(void *data)
	{
		auto *self = static_cast<bare_loop *>(data);
		for (watch &w : self->watches)
			self->ask(w);
	}

	static void on_io(void *, int, uint32_t)
	{
	}

	static void on_timer(void *, uint64_t)
	{
	}

	idle_buses buses;
	bool rearms_always;
	pw_loop *loop;
	std::optional<waker> wake;
	std::deque<watch> watches;
	spa_loop_control_hooks hooks{};
	spa_hook hook{};
};

/** The daemon's loop with so many private buses, against the one with a single private bus. */
void poll_against_one(benchmark::State &state)
{
	with_daemon_loop(static_cast<size_t>(state.range(0)), [&state](const std::function<void()> &many) {
		with_daemon_loop(1, [&state, &many](const std::function<void()> &one) {
			hs_bench_pair(
				state, [&many] { many(); }, [&one] { one(); });
		});
	});
}

void poll_against_bare(benchmark::State &state)
{
	const auto n_buses = static_cast<size_t>(state.range(0));
	bare_loop bare{n_buses, false};
	with_daemon_loop(n_buses, [&state, &bare](const std::function<void()> &poll_once) {
		hs_bench_pair(
			state, [&poll_once] { poll_once(); }, [&bare] { bare.poll_once(); });
	});
}

void rearmed_poll_against_bare(benchmark::State &state)
{
	const auto n_buses = static_cast<size_t>(state.range(0));
	bare_loop bare{n_buses, false};
	bare_loop rearming{n_buses, true};
	hs_bench_pair(
		state, [&rearming] { rearming.poll_once(); }, [&bare] { bare.poll_once(); });
}

struct call_count {
	size_t all = 0;
	/** Those that tell the kernel what is waited for. */
	size_t rearming = 0;
	/** The traced process came to its end. */
	bool is_whole = false;
};

/* No process here asks for its parent but to mark what is counted. */
constexpr long mark = SYS_getppid;

void count_call(call_count *count, uint64_t number)
{
	++count->all;
	if (number == SYS_epoll_ctl || number == SYS_timerfd_settime)
		++count->rearming;
}

call_count trace(pid_t pid)
{
	call_count count;
	bool between_marks = false;
	int status = 0;
	while (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) {
		const bool at_call = WSTOPSIG(status) == (SIGTRAP | 0x80);
		if (at_call) {
			__ptrace_syscall_info info{};
			ptrace(PTRACE_GET_SYSCALL_INFO, pid, reinterpret_cast<void *>(sizeof(info)), &info);
			if (info.op == PTRACE_SYSCALL_INFO_ENTRY && info.entry.nr == mark)
				between_marks = !between_marks;
			else if (info.op == PTRACE_SYSCALL_INFO_ENTRY && between_marks)
				count_call(&count, info.entry.nr);
		} else {
			ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
		}
		ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
	}
	count.is_whole = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
	return count;
}

void count_calls(benchmark::State &state, const std::function<void(const std::function<void()> &)> &with_loop)
{
	constexpr int n_polls = 10;
	for (auto _ : state) {
		const pid_t pid = fork();
		if (pid == 0) {
			ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
			raise(SIGSTOP);
			with_loop([] { syscall(mark); });
			_exit(EXIT_SUCCESS);
		}
		const call_count count = trace(pid);
		if (!count.is_whole || count.all == 0)
			state.SkipWithError("the system calls can not be counted");
		state.counters["calls"] = static_cast<double>(count.all) / n_polls;
		state.counters["rearming"] = static_cast<double>(count.rearming) / n_polls;
	}
}

void poll_calls(benchmark::State &state)
{
	count_calls(state, [&state](const std::function<void()> &set_mark) {
		with_daemon_loop(static_cast<size_t>(state.range(0)),
				 [&set_mark](const std::function<void()> &poll_once) {
					 set_mark();
					 for (int i = 0; i < 10; ++i)
						 poll_once();
					 set_mark();
				 });
	});
}

/** Shows that the count sees what it is to see. */
void rearmed_poll_calls(benchmark::State &state)
{
	count_calls(state, [&state](const std::function<void()> &set_mark) {
		bare_loop rearming{static_cast<size_t>(state.range(0)), true};
		set_mark();
		for (int i = 0; i < 10; ++i)
			rearming.poll_once();
		set_mark();
	});
}

} // namespace

BENCHMARK(poll_against_one)->Arg(1)->Arg(10)->Arg(100)->UseManualTime();
BENCHMARK(poll_against_bare)->Arg(1)->Arg(10)->Arg(100)->UseManualTime();
BENCHMARK(rearmed_poll_against_bare)->Arg(1)->Arg(10)->Arg(100)->UseManualTime();
BENCHMARK(poll_calls)->Arg(1)->Arg(10)->Arg(100)->Iterations(1);
BENCHMARK(rearmed_poll_calls)->Arg(1)->Arg(10)->Arg(100)->Iterations(1);

BENCHMARK_MAIN();
