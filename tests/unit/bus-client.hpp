/*
 * D-Bus connections for tests, with real sd-bus at both ends of a socket pair, and a client that tells what
 * it got as text:
 *
 *	hs_bus_pair pair = hs_new_bus_pair();
 *	hs_bus_client client{std::move(pair.client), [&] { sd_bus_process(pair.server.get(), nullptr); }};
 *	EXPECT_EQ(client.get("/a", "com.example.A", "Level"), "d 0.5");
 *
 * Everything runs in one thread: while the client waits it has the other side do a step, and so on until
 * a deadline.
 */
#pragma once

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <sys/socket.h>
#include <unistd.h>

#include "owned.hpp"

using hs_slot_ptr = std::unique_ptr<sd_bus_slot, hs_release<sd_bus_slot_unref>>;

/** Repeats `step` until `done`; false, with a failure of the test, where that takes too long. */
template <typename Done, typename Step>
bool hs_wait_until(Done done, Step step)
{
	const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{20};
	while (!done()) {
		if (std::chrono::steady_clock::now() > deadline) {
			ADD_FAILURE() << "what was waited for did not happen";
			return false;
		}
		step();
	}
	return true;
}

/** The serving end of a peer-to-peer bus, over a connected socket that it takes over. */
inline hs_bus_ptr hs_new_bus_server(int fd)
{
	sd_bus *bus = nullptr;
	sd_bus_new(&bus);
	sd_id128_t id;
	sd_id128_randomize(&id);
	sd_bus_set_fd(bus, fd, fd);
	sd_bus_set_server(bus, 1, id);
	sd_bus_set_anonymous(bus, 1);
	const int r = sd_bus_start(bus);
	if (r < 0)
		throw std::system_error{-r, std::generic_category(), "server"};
	return hs_bus_ptr{bus};
}

/** The client's end of a peer-to-peer bus, over a connected socket that it takes over. */
inline hs_bus_ptr hs_new_bus_peer(int fd)
{
	sd_bus *bus = nullptr;
	sd_bus_new(&bus);
	sd_bus_set_fd(bus, fd, fd);
	const int r = sd_bus_start(bus);
	if (r < 0)
		throw std::system_error{-r, std::generic_category(), "peer"};
	return hs_bus_ptr{bus};
}

struct hs_socket_pair {
	int server;
	int client;
};

inline hs_socket_pair hs_new_socket_pair()
{
	int fds[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) < 0)
		throw std::system_error{errno, std::generic_category(), "socketpair"};
	return {fds[0], fds[1]};
}

/** Whether the other end of the socket has been closed, and its last duplicate too. */
inline bool hs_peer_is_gone(int socket)
{
	char bytes[512];
	ssize_t n;
	while ((n = recv(socket, bytes, sizeof(bytes), MSG_DONTWAIT)) > 0)
		continue;
	return n == 0;
}

struct hs_bus_pair {
	hs_bus_ptr server;
	hs_bus_ptr client;
};

inline hs_bus_pair hs_new_bus_pair()
{
	const hs_socket_pair sockets = hs_new_socket_pair();
	return {hs_new_bus_server(sockets.server), hs_new_bus_peer(sockets.client)};
}

std::string hs_render_all(sd_bus_message *message);

namespace hs_bus_client_detail
{

inline std::string decimal(const char *format, double value)
{
	char text[64];
	std::snprintf(text, sizeof(text), format, value);
	return text;
}

inline std::string render_basic(sd_bus_message *message, char type)
{
	union {
		uint8_t y;
		int b;
		int32_t i;
		uint32_t u;
		int64_t x;
		uint64_t t;
		double d;
		const char *s;
		int h;
	} value{};
	sd_bus_message_read_basic(message, type, &value);
	switch (type) {
	case 'b':
		return value.b ? "true" : "false";
	case 'i':
		return std::to_string(value.i);
	case 'u':
		return std::to_string(value.u);
	case 'x':
		return std::to_string(value.x);
	case 'd':
		return decimal("%.9g", value.d);
	case 's':
	case 'o':
	case 'g':
		return "\"" + std::string{value.s} + "\"";
	case 'h':
		return "fd";
	default:
		return std::string{"unexpected "} + type;
	}
}

/** The next value; "" at the end of the container. */
inline std::string render_one(sd_bus_message *message)
{
	char type = 0;
	const char *contents = nullptr;
	if (sd_bus_message_peek_type(message, &type, &contents) <= 0)
		return "";
	std::string text;
	switch (type) {
	case 'v':
		text = std::string{contents} + " ";
		sd_bus_message_enter_container(message, 'v', contents);
		text += render_one(message);
		break;
	case 'a':
		sd_bus_message_enter_container(message, 'a', contents);
		text = "[" + hs_render_all(message) + "]";
		break;
	case 'e':
		sd_bus_message_enter_container(message, 'e', contents);
		text = render_one(message) + ": ";
		text += render_one(message);
		break;
	default:
		return render_basic(message, type);
	}
	sd_bus_message_exit_container(message);
	return text;
}

} // namespace hs_bus_client_detail

/** What is left in the container, such as `["Detected": b true, "Count": i 3]` or `"a", d 0.5`. */
inline std::string hs_render_all(sd_bus_message *message)
{
	std::string text;
	for (std::string one = hs_bus_client_detail::render_one(message); !one.empty();
	     one = hs_bus_client_detail::render_one(message))
		text += (text.empty() ? "" : ", ") + one;
	return text;
}

class hs_bus_client
{
public:
	struct signal {
		std::string path;
		std::string member;
		std::string content;
	};

	/** `step` lets the other side work; `destination` is null for a peer. */
	hs_bus_client(hs_bus_ptr connection, std::function<void()> other_side, const char *name = nullptr)
		: bus{std::move(connection)}, step{std::move(other_side)}, destination{name}
	{
		sd_bus_add_filter(bus.get(), nullptr, on_message, this);
		if (destination)
			sd_bus_add_match(bus.get(), nullptr, "type='signal'", nullptr, nullptr);
	}

	hs_bus_client(const hs_bus_client &) = delete;
	hs_bus_client &operator=(const hs_bus_client &) = delete;

	/** Calls a method: what it returns, or "NAME: TEXT" of the error. */
	template <typename... Values>
	std::string call(const std::string &path, const std::string &interface, const char *member,
			 const char *types = "", Values... values)
	{
		const hs_message_ptr message = new_call(path, interface, member);
		sd_bus_message_append(message.get(), types, values...);
		return send(message.get());
	}

	std::string get(const std::string &path, const std::string &interface, const char *property)
	{
		return call(path, "org.freedesktop.DBus.Properties", "Get", "ss", interface.c_str(), property);
	}

	template <typename Value>
	std::string set(const std::string &path, const std::string &interface, const char *property, const char *type,
			Value value)
	{
		return call(path, "org.freedesktop.DBus.Properties", "Set", "ssv", interface.c_str(), property, type,
			    value);
	}

	/**
	 * Whether the other side answers. Whatever it sent before has arrived then, so that a test can also tell
	 * that nothing was sent.
	 */
	bool ping()
	{
		return call("/", "org.freedesktop.DBus.Peer", "Ping").empty();
	}

	template <typename Done>
	bool wait(Done done)
	{
		return hs_wait_until(done, [this] {
			step();
			process();
		});
	}

	/** Reads what has arrived. */
	void process()
	{
		while (sd_bus_process(bus.get(), nullptr) > 0)
			continue;
	}

	/** Signals so far, in order. */
	const std::vector<signal> &signals() const
	{
		return received;
	}

	/** The contents of the signals of that name from that path so far. */
	std::vector<std::string> contents(const std::string &path, const std::string &member) const
	{
		std::vector<std::string> found;
		for (const signal &s : received) {
			if (s.path == path && s.member == member)
				found.push_back(s.content);
		}
		return found;
	}

	/** How often InterfacesAdded or InterfacesRemoved told of that path. */
	size_t count_objects(const std::string &member, const std::string &path) const
	{
		size_t n = 0;
		for (const signal &s : received)
			n += s.member == member && s.content.rfind("\"" + path + "\"", 0) == 0;
		return n;
	}

	void forget_signals()
	{
		received.clear();
	}

	/** Leaves without a word. */
	void close()
	{
		sd_bus_close(bus.get());
	}

	sd_bus *connection() const
	{
		return bus.get();
	}

private:
	struct answer {
		bool here;
		std::string text;
	};

	hs_message_ptr new_call(const std::string &path, const std::string &interface, const char *member)
	{
		sd_bus_message *message = nullptr;
		sd_bus_message_new_method_call(bus.get(), &message, destination, path.c_str(), interface.c_str(), member);
		return hs_message_ptr{message};
	}

	std::string send(sd_bus_message *message)
	{
		answer a{};
		sd_bus_slot *slot = nullptr;
		const int r = sd_bus_call_async(bus.get(), &slot, message, on_answer, &a, 0);
		const hs_slot_ptr owned{slot};
		if (r < 0)
			return "not sent: " + std::to_string(r);
		wait([&a] { return a.here; });
		return a.text;
	}

	static int on_answer(sd_bus_message *message, void *data, sd_bus_error *)
	{
		auto *a = static_cast<answer *>(data);
		a->here = true;
		const sd_bus_error *error = sd_bus_message_get_error(message);
		a->text = error ? std::string{error->name} + ": " + error->message : hs_render_all(message);
		return 1;
	}

	static int on_message(sd_bus_message *message, void *data, sd_bus_error *)
	{
		if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Properties", nullptr) ||
		    sd_bus_message_is_signal(message, "org.freedesktop.DBus.ObjectManager", nullptr)) {
			static_cast<hs_bus_client *>(data)->received.push_back(
				{sd_bus_message_get_path(message), sd_bus_message_get_member(message), hs_render_all(message)});
			sd_bus_message_rewind(message, 1);
		}
		return 0;
	}

	hs_bus_ptr bus;
	std::function<void()> step;
	const char *destination;
	std::vector<signal> received;
};
