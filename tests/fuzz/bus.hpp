/*
 * A bus that nobody listens to: what is sent waits until the bus goes.
 */
#pragma once

#include <sys/socket.h>

#include "fuzz.hpp"
#include "owned.hpp"

class hs_fuzz_bus
{
public:
	hs_fuzz_bus()
	{
		int ends[2];
		HS_REQUIRE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
		peer = ends[1];
		sd_bus *created = nullptr;
		HS_REQUIRE(sd_bus_new(&created) >= 0);
		bus.reset(created);
		HS_REQUIRE(sd_bus_set_fd(created, ends[0], ends[0]) >= 0);
		HS_REQUIRE(sd_bus_start(created) >= 0);
		HS_REQUIRE(sd_bus_add_object_manager(created, nullptr, "/") >= 0);
	}

	~hs_fuzz_bus()
	{
		close(peer);
	}

	hs_fuzz_bus(const hs_fuzz_bus &) = delete;
	hs_fuzz_bus &operator=(const hs_fuzz_bus &) = delete;

	sd_bus *get() const
	{
		return bus.get();
	}

	/** The caller unreferences it from now on. */
	sd_bus *release()
	{
		return bus.release();
	}

private:
	hs_bus_ptr bus;
	int peer;
};
