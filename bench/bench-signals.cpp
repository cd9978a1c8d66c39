/*
 * Telling clients of one value, against sending the same bytes as a message built by hand.
 */
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "bench-plugin.hpp"
#include "dbus.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "pair.hpp"

namespace {

/* More would fill the socket of a client that reads between the turns only. */
constexpr int64_t most_messages = 64;

/** A published source and clients that have enabled its first event. */
struct fixture {
	fixture(size_t n_events, size_t n_buses) : source{bed, n_events}
	{
		hs_log_init();
		for (size_t i = 0; i < n_buses; ++i)
			bed.add_private_bus();
		if (!hs_dbus_setup_plugin_interfaces(source.source))
			throw std::runtime_error{"the source can not be published"};
		for (hs_bed_bus &bus : bed.private_buses)
			hs_loop_bus_set_event_status(bed.loop, bus.bus(), title, source.source, true);
		drain();
	}

	void emit() const
	{
		hs_dbus_emit_event(source.source, title, false);
	}

	void send_by_hand()
	{
		for (hs_bed_bus &bus : bed.private_buses) {
			sd_bus_message *message = nullptr;
			sd_bus_message_new_signal(bus.bus(), &message, source.source->object_path.c_str(),
						  "org.freedesktop.DBus.Properties", "PropertiesChanged");
			sd_bus_message_append(message, "sa{sv}as", source.source->event_interfaces[0].c_str(), 1, title,
					      "d", value, 0);
			sd_bus_send(bus.bus(), message, nullptr);
			sd_bus_message_unref(message);
		}
	}

	/** What each client has received. */
	std::vector<std::string> drain()
	{
		std::vector<std::string> received;
		for (hs_bed_bus &bus : bed.private_buses) {
			std::string &bytes = received.emplace_back();
			const int fd = sd_bus_get_fd(bus.client.connection());
			ssize_t n;
			while ((n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
				bytes.append(buffer, static_cast<size_t>(n));
		}
		return received;
	}

	/** Whether both ways send each client the same, its serial number aside. */
	bool is_fair()
	{
		emit();
		std::vector<std::string> emitted = drain();
		send_by_hand();
		std::vector<std::string> sent = drain();
		for (std::vector<std::string> *received : {&emitted, &sent}) {
			for (std::string &bytes : *received) {
				if (bytes.size() < first_byte_after_serial)
					return false;
				std::memset(&bytes[serial], 0, first_byte_after_serial - serial);
			}
		}
		return emitted == sent;
	}

	static constexpr size_t serial = 8;
	static constexpr size_t first_byte_after_serial = 12;
	static constexpr char title[] = "Event00";
	/** What the first event has from the start. */
	static constexpr double value = -20;

	hs_daemon_bed bed;
	hs_bench_source source;
	char buffer[1 << 16];
};

/** Of an instance with so many events, to so many clients. */
void signal(benchmark::State &state)
{
	fixture f{static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1))};
	if (!f.is_fair()) {
		state.SkipWithError("the daemon and the message built by hand differ");
		return;
	}
	hs_bench_pair(
		state, [&f] { f.emit(); }, [&f] { f.send_by_hand(); }, [&f] { f.drain(); }, most_messages);
}

} // namespace

BENCHMARK(signal)
	->ArgNames({"events", "buses"})
	->UseManualTime()
	->Args({1, 1})
	->Args({16, 1})
	->Args({64, 1})
	->Args({256, 1})
	->Args({16, 10})
	->Args({16, 100});

BENCHMARK_MAIN();
