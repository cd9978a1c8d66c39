#include "dbus-methods.hpp"

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "bus-bed.hpp"
#include "props.hpp"

namespace {

using strings = std::vector<std::string>;

constexpr char node_name[] = "AudioDevice0Input0.Unprocessed";
constexpr char chain_path[] = "/com/orvel/HearSense/AudioDevice0Input0";
constexpr char ear_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Ear";

constexpr char internal_speaker[] = "IndicateInternalSpeakerActive";
constexpr char continuous[] = "IndicateContinuousAudioDisturbance";
constexpr char transient[] = "IndicateTransientAudioDisturbance";

class DBusMethods : public testing::Test
{
protected:
	using private_bus = hs_bus_bed::private_bus;

	~DBusMethods() override
	{
		sd_bus_message_unref(kept);
		sd_bus_error_free(&error);
	}

	template <typename... Values>
	std::string indicate(const char *method, const char *types = "", Values... values)
	{
		return bed.client.call(chain_path, HS_DBUS_CHAIN_INTERFACE, method, types, values...);
	}

	/** Calls as a client does who wants no answer. */
	void tell(const std::string &path, const std::string &interface, const char *method)
	{
		sd_bus *connection = bed.client.connection();
		sd_bus_message *message = nullptr;
		sd_bus_message_new_method_call(connection, &message, HS_DBUS_SERVICE, path.c_str(), interface.c_str(),
					       method);
		const hs_message_ptr owned{message};
		sd_bus_message_set_expect_reply(message, 0);
		EXPECT_GE(sd_bus_send(connection, message, nullptr), 0);
	}

	/** Keeps the next method call on the bus for a test to hand to a handler itself. */
	void keep_calls(sd_bus *bus)
	{
		sd_bus_add_filter(bus, nullptr, on_call, this);
	}

	static int on_call(sd_bus_message *message, void *data, sd_bus_error *)
	{
		auto *self = static_cast<DBusMethods *>(data);
		if (sd_bus_message_is_method_call(message, HS_DBUS_CHAIN_INTERFACE, nullptr)) {
			sd_bus_message_unref(self->kept);
			self->kept = sd_bus_message_ref(message);
		}
		return 0;
	}

	hs_dbus *record(const char *method, sd_bus *bus = nullptr)
	{
		return bed.find_record(bus ? bus : bed.context->bus, HS_DBUS_CHAIN_INTERFACE, method);
	}

	hs_bus_bed bed;
	sd_bus_message *kept = nullptr;
	sd_bus_error error = SD_BUS_ERROR_NULL;
};

/** An event that can be triggered. */
class DBusTrigger : public DBusMethods
{
protected:
	hs_source *publish_event(bool is_public, bool has_report = true)
	{
		hs_paper_event event{.title = "Noise",
				     .type = "struct",
				     .value = R"({ "Detected": "false", "Report": "false" })",
				     .complex_type = "(bb)",
				     .is_public = is_public,
				     .members = {"Detected"}};
		if (has_report)
			event.members.emplace_back("Report");
		hs_paper_plugin &ear = bed.add_plugin("Ear");
		ear.add_event(event);
		hs_source *source = ear.add_source(node_name);
		EXPECT_TRUE(bed.publish(source));
		return source;
	}

	std::string trigger()
	{
		return bed.client.call(ear_path, noise + ".Methods", "TriggerEvent");
	}

	static std::string changed(const std::string &value)
	{
		return "\"com.orvel.HearSense.Events.Ear.Noise\", [\"Noise\": a{sv} " + value + "], []";
	}

	const std::string noise = "com.orvel.HearSense.Events.Ear.Noise";
};

} // namespace

TEST_F(DBusMethods, ADisturbanceIsToldToEveryInstanceOfTheDevice)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_paper_plugin &nose = bed.add_plugin("Nose");
	hs_source *first = ear.add_source(node_name);
	hs_source *second = nose.add_source("AudioDevice0Input0.Other");
	hs_source *elsewhere = nose.add_source("AudioDevice1Input0.Unprocessed");
	bed.run([&] {
		for (hs_source *source : {first, second, elsewhere})
			ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(indicate(continuous, "b", 1), "");
		EXPECT_EQ(indicate(continuous, "b", 0), "");
		EXPECT_EQ(indicate(internal_speaker, "b", 1), "");
		EXPECT_EQ(indicate(internal_speaker, "b", 0), "");
		EXPECT_TRUE(bed.client.ping());
	});
	const strings told{"IndicateContinuousAudioDisturbance=true", "IndicateContinuousAudioDisturbance=false",
			   "IndicateInternalSpeakerActive=true", "IndicateInternalSpeakerActive=false"};
	EXPECT_EQ(ear.told, told);
	EXPECT_EQ(nose.told, told);
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusMethods, ADisturbanceCanBeToldOnAPrivateBus)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_source *source = ear.add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(bus.client.call(chain_path, HS_DBUS_CHAIN_INTERFACE, continuous, "b", 1), "");
		EXPECT_TRUE(bus.client.ping());
	});
	EXPECT_EQ(ear.told, strings{"IndicateContinuousAudioDisturbance=true"});
}

TEST_F(DBusMethods, ATransientDisturbanceCountsThePluginsCounterUp)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.transient_count = 41;
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(indicate(transient), "");
		EXPECT_TRUE(bed.client.ping());
	});
	EXPECT_EQ(ear.told, strings{"IndicateTransientAudioDisturbance=42"});
}

TEST_F(DBusMethods, ADisturbanceIsToldForACallerWhoWantsNoAnswerToo)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.transient_count = 41;
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		tell(chain_path, HS_DBUS_CHAIN_INTERFACE, transient);
		EXPECT_TRUE(bed.client.ping());
	});
	EXPECT_EQ(ear.told, strings{"IndicateTransientAudioDisturbance=42"});
}

TEST_F(DBusMethods, ATransientDisturbanceIsNoErrorForAPluginThatDoesNotCount)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(indicate(transient), "");
		EXPECT_TRUE(bed.client.ping());
	});
	EXPECT_EQ(ear.told, strings{});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusMethods, WhatIsToldIsNotStored)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_setting({.title = continuous, .type = "boolean", .value = "false"});
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(indicate(continuous, "b", 1), "");
		EXPECT_TRUE(bed.client.ping());
	});
	ASSERT_EQ(ear.told.size(), 1u);
	const hs_properties_ptr entry = hs_props_find(source->settings, continuous);
	EXPECT_STREQ(pw_properties_get(entry.get(), "value"), "false");
}

TEST_F(DBusMethods, ADisturbanceOfADeviceWithoutInstancesSucceedsAndDoesNothing)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.transient_count = 0;
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		source->device_path = "/com/orvel/HearSense/Elsewhere";
		EXPECT_EQ(indicate(continuous, "b", 1), "");
		EXPECT_EQ(indicate(internal_speaker, "b", 1), "");
		EXPECT_EQ(indicate(transient), "");
		EXPECT_TRUE(bed.client.ping());
	});
	EXPECT_EQ(ear.told, strings{});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusMethods, TheCallerIsAnsweredBeforeThePluginIsAsked)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.answer = -EIO;
	ear.transient_count = 0;
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(indicate(continuous, "b", 1), "");
		EXPECT_EQ(indicate(internal_speaker, "b", 1), "");
		EXPECT_EQ(indicate(transient), "");
		EXPECT_TRUE(bed.client.ping());
	});
	EXPECT_EQ(ear.told.size(), 3u);
}

TEST_F(DBusMethods, TheFirstInstanceThatRefusesKeepsTheOthersFromHearing)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_paper_plugin &nose = bed.add_plugin("Nose");
	hs_paper_plugin &eye = bed.add_plugin("Eye");
	nose.answer = -EIO;
	hs_source *sources[] = {ear.add_source(node_name), nose.add_source(node_name), eye.add_source(node_name)};
	bed.run([&] {
		for (hs_source *source : sources)
			ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(indicate(continuous, "b", 1), "");
		EXPECT_TRUE(bed.client.ping());
	});
	EXPECT_EQ(ear.told.size(), 1u);
	EXPECT_EQ(nose.told.size(), 1u);
	EXPECT_EQ(eye.told.size(), 0u);
}

TEST_F(DBusMethods, AWrongArgumentDoesNotReachThePlugin)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(indicate(continuous, "i", 1).rfind(SD_BUS_ERROR_INVALID_ARGS, 0), 0u);
		EXPECT_EQ(indicate(internal_speaker).rfind(SD_BUS_ERROR_INVALID_ARGS, 0), 0u);
		EXPECT_EQ(indicate(transient, "b", 1).rfind(SD_BUS_ERROR_INVALID_ARGS, 0), 0u);
	});
	EXPECT_EQ(ear.told, strings{});
}

TEST_F(DBusMethods, ACallThatCannotBeReadSaysSo)
{
	hs_source *source = bed.add_plugin("Ear").add_source(node_name);
	bed.run([&] { ASSERT_TRUE(bed.publish(source)); });
	const std::pair<const char *, sd_bus_message_handler_t> methods[] = {
		{internal_speaker, hs_dbus_indicate_internal_speaker_active},
		{continuous, hs_dbus_indicate_continuous_audio_disturbance}};
	for (const auto &[name, handler] : methods) {
		const hs_message_ptr message = bed.unsealed_call(chain_path, HS_DBUS_CHAIN_INTERFACE, name);
		EXPECT_EQ(handler(message.get(), record(name), &error), -EPERM);
		EXPECT_STREQ(error.name, "com.orvel.HearSense.Error");
		EXPECT_EQ(error.message, "Error while parsing " + std::string{name} + " method call.");
		sd_bus_error_free(&error);
	}
}

TEST_F(DBusMethods, ACallThatCannotBeAnsweredSaysSoAndDoesNothing)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.transient_count = 0;
	hs_source *source = ear.add_source(node_name);
	private_bus &bus = bed.add_private();
	const auto call = [&](const char *name, const char *types, auto... values) {
		return bus.client.call(chain_path, HS_DBUS_CHAIN_INTERFACE, name, types, values...);
	};
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		keep_calls(bus.server);
		ASSERT_EQ(call(continuous, "b", 1), "");
		ASSERT_TRUE(bus.client.ping());
		ear.told.clear();
		ASSERT_NE(kept, nullptr);
		sd_bus_close(bus.server);

		sd_bus_message_rewind(kept, 1);
		EXPECT_EQ(hs_dbus_indicate_continuous_audio_disturbance(kept, record(continuous, bus.server), &error),
			  -ENOTCONN);
		EXPECT_STREQ(error.message, "Error while replying to IndicateContinuousAudioDisturbance method call.");
		sd_bus_error_free(&error);

		sd_bus_message_rewind(kept, 1);
		EXPECT_EQ(hs_dbus_indicate_internal_speaker_active(kept, record(internal_speaker, bus.server), &error),
			  -ENOTCONN);
		EXPECT_STREQ(error.message, "Error while replying to IndicateInternalSpeakerActive method call.");
		sd_bus_error_free(&error);

		EXPECT_EQ(hs_dbus_indicate_transient_audio_disturbance(kept, record(transient, bus.server), &error),
			  -ENOTCONN);
		EXPECT_STREQ(error.name, "com.orvel.HearSense.Error");
		EXPECT_STREQ(error.message, "Error while replying to IndicateTransientAudioDisturbance method call.");
		sd_bus_message_unref(std::exchange(kept, nullptr));
	});
	EXPECT_EQ(ear.told, strings{});
}

TEST_F(DBusMethods, ARefusalIsSetAsAnErrorAfterTheAnswer)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.transient_count = 0;
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		keep_calls(bed.context->bus);
		ASSERT_EQ(indicate(continuous, "b", 1), "");
		ASSERT_NE(kept, nullptr);
		ear.answer = -EIO;

		sd_bus_message_rewind(kept, 1);
		EXPECT_EQ(hs_dbus_indicate_continuous_audio_disturbance(kept, record(continuous), &error), -1);
		EXPECT_STREQ(error.name, "com.orvel.HearSense.Error");
		EXPECT_STREQ(error.message, "Error while processing IndicateContinuousAudioDisturbance method call.");
		sd_bus_error_free(&error);

		sd_bus_message_rewind(kept, 1);
		EXPECT_EQ(hs_dbus_indicate_internal_speaker_active(kept, record(internal_speaker), &error), -1);
		EXPECT_STREQ(error.message, "Error while processing IndicateInternalSpeakerActive method call.");
		sd_bus_error_free(&error);

		EXPECT_EQ(hs_dbus_indicate_transient_audio_disturbance(kept, record(transient), &error), -1);
		EXPECT_STREQ(error.message, "Error while processing IndicateTransientAudioDisturbance method call.");
		sd_bus_message_unref(std::exchange(kept, nullptr));
	});
}

TEST_F(DBusTrigger, StoresAFixedText)
{
	bed.run([&] {
		hs_source *source = publish_event(true);
		EXPECT_EQ(trigger(), "");
		EXPECT_EQ(source->events[0].value, "{\n  \"Detected\": \"true\"\n  \"Report\": \"true\"\n}");
		EXPECT_EQ(bed.client.get(ear_path, noise, "Noise"), R"(a{sv} ["Detected": b true, "Report": b true])");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusTrigger, SignalsAPublicEvent)
{
	bed.run([&] {
		publish_event(true);
		EXPECT_EQ(trigger(), "");
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"),
			  strings{changed(R"(["Detected": b true, "Report": b true])")});
	});
}

TEST_F(DBusTrigger, AnswersBeforeItSignals)
{
	const sd_bus_message_handler_t on_answer = [](sd_bus_message *, void *data, sd_bus_error *) {
		static_cast<strings *>(data)->emplace_back("answer");
		return 1;
	};
	const sd_bus_message_handler_t on_message = [](sd_bus_message *message, void *data, sd_bus_error *) {
		if (sd_bus_message_is_signal(message, nullptr, "PropertiesChanged"))
			static_cast<strings *>(data)->emplace_back("signal");
		return 0;
	};
	strings heard;
	bed.run([&] {
		publish_event(true);
		ASSERT_TRUE(bed.client.ping());
		sd_bus_slot *slots[2] = {};
		sd_bus_add_filter(bed.client.connection(), &slots[0], on_message, &heard);
		sd_bus_call_method_async(bed.client.connection(), &slots[1], HS_DBUS_SERVICE, ear_path,
					 (noise + ".Methods").c_str(), "TriggerEvent", on_answer, &heard, nullptr);
		const hs_slot_ptr filter{slots[0]};
		const hs_slot_ptr call{slots[1]};
		EXPECT_TRUE(bed.client.wait([&heard] { return heard.size() >= 2; }));
	});
	EXPECT_EQ(heard, (strings{"answer", "signal"}));
}

TEST_F(DBusTrigger, SignalsForACallerWhoWantsNoAnswerToo)
{
	bed.run([&] {
		publish_event(true);
		tell(ear_path, noise + ".Methods", "TriggerEvent");
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"),
			  strings{changed(R"(["Detected": b true, "Report": b true])")});
	});
}

TEST_F(DBusTrigger, DoesNotSignalADisabledEvent)
{
	bed.run([&] {
		hs_source *source = publish_event(true);
		hs_loop_bus_set_event_status(bed.context->loop, bed.context->bus, "Noise", source, false);
		EXPECT_EQ(trigger(), "");
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"), strings{});
	});
}

TEST_F(DBusTrigger, SignalsAPrivateEventWhereItIsEnabled)
{
	private_bus &enabled = bed.add_private();
	private_bus &disabled = bed.add_private();
	bed.run([&] {
		hs_source *source = publish_event(false);
		hs_loop_bus_set_event_status(bed.context->loop, enabled.server, "Noise", source, true);
		EXPECT_EQ(trigger(), "");
		ASSERT_TRUE(bed.client.ping());
		ASSERT_TRUE(enabled.client.ping());
		ASSERT_TRUE(disabled.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"), strings{});
		EXPECT_EQ(enabled.client.contents(ear_path, "PropertiesChanged").size(), 1u);
		EXPECT_EQ(disabled.client.contents(ear_path, "PropertiesChanged"), strings{});
	});
}

TEST_F(DBusTrigger, ClaimsNoReportWhereThePluginHasNone)
{
	bed.run([&] {
		publish_event(true, false);
		EXPECT_EQ(trigger(), "");
		EXPECT_EQ(bed.client.get(ear_path, noise, "Noise"), R"(a{sv} ["Detected": b true, "Report": b false])");
	});
}

TEST_F(DBusTrigger, SaysSoWhereItCannotAnswer)
{
	bed.run([&] {
		hs_source *source = publish_event(true);
		const hs_message_ptr message = bed.unsealed_call(ear_path, noise + ".Methods", "TriggerEvent");
		hs_dbus *method = bed.find_record(bed.context->bus, noise + ".Methods", "TriggerEvent");
		EXPECT_LT(hs_dbus_trigger_event(message.get(), method, &error), 0);
		EXPECT_STREQ(error.name, "com.orvel.HearSense.Error");
		EXPECT_STREQ(error.message, "Error while replying to TriggerEvent method call.");
		/* The value is set before, but not signalled. */
		EXPECT_EQ(source->events[0].value, "{\n  \"Detected\": \"true\"\n  \"Report\": \"true\"\n}");
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"), strings{});
	});
}

TEST_F(DBusTrigger, DoesNothingForATitleWithAPoint)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_source *source = ear.add_source(node_name);
	const char *value = R"({ "Detected": "false" })";
	source->events = {{0, {}, "A.Noise", hs_schema_type_by_name("struct"), "(b)", value}};
	source->event_interfaces = {"com.orvel.HearSense.Events.Ear.A.Noise"};
	source->event_public = {false};
	source->event_published = {false};
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(bed.client.call(ear_path, "com.orvel.HearSense.Events.Ear.A.Noise.Methods", "TriggerEvent"), "");
		EXPECT_TRUE(bed.capture.contains(SPA_LOG_LEVEL_ERROR, "Failed to set value ")) << bed.capture.text();
		EXPECT_TRUE(bed.capture.contains(SPA_LOG_LEVEL_ERROR, " for props title Noise"));
		EXPECT_EQ(source->events[0].value, value);
	});
}
