#include "bus.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include <fcntl.h>
#include <unistd.h>

#include "failure.hpp"
#include "introspection.hpp"
#include "message.hpp"
#include "output.hpp"

namespace hs_ctl {

namespace {

constexpr char properties_interface[] = "org.freedesktop.DBus.Properties";
constexpr char objects_interface[] = "org.freedesktop.DBus.ObjectManager";
constexpr char introspection_interface[] = "org.freedesktop.DBus.Introspectable";
constexpr char bus_service[] = "org.freedesktop.DBus";
constexpr char bus_path[] = "/org/freedesktop/DBus";
constexpr char root_path[] = "/com/orvel/HearSense";
constexpr uint64_t call_timeout_usec = 10 * 1000 * 1000;

constexpr char asking[] = "ask the daemon";

/** What the library says when nobody has the daemon's name. */
constexpr const char *missing_errors[] = {
	SD_BUS_ERROR_SERVICE_UNKNOWN,
	SD_BUS_ERROR_NAME_HAS_NO_OWNER,
	"org.freedesktop.DBus.Error.Disconnected",
};

constexpr const char *silent_errors[] = {
	SD_BUS_ERROR_NO_REPLY,
	SD_BUS_ERROR_TIMEOUT,
	"org.freedesktop.DBus.Error.TimedOut",
};

class call_error
{
public:
	call_error() = default;
	call_error(const call_error &) = delete;
	call_error &operator=(const call_error &) = delete;

	~call_error()
	{
		sd_bus_error_free(&error);
	}

	sd_bus_error error = SD_BUS_ERROR_NULL;
};

template <size_t N>
bool is_one_of(const char *name, const char *const (&names)[N])
{
	for (const char *each : names) {
		if (std::strcmp(name, each) == 0)
			return true;
	}
	return false;
}

bool uses_session_bus(bool of_user)
{
	const char *text = std::getenv("HS_USE_SESSION_BUS");
	return of_user || (text && std::strcmp(text, "true") == 0);
}

[[noreturn]] void fail(int r, const sd_bus_error &error)
{
	const char *name = error.name ? error.name : "";
	if (is_one_of(name, missing_errors) || r == -ENOTCONN || r == -ECONNRESET)
		throw failure(
			STATUS_UNREACHABLE,
			"hear-sense is not running on this bus. Is the service started (systemctl start hear-sense)? "
			"Is it on the other bus (--user)?");
	if (is_one_of(name, silent_errors) || r == -ETIMEDOUT)
		throw failure(STATUS_UNREACHABLE, "hear-sense does not answer. What does its log say "
						  "(journalctl -u hear-sense)?");
	const std::string text =
		fmt::format("hear-sense refused: {}", error.message ? error.message : std::strerror(-r));
	if (sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED))
		throw denied(text);
	throw failure(STATUS_FAILED, text);
}

message_ptr new_call(sd_bus *bus, const char *path, const char *interface, const char *member)
{
	sd_bus_message *made = nullptr;
	const char *destination = sd_bus_is_bus_client(bus) > 0 ? SERVICE : nullptr;
	check(sd_bus_message_new_method_call(bus, &made, destination, path, interface, member), asking);
	message_ptr message(made);
	/* Who looks whether the daemon is there does not want it started. */
	check(sd_bus_message_set_auto_start(made, 0), asking);
	return message;
}

message_ptr send(sd_bus *bus, const message_ptr &message)
{
	call_error failed;
	sd_bus_message *reply = nullptr;
	const int r = sd_bus_call(bus, message.get(), call_timeout_usec, &failed.error, &reply);
	if (r < 0)
		fail(r, failed.error);
	return message_ptr(reply);
}

/** A connection to the daemon itself, which then owns the descriptor. */
bus_ptr connect_to(descriptor fd)
{
	sd_bus *made = nullptr;
	constexpr char connecting[] = "speak on the private bus";
	check(sd_bus_new(&made), connecting);
	bus_ptr bus(made);
	check(sd_bus_set_fd(made, fd.get(), fd.get()), connecting);
	fd.release();
	check(sd_bus_set_anonymous(made, 1), connecting);
	check(sd_bus_start(made), connecting);
	return bus;
}

/** Passes on that the daemon has gone; what it refused is left to the caller. */
void pass_unreachable(const failure &error)
{
	if (error.result == STATUS_UNREACHABLE)
		throw failure(error);
}

properties read_interface(sd_bus *bus, const std::string &path, const std::string &interface)
{
	const message_ptr message = new_call(bus, path.c_str(), properties_interface, "GetAll");
	check(sd_bus_message_append(message.get(), "s", interface.c_str()), asking);
	const message_ptr reply = send(bus, message);
	return read_properties(reply.get());
}

/** Properties one by one; what cannot be read is null. */
properties read_what_can_be(sd_bus *bus, const std::string &path, const std::string &interface,
			    const std::map<std::string, std::string> &signatures, bool is_talkative)
{
	properties read;
	for (const auto &[name, signature] : signatures) {
		try {
			read[name] = read_property(bus, path, interface, name);
		} catch (const failure &error) {
			pass_unreachable(error);
			read[name] = {signature, json()};
			if (is_talkative)
				complain(
					fmt::format("hear-sense cannot tell {} of {}, and shows no client all at once. "
						    "Is its value in the configuration, or in the settings file, none "
						    "of its type ({})? To give it one: hsctl set",
						    name, path, type_name(signature)));
		}
	}
	return read;
}

/** Adds the objects at the path and below, interface by interface. */
void walk(sd_bus *bus, const std::string &path, bool is_talkative, object_tree *tree)
{
	const message_ptr reply = send(bus, new_call(bus, path.c_str(), introspection_interface, "Introspect"));
	const introspection read = read_introspection(read_text(reply.get()));
	interfaces object;
	for (const auto &[interface, signatures] : read.interfaces) {
		if (!interface.starts_with(SERVICE))
			continue;
		try {
			object[interface] = read_interface(bus, path, interface);
		} catch (const failure &error) {
			pass_unreachable(error);
			object[interface] = read_what_can_be(bus, path, interface, signatures, is_talkative);
		}
	}
	add_interfaces(tree, path, object);
	for (const std::string &child : read.children)
		walk(bus, path + "/" + child, is_talkative, tree);
}

} // namespace

bus_ptr open_bus(bool of_user)
{
	sd_bus *opened = nullptr;
	const bool is_session = uses_session_bus(of_user);
	const int r = is_session ? sd_bus_open_user(&opened) : sd_bus_open_system(&opened);
	if (r < 0)
		throw failure(STATUS_UNREACHABLE, fmt::format("There is no {} bus: {}. {}",
							      is_session ? "session" : "system", std::strerror(-r),
							      is_session ? "Is DBUS_SESSION_BUS_ADDRESS set?"
									 : "Is it running (systemctl status dbus)?"));
	return bus_ptr(opened);
}

bus_ptr open_private_bus(sd_bus *bus)
{
	const message_ptr message = new_call(bus, "/", SERVICE, "GetPrivateBus");
	check(sd_bus_message_append(message.get(), "s", "hsctl"), asking);
	const message_ptr reply = send(bus, message);
	int borrowed = -1;
	check(sd_bus_message_read(reply.get(), "h", &borrowed), "take the private bus");
	descriptor fd(fcntl(borrowed, F_DUPFD_CLOEXEC, 3));
	check(fd.get() < 0 ? -errno : 0, "take the private bus");
	return connect_to(std::move(fd));
}

void subscribe(sd_bus *bus)
{
	const std::string rules[] = {
		fmt::format("type='signal',sender='{}'", SERVICE),
		fmt::format("type='signal',sender='{}',member='NameOwnerChanged',arg0='{}'", bus_service, SERVICE),
	};
	for (const std::string &rule : rules) {
		call_error failed;
		const int r = sd_bus_call_method(bus, bus_service, bus_path, bus_service, "AddMatch", &failed.error,
						 nullptr, "s", rule.c_str());
		if (r < 0)
			fail(r, failed.error);
	}
}

std::string find_owner(sd_bus *bus)
{
	call_error failed;
	sd_bus_message *reply = nullptr;
	const int r = sd_bus_call_method(bus, bus_service, bus_path, bus_service, "GetNameOwner", &failed.error, &reply,
					 "s", SERVICE);
	const message_ptr owned(reply);
	if (r < 0 && sd_bus_error_has_name(&failed.error, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
		return "";
	if (r < 0)
		fail(r, failed.error);
	return read_text(reply);
}

object_tree read_objects(sd_bus *bus, bool is_talkative)
{
	try {
		const message_ptr reply = send(bus, new_call(bus, "/", objects_interface, "GetManagedObjects"));
		return read_tree(reply.get());
	} catch (const failure &error) {
		pass_unreachable(error);
	}
	/* One property that cannot be read is enough. */
	object_tree tree;
	walk(bus, root_path, is_talkative, &tree);
	return tree;
}

value read_property(sd_bus *bus, const std::string &path, const std::string &interface, const std::string &name)
{
	const message_ptr message = new_call(bus, path.c_str(), properties_interface, "Get");
	check(sd_bus_message_append(message.get(), "ss", interface.c_str(), name.c_str()), asking);
	const message_ptr reply = send(bus, message);
	return read_variant(reply.get());
}

void write_property(sd_bus *bus, const std::string &path, const std::string &interface, const std::string &name,
		    const value &written)
{
	const message_ptr message = new_call(bus, path.c_str(), properties_interface, "Set");
	check(sd_bus_message_append(message.get(), "ss", interface.c_str(), name.c_str()), asking);
	append_variant(message.get(), written);
	send(bus, message);
}

void call_method(sd_bus *bus, const std::string &path, const std::string &interface, const std::string &method,
		 const json &argument)
{
	const message_ptr message = new_call(bus, path.c_str(), interface.c_str(), method.c_str());
	if (argument.is_boolean())
		check(sd_bus_message_append(message.get(), "b", argument.get<bool>() ? 1 : 0), asking);
	send(bus, message);
}

both_trees read_both(sd_bus *bus, bool with_private, bool is_talkative)
{
	both_trees trees;
	if (with_private) {
		const bus_ptr private_bus = open_private_bus(bus);
		trees.private_objects = read_objects(private_bus.get(), is_talkative);
	}
	trees.objects = read_objects(bus, is_talkative);
	return trees;
}

} // namespace hs_ctl
