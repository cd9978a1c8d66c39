/* SPDX-License-Identifier: MIT */
/*
 * The least that an sd-bus server can do to tell a client of a value: a message built by hand at each tick.
 *
 *	bare-sender SOCKET TICKS-A-SECOND PATH INTERFACE PROPERTY
 *
 * Takes one client. The value is the time of the tick in nanoseconds. Prints "ready" when it listens.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace {

void check(int result, const char *what)
{
	if (result >= 0)
		return;
	std::fprintf(stderr, "%s: %s\n", what, std::strerror(-result));
	std::exit(EXIT_FAILURE);
}

int accept_one(const char *path)
{
	const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
	if (bind(listening, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0 ||
	    listen(listening, 1) < 0)
		check(-errno, path);
	std::puts("ready");
	std::fflush(stdout);
	return accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

sd_bus *serve(int fd)
{
	sd_bus *bus = nullptr;
	sd_id128_t id;
	check(sd_id128_randomize(&id), "id");
	check(sd_bus_new(&bus), "bus");
	check(sd_bus_set_fd(bus, fd, fd), "fd");
	check(sd_bus_set_server(bus, 1, id), "server");
	check(sd_bus_set_anonymous(bus, 1), "anonymous");
	check(sd_bus_negotiate_fds(bus, 1), "descriptors");
	check(sd_bus_start(bus), "start");
	return bus;
}

int start_timer(long ticks_a_second)
{
	const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
	itimerspec when{};
	when.it_interval.tv_nsec = 1000000000 / ticks_a_second;
	when.it_value.tv_nsec = when.it_interval.tv_nsec;
	timerfd_settime(fd, 0, &when, nullptr);
	return fd;
}

void send_time(sd_bus *bus, const char *path, const char *interface, const char *property)
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	const int64_t value = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
	sd_bus_message *message = nullptr;
	check(sd_bus_message_new_signal(bus, &message, path, "org.freedesktop.DBus.Properties", "PropertiesChanged"),
	      "signal");
	check(sd_bus_message_append(message, "sa{sv}as", interface, 1, property, "x", value, 0), "value");
	check(sd_bus_send(bus, message, nullptr), "send");
	sd_bus_message_unref(message);
}

} // namespace

int main(int argc, char *argv[])
{
	if (argc != 6)
		return EXIT_FAILURE;
	const int fd = accept_one(argv[1]);
	sd_bus *bus = serve(fd);
	const int timer = start_timer(std::strtol(argv[2], nullptr, 10));
	for (;;) {
		pollfd watched[] = {{timer, POLLIN, 0}, {fd, POLLIN, 0}};
		poll(watched, 2, -1);
		int r = 0;
		while ((r = sd_bus_process(bus, nullptr)) > 0)
			continue;
		if (r < 0)
			return EXIT_SUCCESS;
		uint64_t ticks = 0;
		if ((watched[0].revents & POLLIN) && read(timer, &ticks, sizeof(ticks)) > 0 && sd_bus_is_ready(bus) > 0)
			send_time(bus, argv[3], argv[4], argv[5]);
	}
}
