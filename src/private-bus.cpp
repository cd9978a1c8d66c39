#include "private-bus.hpp"

#include <cerrno>
#include <cstring>
#include <utility>

#include <systemd/sd-id128.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "authorization.hpp"
#include "context.hpp"
#include "dbus.hpp"
#include "limits.hpp"
#include "log.hpp"
#include "loop.hpp"
#include "owned.hpp"
#include "plugin.hpp"
#include "source.hpp"

namespace {

/** A socket pair on its way to a client; -1 for an end that is closed or somebody else's. */
struct socket_pair {
	int local = -1;
	int remote = -1;
};

void close_end(int *end, const char *failure)
{
	if (*end != -1 && close(*end) < 0)
		pw_log_warn("%s: %m", failure);
	*end = -1;
}

/** Whether the user may have one bus more. */
bool is_within_limits(hs_loop *loop, uid_t user)
{
	const hs_loop_bus_count count = hs_loop_count_buses(loop, user);
	if (count.of_user >= HS_PRIVATE_BUSES_PER_USER) {
		pw_log_warn("Refused a private bus to user %u: the user has %u, which is the limit", user,
			    count.of_user);
		return false;
	}
	if (count.all >= HS_PRIVATE_BUSES) {
		pw_log_warn("Refused a private bus to user %u: there are %u in all, which is the limit", user,
			    count.all);
		return false;
	}
	return true;
}

void log_if_no_descriptor_left(int error, uid_t user)
{
	if (error != EMFILE && error != ENFILE)
		return;
	rlimit limit{};
	getrlimit(RLIMIT_NOFILE, &limit);
	pw_log_warn("Refused a private bus to user %u: no descriptor is left, the limit is %llu", user,
		    static_cast<unsigned long long>(limit.rlim_cur));
}

bool open_sockets(socket_pair *sockets)
{
	int ends[2];
	if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) < 0)
		return false;
	sockets->local = ends[0];
	sockets->remote = ends[1];
	return true;
}

/** Logs a step that failed, with the step's own text. */
bool succeeded(int r, const char *failure)
{
	if (r < 0)
		pw_log_error("%s: %s", failure, std::strerror(-r));
	return r >= 0;
}

/** Starts serving `fd`, and leaves the kernel as little to keep for an idle client as any socket has. */
bool start(sd_bus *bus, int fd)
{
	constexpr char unbounded[] = "Could not bound the send buffer of a private bus";
	int size = 0;
	socklen_t length = sizeof(size);
	const bool known = getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0;
	if (!known)
		pw_log_warn("%s: %m", unbounded);
	if (!succeeded(sd_bus_start(bus), "sd_bus_start failed"))
		return false;
	/* sd-bus has asked for 8 MiB. The kernel doubles what it is told, and tells the double. */
	size /= 2;
	if (known && setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) < 0)
		pw_log_warn("%s: %m", unbounded);
	return true;
}

/** A server on the local end, which it then owns; null where it can not be made. */
hs_bus_ptr create_private_bus(int *local, bool *started)
{
	sd_id128_t id;
	if (!succeeded(sd_id128_randomize(&id), "sd_id128_randomize failed"))
		return nullptr;
	sd_bus *created = nullptr;
	if (!succeeded(sd_bus_new(&created), "sd_bus_new failed"))
		return nullptr;
	hs_bus_ptr bus(created);
	const int fd = *local;
	if (!succeeded(sd_bus_set_fd(created, fd, fd), "sd_bus_set_fd failed"))
		return nullptr;
	*local = -1;
	if (!succeeded(sd_bus_set_server(created, 1, id), "sd_bus_set_server failed"))
		return nullptr;
	if (!succeeded(sd_bus_set_anonymous(created, 1), "sd_bus_set_anonymous failed"))
		return nullptr;
	if (!succeeded(sd_bus_negotiate_fds(created, 1), "sd_bus_negotiate_fds failed"))
		return nullptr;
	hs_dbus_guard(created);
	succeeded(sd_bus_add_object_manager(created, nullptr, "/"), "Could not add object manager");
	*started = start(created, fd);
	return bus;
}

void setup_private_interfaces(hs_context *context, sd_bus *bus)
{
	hs_plugin *plugin;
	spa_list_for_each(plugin, &context->plugins, link) {
		hs_source *source;
		spa_list_for_each(source, &plugin->sources, link) {
			const char *name = source->name.c_str();
			if (!hs_dbus_setup_audio_chain_interface(source, bus))
				pw_log_error(
					"Could not set up D-Bus Audio Chain interface on private bus for source '%s'",
					name);
			if (!hs_dbus_setup_source_interface(source, bus))
				pw_log_error("Could not set up D-Bus Source interface on private bus for source '%s'",
					     name);
			if (!hs_dbus_setup_plugin_instance_interface(source, bus))
				pw_log_error(
					"Could not set up D-Bus Plugin Instance interface on private bus for source '%s'",
					name);
			hs_dbus_add_private_events(source, bus);
		}
	}
}

/** Takes a bus that is in no loop down again, with the members that keep it alive. */
void drop_bus(hs_bus_ptr bus)
{
	hs_dbus_remove_bus(bus.get());
}

/** Serves the local end in the loop; null where that fails. The result is borrowed from the loop. */
sd_bus *serve(hs_context *context, socket_pair *sockets, uid_t user)
{
	bool started = false;
	hs_bus_ptr bus = create_private_bus(&sockets->local, &started);
	if (!bus)
		return nullptr;
	setup_private_interfaces(context, bus.get());
	pw_log_debug("Add io: %p %d", static_cast<void *>(bus.get()), sd_bus_is_ready(bus.get()));

	errno = 0;
	if (!started || !hs_loop_add_bus(context->loop, bus.get())) {
		log_if_no_descriptor_left(errno, user);
		drop_bus(std::move(bus));
		return nullptr;
	}
	hs_loop_set_bus_user(context->loop, bus.get(), user);
	return bus.release();
}

/** Gives the remote end to the caller; a negative result is a failure. */
int hand_out(sd_bus_message *message, sd_bus *bus, socket_pair *sockets, uid_t user)
{
	const int r = sd_bus_reply_method_return(message, "h", sockets->remote);
	if (r < 0) {
		log_if_no_descriptor_left(-r, user);
		/* The loop finds it closed and drops it. */
		sd_bus_close(bus);
		return r;
	}
	/* The reply has a descriptor of its own. */
	close_end(&sockets->remote, "Unable to close private bus fd");
	return r;
}

/** A negative result is a failure; what is left of the sockets is the caller's to close. */
int get_private_bus(sd_bus_message *message, hs_context *context, socket_pair *sockets)
{
	const char *unused = nullptr;
	uid_t user = 0;
	if (sd_bus_message_read(message, "s", &unused) < 0)
		return -1;
	if (!hs_authorization_get_uid(message, &user)) {
		pw_log_warn("Refused a private bus: its user is unknown");
		return -1;
	}
	if (!is_within_limits(context->loop, user))
		return -1;
	if (!open_sockets(sockets)) {
		log_if_no_descriptor_left(errno, user);
		return -1;
	}
	sd_bus *bus = serve(context, sockets, user);
	return bus ? hand_out(message, bus, sockets, user) : -1;
}

} // namespace

int hs_private_bus_get(sd_bus_message *message, void *data, sd_bus_error *error)
{
	socket_pair sockets;
	const int r = get_private_bus(message, static_cast<const hs_dbus *>(data)->context, &sockets);
	if (r >= 0)
		return r;
	sd_bus_error_set(error, HS_DBUS_ERROR, "Cannot create private bus.");
	close_end(&sockets.local, "Unable to close local private bus fd");
	close_end(&sockets.remote, "Unable to close remote private bus fd");
	return -1;
}
