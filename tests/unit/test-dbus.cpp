#include "dbus.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "bus-bed.hpp"
#include "failing-new.hpp"
#include "refcount.hpp"

namespace {

using strings = std::vector<std::string>;

constexpr char node_name[] = "AudioDevice0Input0.Unprocessed";
constexpr char chain_path[] = "/com/orvel/HearSense/AudioDevice0Input0";
constexpr char node_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed";
constexpr char ear_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Ear";
constexpr char ear_settings[] = "com.orvel.HearSense.Settings.Ear";
constexpr char noise_interface[] = "com.orvel.HearSense.Events.Ear.Noise";
constexpr char crack_interface[] = "com.orvel.HearSense.Events.Ear.Crack";

class DBus : public testing::Test
{
protected:
	using private_bus = hs_bus_bed::private_bus;

	/** A plug-in with a public event "Noise" and a private one, "Crack". */
	hs_paper_plugin &add_ear()
	{
		hs_paper_plugin &ear = bed.add_plugin("Ear");
		ear.add_event({.title = "Noise", .is_public = true});
		ear.add_event({.title = "Crack"});
		return ear;
	}

	void set_status(sd_bus *bus, const char *title, hs_source *source, bool enabled)
	{
		hs_loop_bus_set_event_status(bed.context->loop, bus, title, source, enabled);
	}

	std::string change(const std::string &interface, const std::string &member)
	{
		return "\"" + interface + "\", [" + member + "], []";
	}

	size_t errors(const std::string &text)
	{
		return bed.capture.count(SPA_LOG_LEVEL_ERROR, text);
	}

	/** The members that every event has beside its value. */
	static strings event_members(const std::string &interface)
	{
		strings all;
		for (const char *member :
		     {"Source o const", "EventName s const", "NiceName s const", "isDeprecated b const",
		      "isApplicationData b const", "isPropertyState b const", "Topic0Name s const",
		      "Topic0Namespace s const", "Topic0NiceName s const", "Topic1Name s const",
		      "Topic1Namespace s const", "Topic1NiceName s const", "Topic2Name s const",
		      "Topic2Namespace s const", "Topic2NiceName s const", "EnableEvent b writable",
		      "DataTypes a{sv} const"})
			all.push_back(interface + "." + member);
		return all;
	}

	/** The members that have a record, in order of registration, such as "main com.orvel.HearSense.Source.Id". */
	strings registered() const
	{
		strings all;
		hs_dbus *dbus;
		spa_list_for_each(dbus, &bed.context->dbus_objects, link) {
			const bool is_main = sd_bus_slot_get_bus(dbus->slot) == bed.context->bus;
			all.push_back((is_main ? "main " : "private ") + dbus->interface + "." + dbus->name);
		}
		return all;
	}

	/** The members of one interface at that path. */
	static strings members_of(hs_bus_client &client, const std::string &path, const std::string &interface)
	{
		strings all = hs_bus_bed::members(client, path);
		const auto is_other = [&interface](const std::string &member) {
			const std::string name = member.substr(0, member.find_first_of(" ("));
			return name.substr(0, name.rfind('.')) != interface;
		};
		all.erase(std::remove_if(all.begin(), all.end(), is_other), all.end());
		return all;
	}

	hs_bus_bed bed;
};

using DBusDeathTest = DBus;

} // namespace

TEST_F(DBus, GetPrivateBusIsAtTheRootOfTheMainBus)
{
	private_bus &bus = bed.add_private();
	ASSERT_TRUE(hs_dbus_init_private_bus());
	bed.run([&] {
		EXPECT_EQ(bed.members(bed.client, "/"), strings{"com.orvel.HearSense.GetPrivateBus(s)h"});
		EXPECT_EQ(bed.members(bus.client, "/"), strings{});
		/* sd-bus knows the signature. */
		EXPECT_EQ(bed.client.call("/", HS_DBUS_SERVICE, "GetPrivateBus").rfind(SD_BUS_ERROR_INVALID_ARGS, 0), 0u);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, GetPrivateBusCanBePublishedOnceOnly)
{
	ASSERT_TRUE(hs_dbus_init_private_bus());
	EXPECT_FALSE(hs_dbus_init_private_bus());
	EXPECT_EQ(errors("Could not add method GetPrivateBus to /"), 1u) << bed.capture.text();
	bed.run([&] {
		EXPECT_EQ(bed.members(bed.client, "/"), strings{"com.orvel.HearSense.GetPrivateBus(s)h"});
	});
}

TEST_F(DBus, TheNodeIsAnObjectOnEveryBus)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		for (sd_bus *b : {bed.context->bus, bus.server})
			EXPECT_TRUE(hs_dbus_setup_source_interface(source, b));
		const strings expected{"com.orvel.HearSense.Source.Id s const",
				       "com.orvel.HearSense.Source.AudioChain o const"};
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			EXPECT_EQ(bed.members(*client, node_path), expected);
			EXPECT_EQ(client->get(node_path, HS_DBUS_SOURCE_INTERFACE, "Id"),
				  "s \"AudioDevice0Input0.Unprocessed\"");
			EXPECT_EQ(client->get(node_path, HS_DBUS_SOURCE_INTERFACE, "AudioChain"),
				  "o \"" + std::string{chain_path} + "\"");
			EXPECT_EQ(client->count_objects("InterfacesAdded", node_path), 1u);
		}
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, TheDeviceIsAnObjectOnEveryBus)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		for (sd_bus *b : {bed.context->bus, bus.server})
			EXPECT_TRUE(hs_dbus_setup_audio_chain_interface(source, b));
		strings expected;
		for (const char *member :
		     {"IndicateInternalSpeakerActive(b) no reply", "IndicateContinuousAudioDisturbance(b) no reply",
		      "IndicateTransientAudioDisturbance() no reply", "Id s const", "NiceName s const",
		      "Direction s const"})
			expected.push_back(std::string{HS_DBUS_CHAIN_INTERFACE} + "." + member);
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			strings found = bed.members(*client, chain_path);
			std::sort(found.begin(), found.end());
			std::sort(expected.begin(), expected.end());
			EXPECT_EQ(found, expected);
			EXPECT_EQ(client->get(chain_path, HS_DBUS_CHAIN_INTERFACE, "Id"), "s \"AudioDevice0Input0\"");
			EXPECT_EQ(client->count_objects("InterfacesAdded", chain_path), 1u);
		}
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, ASecondPluginOnANodeFindsTheSharedObjectsPublished)
{
	hs_source *first = add_ear().add_source(node_name);
	hs_source *second = bed.add_plugin("Nose").add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(first));
		const size_t before = bed.count_records();
		EXPECT_TRUE(bed.publish_shared(second));
		EXPECT_EQ(bed.count_records(), before);
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			ASSERT_TRUE(client->ping());
			EXPECT_EQ(client->count_objects("InterfacesAdded", node_path), 1u);
			EXPECT_EQ(client->count_objects("InterfacesAdded", chain_path), 1u);
			EXPECT_EQ(bed.members(*client, node_path).size(), 2u);
			EXPECT_EQ(bed.members(*client, chain_path).size(), 6u);
		}
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, SharedObjectsAreRegisteredInTheirOrder)
{
	hs_source *source = add_ear().add_source(node_name);
	bed.run([&] { ASSERT_TRUE(bed.publish_shared(source)); });
	strings expected;
	for (const char *member :
	     {"AudioChain.Id", "AudioChain.NiceName", "AudioChain.Direction",
	      "AudioChain.IndicateInternalSpeakerActive", "AudioChain.IndicateContinuousAudioDisturbance",
	      "AudioChain.IndicateTransientAudioDisturbance", "Source.Id", "Source.AudioChain"})
		expected.push_back("main com.orvel.HearSense." + std::string{member});
	EXPECT_EQ(registered(), expected);
}

TEST_F(DBus, AMethodOfADeviceThatCannotBeRegisteredIsPassedOver)
{
	hs_source *source = add_ear().add_source(node_name);
	static const sd_bus_vtable taken[] = {
		SD_BUS_VTABLE_START(0),
		SD_BUS_METHOD("IndicateInternalSpeakerActive", nullptr, nullptr, nullptr, 0),
		SD_BUS_VTABLE_END,
	};
	bed.run([&] {
		sd_bus *bus = bed.context->bus;
		ASSERT_GE(sd_bus_add_object_vtable(bus, nullptr, chain_path, HS_DBUS_CHAIN_INTERFACE, taken, nullptr),
			  0);
		EXPECT_TRUE(hs_dbus_setup_audio_chain_interface(source, bus));
		EXPECT_EQ(bed.members(bed.client, chain_path).size(), 6u);
		EXPECT_EQ(bed.client.count_objects("InterfacesAdded", chain_path), 1u);
	});
	EXPECT_EQ(bed.count_records(), 5u);
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, ASharedObjectThatFailsHalfWayIsNotAnnounced)
{
	hs_source *source = add_ear().add_source(node_name);
	source->device_path = "/no-path";
	bed.run([&] {
		EXPECT_FALSE(hs_dbus_setup_source_interface(source, bed.context->bus));
		EXPECT_EQ(bed.members(bed.client, node_path), strings{"com.orvel.HearSense.Source.Id s const"});
		EXPECT_EQ(bed.client.count_objects("InterfacesAdded", node_path), 0u);
	});
	EXPECT_EQ(bed.count_records(), 1u);
	EXPECT_EQ(bed.capture.complaints(), 1u) << bed.capture.text();
}

TEST_F(DBus, ASharedObjectThatCannotBeRegisteredStopsAtItsFirstMember)
{
	hs_source *source = add_ear().add_source(node_name);
	source->node_path = "/no-path";
	source->device_path = "/no-path";
	EXPECT_FALSE(hs_dbus_setup_source_interface(source, bed.context->bus));
	EXPECT_EQ(errors("Failed to setup dbus source interface /no-path, com.orvel.HearSense.Source, Id with error: "
			 "Invalid argument"),
		  1u)
		<< bed.capture.text();
	EXPECT_FALSE(hs_dbus_setup_audio_chain_interface(source, bed.context->bus));
	EXPECT_EQ(errors("Failed to setup dbus source interface /no-path, com.orvel.HearSense.AudioChain, Id with error: "
			 "Invalid argument"),
		  1u)
		<< bed.capture.text();
	EXPECT_EQ(bed.capture.complaints(), 2u) << bed.capture.text();
	EXPECT_EQ(bed.count_records(), 0u);
}

TEST_F(DBus, ASharedObjectThatCannotBeAnnouncedIsThereAllTheSame)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private(false);
	bed.run([&] {
		EXPECT_TRUE(hs_dbus_setup_source_interface(source, bus.server));
		EXPECT_TRUE(hs_dbus_setup_audio_chain_interface(source, bus.server));
		EXPECT_EQ(bed.members(bus.client, node_path).size(), 2u);
		EXPECT_EQ(bed.members(bus.client, chain_path).size(), 6u);
	});
	EXPECT_EQ(errors("Failed to emit interfaces for path " + std::string{node_path} + ": "), 1u)
		<< bed.capture.text();
	EXPECT_EQ(errors("Failed to emit interfaces for path " + std::string{chain_path} + ": "), 1u);
	EXPECT_EQ(bed.capture.complaints(), 2u);
}

TEST_F(DBus, AnInstanceTellsItsNodeOnEveryBus)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			EXPECT_EQ(members_of(*client, ear_path, HS_DBUS_INSTANCE_INTERFACE),
				  strings{"com.orvel.HearSense.PluginInstance.Source o const"});
			EXPECT_EQ(client->get(ear_path, HS_DBUS_INSTANCE_INTERFACE, "Source"),
				  "o \"" + std::string{node_path} + "\"");
			ASSERT_TRUE(client->ping());
			EXPECT_EQ(client->count_objects("InterfacesAdded", ear_path), 1u);
		}
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, ANodeWithoutAPointIsProcessed)
{
	hs_source *source = add_ear().add_source("Mic");
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(bed.client.get("/com/orvel/HearSense/Mic/Processed", HS_DBUS_SOURCE_INTERFACE, "AudioChain"),
			  "o \"/com/orvel/HearSense/Mic\"");
		EXPECT_EQ(bed.client.get("/com/orvel/HearSense/Mic", HS_DBUS_CHAIN_INTERFACE, "Id"), "s \"Mic\"");
		EXPECT_EQ(bed.client.get("/com/orvel/HearSense/Mic/Processed/Ear", HS_DBUS_INSTANCE_INTERFACE, "Source"),
			  "o \"/com/orvel/HearSense/Mic/Processed\"");
	});
}

TEST_F(DBus, ANodeWhoseDeviceHasNoObjectPathDoesNotSpoilTheTree)
{
	hs_paper_plugin &ear = add_ear();
	hs_source *source = ear.add_source("Mic-1");
	hs_source *other = ear.add_source(node_name);
	bed.run([&] {
		EXPECT_FALSE(bed.publish_shared(source));
		EXPECT_TRUE(hs_dbus_setup_plugin_interfaces(source));
		ASSERT_TRUE(bed.publish(other));
		EXPECT_EQ(bed.client.get("/com/orvel/HearSense/Mic_1/Processed", HS_DBUS_SOURCE_INTERFACE, "Id"),
			  "s \"Mic-1\"");
		const std::string tree = bed.client.call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects");
		EXPECT_NE(tree.find("\"/com/orvel/HearSense/Mic_1/Processed/Ear\": ["), std::string::npos) << tree;
		EXPECT_NE(tree.find("\"" + std::string{ear_path} + "\": ["), std::string::npos) << tree;
	});
	for (const char *member : {"/com/orvel/HearSense/Mic-1, com.orvel.HearSense.AudioChain, Id",
				   "/com/orvel/HearSense/Mic_1/Processed, com.orvel.HearSense.Source, AudioChain"})
		EXPECT_EQ(errors("Failed to setup dbus source interface " + std::string{member} +
				 " with error: Invalid argument"),
			  1u)
			<< bed.capture.text();
}

TEST_F(DBus, SettingsAreWritableAndOnTheMainBusOnly)
{
	hs_paper_plugin &ear = add_ear();
	ear.add_setting({.title = "Enable", .type = "boolean", .value = "true"});
	ear.add_setting({.title = "Count", .type = "uint32", .value = "1"});
	ear.add_setting({.title = "Offset", .type = "int32", .value = "-1"});
	ear.add_setting({.title = "Long", .type = "int64", .value = "2"});
	ear.add_setting({.title = "Gain", .type = "float", .value = "0.5"});
	ear.add_setting({.title = "Level", .type = "double", .value = "0.25"});
	ear.add_setting({.title = "Word", .type = "string", .value = "yes"});
	hs_source *source = ear.add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		strings expected;
		for (const char *member : {"Schema s const", "Enable b writable", "Count u writable", "Offset i writable",
					   "Long x writable", "Gain d writable", "Level d writable", "Word s writable"})
			expected.push_back(std::string{ear_settings} + "." + member);
		EXPECT_EQ(members_of(bed.client, ear_path, ear_settings), expected);
		EXPECT_EQ(members_of(bus.client, ear_path, ear_settings), strings{});
		EXPECT_EQ(bed.client.call(ear_path, "org.freedesktop.DBus.Properties", "GetAll", "s", ear_settings),
			  "[\"Schema\": s \"\", \"Enable\": b true, \"Count\": u 1, \"Offset\": i -1, \"Long\": x 2, "
			  "\"Gain\": d 0.5, \"Level\": d 0.25, \"Word\": s \"yes\"]");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, ASettingWithoutAScalarTypeIsReportedAndTheOthersArePublished)
{
	hs_paper_plugin &ear = add_ear();
	ear.add_setting({.title = "List", .type = "array", .value = "[ 1 ]", .complex_type = "ai"});
	ear.add_setting({.title = "Pair", .type = "struct", .value = "{ }", .complex_type = "(bb)"});
	ear.add_setting({.title = "Naked", .type = "array", .value = "[ 1 ]"});
	ear.add_setting({.title = "Odd", .type = "odd"});
	ear.add_setting({.title = "None", .type = ""});
	ear.add_setting({.title = "no name", .type = "boolean"});
	ear.add_setting({.title = "Last", .type = "boolean"});
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		EXPECT_TRUE(bed.publish(source));
		for (const char *name : {"List", "Pair", "Naked", "Odd", "None", "no name"})
			EXPECT_EQ(errors("Failed to setup dbus setting " + std::string{ear_path} + ", " + ear_settings + ", " +
					 name + " with error: Invalid argument"),
				  1u)
				<< bed.capture.text();
		EXPECT_EQ(members_of(bed.client, ear_path, ear_settings),
			  (strings{std::string{ear_settings} + ".Schema s const",
				   std::string{ear_settings} + ".Last b writable"}));
	});
	EXPECT_EQ(bed.capture.complaints(), 6u) << bed.capture.text();
}

TEST_F(DBus, WhatHasNoTitleIsNoSetting)
{
	hs_paper_plugin &ear = add_ear();
	hs_source *source = ear.add_source(node_name);
	pw_properties_set(source->settings, "$schema", "/schemas/settings.json");
	pw_properties_set(source->settings, "path", "/settings/Ear.conf");
	hs_props_add_object(source->settings, {{"name", "untitled"}, {"type", "boolean"}, {"value", "true"}});
	bed.run([&] {
		EXPECT_TRUE(bed.publish(source));
		EXPECT_EQ(members_of(bed.client, ear_path, ear_settings),
			  strings{std::string{ear_settings} + ".Schema s const"});
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, PublicEventsAreOnTheMainBusAndOthersOnPrivateBuses)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &first = bed.add_private();
	private_bus &second = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const auto with_value = [](const std::string &interface, const char *value) {
			strings all = event_members(interface);
			all.insert(all.begin(), interface + "." + value);
			return all;
		};
		EXPECT_EQ(members_of(bed.client, ear_path, noise_interface), with_value(noise_interface, "Noise b"));
		EXPECT_EQ(members_of(bed.client, ear_path, crack_interface), strings{});
		for (hs_bus_client *client : {&first.client, &second.client}) {
			EXPECT_EQ(members_of(*client, ear_path, noise_interface), strings{});
			EXPECT_EQ(members_of(*client, ear_path, crack_interface), with_value(crack_interface, "Crack b"));
		}
		EXPECT_EQ(bed.client.get(ear_path, noise_interface, "Source"), "o \"" + std::string{node_path} + "\"");
		EXPECT_EQ(first.client.get(ear_path, crack_interface, "EventName"), "s \"Crack\"");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

struct typed_event {
	const char *title;
	const char *type;
	const char *value;
	const char *complex_type;
	const char *text;
};
constexpr typed_event events_of_every_type[] = {
	{"Bool", "boolean", "true", "", "b true"},
	{"Unsigned", "uint32", "7", "", "u 7"},
	{"Int", "int32", "-7", "", "i -7"},
	{"Long", "int64", "8", "", "x 8"},
	{"Float", "float", "0.5", "", "d 0.5"},
	{"Double", "double", "1.5", "", "d 1.5"},
	{"Text", "string", "word", "", "s \"word\""},
	{"List", "array", "[ 1, 2 ]", "ai", "ai [1, 2]"},
	{"Words", "array", "[ one, two ]", "as", "as [\"one\", \"two\"]"},
	{"Pair", "struct", "{ \"A\": \"true\", \"B\": \"3\" }", "(bu)", "a{sv} [\"A\": b true, \"B\": u 3]"},
};

TEST_F(DBus, EventsOfEveryTypeArePublished)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	for (const typed_event &event : events_of_every_type)
		ear.add_event({.title = event.title,
			       .type = event.type,
			       .value = event.value,
			       .complex_type = event.complex_type,
			       .is_public = true});
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		for (const typed_event &event : events_of_every_type)
			EXPECT_EQ(bed.client.get(ear_path, std::string{HS_DBUS_EVENTS_PREFIX} + "Ear." + event.title,
						 event.title),
				  event.text);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, PublicEventsAreEnabledOnTheMainBusAndOthersNowhere)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(source->consumers, 1u);
		EXPECT_EQ(bed.client.get(ear_path, noise_interface, "EnableEvent"), "b true");
		EXPECT_EQ(bus.client.get(ear_path, crack_interface, "EnableEvent"), "b false");
	});
}

TEST_F(DBus, AnEventThatCannotBePublishedIsReportedAndAPublicOneStillCounts)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_event({.title = "no name", .is_public = true});
	ear.add_event({.title = "No_Type", .type = "struct"});
	ear.add_event({.title = "Last", .is_public = true});
	hs_source *source = ear.add_source(node_name);
	bed.add_private();
	bed.run([&] {
		EXPECT_TRUE(bed.publish(source));
		EXPECT_EQ(errors("Failed to setup dbus event " + std::string{ear_path} +
				 ", com.orvel.HearSense.Events.Ear.no name, no name with error: Invalid argument"),
			  1u)
			<< bed.capture.text();
		EXPECT_EQ(errors("Failed to setup private dbus event: " + std::string{ear_path} +
				 ", com.orvel.HearSense.Events.Ear.No_Type, No_Type with error: Invalid argument"),
			  1u)
			<< bed.capture.text();
		EXPECT_EQ(bed.capture.complaints(), 2u);
		EXPECT_EQ(source->consumers, 2u);
		EXPECT_EQ(bed.client.get(ear_path, "com.orvel.HearSense.Events.Ear.Last", "Last"), "b false");
	});
}

TEST_F(DBus, AnEventThatCannotBePublishedHasNoPropertiesEither)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_event({.title = "Open", .type = "struct", .is_public = true});
	ear.add_event({.title = "Closed", .type = "struct"});
	hs_source *source = ear.add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(members_of(bed.client, ear_path, "com.orvel.HearSense.Events.Ear.Open"), strings{});
		EXPECT_EQ(members_of(bus.client, ear_path, "com.orvel.HearSense.Events.Ear.Closed"), strings{});
	});
	EXPECT_EQ(bed.capture.complaints(), 2u) << bed.capture.text();
}

TEST_F(DBus, AnEventNamedLikeOneOfItsPropertiesIsReported)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_event({.title = "NiceName", .type = "string", .value = "mine", .is_public = true});
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		EXPECT_TRUE(bed.publish(source));
		EXPECT_EQ(errors("Failed to setup dbus property " + std::string{ear_path} +
				 ", com.orvel.HearSense.Events.Ear.NiceName, NiceName with error: File exists"),
			  1u)
			<< bed.capture.text();
		EXPECT_EQ(bed.client.get(ear_path, "com.orvel.HearSense.Events.Ear.NiceName", "NiceName"), "s \"mine\"");
	});
}

TEST_F(DBus, EventsThatTellADetectionCanBeTriggeredOnTheMainBus)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	const hs_paper_event event{.title = "",
				   .type = "struct",
				   .value = R"({ "Detected": "false", "Report": "false" })",
				   .complex_type = "(bb)",
				   .members = {"Detected", "Report"}};
	for (const bool is_public : {true, false}) {
		hs_paper_event one = event;
		one.title = is_public ? "Open" : "Closed";
		one.is_public = is_public;
		ear.add_event(one);
	}
	ear.add_event({.title = "Plain", .is_public = true});
	ear.add_event({.title = "Text", .type = "string", .value = "not Detected", .is_public = true});
	hs_source *source = ear.add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const std::string prefix = std::string{HS_DBUS_EVENTS_PREFIX} + "Ear.";
		for (const char *title : {"Open", "Closed", "Text"}) {
			const std::string interface = prefix + title + ".Methods";
			EXPECT_EQ(members_of(bed.client, ear_path, interface), strings{interface + ".TriggerEvent() no reply"});
		}
		EXPECT_EQ(members_of(bed.client, ear_path, prefix + "Plain.Methods"), strings{});
		for (const char *title : {"Open", "Closed", "Text", "Plain"})
			EXPECT_EQ(members_of(bus.client, ear_path, prefix + title + ".Methods"), strings{});
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, ATriggerThatCannotBePublishedStopsTheInstance)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_event({.title = "no name", .type = "string", .value = "Detected", .is_public = true});
	ear.add_event({.title = "Last", .is_public = true});
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		EXPECT_FALSE(bed.publish(source));
		EXPECT_EQ(members_of(bed.client, ear_path, "com.orvel.HearSense.Events.Ear.Last"), strings{});
		EXPECT_EQ(bed.client.count_objects("InterfacesAdded", ear_path), 0u);
		EXPECT_FALSE(source->holds_paths);
	});
	EXPECT_EQ(bed.context->object_path_counts->dict.n_items, 0u);
}

TEST_F(DBus, AnInstanceWithoutEventsIsPublishedToo)
{
	hs_source *source = bed.add_plugin("Ear").add_source(node_name);
	source->events.clear();
	bed.run([&] {
		EXPECT_TRUE(bed.publish(source));
		EXPECT_EQ(bed.client.get(ear_path, HS_DBUS_INSTANCE_INTERFACE, "Source"),
			  "o \"" + std::string{node_path} + "\"");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, TheAnnouncementOfAnInstanceHoldsAllItsInterfaces)
{
	hs_paper_plugin &ear = add_ear();
	ear.add_setting({.title = "Enable"});
	hs_source *source = ear.add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			ASSERT_TRUE(client->ping());
			const strings added = client->contents("/", "InterfacesAdded");
			ASSERT_EQ(added.size(), 3u);
			const std::string &text = added.back();
			const bool is_main = client == &bed.client;
			EXPECT_NE(text.find("\"com.orvel.HearSense.PluginInstance\": [\"Source\""), std::string::npos) << text;
			EXPECT_EQ(text.find("\"Enable\": b false") != std::string::npos, is_main) << text;
			EXPECT_EQ(text.find("\"Noise\": b false") != std::string::npos, is_main) << text;
			EXPECT_EQ(text.find("\"Crack\": b false") != std::string::npos, !is_main) << text;
		}
	});
}

TEST_F(DBus, AnInstanceThatCannotBeAnnouncedOnAPrivateBusIsOnTheMainBus)
{
	hs_source *source = add_ear().add_source(node_name);
	bed.add_private(false);
	bed.run([&] {
		EXPECT_TRUE(hs_dbus_setup_plugin_interfaces(source));
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.count_objects("InterfacesAdded", ear_path), 1u);
	});
	EXPECT_EQ(errors("Failed to emit interfaces on private bus for path " + std::string{ear_path} + ": "), 1u)
		<< bed.capture.text();
	EXPECT_EQ(bed.capture.complaints(), 1u);
}

TEST_F(DBus, AnInstanceIsRegisteredInItsOrder)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_setting({.title = "Gain"});
	ear.add_setting({.title = "Depth"});
	ear.add_event({.title = "Crack"});
	ear.add_event({.title = "Noise", .type = "string", .value = "Detected", .is_public = true});
	hs_source *source = ear.add_source(node_name);
	bed.add_private();
	strings found;
	bed.run([&] {
		ASSERT_TRUE(hs_dbus_setup_plugin_interfaces(source));
		found = registered();
	});
	strings expected{"main com.orvel.HearSense.PluginInstance.Source",
			 "private com.orvel.HearSense.PluginInstance.Source",
			 "main com.orvel.HearSense.Settings.Ear.Schema", "main com.orvel.HearSense.Settings.Ear.Gain",
			 "main com.orvel.HearSense.Settings.Ear.Depth"};
	const auto expect_event = [&expected](const std::string &interface, const std::string &title) {
		expected.push_back(interface + "." + title);
		for (const std::string &member : event_members(interface))
			expected.push_back(member.substr(0, member.find(' ', interface.size())));
	};
	expect_event("private " + std::string{crack_interface}, "Crack");
	expect_event("main " + std::string{noise_interface}, "Noise");
	expected.push_back("main " + std::string{noise_interface} + ".Methods.TriggerEvent");
	EXPECT_EQ(found, expected);
}

TEST_F(DBus, AnInstanceIsAnnouncedOnPrivateBusesFirstAndCountsThoughNobodyHears)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_event({.title = "Bad", .type = "uint32", .value = "-1294967296", .is_public = true});
	hs_source *source = ear.add_source(node_name);
	bed.add_private(false);
	bed.run([&] { EXPECT_TRUE(hs_dbus_setup_plugin_interfaces(source)); });
	strings failures;
	for (const hs_log_capture::line &line : bed.capture.lines()) {
		if (line.level == SPA_LOG_LEVEL_ERROR)
			failures.push_back(line.text.substr(0, line.text.find(" for path ")));
	}
	EXPECT_EQ(failures,
		  (strings{"Failed to emit interfaces on private bus", "Failed to emit interfaces on main bus"}));
	EXPECT_EQ(hs_refcount_get(bed.context->object_path_counts, node_path), 1u);
	EXPECT_EQ(hs_refcount_get(bed.context->object_path_counts, chain_path), 1u);
}

TEST_F(DBus, AnAnnouncementThatFailsOnTheMainBusIsReported)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	/* A value that cannot be read makes the whole announcement fail. */
	ear.add_event({.title = "Bad", .type = "uint32", .value = "-1294967296", .is_public = true});
	hs_source *source = ear.add_source(node_name);
	bed.run([&] { EXPECT_TRUE(hs_dbus_setup_plugin_interfaces(source)); });
	EXPECT_EQ(errors("Failed to emit interfaces on main bus for path " + std::string{ear_path} + ": "), 1u)
		<< bed.capture.text();
	EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_WARN, "Failed to parse \"value\"=\"-1294967296\" as uint32"), 1u);
	EXPECT_EQ(bed.capture.complaints(), 2u);
}

TEST_F(DBus, EveryInstanceCountsOnItsNodeAndItsDevice)
{
	hs_source *first = add_ear().add_source(node_name);
	hs_source *second = bed.add_plugin("Nose").add_source(node_name);
	hs_source *third = bed.add_plugin("Eye").add_source("AudioDevice0Input0.Other");
	bed.run([&] {
		for (hs_source *source : {first, second, third}) {
			EXPECT_FALSE(source->holds_paths);
			ASSERT_TRUE(bed.publish(source));
			EXPECT_TRUE(source->holds_paths);
		}
	});
	EXPECT_EQ(hs_refcount_get(bed.context->object_path_counts, node_path), 2u);
	EXPECT_EQ(hs_refcount_get(bed.context->object_path_counts, "/com/orvel/HearSense/AudioDevice0Input0/Other"), 1u);
	EXPECT_EQ(hs_refcount_get(bed.context->object_path_counts, chain_path), 3u);
}

TEST_F(DBus, AnInstanceWhoseNameIsTakenIsNotPublishedAndDoesNotCount)
{
	hs_source *first = add_ear().add_source(node_name);
	hs_source *twin = bed.add_plugin("Ear").add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(first));
		EXPECT_FALSE(bed.publish(twin));
		EXPECT_FALSE(twin->holds_paths);
	});
	EXPECT_EQ(errors("Failed to setup dbus property " + std::string{ear_path} +
			 ", com.orvel.HearSense.PluginInstance, Source with error: File exists"),
		  1u)
		<< bed.capture.text();
	EXPECT_EQ(errors("Could not set up D-Bus Plugin Instance interface on system bus for source "
			 "'AudioDevice0Input0.Unprocessed'"),
		  1u);
	EXPECT_EQ(errors("Failed to setup dbus property " + std::string{ear_path} + ", " + ear_settings +
			 ", Schema with error: File exists"),
		  1u);
	EXPECT_EQ(bed.capture.complaints(), 3u) << bed.capture.text();
	EXPECT_EQ(hs_refcount_get(bed.context->object_path_counts, node_path), 1u);
	EXPECT_EQ(hs_refcount_get(bed.context->object_path_counts, chain_path), 1u);
}

TEST_F(DBus, AnInstanceInterfaceThatFailsOnAPrivateBusDoesNotStopTheRest)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(hs_dbus_setup_plugin_instance_interface(source, bus.server));
		EXPECT_TRUE(bed.publish(source));
		EXPECT_EQ(errors("Could not set up D-Bus Plugin Instance interface on system bus for source "
				 "'AudioDevice0Input0.Unprocessed'"),
			  1u)
			<< bed.capture.text();
		EXPECT_EQ(bus.client.get(ear_path, crack_interface, "Crack"), "b false");
		EXPECT_EQ(bed.client.get(ear_path, noise_interface, "Noise"), "b false");
	});
}

TEST_F(DBus, GetManagedObjectsListsTheWholeTree)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			const std::string tree = client->call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects");
			for (const char *path : {chain_path, node_path, ear_path})
				EXPECT_NE(tree.find("\"" + std::string{path} + "\": ["), std::string::npos) << tree;
		}
	});
}

TEST_F(DBus, APublicEventIsSignalledOnTheMainBusOnly)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_events_set_value(source->events, "Noise", "true");
		hs_dbus_emit_event(source, "Noise", false);
		ASSERT_TRUE(bed.client.ping());
		ASSERT_TRUE(bus.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"),
			  strings{change(noise_interface, "\"Noise\": b true")});
		EXPECT_EQ(bus.client.contents(ear_path, "PropertiesChanged"), strings{});
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, ADisabledPublicEventIsSignalledByForceOnly)
{
	hs_source *source = add_ear().add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		set_status(bed.context->bus, "Noise", source, false);
		hs_dbus_emit_event(source, "Noise", false);
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged").size(), 0u);
		hs_dbus_emit_event(source, "Noise", true);
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged").size(), 1u);
	});
}

TEST_F(DBus, APrivateEventIsSignalledWhereItIsEnabled)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &first = bed.add_private();
	private_bus &second = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const auto n_signals = [&](private_bus &bus) {
			EXPECT_TRUE(bus.client.ping());
			return bus.client.contents(ear_path, "PropertiesChanged").size();
		};
		hs_dbus_emit_event(source, "Crack", false);
		EXPECT_EQ(n_signals(first) + n_signals(second), 0u);

		set_status(second.server, "Crack", source, true);
		hs_dbus_emit_event(source, "Crack", false);
		EXPECT_EQ(n_signals(first), 0u);
		EXPECT_EQ(second.client.contents(ear_path, "PropertiesChanged"), strings{});
		EXPECT_EQ(n_signals(second), 1u);
		EXPECT_EQ(second.client.contents(ear_path, "PropertiesChanged"),
			  strings{change(crack_interface, "\"Crack\": b false")});

		hs_dbus_emit_event(source, "Crack", true);
		EXPECT_EQ(n_signals(first), 1u);
		EXPECT_EQ(n_signals(second), 2u);
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"), strings{});
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, EventsOfEveryTypeAreSignalledAsSdBusWouldSignalThem)
{
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	for (const typed_event &event : events_of_every_type)
		ear.add_event({.title = event.title,
			       .type = event.type,
			       .value = event.value,
			       .complex_type = event.complex_type});
	hs_source *source = ear.add_source(node_name);
	private_bus *buses[] = {&bed.add_private(), &bed.add_private(), &bed.add_private()};
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		for (const typed_event &event : events_of_every_type) {
			for (private_bus *bus : buses)
				set_status(bus->server, event.title, source, true);
			hs_dbus_emit_event(source, event.title, false);
			const std::string interface = std::string{HS_DBUS_EVENTS_PREFIX} + "Ear." + event.title;
			for (private_bus *bus : buses) {
				sd_bus_emit_properties_changed(bus->server, ear_path, interface.c_str(), event.title, nullptr);
				ASSERT_TRUE(bus->client.ping());
				const strings both = bus->client.contents(ear_path, "PropertiesChanged");
				bus->client.forget_signals();
				ASSERT_EQ(both.size(), 2u);
				EXPECT_EQ(both[0], both[1]);
				EXPECT_EQ(both[0], change(interface, "\"" + std::string{event.title} + "\": " + event.text));
			}
		}
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, AnEventThatOneBusLacksIsSignalledOnTheOthersAndWarnedOfEachTime)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &whole = bed.add_private();
	private_bus &lacking = bed.add_private();
	int value = 0;
	static const sd_bus_vtable taken[] = {
		SD_BUS_VTABLE_START(0),
		SD_BUS_PROPERTY("Crack", "b", nullptr, 0, SD_BUS_VTABLE_PROPERTY_CONST),
		SD_BUS_VTABLE_END,
	};
	bed.run([&] {
		sd_bus_add_object_vtable(lacking.server, nullptr, ear_path, crack_interface, taken, &value);
		ASSERT_TRUE(bed.publish(source));
		bed.capture.clear();
		for (int i = 0; i < 2; ++i)
			hs_dbus_emit_event(source, "Crack", true);
		ASSERT_TRUE(whole.client.ping());
		EXPECT_EQ(whole.client.contents(ear_path, "PropertiesChanged").size(), 2u);
		EXPECT_EQ(bed.capture.complaints(), 2u) << bed.capture.text();
	});
}

TEST_F(DBus, AnUnknownEventIsNotSignalled)
{
	hs_source *source = add_ear().add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_dbus_emit_event(source, "Other", true);
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"), strings{});
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, NothingIsSignalledOnAMainBusThatIsNotAttached)
{
	hs_source *source = add_ear().add_source(node_name);
	bed.run([&] { ASSERT_TRUE(bed.publish(source)); });
	hs_dbus_emit_event(source, "Noise", true);
	bed.run([&] {
		ASSERT_TRUE(bed.client.ping());
		EXPECT_EQ(bed.client.contents(ear_path, "PropertiesChanged"), strings{});
	});
}

TEST_F(DBus, ASignalThatFailsIsWarnedOfOnPrivateBusesOnly)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		/* Nothing is registered. */
		hs_dbus_emit_event(source, "Noise", true);
		EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
		hs_dbus_emit_event(source, "Crack", true);
		char pointer[32];
		std::snprintf(pointer, sizeof(pointer), "%p", static_cast<void *>(bus.server));
		EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_WARN, "Could not emit signal on private bus " +
									std::string{pointer} + ", path " + ear_path +
									", interface " + crack_interface +
									", property Crack: No such file or directory"),
			  1u)
			<< bed.capture.text();
		EXPECT_EQ(bed.capture.complaints(), 1u);
	});
}

TEST_F(DBus, ASignalToAClientThatHasLeftIsNoComplaint)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		sd_bus_close(bus.server);
		hs_dbus_emit_event(source, "Crack", true);
		/* Nor is its value read, which would be one. */
		hs_events_set_value(source->events, "Crack", "perhaps");
		hs_dbus_emit_event(source, "Crack", true);
		EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
	});
}

TEST_F(DBus, DestroyingARecordTakesItsMemberOffTheBus)
{
	hs_source *source = add_ear().add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_dbus *record = bed.find_record(bed.context->bus, HS_DBUS_CHAIN_INTERFACE, "NiceName");
		ASSERT_NE(record, nullptr);
		const size_t before = bed.count_records();
		char text[64];
		std::snprintf(text, sizeof(text), "%p: destroy dbus NiceName", static_cast<void *>(record));
		hs_dbus_destroy(record);
		EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_DEBUG, text), 1u) << bed.capture.text();
		EXPECT_EQ(bed.count_records(), before - 1);
		EXPECT_EQ(bed.client.get(chain_path, HS_DBUS_CHAIN_INTERFACE, "NiceName")
				  .rfind("org.freedesktop.DBus.Error.UnknownProperty", 0),
			  0u);
		EXPECT_EQ(bed.client.get(chain_path, HS_DBUS_CHAIN_INTERFACE, "Direction"), "s \"Input\"");
	});
}

TEST_F(DBus, DestroyingNoRecordIsHarmless)
{
	hs_dbus_destroy(nullptr);
	EXPECT_TRUE(bed.capture.lines().empty()) << bed.capture.text();
}

TEST_F(DBus, ARecordTellsWhatWasRegistered)
{
	hs_paper_plugin &ear = add_ear();
	ear.add_setting({.title = "Gain", .type = "float", .value = "0.5"});
	hs_source *source = ear.add_source(node_name);
	sd_bus *bus = bed.context->bus;
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		const hs_dbus *gain = bed.find_record(bus, ear_settings, "Gain");
		ASSERT_NE(gain, nullptr);
		EXPECT_EQ(gain->type, "float");
		EXPECT_EQ(gain->signature, "f");
		EXPECT_STREQ(gain->vtable[1].x.property.signature, "d");
		EXPECT_EQ(gain->owner, source);
		EXPECT_EQ(gain->context, bed.context);
		const hs_dbus *id = bed.find_record(bus, HS_DBUS_SOURCE_INTERFACE, "Id");
		ASSERT_NE(id, nullptr);
		EXPECT_EQ(id->type, "s");
		EXPECT_EQ(id->signature, "");
		/* A property's user data is its source, a method's its record. */
		EXPECT_EQ(sd_bus_slot_get_userdata(id->slot), source);
		hs_dbus *method = bed.find_record(bus, HS_DBUS_CHAIN_INTERFACE, "IndicateTransientAudioDisturbance");
		ASSERT_NE(method, nullptr);
		EXPECT_EQ(sd_bus_slot_get_userdata(method->slot), method);
	});
}

TEST_F(DBus, NamesNeedNotOutliveTheirTable)
{
	hs_paper_plugin &ear = add_ear();
	ear.add_setting({.title = "Gain", .type = "float", .value = "0.5"});
	hs_source *source = ear.add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_dbus *gain = bed.find_record(bed.context->bus, ear_settings, "Gain");
		EXPECT_EQ(gain->vtable[1].x.property.member, gain->name.c_str());
		pw_properties_clear(source->settings);
		hs_dbus_destroy(gain);
		EXPECT_EQ(members_of(bed.client, ear_path, ear_settings),
			  strings{std::string{ear_settings} + ".Schema s const"});
	});
}

TEST_F(DBus, RemovingTheLastSourceTakesEverythingOffEveryBus)
{
	ASSERT_TRUE(hs_dbus_init_private_bus());
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_dbus_remove_source(source);
		EXPECT_EQ(bed.count_records(), 1u);
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			for (const char *path : {chain_path, node_path, ear_path})
				EXPECT_EQ(bed.members(*client, path), strings{}) << path;
		}
		EXPECT_EQ(bed.members(bed.client, "/").size(), 1u);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, ASharedObjectIsHandedToAnotherSourceOnTheNode)
{
	hs_source *first = add_ear().add_source(node_name);
	hs_source *second = bed.add_plugin("Nose").add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(first));
		ASSERT_TRUE(bed.publish(second));
		hs_dbus_remove_source(first);
		hs_source_destroy(first);

		for (sd_bus *b : {bed.context->bus, bus.server}) {
			for (const auto &[interface, name] :
			     {std::pair{HS_DBUS_SOURCE_INTERFACE, "Id"}, std::pair{HS_DBUS_SOURCE_INTERFACE, "AudioChain"},
			      std::pair{HS_DBUS_CHAIN_INTERFACE, "Id"}, std::pair{HS_DBUS_CHAIN_INTERFACE, "NiceName"},
			      std::pair{HS_DBUS_CHAIN_INTERFACE, "Direction"}}) {
				const hs_dbus *record = bed.find_record(b, interface, name);
				ASSERT_NE(record, nullptr) << interface << name;
				EXPECT_EQ(record->owner, second);
				EXPECT_EQ(sd_bus_slot_get_userdata(record->slot), second);
			}
			hs_dbus *method = bed.find_record(b, HS_DBUS_CHAIN_INTERFACE, "IndicateInternalSpeakerActive");
			ASSERT_NE(method, nullptr);
			EXPECT_EQ(method->owner, second);
			EXPECT_EQ(sd_bus_slot_get_userdata(method->slot), method);
		}
		for (hs_bus_client *client : {&bed.client, &bus.client}) {
			EXPECT_EQ(client->get(node_path, HS_DBUS_SOURCE_INTERFACE, "Id"),
				  "s \"AudioDevice0Input0.Unprocessed\"");
			EXPECT_EQ(client->get(chain_path, HS_DBUS_CHAIN_INTERFACE, "NiceName"),
				  "s \"Audio Device 0 Input 0\"");
			EXPECT_EQ(client->call(chain_path, HS_DBUS_CHAIN_INTERFACE, "IndicateInternalSpeakerActive", "b", 1),
				  "");
			EXPECT_EQ(bed.members(*client, ear_path), strings{});
		}

		hs_dbus_remove_source(second);
		EXPECT_EQ(bed.count_records(), 0u);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBus, TheDeviceIsHandedToAnotherOfItsNodesAndTheNodeGoes)
{
	hs_paper_plugin &ear = add_ear();
	hs_source *first = ear.add_source(node_name);
	hs_source *second = ear.add_source("AudioDevice0Input0.Other");
	hs_source *elsewhere = ear.add_source("AudioDevice1Input0.Unprocessed");
	bed.run([&] {
		for (hs_source *source : {elsewhere, first, second})
			ASSERT_TRUE(bed.publish(source));
		hs_dbus_remove_source(first);
		EXPECT_EQ(bed.members(bed.client, node_path), strings{});
		EXPECT_EQ(bed.members(bed.client, chain_path).size(), 6u);
		EXPECT_EQ(bed.find_record(bed.context->bus, HS_DBUS_CHAIN_INTERFACE, "Id")->owner, elsewhere);
		hs_dbus_remove_source(elsewhere);
		EXPECT_EQ(bed.find_record(bed.context->bus, HS_DBUS_CHAIN_INTERFACE, "Id")->owner, second);
		EXPECT_EQ(bed.members(bed.client, "/com/orvel/HearSense/AudioDevice1Input0"), strings{});
	});
}

TEST_F(DBus, ASourceThatWasNotPublishedInheritsNothing)
{
	hs_source *first = add_ear().add_source(node_name);
	hs_source *waiting = bed.add_plugin("Nose").add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(first));
		ASSERT_FALSE(waiting->holds_paths);
		hs_dbus_remove_source(first);
		EXPECT_EQ(bed.count_records(), 0u);
	});
}

TEST_F(DBus, ASourceThatGoesLeavesTheMembersOfOthersAlone)
{
	hs_source *first = add_ear().add_source(node_name);
	hs_source *second = bed.add_plugin("Nose").add_source(node_name);
	bed.run([&] {
		ASSERT_TRUE(bed.publish(first));
		ASSERT_TRUE(bed.publish(second));
		hs_dbus_remove_source(second);
		EXPECT_EQ(bed.find_record(bed.context->bus, HS_DBUS_SOURCE_INTERFACE, "Id")->owner, first);
		EXPECT_EQ(bed.client.get(ear_path, noise_interface, "Noise"), "b false");
		EXPECT_EQ(bed.members(bed.client, "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Nose"), strings{});
	});
}

TEST_F(DBus, RemovingABusTakesItsMembersOnly)
{
	hs_source *source = add_ear().add_source(node_name);
	private_bus &bus = bed.add_private();
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		hs_dbus_remove_bus(bus.server);
		for (const char *path : {chain_path, node_path, ear_path}) {
			EXPECT_EQ(bed.members(bus.client, path), strings{}) << path;
			EXPECT_NE(bed.members(bed.client, path), strings{}) << path;
		}
	});
}

TEST_F(DBusDeathTest, NeedsMemory)
{
	EXPECT_DEATH(
		{
			hs_fail_call("new", 1, ENOMEM);
			hs_dbus_init_private_bus();
		},
		"'dbus' failed at .*dbus.cpp:[0-9]+ dbus_new\\(\\)");
}
