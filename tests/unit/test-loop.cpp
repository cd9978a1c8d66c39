#include "loop.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "bus-client.hpp"
#include "context.hpp"
#include "descriptors.hpp"
#include "failing-new.hpp"
#include "log-capture.hpp"
#include "loop-bed.hpp"
#include "paper-plugin.hpp"
#include "private-bus-daemon.hpp"

namespace {

/** What sd-bus is made to answer for one bus. */
struct failing_bus {
	sd_bus *bus;
	int events;
	int timeout;
	/** Where it is not 0. */
	uint64_t n_queued;
};

failing_bus failing;

/** What sd_bus_get_timeout tells of one bus. */
struct told_timeout {
	sd_bus *bus;
	uint64_t usec;
};

told_timeout told;

/** For which bus sd_bus_process fails, and with what. */
struct failing_process {
	sd_bus *bus;
	int error;
};

failing_process unprocessed;

struct process_count {
	sd_bus *bus;
	size_t calls;
};

process_count counted;

/** Asked when the main loop is told to quit. */
hs_loop *loop_to_look_at;
bool private_bus_at_quit;

} // namespace

extern "C" {

pw_main_loop *__real_pw_main_loop_new(const spa_dict *props);
pw_main_loop *__wrap_pw_main_loop_new(const spa_dict *props)
{
	return hs_must_fail("pw_main_loop_new") ? nullptr : __real_pw_main_loop_new(props);
}

int __real_pw_main_loop_quit(pw_main_loop *loop);
int __wrap_pw_main_loop_quit(pw_main_loop *loop)
{
	if (loop_to_look_at) {
		void *cursor = nullptr;
		private_bus_at_quit = hs_loop_bus_iterate(loop_to_look_at, &cursor) != nullptr;
	}
	return __real_pw_main_loop_quit(loop);
}

int __real_pw_main_loop_run(pw_main_loop *loop);
int __wrap_pw_main_loop_run(pw_main_loop *loop)
{
	return hs_must_fail("pw_main_loop_run") ? -errno : __real_pw_main_loop_run(loop);
}

int __real_sd_bus_get_events(sd_bus *bus);
int __wrap_sd_bus_get_events(sd_bus *bus)
{
	return bus == failing.bus && failing.events < 0 ? failing.events : __real_sd_bus_get_events(bus);
}

int __real_sd_bus_get_timeout(sd_bus *bus, uint64_t *usec);
int __wrap_sd_bus_get_timeout(sd_bus *bus, uint64_t *usec)
{
	if (bus == failing.bus && failing.timeout < 0)
		return failing.timeout;
	const int r = __real_sd_bus_get_timeout(bus, usec);
	if (bus == told.bus)
		*usec = told.usec;
	return r;
}

int __real_sd_bus_get_n_queued_write(sd_bus *bus, uint64_t *count);
int __wrap_sd_bus_get_n_queued_write(sd_bus *bus, uint64_t *count)
{
	const int r = __real_sd_bus_get_n_queued_write(bus, count);
	if (bus == failing.bus && failing.n_queued > 0)
		*count = failing.n_queued;
	return r;
}

int __real_sd_bus_process(sd_bus *bus, sd_bus_message **message);
int __wrap_sd_bus_process(sd_bus *bus, sd_bus_message **message)
{
	counted.calls += bus == counted.bus;
	return bus == unprocessed.bus ? unprocessed.error : __real_sd_bus_process(bus, message);
}
}

namespace {

/** A timer of the kernel as it stands. */
struct kernel_timer {
	/** From now on, in nanoseconds. */
	int64_t left;
	bool repeats;
	bool is_absolute;
	bool is_monotonic;
};

kernel_timer look_at_timer(int fd)
{
	kernel_timer timer{};
	std::ifstream info{"/proc/self/fdinfo/" + std::to_string(fd)};
	std::string line;
	while (std::getline(info, line)) {
		long long seconds = 0;
		long long nanoseconds = 0;
		long long flags = 0;
		if (std::sscanf(line.c_str(), "it_value: (%lld, %lld)", &seconds, &nanoseconds) == 2)
			timer.left = seconds * 1000000000 + nanoseconds;
		else if (std::sscanf(line.c_str(), "it_interval: (%lld, %lld)", &seconds, &nanoseconds) == 2)
			timer.repeats = seconds != 0 || nanoseconds != 0;
		else if (std::sscanf(line.c_str(), "settime flags: %llo", &flags) == 1)
			timer.is_absolute = (flags & TFD_TIMER_ABSTIME) != 0;
		else if (std::sscanf(line.c_str(), "clockid: %lld", &flags) == 1)
			timer.is_monotonic = flags == CLOCK_MONOTONIC;
	}
	return timer;
}

int64_t now_nsec()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/** The timer is armed once, for that moment of the monotonic clock in nanoseconds. */
void expect_armed_for(int fd, int64_t moment)
{
	const int64_t before = now_nsec();
	const kernel_timer timer = look_at_timer(fd);
	const int64_t after = now_nsec();
	EXPECT_GE(before + timer.left, moment - (after - before));
	EXPECT_LE(before + timer.left, moment);
	EXPECT_FALSE(timer.repeats);
	EXPECT_TRUE(timer.is_absolute);
	EXPECT_TRUE(timer.is_monotonic);
}

/** What stands for never: 0x7fffffff seconds and 999999999 nanoseconds. */
constexpr int64_t far_future = int64_t{0x7fffffff} * 1000000000 + 999999999;

std::string pointer(const void *p)
{
	char text[32];
	std::snprintf(text, sizeof(text), "%p", p);
	return text;
}

class Loop : public testing::Test
{
protected:
	Loop()
	{
		failing = {};
		told = {};
		unprocessed = {};
		counted = {};
		loop_to_look_at = nullptr;
	}

	~Loop() override
	{
		loop_to_look_at = nullptr;
		hs_context_destroy();
	}

	/** A client of the main bus. */
	hs_bus_client &main_client()
	{
		if (!client)
			client = std::make_unique<hs_bus_client>(std::move(main.client), [this] { bed.step(); });
		return *client;
	}

	sd_bus *main_bus() const
	{
		return main.server.get();
	}

	/** A private bus that the loop owns, and its client. */
	struct private_bus {
		private_bus(hs_bus_pair pair, std::function<void()> step)
			: server{pair.server.release()}, client{std::move(pair.client), std::move(step)}
		{
		}

		sd_bus *server;
		hs_bus_client client;
	};

	private_bus &add_private()
	{
		private_bus &bus = privates.emplace_back(hs_new_bus_pair(), [this] { bed.step(); });
		EXPECT_TRUE(hs_loop_add_bus(bed.get(), bus.server));
		return bus;
	}

	/** Lets what is under way come to rest. */
	void rest()
	{
		for (int i = 0; i < 5; ++i)
			bed.step();
	}

	/** A private bus whose client is a bare socket. */
	sd_bus *add_silent(int *socket)
	{
		const hs_socket_pair sockets = hs_new_socket_pair();
		sd_bus *server = hs_new_bus_server(sockets.server).release();
		EXPECT_TRUE(hs_loop_add_bus(bed.get(), server));
		*socket = sockets.client;
		return server;
	}

	template <typename Done>
	bool wait(Done done)
	{
		return hs_wait_until(done, [this] { bed.step(); });
	}

	int run(const std::function<void()> &script)
	{
		return bed.run(main_bus(), script);
	}

	bool is_attached(sd_bus *bus)
	{
		bool enabled;
		return hs_loop_bus_get_event_status(bed.get(), bus, &source, "Any", &enabled);
	}

	std::string status(sd_bus *bus, const hs_source *of, const char *name)
	{
		bool enabled = true;
		if (!hs_loop_bus_get_event_status(bed.get(), bus, of, name, &enabled))
			return "no such bus";
		return enabled ? "enabled" : "disabled";
	}

	size_t count_private()
	{
		size_t n = 0;
		void *cursor = nullptr;
		while (hs_loop_bus_iterate(bed.get(), &cursor))
			n++;
		return n;
	}

	hs_loop_bed bed;
	hs_bus_pair main = hs_new_bus_pair();
	std::unique_ptr<hs_bus_client> client;
	std::deque<private_bus> privates;
	hs_log_capture capture;
	hs_source source{};
	hs_source other_source{};
};

using LoopDeathTest = Loop;

} // namespace

TEST_F(Loop, WithoutAPipeWireLoopThereIsNone)
{
	hs_fail_call("pw_main_loop_new", 1, EMFILE);
	EXPECT_EQ(hs_loop_new(), nullptr);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_ERROR, "Could not create main loop: Too many open files"))
		<< capture.text();
}

TEST_F(Loop, DestroyingNoLoopIsHarmless)
{
	hs_loop_destroy(nullptr);
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(Loop, SigtermQuits)
{
	EXPECT_GE(bed.run_until_quit(main_bus(), [] { raise(SIGTERM); }), 0);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Got signal 15")) << capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_INFO, "Exiting."));
}

TEST_F(Loop, SigintQuits)
{
	EXPECT_GE(bed.run_until_quit(main_bus(), [] { raise(SIGINT); }), 0);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Got signal 2")) << capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_INFO, "Exiting."));
}

TEST_F(Loop, SigtermDropsThePrivateBusesBeforeItQuits)
{
	int sockets[2];
	add_silent(&sockets[0]);
	add_silent(&sockets[1]);
	loop_to_look_at = bed.get();
	private_bus_at_quit = true;
	bed.run_until_quit(main_bus(), [] { raise(SIGTERM); });
	EXPECT_FALSE(private_bus_at_quit);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Destroy bus event data: "), 2u) << capture.text();
	for (const int socket : sockets) {
		EXPECT_TRUE(hs_peer_is_gone(socket));
		close(socket);
	}
}

TEST_F(Loop, QuitsMoreThanOnceWithoutHarm)
{
	int socket;
	add_silent(&socket);
	run([this] {
		hs_loop_do_quit(bed.get(), 0);
		hs_loop_do_quit(bed.get(), SIGTERM);
	});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Destroy bus event data: "), 1u);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_INFO, "Exiting."), 3u);
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	close(socket);
}

TEST_F(Loop, RefusesTheSameBusTwice)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	EXPECT_FALSE(hs_loop_add_bus(bed.get(), bus));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Bus already added"), 1u) << capture.text();
	EXPECT_EQ(count_private(), 1u);
	hs_loop_do_quit(bed.get(), 0);
	close(socket);
}

TEST_F(Loop, RefusesABusThatIsNotConnected)
{
	sd_bus *bus = nullptr;
	ASSERT_EQ(sd_bus_new(&bus), 0);
	const hs_bus_ptr owned{bus};
	EXPECT_FALSE(hs_loop_add_bus(bed.get(), bus));
	EXPECT_EQ(count_private(), 0u);
	EXPECT_EQ(hs_loop_run(bed.get(), bus), -1);
	EXPECT_FALSE(is_attached(bus));
}

TEST_F(Loop, ABusForWhichALoopSourceFailsIsNotAttachedAndLeavesNothingBehind)
{
	hs_bus_pair pair = hs_new_bus_pair();
	/* Looked up before: the sanitizer that checks objects takes descriptors for it. */
	hs_loop *loop = bed.get();
	sd_bus *server = pair.server.get();
	const size_t before = hs_count_descriptors();
	const int first = hs_next_descriptor();
	/* Room for nothing, for the bus's own descriptor, and for the timer's. */
	for (int room = 0; room < 3; ++room) {
		const hs_descriptor_limit limit{first + room};
		EXPECT_FALSE(hs_loop_add_bus(loop, server)) << room;
		EXPECT_EQ(hs_loop_run(loop, server), -1) << room;
	}
	EXPECT_EQ(count_private(), 0u);
	EXPECT_EQ(hs_count_descriptors(), before);
	/* The caller has kept its reference. */
	EXPECT_EQ(sd_bus_is_open(pair.server.get()), 1);
}

TEST_F(Loop, OwnsTheReferenceOfAnAddedBus)
{
	int socket;
	add_silent(&socket);
	EXPECT_FALSE(hs_peer_is_gone(socket));
	hs_loop_do_quit(bed.get(), 0);
	EXPECT_TRUE(hs_peer_is_gone(socket));
	close(socket);
}

TEST_F(Loop, BorrowsTheMainBusForTheRun)
{
	EXPECT_FALSE(is_attached(main_bus()));
	for (int i = 0; i < 2; ++i) {
		run([this] {
			EXPECT_TRUE(is_attached(main_bus()));
			EXPECT_TRUE(main_client().ping());
		});
		EXPECT_FALSE(is_attached(main_bus()));
	}
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(Loop, TellsWhyPipeWiresLoopDidNotRunAndLeavesTheMainBusAlone)
{
	hs_fail_call("pw_main_loop_run", 1, EIO);
	EXPECT_EQ(hs_loop_run(bed.get(), main_bus()), -EIO);
	EXPECT_FALSE(is_attached(main_bus()));
	bed.step();
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}

TEST_F(Loop, TheMainBusIsAttachedAfterThePrivateBusesThatCameBefore)
{
	private_bus &bus = add_private();
	run([&] {
		capture.clear();
		bed.step();
		std::vector<std::string> order;
		for (const hs_log_capture::line &line : capture.lines()) {
			if (line.text.rfind("timeout_usec", 0) == 0)
				order.push_back(line.text.substr(line.text.rfind(' ') + 1));
		}
		EXPECT_EQ(order, (std::vector<std::string>{pointer(bus.server), pointer(main_bus())})) << capture.text();
	});
}

TEST_F(Loop, AnAddedBusIsNotServedBeforeTheFirstPollOfTheRun)
{
	private_bus &bus = add_private();
	bed.step();
	bed.step();
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
	run([&] { EXPECT_TRUE(bus.client.ping()); });
}

TEST_F(Loop, EveryPollIsTracedAndAsksEachBusFirst)
{
	run([this] {
		EXPECT_TRUE(main_client().ping());
		capture.clear();
		bed.step();
	});
	const std::string loop = pointer(bed.get());
	ASSERT_GE(capture.lines().size(), 4u) << capture.text();
	EXPECT_EQ(capture.lines()[0].text, "before poll " + loop);
	EXPECT_EQ(capture.lines()[1].text, "events 0x1, POLLIN: 0x1, POLLOUT: 0x0");
	EXPECT_EQ(capture.lines()[2].text, "timeout_usec 18446744073709551615 (UINT64_MAX == 18446744073709551615) "
					   "on bus " + pointer(main_bus()));
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "after poll " + loop));
	for (size_t i = 0; i < 3; ++i)
		EXPECT_EQ(capture.lines()[i].level, SPA_LOG_LEVEL_TRACE);
}

TEST_F(Loop, ServesTheMainBusAndPrivateBuses)
{
	private_bus &first = add_private();
	run([&] {
		private_bus &second = add_private();
		EXPECT_TRUE(main_client().ping());
		EXPECT_TRUE(first.client.ping());
		EXPECT_TRUE(second.client.ping());
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_bus_io bus " + pointer(second.server) + " (fd "));
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, ", mask 1)"));
	});
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(Loop, WaitsForRoomInAFullSocketAndNoLonger)
{
	constexpr size_t most_signals = 2000;
	private_bus &bus = add_private();
	run([&] {
		ASSERT_TRUE(bus.client.ping());
		const std::string text(60000, 'x');
		size_t n_signals = 0;
		while (n_signals < most_signals && !(sd_bus_get_events(bus.server) & POLLOUT)) {
			ASSERT_GE(sd_bus_emit_signal(bus.server, "/", "org.freedesktop.DBus.Properties", "Big", "s",
						     text.c_str()),
				  0);
			++n_signals;
		}
		rest();
		capture.clear();
		rest();
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "events 0x5, POLLIN: 0x1, POLLOUT: 0x4"))
			<< capture.text();
		EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle"));

		EXPECT_TRUE(bus.client.wait([&] { return bus.client.contents("/", "Big").size() == n_signals; }));
		EXPECT_TRUE(bus.client.ping());
		capture.clear();
		bed.step();
		EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_TRACE, "POLLOUT: 0x4")) << capture.text();
	});
}

TEST_F(Loop, TimesOutACallThatIsNeverAnswered)
{
	private_bus &bus = add_private();
	run([&] {
		ASSERT_TRUE(bus.client.ping());
		struct outcome {
			bool here;
			std::string error;
		} result{};
		const auto on_answer = [](sd_bus_message *message, void *data, sd_bus_error *) {
			*static_cast<outcome *>(data) = {true, sd_bus_message_get_error(message)->name};
			return 0;
		};
		sd_bus_message *message = nullptr;
		sd_bus_message_new_method_call(bus.server, &message, nullptr, "/", "com.example.Slow", "Wait");
		const hs_message_ptr owned{message};
		capture.clear();
		const auto start = std::chrono::steady_clock::now();
		ASSERT_GE(sd_bus_call_async(bus.server, nullptr, message, on_answer, &result, 50000), 0);
		EXPECT_TRUE(wait([&] { return result.here; }));
		EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{50});
		EXPECT_EQ(result.error, "org.freedesktop.DBus.Error.NoReply");

		/* It was the timer, once, and it is not armed any more. */
		rest();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "on_timeout bus " + pointer(bus.server) + " (exp. 1)"), 1u)
			<< capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "on_timeout"), 1u);
	});
}

TEST_F(Loop, DrainsWhatSdBusHasQueuedOneMessageAtATime)
{
	constexpr size_t n_calls = 5;
	const hs_private_bus_daemon daemon;
	const hs_bus_ptr bus = daemon.connect();
	const char *name = nullptr;
	ASSERT_GE(sd_bus_get_unique_name(bus.get(), &name), 0);
	hs_bus_client caller{daemon.connect(), [this] { bed.step(); }, name};

	bed.run(bus.get(), [&] {
		ASSERT_TRUE(caller.ping());
		size_t answers = 0;
		const auto on_answer = [](sd_bus_message *, void *data, sd_bus_error *) {
			++*static_cast<size_t *>(data);
			return 0;
		};
		for (size_t i = 0; i < n_calls; ++i)
			ASSERT_GE(sd_bus_call_method_async(caller.connection(), nullptr, name, "/",
							   "org.freedesktop.DBus.Peer", "Ping", on_answer, &answers, ""),
				  0);
		/* While it waits for an answer sd-bus puts aside what comes before it. */
		for (sd_bus *connection : {caller.connection(), bus.get()})
			ASSERT_GE(sd_bus_call_method(connection, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
						     "GetId", nullptr, nullptr, ""),
				  0);
		capture.clear();
		bed.step();
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "timeout_usec 0 (")) << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "process bus"), 1u) << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus.get()) + " (state 0)"), 1u);
		EXPECT_TRUE(caller.wait([&] { return answers == n_calls; }));
		EXPECT_GE(capture.count(SPA_LOG_LEVEL_TRACE, "on_idle"), n_calls);
	});
}

TEST_F(Loop, ProcessesABusOnceForEachWakeUp)
{
	run([this] {
		ASSERT_TRUE(main_client().ping());
		capture.clear();
		counted = {main_bus(), 0};
		for (int i = 0; i < 3; ++i)
			EXPECT_TRUE(main_client().ping());
		counted.bus = nullptr;
	});
	EXPECT_GE(counted.calls, 3u);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "process bus " + pointer(main_bus())), counted.calls)
		<< capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "process done"), counted.calls);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "on_idle") + capture.count(SPA_LOG_LEVEL_TRACE, "on_bus_io"),
		  counted.calls);
}

TEST_F(Loop, OtherSourcesOfTheLoopRunBetweenMessages)
{
	constexpr size_t n_calls = 30;
	struct counters {
		size_t answers;
		size_t handled;
		size_t handled_before;
		size_t most_between;
		size_t ticks;
	} seen{};
	sd_bus_slot *slot = nullptr;
	sd_bus_add_filter(
		main_bus(), &slot,
		[](sd_bus_message *, void *data, sd_bus_error *) {
			++static_cast<counters *>(data)->handled;
			return 0;
		},
		&seen);
	const hs_slot_ptr filter{slot};
	spa_source *tick = pw_loop_add_idle(
		bed.pipewire(), true,
		[](void *data) {
			auto *c = static_cast<counters *>(data);
			c->most_between = std::max(c->most_between, c->handled - c->handled_before);
			c->handled_before = c->handled;
			++c->ticks;
		},
		&seen);

	run([&] {
		ASSERT_TRUE(main_client().ping());
		seen = {};
		for (size_t i = 0; i < n_calls; ++i)
			ASSERT_GE(sd_bus_call_method_async(
					  main_client().connection(), nullptr, nullptr, "/", "org.freedesktop.DBus.Peer",
					  "Ping",
					  [](sd_bus_message *, void *data, sd_bus_error *) {
						  ++static_cast<counters *>(data)->answers;
						  return 0;
					  },
					  &seen, ""),
				  0);
		EXPECT_TRUE(main_client().wait([&] { return seen.answers == n_calls; }));
	});
	pw_loop_destroy_source(bed.pipewire(), tick);
	EXPECT_EQ(seen.handled, n_calls);
	/* Input and idle may both wake in one poll. */
	EXPECT_LE(seen.most_between, 2u);
	EXPECT_GE(seen.ticks, n_calls / 2);
}

TEST_F(Loop, ABusThatWasBusyIsProcessedUntilItIsNot)
{
	private_bus &bus = add_private();
	run([&] {
		ASSERT_TRUE(bus.client.ping());
		/* The last call that did something is followed by one more, which finds nothing; then it rests. */
		rest();
		capture.clear();
		rest();
		EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_TRACE, "process bus")) << capture.text();

		counted = {bus.server, 0};
		ASSERT_TRUE(bus.client.ping());
		rest();
		EXPECT_EQ(counted.calls, 2u) << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus.server) + " (state 0)"), 1u);
	});
}

TEST_F(Loop, AnswersAMessageThatCameWithTheHandshake)
{
	/* Peer.Ping at "/", little endian, serial 1. */
	std::string message{"l\x01\x00\x01\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00", 16};
	const auto add_field = [&message](char code, char type, const std::string &text) {
		message.append((8 - message.size() % 8) % 8, '\0');
		message += {code, 1, type, 0};
		message += {static_cast<char>(text.size()), 0, 0, 0};
		message += text + '\0';
	};
	add_field(1, 'o', "/");
	add_field(2, 's', "org.freedesktop.DBus.Peer");
	add_field(3, 's', "Ping");
	message[12] = static_cast<char>(message.size() - 16);
	message.append((8 - message.size() % 8) % 8, '\0');

	std::string handshake = '\0' + std::string{"AUTH ANONYMOUS\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"};
	handshake += message;
	int socket;
	add_silent(&socket);
	run([&] {
		ASSERT_EQ(send(socket, handshake.data(), handshake.size(), 0), static_cast<ssize_t>(handshake.size()));
		std::string answer;
		/* A method return that answers serial 1. */
		EXPECT_TRUE(wait([&] {
			char bytes[512];
			const ssize_t n = recv(socket, bytes, sizeof(bytes), MSG_DONTWAIT);
			answer.append(bytes, n > 0 ? static_cast<size_t>(n) : 0);
			return answer.find("AGREE_UNIX_FD\r\nl\x02") != std::string::npos;
		})) << answer;
	});
	close(socket);
}

TEST_F(Loop, AClosedPrivateBusGoesAndTheOthersStay)
{
	private_bus &leaving = add_private();
	private_bus &staying = add_private();
	run([&] {
		ASSERT_TRUE(leaving.client.ping());
		capture.clear();
		leaving.client.close();
		EXPECT_TRUE(wait([&] { return !is_attached(leaving.server); }));
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Destroy bus event data: ")) << capture.text();
		EXPECT_EQ(count_private(), 1u);
		EXPECT_TRUE(staying.client.ping());
		EXPECT_TRUE(main_client().ping());
	});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR), 0u) << capture.text();
}

TEST_F(Loop, APrivateBusThatFailsToProcessIsDroppedWithoutAComplaint)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		ASSERT_EQ(send(socket, "\0HELLO\r\n", 8, 0), 8);
		close(socket);
		EXPECT_TRUE(wait([&] { return !is_attached(bus); }));
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Failed to process bus event: ")) << capture.text();
		EXPECT_TRUE(main_client().ping());
	});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "process bus"), capture.count(SPA_LOG_LEVEL_TRACE, "process done"));
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(Loop, ABusThatSdBusHasClosedIsDestroyedFromTheIdleSource)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		bed.step();
		capture.clear();
		sd_bus_close(bus);
		EXPECT_TRUE(wait([&] { return !is_attached(bus); }));
		EXPECT_TRUE(main_client().ping());
	});
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Client closed the bus " + pointer(bus) +
								  ": Transport endpoint is not connected"))
		<< capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus) + " (state 1)"));
	EXPECT_TRUE(hs_peer_is_gone(socket));
	close(socket);
}

TEST_F(Loop, AHalfClosedPrivateBusGoes)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		bed.step();
		shutdown(socket, SHUT_WR);
		EXPECT_TRUE(wait([&] { return !is_attached(bus); }));
		EXPECT_TRUE(main_client().ping());
	});
	close(socket);
}

TEST_F(Loop, ANewBusOnTheDescriptorNumberOfAClosedOneIsServed)
{
	run([this] {
		private_bus &old = add_private();
		ASSERT_TRUE(old.client.ping());
		const int fd = sd_bus_get_fd(old.server);
		/* From here until it is destroyed its loop source outlives its descriptor. */
		sd_bus_close(old.server);
		private_bus &fresh = add_private();
		ASSERT_EQ(sd_bus_get_fd(fresh.server), fd);
		EXPECT_TRUE(wait([&] { return !is_attached(old.server); }));
		EXPECT_TRUE(fresh.client.ping());
		EXPECT_TRUE(fresh.client.ping());
	});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not update io source"), 0u) << capture.text();
}

TEST_F(Loop, QuitsWhenABusCannotTellItsEvents)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	EXPECT_GE(bed.run_until_quit(main_bus(), [&] { failing = {bus, -EINVAL, 0, 0}; }), 0);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_WARN,
				     "Could not get events for bus " + pointer(bus) + ": Invalid argument"))
		<< capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus) + " (state 2)"));
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Got signal 0"));
	EXPECT_TRUE(hs_peer_is_gone(socket));
	close(socket);
}

TEST_F(Loop, QuitsWhenABusCannotTellItsTimeout)
{
	EXPECT_GE(bed.run_until_quit(main_bus(), [this] { failing = {main_bus(), 0, -EIO, 0}; }), 0);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_WARN, "Could not get timeout on bus " + pointer(main_bus()) +
								 ": Input/output error"))
		<< capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(main_bus()) + " (state 2)"));
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Got signal 0"));
}

TEST_F(Loop, QuitsWhenTheMainBusDies)
{
	hs_private_bus_daemon daemon;
	const hs_bus_ptr bus = daemon.connect();
	ASSERT_GE(sd_bus_get_unique_name(bus.get(), nullptr), -EINVAL);
	EXPECT_GE(bed.run_until_quit(bus.get(), [&] {
		bed.step();
		daemon.kill();
	}),
		  0);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_ERROR, "Failed to process bus event: ")) << capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_INFO, "Exiting."));
}

TEST_F(Loop, QuitsWhenSdBusHasClosedTheMainBus)
{
	EXPECT_GE(bed.run_until_quit(main_bus(), [this] {
		ASSERT_TRUE(main_client().ping());
		rest();
		sd_bus_close(main_bus());
	}),
		  0);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_DEBUG, "Client closed the bus " + pointer(main_bus())))
		<< capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Attempting to destroy bus event data for main bus"), 1u);
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_INFO, "Exiting."));
}

TEST_F(Loop, DropsABusWithMoreThan1024UnreadMessagesBeforeThePollOnly)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		failing = {bus, 0, 0, 1024};
		bed.step();
		bed.step();
		EXPECT_TRUE(is_attached(bus));
		EXPECT_EQ(capture.complaints(), 0u) << capture.text();
		failing.n_queued = 1025;
		bool enabled = true;
		EXPECT_TRUE(hs_loop_bus_get_event_status(bed.get(), bus, nullptr, "Noise", &enabled));
		EXPECT_TRUE(wait([&] { return !is_attached(bus); }));
	});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Closing private bus " + pointer(bus) +
							    " of user 0: its client has left 1025 messages unread"),
		  1u)
		<< capture.text();
	EXPECT_EQ(capture.complaints(), 1u);
	EXPECT_TRUE(hs_peer_is_gone(socket));
	close(socket);
}

TEST_F(Loop, NeverDropsTheMainBusForItsUnreadMessages)
{
	run([&] {
		failing = {main_bus(), 0, 0, 100000};
		bed.step();
		bed.step();
		EXPECT_TRUE(main_client().ping());
	});
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(Loop, TheTimerIsArmedForTheVeryMomentThatTheBusTells)
{
	/* The bus and its client take the next two, then come the loop's duplicate and the timer. */
	const int timer_fd = hs_next_descriptor() + 3;
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		const auto now = static_cast<uint64_t>(now_nsec()) / 1000;
		/* Just below a full second, the second itself, and one beyond 32 bits of microseconds. */
		for (const uint64_t moment :
		     {(now / 1000000 + 100) * 1000000 - 1, (now / 1000000 + 100) * 1000000, now + 5000000123}) {
			told = {bus, moment};
			bed.step();
			bed.step();
			expect_armed_for(timer_fd, static_cast<int64_t>(moment) * 1000);
			capture.clear();
			bed.step();
			EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle")) << capture.text();
		}
	});
	close(socket);
}

TEST_F(Loop, WithoutATimeoutTheTimerWaitsForTheFarFutureAndTheIdleSourceRests)
{
	const int timer_fd = hs_next_descriptor() + 3;
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		told = {bus, UINT64_MAX};
		bed.step();
		bed.step();
		expect_armed_for(timer_fd, far_future);
		capture.clear();
		bed.step();
		EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus))) << capture.text();
	});
	close(socket);
}

TEST_F(Loop, WithWorkPendingTheIdleSourceWakesAndTheTimerWaitsForTheFarFuture)
{
	const int timer_fd = hs_next_descriptor() + 3;
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		told = {bus, 0};
		bed.step();
		capture.clear();
		bed.step();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus) + " (state 0)"), 1u)
			<< capture.text();
		expect_armed_for(timer_fd, far_future);
	});
	close(socket);
}

TEST_F(Loop, ABusThatIsGivenUpIsNotListenedToAnyMore)
{
	for (const bool is_timeout : {false, true}) {
		failing = {};
		private_bus &bus = add_private();
		bed.run_until_quit(main_bus(), [&] {
			ASSERT_TRUE(bus.client.ping());
			rest();
			/* There is something to read from here on. */
			ASSERT_GE(sd_bus_call_method_async(bus.client.connection(), nullptr, nullptr, "/",
							   "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, ""),
				  0);
			ASSERT_GE(sd_bus_flush(bus.client.connection()), 0);
			failing = {bus.server, is_timeout ? 0 : -EINVAL, is_timeout ? -EINVAL : 0, 0};
			capture.clear();
		});
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus.server) + " (state 2)"))
			<< capture.text();
		EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_bus_io bus " + pointer(bus.server)))
			<< capture.text();
	}
}

TEST_F(Loop, ABusThatIsGivenUpIsNotWaitedForAnyMore)
{
	/* That of the main bus lives on until the run ends. */
	for (const failing_bus &failure :
	     {failing_bus{main_bus(), -ENOTCONN, 0, 0}, failing_bus{main_bus(), -EINVAL, 0, 0},
	      failing_bus{main_bus(), 0, -EINVAL, 0}}) {
		failing = {};
		/* What starts the script takes two, then come the loop's duplicate and the timer. */
		const int timer_fd = hs_next_descriptor() + 3;
		bed.run_until_quit(main_bus(), [&] {
			const int64_t moment = now_nsec() / 1000 * 1000 + int64_t{100} * 1000000000;
			told = {main_bus(), static_cast<uint64_t>(moment) / 1000};
			bed.step();
			bed.step();
			expect_armed_for(timer_fd, moment);
			failing = failure;
			bed.step();
			expect_armed_for(timer_fd, far_future);
		});
	}
}

TEST_F(Loop, AFailureToProcessIsToldWithItsCause)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	const auto script = [&] {
		ASSERT_TRUE(main_client().ping());
		rest();
		capture.clear();
		unprocessed = {bus, -EIO};
		ASSERT_EQ(send(socket, "\0", 1, 0), 1);
		EXPECT_TRUE(wait([&] { return !is_attached(bus); }));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Failed to process bus event: Input/output error"), 1u)
			<< capture.text();
		EXPECT_EQ(capture.complaints(), 0u) << capture.text();
		EXPECT_FALSE(capture.contains(SPA_LOG_LEVEL_INFO, "Exiting."));

		unprocessed = {main_bus(), -EPIPE};
		ASSERT_GE(sd_bus_call_method_async(main_client().connection(), nullptr, nullptr, "/",
						   "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, ""),
			  0);
		ASSERT_GE(sd_bus_flush(main_client().connection()), 0);
	};
	EXPECT_GE(bed.run_until_quit(main_bus(), script), 0);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Failed to process bus event: Broken pipe"), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Got signal 0"), 1u);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "process bus"), capture.count(SPA_LOG_LEVEL_TRACE, "process done"))
		<< capture.text();
	close(socket);
}

TEST_F(Loop, QuittingIsToldFirstAndThenDropsThePrivateBuses)
{
	int socket;
	add_silent(&socket);
	run([&] {
		capture.clear();
		hs_loop_do_quit(bed.get(), SIGTERM);
	});
	ASSERT_GE(capture.lines().size(), 3u) << capture.text();
	EXPECT_EQ(capture.lines()[0].text, "Got signal 15");
	EXPECT_EQ(capture.lines()[0].level, SPA_LOG_LEVEL_DEBUG);
	EXPECT_EQ(capture.lines()[1].text, "Exiting.");
	EXPECT_EQ(capture.lines()[1].level, SPA_LOG_LEVEL_INFO);
	EXPECT_EQ(capture.lines()[2].text.rfind("Destroy bus event data: 0x", 0), 0u) << capture.text();
	EXPECT_EQ(capture.lines()[2].level, SPA_LOG_LEVEL_DEBUG);
	close(socket);
}

TEST_F(Loop, AfterTheRunNoBusIsAsked)
{
	run([] {});
	int socket;
	add_silent(&socket);
	capture.clear();
	bed.step();
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
	hs_loop_do_quit(bed.get(), 0);
	close(socket);
}

TEST_F(Loop, DoesNotReArmWhatHasNotChanged)
{
	const int own_fd = hs_next_descriptor();
	int socket;
	add_silent(&socket);
	const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
	run([&] {
		bed.step();
		/* From here on the kernel would refuse: of the input's duplicate and of the timer. */
		ASSERT_EQ(dup2(nothing, own_fd + 2), own_fd + 2);
		ASSERT_EQ(dup2(nothing, own_fd + 3), own_fd + 3);
		capture.clear();
		bed.step();
		bed.step();
		EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	});
	close(nothing);
	close(socket);
}

TEST_F(Loop, AFailureToReArmOneSourceDoesNotKeepTheOthersFromIt)
{
	const int own_fd = hs_next_descriptor();
	int silent_socket;
	/* The bus and its client take the next two, then come the loop's duplicate and the timer. */
	sd_bus *bus = add_silent(&silent_socket);
	const int timer_fd = own_fd + 3;
	const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
	ASSERT_EQ(dup2(nothing, timer_fd), timer_fd);
	run([&] {
		capture.clear();
		bed.step();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not update timer source for bus " + pointer(bus) + "."), 1u)
			<< capture.text();
		EXPECT_EQ(capture.complaints(), 1u);

		told = {bus, 0};
		bed.step();
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus) + " (state 0)"))
			<< capture.text();
		told = {};
		/* Input still wakes it. */
		close(silent_socket);
		EXPECT_TRUE(wait([&] { return !is_attached(bus); }));
	});
	close(nothing);
}

TEST_F(Loop, AFailureToReArmTheInputIsTriedAgainAtTheNextPoll)
{
	/* The bus and its client take two. */
	const int io_fd = hs_next_descriptor() + 2;
	const int timer_fd = io_fd + 1;
	int socket;
	sd_bus *bus = add_silent(&socket);
	const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
	ASSERT_EQ(dup2(nothing, io_fd), io_fd);
	run([&] {
		told = {bus, UINT64_MAX};
		capture.clear();
		bed.step();
		bed.step();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not update io source for bus " + pointer(bus) + "."), 2u)
			<< capture.text();
		EXPECT_EQ(capture.complaints(), 2u);
		expect_armed_for(timer_fd, far_future);

		told = {bus, 0};
		bed.step();
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_TRACE, "on_idle bus " + pointer(bus) + " (state 0)"))
			<< capture.text();
		told = {};
		EXPECT_TRUE(main_client().ping());
	});
	close(nothing);
	close(socket);
}

TEST_F(Loop, AnIdleSourceThatCannotBeSwitchedIsWarnedOfAndTheBusIsServed)
{
	/* The bus and its client take two, the loop's duplicate and the timer the next. */
	const int idle_fd = hs_next_descriptor() + 4;
	private_bus &bus = add_private();
	const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
	run([&] {
		rest();
		ASSERT_EQ(dup2(nothing, idle_fd), idle_fd);
		capture.clear();
		EXPECT_TRUE(bus.client.ping());
		rest();
		EXPECT_GE(capture.count(SPA_LOG_LEVEL_WARN, "Could not disable idle source for bus " + pointer(bus.server) + "."),
			  1u)
			<< capture.text();
		EXPECT_EQ(capture.complaints(), capture.count(SPA_LOG_LEVEL_WARN, "Could not disable idle source for bus "));
		EXPECT_TRUE(main_client().ping());
	});
	close(nothing);
}

TEST_F(Loop, IteratesOverPrivateBusesOnlyInTheirOrder)
{
	std::array<int, 3> sockets{};
	std::vector<sd_bus *> buses;
	buses.push_back(add_silent(&sockets[0]));
	run([&] {
		buses.push_back(add_silent(&sockets[1]));
		buses.push_back(add_silent(&sockets[2]));
		std::vector<sd_bus *> seen;
		void *cursor = nullptr;
		while (sd_bus *bus = hs_loop_bus_iterate(bed.get(), &cursor))
			seen.push_back(bus);
		EXPECT_EQ(seen, buses);
		EXPECT_EQ(hs_loop_bus_iterate(bed.get(), &cursor), nullptr);
	});
	for (const int socket : sockets)
		close(socket);
}

TEST_F(Loop, IteratesOverNothingWhereThereIsOnlyTheMainBus)
{
	void *cursor = nullptr;
	EXPECT_EQ(hs_loop_bus_iterate(bed.get(), &cursor), nullptr);
	run([this] {
		void *inside = nullptr;
		EXPECT_EQ(hs_loop_bus_iterate(bed.get(), &inside), nullptr);
	});
}

TEST_F(Loop, AnEventIsDisabledUntilItIsSet)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	EXPECT_EQ(status(bus, &source, "Noise"), "disabled");
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, true);
	EXPECT_EQ(status(bus, &source, "Noise"), "enabled");
	EXPECT_EQ(status(bus, &source, "Silence"), "disabled");
	EXPECT_EQ(status(bus, &source, nullptr), "disabled");
	EXPECT_EQ(status(bus, &other_source, "Noise"), "disabled");
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, false);
	EXPECT_EQ(status(bus, &source, "Noise"), "disabled");
	hs_loop_do_quit(bed.get(), 0);
	close(socket);
}

TEST_F(Loop, AskingForTheStatusOnAnUnknownBusLeavesTheAnswerAlone)
{
	bool enabled = true;
	EXPECT_FALSE(hs_loop_bus_get_event_status(bed.get(), main_bus(), &source, "Noise", &enabled));
	EXPECT_TRUE(enabled);
}

TEST_F(Loop, AnEventWithoutANameIsAnEventOfItsOwn)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	hs_loop_bus_set_event_status(bed.get(), bus, nullptr, &source, true);
	EXPECT_EQ(status(bus, &source, nullptr), "enabled");
	EXPECT_EQ(status(bus, &source, ""), "disabled");
	hs_loop_do_quit(bed.get(), 0);
	close(socket);
}

TEST_F(Loop, KeepsItsOwnCopyOfTheName)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	std::string name = "Noise";
	hs_loop_bus_set_event_status(bed.get(), bus, name.c_str(), &source, true);
	name = "Other";
	EXPECT_EQ(status(bus, &source, "Noise"), "enabled");
	hs_loop_do_quit(bed.get(), 0);
	close(socket);
}

TEST_F(Loop, EachBusHasItsOwnStatuses)
{
	std::array<int, 2> sockets{};
	sd_bus *first = add_silent(&sockets[0]);
	sd_bus *second = add_silent(&sockets[1]);
	hs_loop_bus_set_event_status(bed.get(), first, "Noise", &source, true);
	EXPECT_EQ(status(first, &source, "Noise"), "enabled");
	EXPECT_EQ(status(second, &source, "Noise"), "disabled");
	EXPECT_EQ(source.consumers, 1u);
	hs_loop_bus_set_event_status(bed.get(), second, "Noise", &source, true);
	EXPECT_EQ(source.consumers, 2u);
	hs_loop_do_quit(bed.get(), 0);
	for (const int socket : sockets)
		close(socket);
}

TEST_F(Loop, CountsAConsumerForEachChangeOnly)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	source.consumers = 5;
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, false);
	EXPECT_EQ(source.consumers, 5u);
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, true);
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, true);
	EXPECT_EQ(source.consumers, 6u);
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, false);
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, false);
	EXPECT_EQ(source.consumers, 5u);
	hs_loop_do_quit(bed.get(), 0);
	close(socket);
}

TEST_F(Loop, EnablingTwiceCountsOnceAndLeavingTakesOneBack)
{
	private_bus &bus = add_private();
	run([&] {
		ASSERT_TRUE(bus.client.ping());
		hs_loop_bus_set_event_status(bed.get(), bus.server, "Noise", &source, true);
		hs_loop_bus_set_event_status(bed.get(), bus.server, "Noise", &source, true);
		EXPECT_EQ(source.consumers, 1u);
		bus.client.close();
		EXPECT_TRUE(wait([&] { return !is_attached(bus.server); }));
		EXPECT_EQ(source.consumers, 0u);
	});
}

TEST_F(Loop, LeavingTakesAConsumerAwayForEveryEventEverSetEvenIfDisabled)
{
	private_bus &bus = add_private();
	source.consumers = 10;
	run([&] {
		ASSERT_TRUE(bus.client.ping());
		hs_loop_bus_set_event_status(bed.get(), bus.server, "Noise", &source, true);
		hs_loop_bus_set_event_status(bed.get(), bus.server, "Noise", &source, false);
		hs_loop_bus_set_event_status(bed.get(), bus.server, "Silence", &source, true);
		hs_loop_bus_set_event_status(bed.get(), bus.server, "Never", &source, false);
		EXPECT_EQ(source.consumers, 11u);
		bus.client.close();
		EXPECT_TRUE(wait([&] { return !is_attached(bus.server); }));
		EXPECT_EQ(source.consumers, 8u);
	});
}

TEST_F(Loop, TheMainBusLosesItsStatusesAfterTheRun)
{
	run([this] {
		hs_loop_bus_set_event_status(bed.get(), main_bus(), "Noise", &source, true);
		EXPECT_EQ(source.consumers, 1u);
	});
	EXPECT_EQ(source.consumers, 0u);
	run([this] { EXPECT_EQ(status(main_bus(), &source, "Noise"), "disabled"); });
}

TEST_F(Loop, ForgetsASourceOnEveryBusWithoutCounting)
{
	int socket;
	sd_bus *bus = add_silent(&socket);
	run([&] {
		for (sd_bus *b : {bus, main_bus()}) {
			hs_loop_bus_set_event_status(bed.get(), b, "Noise", &source, true);
			hs_loop_bus_set_event_status(bed.get(), b, "Silence", &source, true);
			hs_loop_bus_set_event_status(bed.get(), b, "Noise", &other_source, true);
		}
		hs_loop_remove_event_status(bed.get(), &source);
		EXPECT_EQ(source.consumers, 4u);
		for (sd_bus *b : {bus, main_bus()}) {
			EXPECT_EQ(status(b, &source, "Noise"), "disabled");
			EXPECT_EQ(status(b, &source, "Silence"), "disabled");
			EXPECT_EQ(status(b, &other_source, "Noise"), "enabled");
		}
	});
	EXPECT_EQ(source.consumers, 4u);
	EXPECT_EQ(other_source.consumers, 0u);
	close(socket);
}

TEST_F(Loop, ABusThatGoesTakesItsMembersWithItAndNoOthers)
{
	hs_context *context = hs_context_new(nullptr, nullptr, bed.get(), nullptr, sd_bus_ref(main_bus()));
	hs_paper_plugin plugin{context, "Ear"};
	hs_source *published = plugin.add_source("AudioDevice0Input0.Unprocessed");
	private_bus &leaving = add_private();
	private_bus &staying = add_private();
	for (sd_bus *bus : {main_bus(), leaving.server, staying.server}) {
		sd_bus_add_object_manager(bus, nullptr, "/");
		ASSERT_TRUE(hs_dbus_setup_source_interface(published, bus));
	}
	run([&] {
		const std::string id = "s \"AudioDevice0Input0.Unprocessed\"";
		ASSERT_EQ(leaving.client.get(published->node_path, HS_DBUS_SOURCE_INTERFACE, "Id"), id);
		capture.clear();
		leaving.client.close();
		EXPECT_TRUE(wait([&] { return !is_attached(leaving.server); }));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, ": destroy dbus "), 2u) << capture.text();
		EXPECT_EQ(staying.client.get(published->node_path, HS_DBUS_SOURCE_INTERFACE, "Id"), id);
		EXPECT_EQ(main_client().get(published->node_path, HS_DBUS_SOURCE_INTERFACE, "Id"), id);
	});
	hs_context_destroy();
}

TEST_F(Loop, ADyingBusIsFreedWithItsMembers)
{
	hs_context *context = hs_context_new(nullptr, nullptr, bed.get(), nullptr, nullptr);
	hs_paper_plugin plugin{context, "Ear"};
	hs_source *published = plugin.add_source("AudioDevice0Input0.Unprocessed");
	int socket;
	sd_bus *bus = add_silent(&socket);
	sd_bus_add_object_manager(bus, nullptr, "/");
	ASSERT_TRUE(hs_dbus_setup_source_interface(published, bus));
	EXPECT_FALSE(spa_list_is_empty(&context->dbus_objects));
	hs_loop_do_quit(bed.get(), 0);
	EXPECT_TRUE(spa_list_is_empty(&context->dbus_objects));
	EXPECT_TRUE(hs_peer_is_gone(socket));
	hs_context_destroy();
	close(socket);
}

TEST_F(Loop, DestroyFreesABusThatCameAfterTheQuitButDoesNotTouchIt)
{
	int socket;
	sd_bus *bus = nullptr;
	run([&] {
		hs_loop_do_quit(bed.get(), 0);
		bus = hs_new_bus_server([&socket] {
			const hs_socket_pair sockets = hs_new_socket_pair();
			socket = sockets.client;
			return sockets.server;
		}()).release();
	});
	ASSERT_TRUE(hs_loop_add_bus(bed.get(), bus));
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, true);
	hs_loop_bus_set_event_status(bed.get(), bus, "Noise", &source, false);
	source.consumers = 7;
	capture.clear();
	bed.destroy();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Freeing bus event data at 0x"), 1u) << capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_WARN, " that should already have been destroyed"));
	EXPECT_EQ(source.consumers, 6u);
	EXPECT_FALSE(hs_peer_is_gone(socket));
	sd_bus_unref(bus);
	EXPECT_TRUE(hs_peer_is_gone(socket));
	close(socket);
}

TEST_F(LoopDeathTest, NeedsMemory)
{
	EXPECT_DEATH(
		{
			hs_fail_call("new", 1, ENOMEM);
			hs_loop_new();
		},
		"'loop' failed at .*loop.cpp:[0-9]+ hs_loop_new\\(\\)");
	EXPECT_DEATH(
		{
			hs_fail_call("new", 1, ENOMEM);
			hs_loop_add_bus(bed.get(), main_bus());
		},
		"'bus_event_data' failed at .*loop.cpp:[0-9]+ hs_loop_add_bus\\(\\)");
}

TEST_F(LoopDeathTest, AddingNeedsALoopAndABus)
{
	EXPECT_DEATH(hs_loop_add_bus(nullptr, main_bus()), "'loop' failed at .* hs_loop_add_bus\\(\\)");
	EXPECT_DEATH(hs_loop_add_bus(bed.get(), nullptr), "'bus' failed at .* hs_loop_add_bus\\(\\)");
}

TEST_F(LoopDeathTest, SettingAStatusOnAnUnknownBusAborts)
{
	EXPECT_DEATH(hs_loop_bus_set_event_status(bed.get(), main_bus(), "Noise", &source, true),
		     "'bus_event_data' failed at .* hs_loop_bus_set_event_status\\(\\)");
}

TEST_F(LoopDeathTest, IteratingNeedsAListThatWasInitialised)
{
	hs_loop loop{};
	void *cursor = nullptr;
	EXPECT_DEATH(hs_loop_bus_iterate(&loop, &cursor),
		     "'spa_list_is_initialized\\(&loop->event_data_list\\)' failed at .* hs_loop_bus_iterate\\(\\)");
}
