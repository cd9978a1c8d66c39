/* SPDX-License-Identifier: MIT */
/*
 * The least that an sd-bus server can do for clients that are each to see the same objects.
 *
 *	bare-server SOCKET <MEMBERS
 *
 * Each line of MEMBERS is "PATH INTERFACE PROPERTY SIGNATURE". Every client that connects to the socket gets
 * a bus of its own, and on it each property as a table of one member. Prints "ready" when it listens.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <sstream>
#include <string>
#include <system_error>

#include <pipewire/pipewire.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct member {
	std::string path;
	std::string interface;
	std::string name;
	std::string signature;
};

std::deque<member> members;
pw_loop *loop;

int get_property(sd_bus *, const char *, const char *, const char *, sd_bus_message *, void *, sd_bus_error *)
{
	return -EOPNOTSUPP;
}

void check(int result, const char *what)
{
	if (result < 0)
		throw std::system_error{-result, std::generic_category(), what};
}

void add_member(sd_bus *bus, member &m)
{
	/* As the daemon has it: a table and texts of their own for every member. */
	auto *own = new member{m};
	auto *table = static_cast<sd_bus_vtable *>(std::calloc(3, sizeof(sd_bus_vtable)));
	table[0] = SD_BUS_VTABLE_START(0);
	table[1] = SD_BUS_PROPERTY(own->name.c_str(), own->signature.c_str(), get_property, 0,
				   SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
	table[2] = SD_BUS_VTABLE_END;
	sd_bus_slot *slot = nullptr;
	check(sd_bus_add_object_vtable(bus, &slot, own->path.c_str(), own->interface.c_str(), table, own), "vtable");
}

void on_bus(void *data, int, uint32_t)
{
	while (sd_bus_process(static_cast<sd_bus *>(data), nullptr) > 0)
		continue;
}

void on_client(void *, int listening, uint32_t)
{
	const int fd = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
	sd_bus *bus = nullptr;
	sd_id128_t id;
	check(sd_id128_randomize(&id), "id");
	check(sd_bus_new(&bus), "bus");
	check(sd_bus_set_fd(bus, fd, fd), "fd");
	check(sd_bus_set_server(bus, 1, id), "server");
	check(sd_bus_set_anonymous(bus, 1), "anonymous");
	check(sd_bus_negotiate_fds(bus, 1), "descriptors");
	check(sd_bus_add_object_manager(bus, nullptr, "/"), "object manager");
	for (member &m : members)
		add_member(bus, m);
	check(sd_bus_start(bus), "start");
	pw_loop_add_io(loop, fd, SPA_IO_IN, false, on_bus, bus);
	/* It may have read already what it waits for. */
	on_bus(bus, fd, SPA_IO_IN);
}

int listen_at(const char *path)
{
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
	if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) < 0 || listen(fd, 64) < 0)
		throw std::system_error{errno, std::generic_category(), path};
	return fd;
}

} // namespace

int main(int argc, char *argv[])
{
	if (argc != 2)
		return EXIT_FAILURE;
	for (std::string line; std::getline(std::cin, line);) {
		member m;
		std::istringstream{line} >> m.path >> m.interface >> m.name >> m.signature;
		members.push_back(m);
	}
	pw_init(nullptr, nullptr);
	pw_main_loop *main_loop = pw_main_loop_new(nullptr);
	loop = pw_main_loop_get_loop(main_loop);
	pw_loop_add_io(loop, listen_at(argv[1]), SPA_IO_IN, false, on_client, nullptr);
	std::puts("ready");
	std::fflush(stdout);
	return pw_main_loop_run(main_loop);
}
