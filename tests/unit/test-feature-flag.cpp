#include "feature-flag.hpp"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <systemd/sd-bus.h>

#include "bus-client.hpp"
#include "failing.hpp"
#include "log-capture.hpp"
#include "loop-bed.hpp"
#include "owned.hpp"

namespace {

/** What the last match has been set up with. */
struct match_record {
	sd_bus_message_handler_t callback;
	void *data;
};

match_record last_match;

} // namespace

extern "C" {

int __real_sd_bus_match_signal(sd_bus *bus, sd_bus_slot **slot, const char *sender, const char *path,
			       const char *interface, const char *member, sd_bus_message_handler_t callback,
			       void *data);
int __wrap_sd_bus_match_signal(sd_bus *bus, sd_bus_slot **slot, const char *sender, const char *path,
			       const char *interface, const char *member, sd_bus_message_handler_t callback, void *data)
{
	last_match = {callback, data};
	return hs_must_fail("match")
		       ? -errno
		       : __real_sd_bus_match_signal(bus, slot, sender, path, interface, member, callback, data);
}

int __real_sd_bus_message_new_method_call(sd_bus *bus, sd_bus_message **message, const char *destination,
					  const char *path, const char *interface, const char *member);
int __wrap_sd_bus_message_new_method_call(sd_bus *bus, sd_bus_message **message, const char *destination,
					  const char *path, const char *interface, const char *member)
{
	return hs_must_fail("new_call")
		       ? -errno
		       : __real_sd_bus_message_new_method_call(bus, message, destination, path, interface, member);
}

int __wrap_sd_bus_message_append(sd_bus_message *message, const char *types, ...)
{
	if (hs_must_fail("append"))
		return -errno;
	va_list values;
	va_start(values, types);
	const int r = sd_bus_message_appendv(message, types, values);
	va_end(values);
	return r;
}

/* Made to fail, it reads a null string, which sd-bus never does. */
int __wrap_sd_bus_message_read(sd_bus_message *message, const char *types, ...)
{
	if (hs_must_fail("read"))
		return 1;
	va_list values;
	va_start(values, types);
	const int r = sd_bus_message_readv(message, types, values);
	va_end(values);
	return r;
}
}

namespace {

using strings = std::vector<std::string>;
using fill_message = std::function<void(sd_bus_message *)>;

constexpr char service[] = "com.orvel.FeatureFlagService1";
constexpr char object_path[] = "/com/orvel/FeatureFlagService1";

/** A string that no client's sd-bus would send. */
void append_broken_string(sd_bus_message *message)
{
	constexpr char broken[] = "br\xfcken";
	char *space = nullptr;
	sd_bus_message_append_string_space(message, std::strlen(broken), &space);
	std::memcpy(space, broken, sizeof(broken));
}

fill_message names(strings flags)
{
	return [flags = std::move(flags)](sd_bus_message *message) {
		sd_bus_message_open_container(message, 'a', "s");
		for (const std::string &flag : flags)
			sd_bus_message_append_basic(message, 's', flag.c_str());
		sd_bus_message_close_container(message);
	};
}

/** The main bus with the feature-flag service for its only peer, and the loop. */
class FeatureFlag : public testing::Test
{
protected:
	~FeatureFlag() override
	{
		hs_fail_call("", 0, 0);
	}

	sd_bus *bus() const
	{
		return pair.server.get();
	}

	/** What one announcement is like. */
	struct announcement {
		fill_message fill;
		std::string sender = service;
		std::string path = object_path;
		std::string interface = service;
		std::string member = "FeaturesSet";
		/** "" for everyone. */
		std::string destination = "";
	};

	void announce(const announcement &of)
	{
		sd_bus_message *created = nullptr;
		sd_bus_message_new_signal(pair.client.get(), &created, of.path.c_str(), of.interface.c_str(),
					  of.member.c_str());
		const hs_message_ptr message{created};
		sd_bus_message_set_sender(message.get(), of.sender.c_str());
		if (!of.destination.empty())
			sd_bus_message_set_destination(message.get(), of.destination.c_str());
		of.fill(message.get());
		EXPECT_GE(sd_bus_send(pair.client.get(), message.get(), nullptr), 0);
	}

	void announce(strings flags)
	{
		announce({.fill = names(std::move(flags))});
	}

	/** Lets everything arrive that the service has sent, inside the loop. */
	void settle()
	{
		bool is_answered = false;
		sd_bus_slot *slot = nullptr;
		sd_bus_call_method_async(
			pair.client.get(), &slot, nullptr, "/", "org.freedesktop.DBus.Peer", "Ping",
			[](sd_bus_message *, void *data, sd_bus_error *) {
				*static_cast<bool *>(data) = true;
				return 1;
			},
			&is_answered, "");
		const hs_slot_ptr owned{slot};
		hs_wait_until([&is_answered] { return is_answered; },
			      [this] {
				      bed.step();
				      sd_bus_process(pair.client.get(), nullptr);
			      });
	}

	/** Whether the loop was told to quit by what `script` has the service announce. */
	bool quits(const std::function<void()> &script)
	{
		bool has_quit = false;
		bed.run(bus(), [&] {
			script();
			settle();
			has_quit = capture.contains(SPA_LOG_LEVEL_DEBUG, "Got signal 0");
		});
		return has_quit;
	}

	/** Errors and warnings so far, such as "E Feature flag is null". */
	strings complaints() const
	{
		strings found;
		for (const hs_log_capture::line &line : capture.lines()) {
			if (line.level == SPA_LOG_LEVEL_ERROR || line.level == SPA_LOG_LEVEL_WARN)
				found.push_back((line.level == SPA_LOG_LEVEL_ERROR ? "E " : "W ") + line.text);
		}
		return found;
	}

	hs_loop_bed bed;
	hs_bus_pair pair = hs_new_bus_pair();
	hs_log_capture capture;
};

/** The service, in a thread of its own: the daemon waits for its answer. */
class flag_service
{
public:
	/** `answer` fills the answer; null for an error of the service's own. */
	flag_service(sd_bus *connection, fill_message answer)
	    : bus{connection}, fill{std::move(answer)}, thread{[this] { serve(); }}
	{
	}

	~flag_service()
	{
		is_over = true;
		thread.join();
	}

	flag_service(const flag_service &) = delete;
	flag_service &operator=(const flag_service &) = delete;

	/** What it was asked so far; to be read when the answer is here. */
	strings asked;

private:
	void serve()
	{
		constexpr uint64_t usec_to_wait = 5000;
		sd_bus_slot *slot = nullptr;
		sd_bus_add_filter(bus, &slot, on_message, this);
		const hs_slot_ptr owned{slot};
		while (!is_over) {
			if (sd_bus_process(bus, nullptr) == 0)
				sd_bus_wait(bus, usec_to_wait);
		}
	}

	static int on_message(sd_bus_message *message, void *data, sd_bus_error *)
	{
		return static_cast<flag_service *>(data)->answer(message);
	}

	int answer(sd_bus_message *call)
	{
		if (!sd_bus_message_is_method_call(call, nullptr, nullptr))
			return 0;
		asked.push_back(std::string{sd_bus_message_get_destination(call)} + " " +
				sd_bus_message_get_path(call) + " " + sd_bus_message_get_interface(call) + "." +
				sd_bus_message_get_member(call) + "(" + sd_bus_message_get_signature(call, 1) + ") " +
				hs_render_all(call));
		if (!fill)
			return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_SERVICE_UNKNOWN, "no such service");
		sd_bus_message *created = nullptr;
		sd_bus_message_new_method_return(call, &created);
		const hs_message_ptr message{created};
		fill(message.get());
		sd_bus_send(bus, message.get(), nullptr);
		return 1;
	}

	sd_bus *bus;
	fill_message fill;
	std::atomic<bool> is_over = false;
	std::thread thread;
};

class FeatureFlagState : public FeatureFlag
{
protected:
	/** Asks a service that answers so. */
	bool ask(fill_message answer)
	{
		flag_service flags{pair.client.get(), std::move(answer)};
		const bool is_enabled = hs_feature_flag_is_preview_enabled(bus());
		asked = flags.asked;
		return is_enabled;
	}

	static fill_message states(std::vector<std::pair<std::string, bool>> flags)
	{
		return [flags = std::move(flags)](sd_bus_message *message) {
			sd_bus_message_open_container(message, 'a', "{sb}");
			for (const auto &[name, is_on] : flags)
				sd_bus_message_append(message, "{sb}", name.c_str(), static_cast<int>(is_on));
			sd_bus_message_close_container(message);
		};
	}

	strings asked;
};

strings failed_with(const std::string &text)
{
	return {"W Feature flag check failed: " + text, "W Feature flag \"hear_sense_preview\" is not present."};
}

} // namespace

TEST_F(FeatureFlag, AnAnnouncementOfTheFlagQuits)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	bed.run_until_quit(bus(), [this] {
		announce({"hear_sense_preview"});
		settle();
	});
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_DEBUG, "Got signal 0"), 1u) << capture.text();
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlag, TheFlagIsFoundBehindOthers)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_TRUE(quits([this] { announce({"other", "", "hear_sense_preview", "another"}); }));
}

TEST_F(FeatureFlag, ALongerNameThatBeginsWithTheFlagQuits)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_TRUE(quits([this] { announce({"hear_sense_preview2"}); }));
}

TEST_F(FeatureFlag, AnAnnouncementOfOtherFlagsDoesNothing)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_FALSE(quits([this] {
		announce({"other"});
		announce({"hear_sense_previe"});
		announce({"my_hear_sense_preview"});
		announce({"HEAR_SENSE_PREVIEW"});
		announce(strings{});
	}));
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlag, SignalsFromElsewhereAreIgnored)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	const fill_message fill = names({"hear_sense_preview"});
	EXPECT_FALSE(quits([&] {
		announce({.fill = fill, .sender = "com.orvel.Other"});
		announce({.fill = fill, .path = "/com/orvel/Other"});
		announce({.fill = fill, .interface = "com.orvel.Other"});
		announce({.fill = fill, .member = "FeaturesGone"});
	}));
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlag, AnAnnouncementToTheDaemonAloneIsIgnored)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_FALSE(quits([this] {
		announce({.fill = names({"hear_sense_preview"}), .destination = ":1.7"});
		announce({.fill = append_broken_string, .destination = ":1.7"});
	}));
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlag, AnAnnouncementOfAnotherTypeIsReportedAndIgnored)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_FALSE(quits([this] {
		announce(
			{.fill = [](sd_bus_message *m) { sd_bus_message_append_basic(m, 's', "hear_sense_preview"); }});
	}));
	EXPECT_EQ(complaints(), strings{"E Failed to read message: No such device or address"});
}

TEST_F(FeatureFlag, AnAnnouncementWithoutContentIsReportedAndIgnored)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_FALSE(quits([this] { announce({.fill = [](sd_bus_message *) {}}); }));
	EXPECT_EQ(complaints().size(), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Failed to read message: "), 1u) << capture.text();
}

TEST_F(FeatureFlag, ABrokenNameIsReportedAndEndsTheReading)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_FALSE(quits([this] {
		announce({.fill = [](sd_bus_message *message) {
			sd_bus_message_open_container(message, 'a', "s");
			sd_bus_message_append_basic(message, 's', "other");
			append_broken_string(message);
			sd_bus_message_append_basic(message, 's', "hear_sense_preview");
			sd_bus_message_close_container(message);
		}});
	}));
	EXPECT_EQ(complaints(), strings{"E Failed to read message: Bad message"});
}

TEST_F(FeatureFlag, ANullNameIsReportedAndEndsTheReading)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_FALSE(quits([this] {
		announce({"other", "hear_sense_preview"});
		hs_fail_call("read", 1, 0);
	}));
	EXPECT_FALSE(hs_failure_is_due());
	EXPECT_EQ(complaints(), strings{"E Feature flag is null"});
}

TEST_F(FeatureFlag, AnAnnouncementIsDoneWithUnlessItIsOfTheFlag)
{
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_EQ(last_match.data, bed.get());
	const auto result_of = [this](const fill_message &fill) {
		sd_bus_message *created = nullptr;
		sd_bus_message_new_signal(bus(), &created, object_path, service, "FeaturesSet");
		const hs_message_ptr message{created};
		fill(created);
		sd_bus_message_seal(created, 1, 0);
		return last_match.callback(created, last_match.data, nullptr);
	};
	EXPECT_TRUE(quits([&] {
		EXPECT_EQ(result_of(names({"other"})), 1);
		EXPECT_EQ(result_of(names({})), 1);
		EXPECT_EQ(result_of([](sd_bus_message *m) { sd_bus_message_append_basic(m, 's', "other"); }), 1);
		EXPECT_EQ(result_of([](sd_bus_message *message) {
				  sd_bus_message_open_container(message, 'a', "s");
				  append_broken_string(message);
				  sd_bus_message_close_container(message);
			  }),
			  1);
		hs_fail_call("read", 1, 0);
		EXPECT_EQ(result_of(names({"other"})), 1);
		EXPECT_EQ(result_of(names({"hear_sense_preview"})), 0);
	}));
}

TEST_F(FeatureFlag, AMatchThatCannotBeSetUpIsReported)
{
	hs_fail_call("match", 1, ENOMEM);
	hs_feature_flag_setup_dbus_signals(bus(), bed.get());
	EXPECT_FALSE(hs_failure_is_due());
	EXPECT_EQ(complaints(), strings{"E Could not setup match signal: Cannot allocate memory"});
	EXPECT_FALSE(quits([this] { announce({"hear_sense_preview"}); }));
}

TEST_F(FeatureFlagState, TheServiceIsAskedForTheOneFlag)
{
	EXPECT_TRUE(ask(states({{"hear_sense_preview", true}})));
	EXPECT_EQ(asked, strings{"com.orvel.FeatureFlagService1 /com/orvel/FeatureFlagService1 "
				 "com.orvel.FeatureFlagService1.Get(as) [\"hear_sense_preview\"]"});
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlagState, AFlagThatIsOffIsOff)
{
	EXPECT_FALSE(ask(states({{"hear_sense_preview", false}})));
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlagState, AFlagThatTheServiceDoesNotKnowIsOff)
{
	EXPECT_FALSE(ask(states({})));
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlagState, TheFirstFlagOfTheAnswerCounts)
{
	EXPECT_FALSE(ask(states({{"hear_sense_preview", false}, {"other", true}})));
	EXPECT_TRUE(ask(states({{"hear_sense_preview", true}, {"other", false}})));
	EXPECT_FALSE(ask(states({{"other", false}, {"hear_sense_preview", true}})));
	EXPECT_TRUE(ask(states({{"other", true}, {"hear_sense_preview", false}})));
	EXPECT_EQ(complaints(), strings{});
}

TEST_F(FeatureFlagState, WithoutTheServiceItIsOff)
{
	EXPECT_FALSE(ask(nullptr));
	EXPECT_EQ(complaints(), failed_with("No route to host"));
}

TEST_F(FeatureFlagState, WithAServiceThatLeavesItIsOff)
{
	pair.client.reset();
	EXPECT_FALSE(hs_feature_flag_is_preview_enabled(bus()));
	ASSERT_EQ(complaints().size(), 2u) << capture.text();
	EXPECT_EQ(complaints()[0].rfind("W Feature flag check failed: ", 0), 0u) << capture.text();
	EXPECT_EQ(complaints()[1], "W Feature flag \"hear_sense_preview\" is not present.");
}

TEST_F(FeatureFlagState, AnAnswerOfAnotherTypeIsReported)
{
	EXPECT_FALSE(ask([](sd_bus_message *m) { sd_bus_message_append(m, "b", 1); }));
	EXPECT_EQ(complaints(), failed_with("No such device or address"));
	capture.clear();
	EXPECT_FALSE(
		ask([](sd_bus_message *m) { sd_bus_message_append(m, "a{sv}", 1, "hear_sense_preview", "b", 1); }));
	EXPECT_EQ(complaints(), failed_with("No such device or address"));
}

TEST_F(FeatureFlagState, AnAnswerThatCannotBeReadIsReported)
{
	EXPECT_FALSE(ask([](sd_bus_message *message) {
		const int on = 1;
		sd_bus_message_open_container(message, 'a', "{sb}");
		sd_bus_message_open_container(message, 'e', "sb");
		append_broken_string(message);
		sd_bus_message_append_basic(message, 'b', &on);
		sd_bus_message_close_container(message);
		sd_bus_message_close_container(message);
	}));
	EXPECT_EQ(complaints(), failed_with("Bad message"));
}

TEST_F(FeatureFlagState, AQuestionThatCannotBeMadeIsReportedAndNotAsked)
{
	for (const char *step : {"new_call", "append"}) {
		hs_fail_call(step, 1, ENOMEM);
		capture.clear();
		EXPECT_FALSE(hs_feature_flag_is_preview_enabled(bus())) << step;
		EXPECT_FALSE(hs_failure_is_due()) << step;
		EXPECT_EQ(complaints(), failed_with("Cannot allocate memory")) << step;
	}
}
