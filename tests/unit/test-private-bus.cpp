#include "private-bus.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <systemd/sd-id128.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bus-bed.hpp"
#include "descriptors.hpp"
#include "failing.hpp"
#include "limits.hpp"
#include "temp-dir.hpp"

namespace {

/** What the daemon's calls of close have come to. */
struct close_record {
	/** Of those to come; 0 for the true result. */
	int error;
	size_t calls;
	/** Of descriptors that were not open. */
	size_t bad;
};

close_record closes;

/** What the sockets of the last bus were asked to be. */
struct socket_record {
	int domain;
	int type;
	int protocol;
};

socket_record last_sockets;

/** The user that the bus tells; without a value it tells the true one. */
std::optional<uid_t> caller;

} // namespace

extern "C" {

int __real_close(int fd);
int __wrap_close(int fd)
{
	++closes.calls;
	const int r = __real_close(fd);
	closes.bad += r < 0;
	if (closes.error == 0)
		return r;
	errno = closes.error;
	return -1;
}

int __real_socketpair(int domain, int type, int protocol, int *fds);
int __wrap_socketpair(int domain, int type, int protocol, int *fds)
{
	last_sockets = {domain, type, protocol};
	return hs_must_fail("socketpair") ? -1 : __real_socketpair(domain, type, protocol, fds);
}

int __real_getsockopt(int fd, int level, int name, void *value, socklen_t *length);
int __wrap_getsockopt(int fd, int level, int name, void *value, socklen_t *length)
{
	return hs_must_fail("getsockopt") ? -1 : __real_getsockopt(fd, level, name, value, length);
}

int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t length);
int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
	return hs_must_fail("setsockopt") ? -1 : __real_setsockopt(fd, level, name, value, length);
}

int __real_sd_id128_randomize(sd_id128_t *id);
int __wrap_sd_id128_randomize(sd_id128_t *id)
{
	return hs_must_fail("sd_id128_randomize") ? -errno : __real_sd_id128_randomize(id);
}

int __real_sd_bus_new(sd_bus **bus);
int __wrap_sd_bus_new(sd_bus **bus)
{
	return hs_must_fail("sd_bus_new") ? -errno : __real_sd_bus_new(bus);
}

int __real_sd_bus_set_fd(sd_bus *bus, int input, int output);
int __wrap_sd_bus_set_fd(sd_bus *bus, int input, int output)
{
	return hs_must_fail("sd_bus_set_fd") ? -errno : __real_sd_bus_set_fd(bus, input, output);
}

int __real_sd_bus_set_server(sd_bus *bus, int on, sd_id128_t id);
int __wrap_sd_bus_set_server(sd_bus *bus, int on, sd_id128_t id)
{
	return hs_must_fail("sd_bus_set_server") ? -errno : __real_sd_bus_set_server(bus, on, id);
}

int __real_sd_bus_set_anonymous(sd_bus *bus, int on);
int __wrap_sd_bus_set_anonymous(sd_bus *bus, int on)
{
	return hs_must_fail("sd_bus_set_anonymous") ? -errno : __real_sd_bus_set_anonymous(bus, on);
}

int __real_sd_bus_negotiate_fds(sd_bus *bus, int on);
int __wrap_sd_bus_negotiate_fds(sd_bus *bus, int on)
{
	return hs_must_fail("sd_bus_negotiate_fds") ? -errno : __real_sd_bus_negotiate_fds(bus, on);
}

int __real_sd_bus_add_object_manager(sd_bus *bus, sd_bus_slot **slot, const char *path);
int __wrap_sd_bus_add_object_manager(sd_bus *bus, sd_bus_slot **slot, const char *path)
{
	return hs_must_fail("sd_bus_add_object_manager") ? -errno : __real_sd_bus_add_object_manager(bus, slot, path);
}

int __real_sd_bus_start(sd_bus *bus);
int __wrap_sd_bus_start(sd_bus *bus)
{
	return hs_must_fail("sd_bus_start") ? -errno : __real_sd_bus_start(bus);
}

int __real_sd_bus_get_fd(sd_bus *bus);
int __wrap_sd_bus_get_fd(sd_bus *bus)
{
	return hs_must_fail("sd_bus_get_fd") ? -errno : __real_sd_bus_get_fd(bus);
}

int __wrap_sd_bus_reply_method_return(sd_bus_message *call, const char *types, ...)
{
	if (hs_must_fail("sd_bus_reply_method_return"))
		return -errno;
	va_list values;
	va_start(values, types);
	const int r = sd_bus_reply_method_returnv(call, types, values);
	va_end(values);
	return r;
}

int __real_sd_bus_query_sender_creds(sd_bus_message *message, uint64_t mask, sd_bus_creds **creds);
int __wrap_sd_bus_query_sender_creds(sd_bus_message *message, uint64_t mask, sd_bus_creds **creds)
{
	return hs_must_fail("sd_bus_query_sender_creds") ? -errno
							 : __real_sd_bus_query_sender_creds(message, mask, creds);
}

int __real_sd_bus_creds_get_euid(sd_bus_creds *creds, uid_t *uid);
int __wrap_sd_bus_creds_get_euid(sd_bus_creds *creds, uid_t *uid)
{
	if (!caller)
		return __real_sd_bus_creds_get_euid(creds, uid);
	*uid = *caller;
	return 0;
}
}

namespace {

using strings = std::vector<std::string>;

constexpr char node_name[] = "AudioDevice0Input0.Unprocessed";
constexpr char chain_path[] = "/com/orvel/HearSense/AudioDevice0Input0";
constexpr char node_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed";
constexpr char ear_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Ear";
constexpr char crack_interface[] = "com.orvel.HearSense.Events.Ear.Crack";

constexpr char refused[] = "com.orvel.HearSense.Error: Cannot create private bus.";

/** Clients of the main bus that ask for private ones. */
class PrivateBus : public testing::Test
{
protected:
	PrivateBus()
	{
		closes = {};
		caller.reset();
		EXPECT_TRUE(hs_dbus_init_private_bus());
		record = bed.find_record(bed.context->bus, HS_DBUS_SERVICE, "GetPrivateBus");
	}

	~PrivateBus() override
	{
		hs_fail_call("", 0, 0);
		closes = {};
		sd_bus_message_unref(kept);
		sd_bus_error_free(&error);
	}

	/** A plug-in with a setting, a public event "Noise" and a private one, "Crack". */
	hs_source *add_source()
	{
		hs_paper_plugin &ear = bed.add_plugin("Ear");
		ear.add_setting({.title = "Gain", .type = "int32", .value = "3"});
		ear.add_event({.title = "Noise", .is_public = true});
		ear.add_event({.title = "Crack"});
		return ear.add_source(node_name);
	}

	/** Calls the method: "fd", or the error. */
	std::string get()
	{
		return bed.client.call("/", HS_DBUS_SERVICE, "GetPrivateBus", "s", "any");
	}

	/** Calls the method and keeps the descriptor; -1 for an error. */
	int take()
	{
		descriptor_answer answer{};
		sd_bus_slot *slot = nullptr;
		sd_bus_call_method_async(bed.client.connection(), &slot, HS_DBUS_SERVICE, "/", HS_DBUS_SERVICE,
					 "GetPrivateBus", on_answer, &answer, "s", "any");
		const hs_slot_ptr owned{slot};
		bed.client.wait([&answer] { return answer.is_here; });
		return answer.fd;
	}

	/** A client of a private bus; of one that is gone where the daemon refuses. */
	hs_bus_client &connect()
	{
		const int fd = take();
		EXPECT_GE(fd, 0);
		return clients.emplace_back(fd < 0 ? hs_new_bus_pair().client : hs_new_bus_peer(fd),
					    [this] { bed.bed.step(); });
	}

	size_t count_buses(uid_t user = geteuid()) const
	{
		const hs_loop_bus_count count = hs_loop_count_buses(bed.context->loop, user);
		EXPECT_EQ(bed.buses().size(), count.all + 1);
		return count.all;
	}

	/** Errors and warnings so far, such as "E sd_bus_new failed: Out of memory". */
	strings complaints() const
	{
		strings found;
		for (const hs_log_capture::line &line : bed.capture.lines()) {
			if (line.level == SPA_LOG_LEVEL_ERROR || line.level == SPA_LOG_LEVEL_WARN)
				found.push_back((line.level == SPA_LOG_LEVEL_ERROR ? "E " : "W ") + line.text);
		}
		return found;
	}

	/** A call of the method that nobody has answered, for a test to hand to the handler itself. */
	sd_bus_message *receive()
	{
		sd_bus_message_unref(std::exchange(kept, nullptr));
		sd_bus_slot *slot = nullptr;
		sd_bus_add_filter(bed.context->bus, &slot, on_call, this);
		const hs_slot_ptr owned{slot};
		sd_bus_message *created = nullptr;
		sd_bus_message_new_method_call(bed.client.connection(), &created, HS_DBUS_SERVICE, "/", HS_DBUS_SERVICE,
					       "GetPrivateBus");
		const hs_message_ptr call{created};
		sd_bus_message_append(call.get(), "s", "any");
		uint64_t cookie = 0;
		sd_bus_send(bed.client.connection(), call.get(), &cookie);
		bed.client.wait([this] { return kept != nullptr; });
		return kept;
	}

	/** How far the call has come that has just returned `r`. */
	std::string stage_of(int r) const
	{
		if (r >= 0)
			return "done";
		if (!bed.capture.contains(SPA_LOG_LEVEL_DEBUG, "Add io: "))
			return "set-up";
		return count_buses() == 0 ? "loop" : "reply";
	}

	/** Lets clients that have left be noticed. */
	void wait_for_buses(size_t n)
	{
		hs_wait_until([&] { return count_buses() == n; }, [this] { bed.bed.step(); });
	}

	hs_bus_bed bed;
	/** Of the method. */
	hs_dbus *record;
	sd_bus_error error = SD_BUS_ERROR_NULL;
	std::deque<hs_bus_client> clients;

private:
	struct descriptor_answer {
		bool is_here;
		int fd;
	};

	static int on_answer(sd_bus_message *message, void *data, sd_bus_error *)
	{
		auto *answer = static_cast<descriptor_answer *>(data);
		int borrowed = -1;
		const bool is_error = sd_bus_message_get_error(message) != nullptr;
		if (!is_error)
			sd_bus_message_read(message, "h", &borrowed);
		*answer = {true, is_error ? -1 : fcntl(borrowed, F_DUPFD_CLOEXEC, 0)};
		return 1;
	}

	static int on_call(sd_bus_message *message, void *data, sd_bus_error *)
	{
		if (!sd_bus_message_is_method_call(message, HS_DBUS_SERVICE, "GetPrivateBus"))
			return 0;
		static_cast<PrivateBus *>(data)->kept = sd_bus_message_ref(message);
		return 1;
	}

	sd_bus_message *kept = nullptr;
};

} // namespace

TEST_F(PrivateBus, WithoutSourcesThereIsOnlyTheObjectManager)
{
	bed.run([&] {
		hs_bus_client &client = connect();
		ASSERT_EQ(count_buses(), 1u);
		char added[64];
		std::snprintf(added, sizeof(added), "Add io: %p 0", static_cast<void *>(bed.buses()[1]));
		EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_DEBUG, added), 1u) << bed.capture.text();
		EXPECT_EQ(client.call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"), "[]");
		EXPECT_EQ(hs_bus_bed::members(client, "/"), strings{});
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(PrivateBus, HasTheSharedObjectsTheInstancesAndTheirPrivateEvents)
{
	hs_source *source = add_source();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_bus_client &client = connect();
		ASSERT_TRUE(client.ping());
		EXPECT_EQ(client.get(chain_path, HS_DBUS_CHAIN_INTERFACE, "Id"), "s \"AudioDevice0Input0\"");
		EXPECT_EQ(client.get(node_path, HS_DBUS_SOURCE_INTERFACE, "Id"),
			  "s \"" + std::string{node_name} + "\"");
		EXPECT_EQ(client.get(ear_path, crack_interface, "Crack"), "b false");
		strings interfaces;
		for (const std::string &member : hs_bus_bed::members(client, ear_path)) {
			const std::string name = member.substr(0, member.find_first_of(" ("));
			const std::string interface = name.substr(0, name.rfind('.'));
			if (interfaces.empty() || interfaces.back() != interface)
				interfaces.push_back(interface);
		}
		std::sort(interfaces.begin(), interfaces.end());
		EXPECT_EQ(interfaces, (strings{crack_interface, HS_DBUS_INSTANCE_INTERFACE}));
		EXPECT_EQ(client.count_objects("InterfacesAdded", chain_path), 1u);
		EXPECT_EQ(client.count_objects("InterfacesAdded", node_path), 1u);
		EXPECT_EQ(client.count_objects("InterfacesAdded", ear_path), 0u);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(PrivateBus, SourcesAreSetUpInTheOrderOfTheirPlugins)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_paper_plugin &nose = bed.add_plugin("Nose");
	nose.add_source("D1.A");
	ear.add_source("D2.A");
	ear.add_source("D3.A");
	bed.run([&] {
		hs_bus_client &client = connect();
		ASSERT_TRUE(client.ping());
		strings announced;
		for (const std::string &content : client.contents("/", "InterfacesAdded"))
			announced.push_back(content.substr(0, content.find(',')));
		const std::string root = "\"/com/orvel/HearSense/";
		EXPECT_EQ(announced, (strings{root + "D2\"", root + "D2/A\"", root + "D3\"", root + "D3/A\"",
					      root + "D1\"", root + "D1/A\""}));
	});
}

TEST_F(PrivateBus, EachHasAnIdOfItsOwn)
{
	bed.run([&] {
		sd_id128_t ids[2];
		for (sd_id128_t &id : ids) {
			hs_bus_client &client = connect();
			ASSERT_TRUE(client.ping());
			ASSERT_GE(sd_bus_get_bus_id(client.connection(), &id), 0);
		}
		EXPECT_FALSE(sd_id128_equal(ids[0], ids[1]));
	});
}

TEST_F(PrivateBus, TheClientHasTheOnlyDescriptorOfItsEnd)
{
	bed.run([&] {
		const int fd = take();
		ASSERT_GE(fd, 0);
		EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
		EXPECT_EQ(last_sockets.domain, AF_UNIX);
		EXPECT_EQ(last_sockets.type, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC);
		EXPECT_EQ(last_sockets.protocol, 0);
		EXPECT_EQ(count_buses(), 1u);
		close(fd);
		wait_for_buses(0);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(PrivateBus, TheKernelKeepsNoMoreForItThanForAnySocket)
{
	const auto send_buffer = [](int fd) {
		int size = 0;
		socklen_t length = sizeof(size);
		getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length);
		return size;
	};
	const hs_socket_pair any = hs_new_socket_pair();
	const hs_fd ends[] = {hs_fd{any.server}, hs_fd{any.client}};
	bed.run([&] {
		ASSERT_TRUE(connect().ping());
		ASSERT_EQ(count_buses(), 1u);
		EXPECT_EQ(send_buffer(sd_bus_get_fd(bed.buses()[1])), send_buffer(any.server));
	});
}

TEST_F(PrivateBus, OneWhoseBufferCannotBeBoundIsHandedOutAllTheSame)
{
	bed.run([&] {
		for (const char *step : {"getsockopt", "setsockopt"}) {
			bed.capture.clear();
			hs_fail_call(step, 1, EPERM);
			EXPECT_TRUE(connect().ping()) << step;
			EXPECT_FALSE(hs_failure_is_due()) << step;
			EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_WARN,
						    "Could not bound the send buffer of a private bus: "
						    "Operation not permitted"),
				  1u)
				<< step;
			EXPECT_EQ(bed.capture.complaints(), 1u) << bed.capture.text();
		}
	});
}

TEST_F(PrivateBus, ACallWithoutItsArgumentIsAnsweredBySdBus)
{
	bed.run([&] {
		EXPECT_EQ(bed.client.call("/", HS_DBUS_SERVICE, "GetPrivateBus"),
			  "org.freedesktop.DBus.Error.InvalidArgs: Invalid arguments '' to call "
			  "com.orvel.HearSense.GetPrivateBus(), expecting 's'.");
		EXPECT_EQ(count_buses(), 0u);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(PrivateBus, ACallThatCannotBeReadFails)
{
	const hs_message_ptr unsealed = bed.unsealed_call("/", HS_DBUS_SERVICE, "GetPrivateBus");
	EXPECT_EQ(hs_private_bus_get(unsealed.get(), record, &error), -1);
	EXPECT_STREQ(error.name, "com.orvel.HearSense.Error");
	EXPECT_STREQ(error.message, "Cannot create private bus.");
	EXPECT_EQ(closes.calls, 0u);
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(PrivateBus, AnUnknownUserGetsNone)
{
	bed.run([&] {
		hs_fail_call("sd_bus_query_sender_creds", 1, ENXIO);
		EXPECT_EQ(get(), refused);
		EXPECT_FALSE(hs_failure_is_due());
		EXPECT_EQ(count_buses(), 0u);
	});
	EXPECT_EQ(complaints(), strings{"W Refused a private bus: its user is unknown"});
}

namespace {

struct failing_step {
	const char *function;
	/** Who closes the daemon's end then. */
	bool bus_owns_socket;
};

void PrintTo(const failing_step &step, std::ostream *out)
{
	*out << step.function;
}

class PrivateBusStep : public PrivateBus, public testing::WithParamInterface<failing_step>
{
};

} // namespace

TEST_P(PrivateBusStep, ThatFailsIsLoggedAndLeavesNothingBehind)
{
	const failing_step &step = GetParam();
	hs_source *source = add_source();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const size_t n_records = bed.count_records();
		const size_t n_descriptors = hs_count_descriptors();
		bed.capture.clear();
		closes = {};
		hs_fail_call(step.function, 1, ENOMEM);
		EXPECT_EQ(get(), refused);
		EXPECT_FALSE(hs_failure_is_due());
		EXPECT_EQ(complaints(), strings{"E " + std::string{step.function} + " failed: Cannot allocate memory"});
		EXPECT_FALSE(bed.capture.contains(SPA_LOG_LEVEL_DEBUG, "Add io"));
		EXPECT_EQ(closes.calls, step.bus_owns_socket ? 1u : 2u);
		EXPECT_EQ(closes.bad, 0u);
		EXPECT_EQ(count_buses(), 0u);
		EXPECT_EQ(bed.count_records(), n_records);
		EXPECT_EQ(hs_count_descriptors(), n_descriptors);
		/* The next one is as good as any. */
		EXPECT_TRUE(connect().ping());
	});
}

INSTANTIATE_TEST_SUITE_P(Steps, PrivateBusStep,
			 testing::Values(failing_step{"sd_id128_randomize", false}, failing_step{"sd_bus_new", false},
					 failing_step{"sd_bus_set_fd", false}, failing_step{"sd_bus_set_server", true},
					 failing_step{"sd_bus_set_anonymous", true},
					 failing_step{"sd_bus_negotiate_fds", true}));

TEST_F(PrivateBus, WithoutItsObjectManagerItIsHandedOutAllTheSame)
{
	bed.run([&] {
		hs_fail_call("sd_bus_add_object_manager", 1, ENOMEM);
		hs_bus_client &client = connect();
		EXPECT_FALSE(hs_failure_is_due());
		EXPECT_EQ(complaints(), strings{"E Could not add object manager: Cannot allocate memory"});
		EXPECT_TRUE(client.ping());
		EXPECT_EQ(client.call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"),
			  "org.freedesktop.DBus.Error.UnknownObject: Unknown object '/'.");
	});
}

TEST_F(PrivateBus, OneThatDoesNotStartIsSetUpAndTakenDownAgain)
{
	hs_source *source = add_source();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const size_t n_records = bed.count_records();
		const size_t n_descriptors = hs_count_descriptors();
		bed.capture.clear();
		closes = {};
		hs_fail_call("sd_bus_start", 1, ENOMEM);
		EXPECT_EQ(get(), refused);
		EXPECT_FALSE(hs_failure_is_due());
		const strings expected{"E sd_bus_start failed: Cannot allocate memory",
				       "E Failed to emit interfaces for path " + std::string{chain_path} +
					       ": Transport endpoint is not connected",
				       "E Failed to emit interfaces for path " + std::string{node_path} +
					       ": Transport endpoint is not connected"};
		EXPECT_EQ(complaints(), expected);
		EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_DEBUG, "Add io: "), 1u) << bed.capture.text();
		EXPECT_EQ(closes.calls, 1u);
		EXPECT_EQ(closes.bad, 0u);
		EXPECT_EQ(count_buses(), 0u);
		EXPECT_EQ(bed.count_records(), n_records);
		EXPECT_EQ(hs_count_descriptors(), n_descriptors);
	});
}

TEST_F(PrivateBus, OneThatTheLoopRefusesIsTakenDownAgain)
{
	hs_source *source = add_source();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const size_t n_records = bed.count_records();
		const size_t n_descriptors = hs_count_descriptors();
		bed.capture.clear();
		closes = {};
		hs_fail_call("sd_bus_get_fd", 1, ENOTCONN);
		EXPECT_EQ(get(), refused);
		EXPECT_FALSE(hs_failure_is_due());
		EXPECT_EQ(complaints(), strings{});
		EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_DEBUG, "Add io: "), 1u) << bed.capture.text();
		EXPECT_EQ(closes.bad, 0u);
		EXPECT_EQ(count_buses(), 0u);
		EXPECT_EQ(bed.count_records(), n_records);
		EXPECT_EQ(hs_count_descriptors(), n_descriptors);
	});
}

TEST_F(PrivateBus, OneThatCannotBeHandedOutIsClosedAndGoesFromTheLoop)
{
	hs_source *source = add_source();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const size_t n_records = bed.count_records();
		const size_t n_descriptors = hs_count_descriptors();
		sd_bus_message *message = receive();
		bed.capture.clear();
		closes = {};
		hs_fail_call("sd_bus_reply_method_return", 1, ENOMEM);
		EXPECT_EQ(hs_private_bus_get(message, record, &error), -1);
		EXPECT_FALSE(hs_failure_is_due());
		EXPECT_STREQ(error.name, "com.orvel.HearSense.Error");
		EXPECT_STREQ(error.message, "Cannot create private bus.");
		ASSERT_EQ(count_buses(), 1u);
		EXPECT_EQ(sd_bus_is_open(bed.buses()[1]), 0);
		EXPECT_EQ(closes.calls, 1u);
		EXPECT_EQ(closes.bad, 0u);
		wait_for_buses(0);
		EXPECT_EQ(complaints(), strings{});
		EXPECT_EQ(bed.count_records(), n_records);
		EXPECT_EQ(hs_count_descriptors(), n_descriptors);
	});
}

TEST_F(PrivateBus, AnEndThatDoesNotCloseIsWarnedOf)
{
	bed.run([&] {
		sd_bus_message *message = receive();
		closes.error = EIO;
		const int r = hs_private_bus_get(message, record, &error);
		closes.error = 0;
		EXPECT_GE(r, 0);
		EXPECT_FALSE(sd_bus_error_is_set(&error));
		EXPECT_EQ(count_buses(), 1u);
	});
	EXPECT_EQ(complaints(), strings{"W Unable to close private bus fd: Input/output error"});
}

TEST_F(PrivateBus, EndsThatDoNotCloseAfterAFailureAreWarnedOfBoth)
{
	bed.run([&] {
		sd_bus_message *message = receive();
		hs_fail_call("sd_bus_new", 1, ENOMEM);
		closes.error = EIO;
		const int r = hs_private_bus_get(message, record, &error);
		closes.error = 0;
		EXPECT_EQ(r, -1);
		EXPECT_STREQ(error.message, "Cannot create private bus.");
	});
	EXPECT_EQ(complaints(), (strings{"E sd_bus_new failed: Cannot allocate memory",
					 "W Unable to close local private bus fd: Input/output error",
					 "W Unable to close remote private bus fd: Input/output error"}));
}

TEST_F(PrivateBus, InterfacesThatCannotBeSetUpAreReportedAndTheBusIsHandedOut)
{
	hs_source *source = add_source();
	hs_source *other = bed.add_plugin("Nose").add_source("AudioDevice1Input0.Unprocessed");
	source->device_path = "/no-path";
	source->node_path = "/no-path";
	source->object_path = "/no-path";
	bed.run([&] {
		hs_bus_client &client = connect();
		strings found;
		for (const std::string &text : complaints()) {
			if (text.find("on private bus for source") != std::string::npos)
				found.push_back(text);
		}
		const std::string of = " interface on private bus for source '" + std::string{node_name} + "'";
		EXPECT_EQ(found,
			  (strings{"E Could not set up D-Bus Audio Chain" + of, "E Could not set up D-Bus Source" + of,
				   "E Could not set up D-Bus Plugin Instance" + of}))
			<< bed.capture.text();
		EXPECT_EQ(client.get(other->node_path, HS_DBUS_SOURCE_INTERFACE, "Id"),
			  "s \"AudioDevice1Input0.Unprocessed\"");
	});
}

TEST_F(PrivateBus, WithoutSocketsItFailsAndTellsIfDescriptorsWereTheReason)
{
	rlimit limit{};
	getrlimit(RLIMIT_NOFILE, &limit);
	const strings warning{"W Refused a private bus to user " + std::to_string(geteuid()) +
			      ": no descriptor is left, the limit is " + std::to_string(limit.rlim_cur)};
	bed.run([&] {
		for (const int reason : {EMFILE, ENFILE, ENOMEM}) {
			bed.capture.clear();
			hs_fail_call("socketpair", 1, reason);
			EXPECT_EQ(get(), refused);
			EXPECT_FALSE(hs_failure_is_due());
			EXPECT_EQ(complaints(), reason == ENOMEM ? strings{} : warning) << reason;
			EXPECT_EQ(closes.calls, 0u);
		}
	});
}

TEST_F(PrivateBus, WithoutADescriptorLeftLaterStagesFailAndLeaveNothingBehind)
{
	hs_source *source = add_source();
	strings stages;
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const size_t n_records = bed.count_records();
		const size_t n_descriptors = hs_count_descriptors();
		/* The sockets take two. */
		for (int room = 2; room < 20 && (stages.empty() || stages.back() != "done"); ++room) {
			/* Nothing else may open anything meanwhile, and sanitizers do when they check an object. */
			sd_bus_message *message = receive();
			hs_dbus *method = record;
			sd_bus_error local_error = SD_BUS_ERROR_NULL;
			const int limit = hs_descriptor_limit_for(room);
			bed.capture.clear();
			closes = {};
			int r;
			{
				const hs_descriptor_limit limited{limit};
				r = hs_private_bus_get(message, method, &local_error);
			}
			const std::string stage = stage_of(r);
			if (stages.empty() || stages.back() != stage)
				stages.push_back(stage);
			EXPECT_EQ(closes.bad, 0u) << room;
			if (r < 0) {
				EXPECT_EQ(r, -1);
				EXPECT_STREQ(local_error.name, "com.orvel.HearSense.Error");
				EXPECT_STREQ(local_error.message, "Cannot create private bus.");
				EXPECT_EQ(complaints(),
					  strings{"W Refused a private bus to user " + std::to_string(geteuid()) +
						  ": no descriptor is left, the limit is " + std::to_string(limit)})
					<< room;
				wait_for_buses(0);
				EXPECT_EQ(bed.count_records(), n_records) << room;
				EXPECT_EQ(hs_count_descriptors(), n_descriptors) << room;
			} else {
				EXPECT_EQ(complaints(), strings{});
			}
			sd_bus_error_free(&local_error);
		}
	});
	EXPECT_EQ(stages, (strings{"loop", "reply", "done"}));
}

namespace {

/** Room for all private buses with their clients in one process, which is more than some systems give. */
class PrivateBusLimit : public PrivateBus
{
protected:
	~PrivateBusLimit() override
	{
		for (const auto &[user, fds] : taken) {
			for (const int fd : fds)
				close(fd);
		}
	}

	bool take_as(uid_t user)
	{
		caller = user;
		const int fd = take();
		caller.reset();
		if (fd >= 0)
			taken[user].push_back(fd);
		return fd >= 0;
	}

	/** As many as the user may have, and as there may be. */
	void take_all_as(uid_t user)
	{
		for (uint32_t i = 0; i < HS_PRIVATE_BUSES_PER_USER && count_buses() < HS_PRIVATE_BUSES; ++i)
			ASSERT_TRUE(take_as(user)) << i;
	}

	void give_one_back(uid_t user)
	{
		const size_t n = count_buses();
		close(taken[user].back());
		taken[user].pop_back();
		wait_for_buses(n - 1);
	}

private:
	const hs_descriptor_limit room{static_cast<int>(8 * HS_PRIVATE_BUSES + 256)};
	std::map<uid_t, std::vector<int>> taken;
};

} // namespace

TEST_F(PrivateBusLimit, AUserMayHaveSoManyAndAnotherAsManyAgain)
{
	static_assert(HS_PRIVATE_BUSES_PER_USER < HS_PRIVATE_BUSES);
	bed.run([&] {
		take_all_as(1000);
		EXPECT_EQ(count_buses(1000), HS_PRIVATE_BUSES_PER_USER);
		const size_t n_descriptors = hs_count_descriptors();
		bed.capture.clear();
		EXPECT_FALSE(take_as(1000));
		EXPECT_EQ(complaints(), strings{"W Refused a private bus to user 1000: the user has " +
						std::to_string(HS_PRIVATE_BUSES_PER_USER) + ", which is the limit"});
		EXPECT_EQ(hs_count_descriptors(), n_descriptors);
		EXPECT_TRUE(take_as(1001));
		EXPECT_EQ(hs_loop_count_buses(bed.context->loop, 1000).of_user, HS_PRIVATE_BUSES_PER_USER);
		EXPECT_EQ(hs_loop_count_buses(bed.context->loop, 1001).of_user, 1u);
		give_one_back(1000);
		EXPECT_TRUE(take_as(1000));
		EXPECT_FALSE(take_as(1000));
	});
}

TEST_F(PrivateBusLimit, AllUsersTogetherMayHaveSoMany)
{
	bed.run([&] {
		uid_t user = 1000;
		while (count_buses() < HS_PRIVATE_BUSES)
			take_all_as(user++);
		bed.capture.clear();
		EXPECT_FALSE(take_as(user));
		EXPECT_EQ(complaints(),
			  strings{"W Refused a private bus to user " + std::to_string(user) + ": there are " +
				  std::to_string(HS_PRIVATE_BUSES) + " in all, which is the limit"});
		give_one_back(1000);
		EXPECT_TRUE(take_as(user));
		EXPECT_FALSE(take_as(user));
	});
}

TEST_F(PrivateBus, EnablingAnEventIsForThatBusAloneAndInNoFile)
{
	hs_temp_dir directory;
	hs_source *source = add_source();
	pw_properties_set(source->settings, "path", (directory / "settings.conf").c_str());
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_bus_client &client = connect();
		hs_bus_client &other = connect();
		EXPECT_EQ(client.set(ear_path, crack_interface, "EnableEvent", "b", 1), "");
		EXPECT_EQ(client.get(ear_path, crack_interface, "EnableEvent"), "b true");
		EXPECT_EQ(other.get(ear_path, crack_interface, "EnableEvent"), "b false");
		const strings changed{"\"" + std::string{crack_interface} + "\", [\"EnableEvent\": b true], []"};
		EXPECT_EQ(client.contents(ear_path, "PropertiesChanged"), changed);
		EXPECT_EQ(other.contents(ear_path, "PropertiesChanged"), strings{});
		EXPECT_EQ(hs_source_get_n_consumers(source), 2u);
	});
	EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(PrivateBus, AClientThatLeavesTakesEverythingOfItsBusAlong)
{
	hs_source *source = add_source();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const size_t n_records = bed.count_records();
		hs_bus_client &client = connect();
		EXPECT_EQ(client.set(ear_path, crack_interface, "EnableEvent", "b", 1), "");
		EXPECT_GT(bed.count_records(), n_records);
		EXPECT_EQ(hs_source_get_n_consumers(source), 2u);
		client.close();
		wait_for_buses(0);
		EXPECT_EQ(bed.count_records(), n_records);
		EXPECT_EQ(hs_source_get_n_consumers(source), 1u);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}
