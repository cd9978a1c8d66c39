#include "watch.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "failure.hpp"
#include "message.hpp"
#include "names.hpp"
#include "output.hpp"

namespace hs_ctl {

namespace {

constexpr uint64_t forever = UINT64_MAX;

/** Before signals and the time are looked at again. */
constexpr int max_messages = 64;

void block_signals(watch *started)
{
	sigset_t ends;
	sigemptyset(&ends);
	sigaddset(&ends, SIGINT);
	sigaddset(&ends, SIGTERM);
	sigset_t blocked = ends;
	sigaddset(&blocked, SIGWINCH);
	check(sigprocmask(SIG_BLOCK, &blocked, nullptr) < 0 ? -errno : 0, "block signals");
	started->signals = descriptor(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
	check(started->signals.get() < 0 ? -errno : 0, "wait for signals");
	/* A write then fails in its place. */
	std::signal(SIGPIPE, SIG_IGN);
}

void tell(const watch &of, const char *text)
{
	if (of.is_talkative)
		complain(text);
}

/** Switches on what is wanted of the objects at a path of the private bus. */
void enable_events(watch *of, const std::string &path)
{
	const auto object = of->private_objects.find(path);
	if (object == of->private_objects.end())
		return;
	const std::string source = source_name(of->private_objects, path);
	for (const auto &[interface, members] : object->second) {
		const auto name = split_event_interface(path, interface);
		if (name && !name->is_trigger && is_meant(of->patterns, plugin_name(path), source, name->title))
			write_property(of->private_bus.get(), path, interface, "EnableEvent", {"b", true});
	}
}

void take_private_bus(watch *of)
{
	of->private_bus = open_private_bus(of->bus.get());
	of->private_objects = read_objects(of->private_bus.get(), of->is_talkative);
	std::vector<std::string> paths;
	for (const auto &[path, object] : of->private_objects)
		paths.push_back(path);
	for (const std::string &path : paths)
		enable_events(of, path);
}

void drop_private_bus(watch *of)
{
	of->private_bus.reset();
	of->private_objects.clear();
}

/** Takes everything up with the daemon; one that goes meanwhile is told of by the bus. */
void take_up(watch *of)
{
	try {
		of->objects = read_objects(of->bus.get(), of->is_talkative);
		if (of->with_private)
			take_private_bus(of);
	} catch (const failure &error) {
		drop_private_bus(of);
		if (error.result != STATUS_UNREACHABLE)
			throw;
	}
}

void on_owner_changed(watch *of, sd_bus_message *message)
{
	const std::string name = read_text(message);
	const std::string before = read_text(message);
	const std::string now = read_text(message);
	if (name != SERVICE || now == of->owner)
		return;
	of->owner = now;
	of->objects.clear();
	drop_private_bus(of);
	if (now.empty()) {
		tell(*of, "hear-sense has ended; waiting for it");
		return;
	}
	tell(*of, before.empty() ? "hear-sense is back" : "hear-sense has been replaced");
	take_up(of);
}

void on_changed(watch *of, object_tree *tree, sd_bus_message *message)
{
	const std::string path = sd_bus_message_get_path(message);
	const std::string interface = read_text(message);
	const properties changed = read_properties(message);
	interfaces *object = &(*tree)[path];
	for (const auto &[property, content] : changed)
		(*object)[interface][property] = content;

	const auto name = split_event_interface(path, interface);
	if (!name || name->is_trigger)
		return;
	const auto content = changed.find(name->title);
	if (content != changed.end())
		of->told->event_came({path, name->title, content->second.content});
}

/** A signal of the daemon's, on the main bus or the private one. */
void on_signal(watch *of, object_tree *tree, sd_bus_message *message)
{
	if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.Properties", "PropertiesChanged") > 0) {
		on_changed(of, tree, message);
	} else if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.ObjectManager", "InterfacesAdded") > 0) {
		const std::string path = read_text(message, 'o');
		add_interfaces(tree, path, read_interfaces(message));
		if (tree == &of->private_objects)
			enable_events(of, path);
	} else if (sd_bus_message_is_signal(message, "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved") > 0) {
		const std::string path = read_text(message, 'o');
		remove_interfaces(tree, path, read_texts(message));
	}
}

/** Handles one message; false where there was nothing to do. */
bool process_main(watch *of)
{
	sd_bus_message *received = nullptr;
	const int r = sd_bus_process(of->bus.get(), &received);
	const message_ptr message(received);
	if (r < 0)
		throw failure(STATUS_UNREACHABLE, fmt::format("The bus has gone: {}", std::strerror(-r)));
	if (!message)
		return r > 0;
	const char *sender = sd_bus_message_get_sender(received);
	if (sd_bus_message_is_signal(received, "org.freedesktop.DBus", "NameOwnerChanged") > 0)
		on_owner_changed(of, received);
	else if (sender && of->owner == sender)
		on_signal(of, &of->objects, received);
	return true;
}

/** The same of the private bus. Without one it is asked for again when the daemon comes back. */
bool process_private(watch *of)
{
	if (!of->private_bus)
		return false;
	sd_bus_message *received = nullptr;
	const int r = sd_bus_process(of->private_bus.get(), &received);
	const message_ptr message(received);
	const bool is_lost = r < 0 || sd_bus_is_open(of->private_bus.get()) <= 0;
	if (message && !is_lost)
		on_signal(of, &of->private_objects, received);
	if (!is_lost)
		return r > 0;
	drop_private_bus(of);
	/* Where the daemon itself has gone, the other bus is about to say so. */
	if (find_owner(of->bus.get()) == of->owner) {
		tell(*of, "hear-sense has closed the private bus; taking another");
		take_up(of);
	}
	return true;
}

pollfd poll_of(sd_bus *bus)
{
	const int events = sd_bus_get_events(bus);
	return {sd_bus_get_fd(bus), static_cast<short>(events < 0 ? POLLIN : events), 0};
}

uint64_t timeout_of(sd_bus *bus)
{
	uint64_t until = forever;
	return sd_bus_get_timeout(bus, &until) < 0 ? 0 : until;
}

/** poll, during which alone SIGWINCH comes: between two of them it would be told of too late. */
int poll_with_resizes(pollfd *polled, nfds_t n_polled, int milliseconds)
{
	sigset_t mask;
	sigprocmask(SIG_BLOCK, nullptr, &mask);
	sigdelset(&mask, SIGWINCH);
	const timespec duration{milliseconds / 1000, milliseconds % 1000 * 1000000L};
	return ppoll(polled, n_polled, milliseconds < 0 ? nullptr : &duration, &mask);
}

/** Milliseconds for poll, rounded up. */
int milliseconds_until(uint64_t until)
{
	constexpr uint64_t longest = 3600 * 1000;
	if (until == forever)
		return -1;
	const uint64_t now = monotonic_usec();
	return until <= now ? 0 : static_cast<int>(std::min((until - now + 999) / 1000, longest));
}

} // namespace

void watch_start(watch *started, bool of_user)
{
	block_signals(started);
	started->bus = open_bus(of_user);
	subscribe(started->bus.get());
	started->owner = find_owner(started->bus.get());
	if (started->owner.empty())
		tell(*started, "hear-sense is not running on this bus; waiting for it (systemctl start hear-sense)");
	else
		take_up(started);
}

wake watch_wait(watch *waiting, std::optional<uint64_t> until, bool with_input)
{
	while (true) {
		for (int i = 0; i < max_messages && (process_main(waiting) || process_private(waiting)); ++i) {
		}
		pollfd polled[5] = {{waiting->signals.get(), POLLIN, 0},
				    /* Only to learn that its reader has gone. */
				    {STDOUT_FILENO, 0, 0},
				    {with_input ? STDIN_FILENO : -1, POLLIN, 0},
				    poll_of(waiting->bus.get())};
		uint64_t next = std::min(until.value_or(forever), timeout_of(waiting->bus.get()));
		polled[4].fd = -1;
		if (waiting->private_bus) {
			polled[4] = poll_of(waiting->private_bus.get());
			next = std::min(next, timeout_of(waiting->private_bus.get()));
		}
		if (poll_with_resizes(polled, std::size(polled), milliseconds_until(next)) < 0) {
			check(errno == EINTR ? 0 : -errno, "wait");
			return wake::interrupted;
		}
		if (polled[0].revents || (polled[1].revents & (POLLERR | POLLHUP)))
			return wake::ended;
		if (polled[2].revents)
			return wake::input;
		if (until && monotonic_usec() >= *until)
			return wake::timed_out;
	}
}

uint64_t monotonic_usec()
{
	timespec now{};
	clock_gettime(CLOCK_MONOTONIC, &now);
	return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

} // namespace hs_ctl
