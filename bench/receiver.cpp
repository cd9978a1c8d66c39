/* SPDX-License-Identifier: MIT */
/*
 * A client that reads the values of one event over a peer-to-peer bus.
 *
 *	receiver (--bus ADDRESS | --socket PATH) (stamps | counts) WINDOWS MILLISECONDS PATH INTERFACE PROPERTY
 *
 * With --bus it takes a private bus of the daemon and enables the event. Prints a line of JSON for each
 * window: of stamps the number and the median and 99th percentile of their age in nanoseconds when they are
 * read; of counts the number, and how many are missing or out of order.
 */
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include <systemd/sd-bus.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace {

struct window {
	std::vector<int64_t> ages;
	uint64_t n_values = 0;
	uint64_t n_missing = 0;
	uint64_t n_disordered = 0;
};

struct receiver {
	const char *property;
	bool reads_stamps;
	window now;
	int64_t last = 0;
};

int64_t now_nsec()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int check(int result, const char *what)
{
	if (result >= 0)
		return result;
	std::fprintf(stderr, "%s: %s\n", what, std::strerror(-result));
	std::exit(EXIT_FAILURE);
}

int ask_for_private_bus(const char *address)
{
	sd_bus *bus = nullptr;
	check(sd_bus_new(&bus), "bus");
	check(sd_bus_set_address(bus, address), address);
	check(sd_bus_set_bus_client(bus, 1), "client");
	check(sd_bus_negotiate_fds(bus, 1), "descriptors");
	check(sd_bus_start(bus), address);
	sd_bus_error error = SD_BUS_ERROR_NULL;
	sd_bus_message *reply = nullptr;
	check(sd_bus_call_method(bus, "com.orvel.HearSense", "/", "com.orvel.HearSense", "GetPrivateBus", &error,
				 &reply, "s", "measures"),
	      "GetPrivateBus");
	int fd = -1;
	check(sd_bus_message_read(reply, "h", &fd), "descriptor");
	fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
	sd_bus_message_unref(reply);
	sd_bus_flush_close_unref(bus);
	return fd;
}

int connect_to(const char *path)
{
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
	if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0)
		check(-errno, path);
	return fd;
}

sd_bus *speak_over(int fd)
{
	fcntl(fd, F_SETFL, O_NONBLOCK);
	sd_bus *bus = nullptr;
	check(sd_bus_new(&bus), "bus");
	check(sd_bus_set_fd(bus, fd, fd), "fd");
	check(sd_bus_set_anonymous(bus, 1), "anonymous");
	check(sd_bus_start(bus), "start");
	return bus;
}

int on_message(sd_bus_message *message, void *data, sd_bus_error *)
{
	if (!sd_bus_message_is_signal(message, "org.freedesktop.DBus.Properties", "PropertiesChanged"))
		return 0;
	auto *self = static_cast<receiver *>(data);
	int64_t value = 0;
	check(sd_bus_message_skip(message, "s"), "interface");
	check(sd_bus_message_enter_container(message, 'a', "{sv}"), "array");
	check(sd_bus_message_enter_container(message, 'e', "sv"), "entry");
	const char *name = nullptr;
	check(sd_bus_message_read(message, "s", &name), "name");
	if (std::strcmp(name, self->property) != 0)
		return 0;
	check(sd_bus_message_read(message, "v", "x", &value), "value");

	++self->now.n_values;
	if (self->reads_stamps) {
		self->now.ages.push_back(now_nsec() - value);
	} else if (self->last != 0) {
		if (value <= self->last)
			++self->now.n_disordered;
		else
			self->now.n_missing += static_cast<uint64_t>(value - self->last - 1);
	}
	self->last = value;
	return 1;
}

void print(receiver *self)
{
	window &w = self->now;
	const size_t n = w.ages.size();
	std::sort(w.ages.begin(), w.ages.end());
	std::printf("{\"n\": %" PRIu64 ", \"p50\": %" PRId64 ", \"p99\": %" PRId64 ", \"missing\": %" PRIu64
		    ", \"disordered\": %" PRIu64 "}\n",
		    w.n_values, n ? w.ages[n / 2] : 0, n ? w.ages[n * 99 / 100] : 0, w.n_missing, w.n_disordered);
	std::fflush(stdout);
	w = {};
}

void run_window(sd_bus *bus, int64_t length)
{
	const int64_t end = now_nsec() + length;
	for (int64_t now; (now = now_nsec()) < end;) {
		const int r = check(sd_bus_process(bus, nullptr), "process");
		if (r == 0)
			check(sd_bus_wait(bus, static_cast<uint64_t>((end - now) / 1000 + 1)), "wait");
	}
}

} // namespace

int main(int argc, char *argv[])
{
	if (argc != 9)
		return EXIT_FAILURE;
	const bool asks_daemon = std::strcmp(argv[1], "--bus") == 0;
	receiver self{};
	self.property = argv[8];
	self.reads_stamps = std::strcmp(argv[3], "stamps") == 0;
	const long n_windows = std::strtol(argv[4], nullptr, 10);
	const int64_t length = std::strtol(argv[5], nullptr, 10) * 1000000;

	sd_bus *bus = speak_over(asks_daemon ? ask_for_private_bus(argv[2]) : connect_to(argv[2]));
	check(sd_bus_add_filter(bus, nullptr, on_message, &self), "filter");
	if (asks_daemon) {
		sd_bus_error error = SD_BUS_ERROR_NULL;
		check(sd_bus_set_property(bus, nullptr, argv[6], argv[7], "EnableEvent", &error, "b", 1),
		      "EnableEvent");
	}
	/* Until the first value has come there is nothing to measure. */
	while (self.last == 0)
		run_window(bus, 10000000);
	run_window(bus, length);
	self.now = {};
	for (long i = 0; i < n_windows; ++i) {
		run_window(bus, length);
		print(&self);
	}
	return EXIT_SUCCESS;
}
