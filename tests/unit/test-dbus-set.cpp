#include "dbus-set.hpp"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "bus-bed.hpp"
#include "handmade-plugin.hpp"
#include "props.hpp"
#include "temp-dir.hpp"

namespace {

using strings = std::vector<std::string>;

constexpr char object_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Ear";
constexpr char settings_interface[] = "com.orvel.HearSense.Settings.Ear";
constexpr char noise_interface[] = "com.orvel.HearSense.Events.Ear.Noise";

/** What the service says of a property that cannot be written. */
std::string refusal(const std::string &property, const std::string &interface = settings_interface)
{
	return "com.orvel.HearSense.Error: Unable to get/set property " + property + " in interface " + interface +
	       " at path " + object_path;
}

std::string changed(const std::string &property, const std::string &value)
{
	return "\"" + std::string{settings_interface} + "\", [\"" + property + "\": " + value + "], []";
}

/** A source with a setting of each type and a settings file, and a client that may write them. */
class DBusSet : public testing::Test
{
protected:
	DBusSet()
	{
		/* Anyone may write then. */
		setenv("HS_USE_SESSION_BUS", "true", 1);
		ear.add_setting({.title = "Flag", .type = "boolean", .value = "false"});
		ear.add_setting({.title = "Count", .type = "uint32", .value = "1"});
		ear.add_setting({.title = "Offset", .type = "int32", .value = "1"});
		ear.add_setting({.title = "Long", .type = "int64", .value = "1"});
		ear.add_setting({.title = "Gain", .type = "float", .value = "1.0"});
		ear.add_setting({.title = "Level", .type = "double", .value = "1.0"});
		ear.add_setting({.title = "Word", .type = "string", .value = "one"});
		ear.add_event({.title = "Noise", .is_public = true});
		source = ear.add_source("AudioDevice0Input0.Unprocessed");
		/* The one that is kept in the file too. */
		hs_props_add_object(source->settings,
				    {{"name", "depth"}, {"title", "Depth"}, {"type", "int64"}, {"value", "1"}});
		pw_properties_set(source->settings, "path", file.c_str());
		source->interface = &plugin.interface;
		plugin.add_info("Noise").is_public = true;
	}

	~DBusSet() override
	{
		sd_bus_error_free(&error);
		unsetenv("HS_USE_SESSION_BUS");
	}

	/** Runs the script when everything is published. */
	void run(const std::function<void()> &script)
	{
		bed.run([&] {
			ASSERT_TRUE(bed.publish(source));
			script();
		});
	}

	/** Writes a setting; "", or the error. */
	template <typename Value>
	std::string set(const char *property, const char *type, Value value)
	{
		return bed.client.set(object_path, settings_interface, property, type, value);
	}

	std::string get(const char *property)
	{
		return bed.client.get(object_path, settings_interface, property);
	}

	/** The text that a setting is kept as. */
	std::string stored(const char *title) const
	{
		const hs_properties_ptr entry = hs_props_find(source->settings, title);
		const char *value = pw_properties_get(entry.get(), "value");
		return value ? value : "(none)";
	}

	std::string written() const
	{
		return hs_read_text(file);
	}

	strings signals() const
	{
		return bed.client.contents(object_path, "PropertiesChanged");
	}

	/** Writes, and tells the text that is kept then. */
	template <typename Value>
	std::string keep(const char *property, const char *type, Value value)
	{
		EXPECT_EQ(set(property, type, value), "");
		return stored(property);
	}

	/** A value that came in over a bus that needs no rights. */
	hs_message_ptr value_message(const char *type, const void *value)
	{
		if (bed.privates.empty())
			bed.add_private();
		sd_bus_message *created = nullptr;
		sd_bus_message_new_signal(bed.privates[0].server, &created, "/", "com.example.A", "Any");
		hs_message_ptr message{created};
		sd_bus_message_append_basic(message.get(), type[0], value);
		sd_bus_message_seal(message.get(), 1, 0);
		return message;
	}

	/** Calls a setter as sd-bus does. */
	int call_setter(const char *signature, const char *interface, const char *property, sd_bus_message *message)
	{
		sd_bus_error_free(&error);
		return hs_dbus_set_find(signature)(bed.privates[0].server, object_path, interface, property, message,
						   source, &error);
	}

	std::string error_text() const
	{
		return sd_bus_error_is_set(&error) ? std::string{error.name} + ": " + error.message : "no error";
	}

	/** Takes the source's table away. */
	static void drop(pw_properties **table)
	{
		pw_properties_free(std::exchange(*table, nullptr));
	}

	/** What the source runs in the place of the plug-in of paper; it outlives the source. */
	hs_handmade_plugin plugin;
	hs_bus_bed bed;
	hs_temp_dir directory;
	const std::string file = directory / "settings.conf";
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	hs_source *source;
	sd_bus_error error = SD_BUS_ERROR_NULL;
};

using DBusSetDeathTest = DBusSet;

} // namespace

TEST_F(DBusSet, ThereIsASetterForEveryScalarAndNoOther)
{
	for (const char *signature : {"b", "u", "i", "x", "f", "d", "s"})
		EXPECT_NE(hs_dbus_set_find(signature), nullptr) << signature;
	for (const char *signature : {"", "o", "y", "t", "ai", "as", "(bb)", "bb", "ss", "a{sv}"})
		EXPECT_EQ(hs_dbus_set_find(signature), nullptr) << signature;
	EXPECT_EQ(hs_dbus_set_find(nullptr), nullptr);
}

TEST_F(DBusSet, AValueIsKeptAsItsText)
{
	run([&] {
		EXPECT_EQ(keep("Flag", "b", 1), "true");
		EXPECT_EQ(keep("Flag", "b", 0), "false");
		EXPECT_EQ(keep("Count", "u", 4000000000u), "4000000000");
		EXPECT_EQ(keep("Count", "u", 0u), "0");
		EXPECT_EQ(keep("Offset", "i", std::numeric_limits<int32_t>::min()), "-2147483648");
		EXPECT_EQ(keep("Offset", "i", std::numeric_limits<int32_t>::max()), "2147483647");
		EXPECT_EQ(keep("Long", "x", std::numeric_limits<int64_t>::min()), "-9223372036854775808");
		EXPECT_EQ(keep("Long", "x", std::numeric_limits<int64_t>::max()), "9223372036854775807");
		EXPECT_EQ(keep("Level", "d", -20.25), "-20.250000");
		EXPECT_EQ(keep("Level", "d", 16777217.0), "16777217.000000");
		EXPECT_EQ(keep("Word", "s", "attic, left"), "attic, left");
		EXPECT_EQ(keep("Word", "s", ""), "");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, ThePluginIsToldTheValueWithTheTypeOfTheSetting)
{
	run([&] {
		EXPECT_EQ(set("Flag", "b", 1), "");
		EXPECT_EQ(set("Count", "u", 4000000000u), "");
		EXPECT_EQ(set("Offset", "i", -7), "");
		EXPECT_EQ(set("Long", "x", int64_t{-8}), "");
		EXPECT_EQ(set("Gain", "d", 0.5), "");
		EXPECT_EQ(set("Level", "d", 0.25), "");
		EXPECT_EQ(set("Word", "s", "attic"), "");
	});
	EXPECT_EQ(plugin.taken, (strings{"Flag = Bool true", "Count = Id 4000000000", "Offset = Int -7",
					 "Long = Long -8", "Gain = Float 0.500000",
					 "Level = type " + std::to_string(SPA_TYPE_Double), "Word = attic"}));
}

TEST_F(DBusSet, AFloatIsNarrowedAndHasSixDecimals)
{
	run([&] {
		EXPECT_EQ(keep("Gain", "d", 0.5), "0.500000");
		EXPECT_EQ(keep("Gain", "d", 16777217.0), "16777216.000000");
		EXPECT_EQ(keep("Gain", "d", 0.00000049), "0.000000");
		EXPECT_EQ(keep("Gain", "d", -1e9 - 1), "-1000000000.000000");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, InfinityAndNoNumberAreNumbersToo)
{
	constexpr double infinity = std::numeric_limits<double>::infinity();
	run([&] {
		for (const char *property : {"Level", "Gain"}) {
			EXPECT_EQ(keep(property, "d", infinity), "inf");
			EXPECT_EQ(get(property), "d inf");
			EXPECT_EQ(keep(property, "d", -infinity), "-inf");
			EXPECT_EQ(get(property), "d -inf");
			EXPECT_EQ(keep(property, "d", std::copysign(std::nan(""), 1)), "nan");
			EXPECT_EQ(get(property), "d nan");
		}
		/* More than a float can hold. */
		EXPECT_EQ(keep("Gain", "d", 1e300), "inf");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, ALongNumberIsCutAt127Characters)
{
	run([&] {
		EXPECT_EQ(keep("Level", "d", 1e126), std::to_string(1e126).substr(0, 127));
		EXPECT_EQ(keep("Level", "d", 1e200), std::to_string(1e200).substr(0, 127));
		EXPECT_EQ(set("Word", "s", std::string(128, 'x').c_str()), "");
		EXPECT_EQ(stored("Word"), std::string(127, 'x'));
	});
}

TEST_F(DBusSet, AStringIsCutAt127BytesBetweenCharacters)
{
	const auto text = [](const std::string &character, size_t n, const std::string &start = "") {
		std::string all = start;
		for (size_t i = 0; i < n; ++i)
			all += character;
		return all;
	};
	run([&] {
		EXPECT_EQ(keep("Word", "s", text("x", 126).c_str()), text("x", 126));
		EXPECT_EQ(keep("Word", "s", text("x", 127).c_str()), text("x", 127));
		EXPECT_EQ(keep("Word", "s", text("x", 300).c_str()), text("x", 127));
		/* Of two, three and four bytes. */
		EXPECT_EQ(keep("Word", "s", text("\xc3\xbc", 100).c_str()), text("\xc3\xbc", 63));
		EXPECT_EQ(keep("Word", "s", text("\xc3\xbc", 100, "x").c_str()), text("\xc3\xbc", 63, "x"));
		EXPECT_EQ(keep("Word", "s", text("\xe2\x82\xac", 100).c_str()), text("\xe2\x82\xac", 42));
		EXPECT_EQ(keep("Word", "s", text("\xe2\x82\xac", 100, "xx").c_str()), text("\xe2\x82\xac", 41, "xx"));
		EXPECT_EQ(keep("Word", "s", text("\xf0\x9f\x94\x94", 100).c_str()), text("\xf0\x9f\x94\x94", 31));
		EXPECT_EQ(get("Word"), "s \"" + text("\xf0\x9f\x94\x94", 31) + "\"");
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, AStringThatTheFileCannotHoldIsRefusedWithAWarning)
{
	run([&] {
		for (const char *text : {"{", "[ 1, 2", "null"}) {
			bed.capture.clear();
			EXPECT_EQ(set("Word", "s", text), refusal("Word")) << text;
			EXPECT_EQ(bed.capture.count(
					  SPA_LOG_LEVEL_WARN,
					  "Refused \"" + std::string{text} +
						  "\" for property Word: the settings file can not hold this text"),
				  1u)
				<< bed.capture.text();
			EXPECT_EQ(bed.capture.complaints(), 1u) << bed.capture.text();
		}
		EXPECT_EQ(stored("Word"), "one");
		EXPECT_TRUE(bed.client.ping());
		EXPECT_EQ(signals(), strings{});
	});
	EXPECT_EQ(plugin.taken, strings{});
	EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(DBusSet, AWriteIsToldAndStoredAndWrittenAndSignalledBeforeTheAnswer)
{
	run([&] {
		EXPECT_EQ(set("Depth", "x", int64_t{-7}), "");
		EXPECT_EQ(plugin.taken, strings{"Depth = Long -7"});
		EXPECT_EQ(stored("Depth"), "-7");
		EXPECT_NE(written().find("\"depth\": -7"), std::string::npos) << written();
		EXPECT_EQ(signals(), strings{changed("Depth", "x -7")});
		EXPECT_EQ(set("Flag", "b", 1), "");
		EXPECT_EQ(plugin.taken, (strings{"Depth = Long -7", "Flag = Bool true"}));
		EXPECT_EQ(signals(), (strings{changed("Depth", "x -7"), changed("Flag", "b true")}));
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, WhatThePluginRefusesIsReportedAndChangesNothing)
{
	plugin.set_settings_result = -EINVAL;
	const auto expect_refusal = [this](const char *property, const std::string &answer) {
		EXPECT_EQ(answer, refusal(property));
		EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_ERROR, "Failed to set property " + std::string{property}), 1u)
			<< bed.capture.text();
	};
	run([&] {
		expect_refusal("Flag", set("Flag", "b", 1));
		expect_refusal("Count", set("Count", "u", 7u));
		expect_refusal("Offset", set("Offset", "i", 7));
		expect_refusal("Long", set("Long", "x", int64_t{7}));
		expect_refusal("Gain", set("Gain", "d", 7.0));
		expect_refusal("Level", set("Level", "d", 7.0));
		expect_refusal("Word", set("Word", "s", "seven"));
		EXPECT_EQ(stored("Flag"), "false");
		EXPECT_EQ(stored("Count"), "1");
		EXPECT_EQ(stored("Offset"), "1");
		EXPECT_EQ(stored("Long"), "1");
		EXPECT_EQ(stored("Gain"), "1.0");
		EXPECT_EQ(stored("Level"), "1.0");
		EXPECT_EQ(stored("Word"), "one");
		EXPECT_TRUE(bed.client.ping());
		EXPECT_EQ(signals(), strings{});
	});
	EXPECT_EQ(bed.capture.complaints(), 7u) << bed.capture.text();
	EXPECT_EQ(plugin.taken.size(), 7u);
	EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(DBusSet, AValueOfAnotherTypeIsAnsweredBySdBus)
{
	run([&] {
		EXPECT_EQ(set("Level", "i", 7),
			  "org.freedesktop.DBus.Error.InvalidArgs: Incorrect parameters for property "
			  "'Level', expected 'd', got 'i'.");
	});
	EXPECT_EQ(plugin.taken, strings{});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, AValueThatCannotBeReadIsReported)
{
	const uint8_t byte = 7;
	const hs_message_ptr message = value_message("y", &byte);
	for (const char *signature : {"b", "u", "i", "x", "f", "d", "s"}) {
		bed.capture.clear();
		EXPECT_EQ(call_setter(signature, settings_interface, "Level", message.get()), -EIO) << signature;
		EXPECT_EQ(error_text(), refusal("Level")) << signature;
		EXPECT_EQ(bed.capture.count(SPA_LOG_LEVEL_ERROR,
					    "Unable to read dbus message: No such device or address"),
			  1u)
			<< signature << "\n"
			<< bed.capture.text();
		EXPECT_EQ(bed.capture.complaints(), 1u) << bed.capture.text();
	}
	EXPECT_EQ(plugin.taken, strings{});
	EXPECT_EQ(stored("Level"), "1.0");
}

TEST_F(DBusSet, WithoutSettingsNothingIsWrittenAndTheValueStaysUnread)
{
	drop(&source->settings);
	const int32_t value = 7;
	const hs_message_ptr message = value_message("i", &value);
	EXPECT_EQ(call_setter("i", settings_interface, "Offset", message.get()), -EIO);
	EXPECT_EQ(error_text(), refusal("Offset"));
	int32_t read = 0;
	EXPECT_GT(sd_bus_message_read(message.get(), "i", &read), 0);
	EXPECT_EQ(read, value);
	EXPECT_EQ(plugin.taken, strings{});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, WithoutAnInterfaceNothingIsWritten)
{
	const int32_t value = 7;
	const hs_message_ptr message = value_message("i", &value);
	EXPECT_EQ(call_setter("i", nullptr, "Offset", message.get()), -EIO);
	EXPECT_EQ(error_text(), refusal("Offset", "(null)"));
	EXPECT_EQ(stored("Offset"), "1");
	EXPECT_EQ(plugin.taken, strings{});
}

TEST_F(DBusSet, WithoutEventsNoneIsEnabled)
{
	run([&] {
		source->events.clear();
		EXPECT_EQ(bed.client.set(object_path, noise_interface, "EnableEvent", "b", 0),
			  refusal("EnableEvent", noise_interface));
		bool enabled = false;
		EXPECT_TRUE(
			hs_loop_bus_get_event_status(bed.context->loop, bed.context->bus, source, "Noise", &enabled));
		EXPECT_TRUE(enabled);
	});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, AWriteThatCannotBeSignalledFailsThoughItIsStored)
{
	/* That bus has no settings. */
	const int64_t value = 7;
	const hs_message_ptr message = value_message("x", &value);
	run([&] {
		EXPECT_EQ(call_setter("x", settings_interface, "Long", message.get()), -EIO);
		EXPECT_EQ(error_text(), refusal("Long"));
	});
	EXPECT_EQ(stored("Long"), "7");
	EXPECT_EQ(plugin.taken, strings{"Long = Long 7"});
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, EnablingAnEventIsNoSetting)
{
	run([&] {
		EXPECT_EQ(bed.client.set(object_path, noise_interface, "EnableEvent", "b", 0), "");
		EXPECT_EQ(bed.client.get(object_path, noise_interface, "EnableEvent"), "b false");
		EXPECT_EQ(bed.client.set(object_path, noise_interface, "EnableEvent", "b", 1), "");
		EXPECT_EQ(bed.client.get(object_path, noise_interface, "EnableEvent"), "b true");
		const std::string start = "\"" + std::string{noise_interface} + "\", [\"EnableEvent\": ";
		EXPECT_EQ(signals(), (strings{start + "b false], []", start + "b true], []"}));
	});
	EXPECT_EQ(plugin.taken, strings{});
	EXPECT_FALSE(std::filesystem::exists(file));
	EXPECT_EQ(bed.capture.complaints(), 0u) << bed.capture.text();
}

TEST_F(DBusSet, EnableEventIsNoSettingEvenWhereOneHasThatTitle)
{
	hs_props_add_object(
		source->settings,
		{{"name", "EnableEvent"}, {"title", "EnableEvent"}, {"type", "boolean"}, {"value", "false"}});
	run([&] {
		EXPECT_EQ(set("EnableEvent", "b", 1), "");
		EXPECT_EQ(stored("EnableEvent"), "false");
		EXPECT_EQ(signals(), strings{changed("EnableEvent", "b false")});
		/* The interface's last element is the plug-in's name. */
		bool enabled = false;
		EXPECT_TRUE(hs_loop_bus_get_event_status(bed.context->loop, bed.context->bus, source, "Ear", &enabled));
		EXPECT_TRUE(enabled);
	});
	EXPECT_EQ(plugin.taken, strings{});
	EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(DBusSet, AnEventThatCannotBeSignalledIsEnabledAllTheSame)
{
	/* A public event is not on that bus. */
	const int on = 1;
	const hs_message_ptr message = value_message("b", &on);
	run([&] {
		EXPECT_EQ(call_setter("b", noise_interface, "EnableEvent", message.get()), -EIO);
		EXPECT_EQ(error_text(), refusal("EnableEvent", noise_interface));
		bool enabled = false;
		EXPECT_TRUE(hs_loop_bus_get_event_status(bed.context->loop, bed.privates[0].server, source, "Noise",
							 &enabled));
		EXPECT_TRUE(enabled);
	});
}

TEST_F(DBusSetDeathTest, EnablingNeedsAnInterfaceWithAPoint)
{
	const int on = 1;
	const hs_message_ptr message = value_message("b", &on);
	EXPECT_DEATH(call_setter("b", "NoPoint", "EnableEvent", message.get()), "'event_name\\+\\+' failed at ");
}
