#include "dbus-cb.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bus-client.hpp"
#include "comma-locale.hpp"
#include "context.hpp"
#include "dbus.hpp"
#include "failing.hpp"
#include "log-capture.hpp"
#include "loop-bed.hpp"
#include "owned.hpp"
#include "paper-plugin.hpp"

extern "C" {

void *__real_calloc(size_t n, size_t size);
void *__wrap_calloc(size_t n, size_t size)
{
	return hs_must_fail("calloc") ? nullptr : __real_calloc(n, size);
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

int __real_sd_bus_message_open_container(sd_bus_message *message, char type, const char *contents);
int __wrap_sd_bus_message_open_container(sd_bus_message *message, char type, const char *contents)
{
	return hs_must_fail("open_container") ? -errno
					      : __real_sd_bus_message_open_container(message, type, contents);
}

int __real_sd_bus_message_close_container(sd_bus_message *message);
int __wrap_sd_bus_message_close_container(sd_bus_message *message)
{
	return hs_must_fail("close_container") ? -errno : __real_sd_bus_message_close_container(message);
}
}

namespace {

using table_ptr = hs_malloc_ptr<sd_bus_vtable>;
using builder = sd_bus_vtable *(*)(const char *signature, const char *name);

constexpr char settings_interface[] = "com.orvel.HearSense.Settings.Ear";
constexpr char event_interface[] = "com.orvel.HearSense.Events.Ear.Noise";
constexpr char path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Ear";

/** What the service says of a property that cannot be read or written. */
std::string refusal(const std::string &interface, const std::string &property)
{
	return "com.orvel.HearSense.Error: Unable to get/set property " + property + " in interface " + interface +
	       " at path " + path;
}

/** The signature a builder publishes for `signature`; "" where it makes no table. */
std::string published(builder build, const char *signature)
{
	const table_ptr table{build(signature, "Name")};
	return table ? table.get()[1].x.property.signature : "";
}

class DBusTable : public testing::Test
{
protected:
	static void expect_frame(const sd_bus_vtable *table)
	{
		static const sd_bus_vtable start = SD_BUS_VTABLE_START(0);
		static const sd_bus_vtable end = SD_BUS_VTABLE_END;
		EXPECT_EQ(table[0].type, start.type);
		EXPECT_EQ(table[0].flags, 0u);
		EXPECT_EQ(table[0].x.start.element_size, sizeof(sd_bus_vtable));
		EXPECT_EQ(table[0].x.start.features, start.x.start.features);
		EXPECT_EQ(table[0].x.start.vtable_format_reference, &sd_bus_object_vtable_format);
		EXPECT_EQ(table[2].type, end.type);
	}
};

using DBusTableDeathTest = DBusTable;

} // namespace

TEST_F(DBusTable, AReadOnlyPropertyIsConstant)
{
	const table_ptr table{hs_dbus_cb_readonly_property("s", "Name")};
	ASSERT_TRUE(table);
	expect_frame(table.get());
	const sd_bus_vtable &member = table.get()[1];
	EXPECT_EQ(member.type, _SD_BUS_VTABLE_PROPERTY);
	EXPECT_EQ(member.flags, SD_BUS_VTABLE_PROPERTY_CONST);
	EXPECT_STREQ(member.x.property.member, "Name");
	EXPECT_STREQ(member.x.property.signature, "s");
	EXPECT_NE(member.x.property.get, nullptr);
	EXPECT_EQ(member.x.property.set, nullptr);
	EXPECT_EQ(member.x.property.offset, 0u);
}

TEST_F(DBusTable, AWritablePropertyIsForEveryoneAndSignalsItsChange)
{
	const table_ptr table{hs_dbus_cb_writeable_property("u", "Name")};
	ASSERT_TRUE(table);
	expect_frame(table.get());
	const sd_bus_vtable &member = table.get()[1];
	EXPECT_EQ(member.type, _SD_BUS_VTABLE_WRITABLE_PROPERTY);
	EXPECT_EQ(member.flags, SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
	EXPECT_STREQ(member.x.property.member, "Name");
	EXPECT_STREQ(member.x.property.signature, "u");
	EXPECT_NE(member.x.property.get, nullptr);
	EXPECT_EQ(member.x.property.offset, 0u);
}

TEST_F(DBusTable, EveryWritablePropertyHasASetter)
{
	for (const char *signature : {"b", "u", "i", "x", "f", "d", "s"}) {
		const table_ptr table{hs_dbus_cb_writeable_property(signature, "Name")};
		ASSERT_TRUE(table) << signature;
		EXPECT_NE(table.get()[1].x.property.set, nullptr) << signature;
	}
}

TEST_F(DBusTable, AnEventPropertySignalsItsChangeAndIsNotWritten)
{
	const table_ptr table{hs_dbus_cb_property_emits_change("b", "Name")};
	ASSERT_TRUE(table);
	expect_frame(table.get());
	const sd_bus_vtable &member = table.get()[1];
	EXPECT_EQ(member.type, _SD_BUS_VTABLE_PROPERTY);
	EXPECT_EQ(member.flags, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE);
	EXPECT_NE(member.x.property.get, nullptr);
	EXPECT_EQ(member.x.property.set, nullptr);
}

TEST_F(DBusTable, ScalarsArePublishedAsTheyAreButFloatsAsDoubles)
{
	for (const builder build :
	     {hs_dbus_cb_readonly_property, hs_dbus_cb_writeable_property, hs_dbus_cb_property_emits_change}) {
		for (const char *signature : {"b", "u", "i", "x", "d", "s"})
			EXPECT_EQ(published(build, signature), signature);
		EXPECT_EQ(published(build, "f"), "d");
	}
}

TEST_F(DBusTable, ArraysAndStructuresAreReadOnly)
{
	for (const builder build : {hs_dbus_cb_readonly_property, hs_dbus_cb_property_emits_change}) {
		for (const char *signature : {"a", "ab", "ai", "as", "ad"})
			EXPECT_EQ(published(build, signature), signature);
		for (const char *signature : {"(", "()", "(b)", "(bsu)"})
			EXPECT_EQ(published(build, signature), "a{sv}") << signature;
	}
	for (const char *signature : {"a", "ai", "(", "()", "(bb)"})
		EXPECT_EQ(published(hs_dbus_cb_writeable_property, signature), "") << signature;
}

TEST_F(DBusTable, OnlyConstantsAreObjectPaths)
{
	EXPECT_EQ(published(hs_dbus_cb_readonly_property, "o"), "o");
	EXPECT_EQ(published(hs_dbus_cb_writeable_property, "o"), "");
	EXPECT_EQ(published(hs_dbus_cb_property_emits_change, "o"), "");
}

TEST_F(DBusTable, OtherSignaturesHaveNone)
{
	for (const builder build :
	     {hs_dbus_cb_readonly_property, hs_dbus_cb_writeable_property, hs_dbus_cb_property_emits_change}) {
		for (const char *signature : {"", "bb", "sd", "oo", "y", "n", "q", "t", "h", "v", "g", "B", ")"})
			EXPECT_EQ(published(build, signature), "") << signature;
		EXPECT_EQ(build(nullptr, "Name"), nullptr);
	}
}

TEST_F(DBusTable, AMethodIsForEveryone)
{
	const sd_bus_message_handler_t handler = [](sd_bus_message *, void *, sd_bus_error *) { return 0; };
	const table_ptr table{hs_dbus_cb_method("Do", handler, "s", "h")};
	ASSERT_TRUE(table);
	expect_frame(table.get());
	const sd_bus_vtable &member = table.get()[1];
	EXPECT_EQ(member.type, _SD_BUS_VTABLE_METHOD);
	EXPECT_EQ(member.flags, SD_BUS_VTABLE_UNPRIVILEGED);
	EXPECT_STREQ(member.x.method.member, "Do");
	EXPECT_STREQ(member.x.method.signature, "s");
	EXPECT_STREQ(member.x.method.result, "h");
	EXPECT_EQ(member.x.method.handler, handler);
	EXPECT_EQ(member.x.method.offset, 0u);
	EXPECT_STREQ(member.x.method.names, "");
}

TEST_F(DBusTable, AMethodWithoutAResultIsMarkedSo)
{
	const table_ptr table{hs_dbus_cb_method("Do", nullptr, nullptr, nullptr)};
	ASSERT_TRUE(table);
	EXPECT_EQ(table.get()[1].flags, SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY);
	EXPECT_EQ(table.get()[1].x.method.signature, nullptr);
	EXPECT_EQ(table.get()[1].x.method.result, nullptr);
}

TEST_F(DBusTableDeathTest, NeedsMemory)
{
	EXPECT_DEATH(
		{
			hs_fail_call("calloc", 1, ENOMEM);
			hs_dbus_cb_readonly_property("s", "Name");
		},
		"'vtable' failed at .*dbus-cb.cpp:[0-9]+ new_table\\(\\)");
}

namespace {

/** The members of a source on a peer-to-peer bus of the loop's, registered one by one as a test wants them. */
class DBusProperty : public testing::Test
{
protected:
	DBusProperty() : context{hs_context_new(nullptr, nullptr, bed.get(), nullptr, nullptr)}
	{
		hs_bus_pair pair = hs_new_bus_pair();
		server = pair.server.release();
		hs_loop_add_bus(bed.get(), server);
		client = std::make_unique<hs_bus_client>(std::move(pair.client), [this] { serve(); });
		hs_event_info &noise = ear.add_event({.title = "Noise", .members = {"Detected", "Report"}});
		noise.nice_name = "A Noise";
		noise.topics = topic_pointers;
		noise.n_topics = 2;
		noise.data_types = HS_EVENT_DATA_EVENT;
		description = &noise;
		ear.interface.schema = "ear.schema.json";
		source = ear.add_source("AudioDevice0Input0.Unprocessed");
	}

	~DBusProperty() override
	{
		sd_bus_error_free(&error);
		slots.clear();
		hs_loop_do_quit(bed.get(), 0);
		hs_context_destroy();
	}

	void serve()
	{
		while (sd_bus_process(server, nullptr) > 0)
			continue;
	}

	void add_table(sd_bus_vtable *table, const std::string &interface, const char *object = path)
	{
		ASSERT_NE(table, nullptr);
		tables.emplace_back(table);
		sd_bus_slot *slot = nullptr;
		ASSERT_GE(sd_bus_add_object_vtable(server, &slot, object, interface.c_str(), table, source), 0);
		slots.emplace_back(slot);
	}

	/** Stores an event, or a setting where the interface is that of the settings. */
	void store(const std::string &interface, const char *title, const char *value, const char *complex_type = nullptr)
	{
		if (interface == settings_interface)
			hs_props_add_object(source->settings,
					    {{"title", title}, {"complexType", complex_type}, {"value", value}});
		else
			source->events.push_back({0, {}, title, nullptr, complex_type ? complex_type : "", value});
	}

	/** Only a setting can be without a value. */
	static const char *interface_for(const char *value)
	{
		return value ? event_interface : settings_interface;
	}

	/** What a client reads of an event's value of that type; of a setting's where there is none. */
	std::string read(const char *signature, const char *value, const char *complex_type = nullptr)
	{
		const std::string name = "Value" + std::to_string(names.size());
		names.push_back(name);
		const char *title = names.back().c_str();
		const char *interface = interface_for(value);
		store(interface, title, value, complex_type);
		add_table(hs_dbus_cb_property_emits_change(signature, title), interface);
		return client->get(path, interface, title);
	}

	/** Whether a client that reads such a value gets the service's error. */
	bool fails(const char *signature, const char *value, const char *complex_type = nullptr)
	{
		const std::string answer = read(signature, value, complex_type);
		return answer == refusal(interface_for(value), names.back());
	}

	/** What a client reads of a fixed property. */
	std::string read_fixed(const std::string &interface, const char *signature, const char *name)
	{
		names.emplace_back(name);
		add_table(hs_dbus_cb_readonly_property(signature, names.back().c_str()), interface);
		return client->get(path, interface, name);
	}

	/** A call of the getter as sd-bus makes it, with a new message to fill. */
	int call_getter(const char *signature, const char *interface, const char *property, sd_bus *bus = nullptr)
	{
		const table_ptr table{hs_dbus_cb_readonly_property(signature, property)};
		sd_bus_message *message = nullptr;
		sd_bus_message_new_signal(server, &message, "/", "com.example.A", "Any");
		reply.reset(message);
		sd_bus_error_free(&error);
		return table.get()[1].x.property.get(bus ? bus : server, path, interface, property, message, source,
						     &error);
	}

	hs_loop_bed bed;
	hs_context *context;
	hs_paper_plugin ear{context, "Ear"};
	hs_event_info *description;
	hs_source *source;
	sd_bus *server;
	std::unique_ptr<hs_bus_client> client;
	hs_log_capture capture;
	hs_message_ptr reply;
	sd_bus_error error = SD_BUS_ERROR_NULL;

private:
	const hs_event_topic first_topic{"sound", "A Sound", "com.example.topics"};
	const hs_event_topic second_topic{"loud", nullptr, nullptr};
	const hs_event_topic *topic_pointers[2]{&first_topic, &second_topic};
	std::deque<std::string> names;
	std::deque<table_ptr> tables;
	/* Gone before the tables. */
	std::deque<hs_slot_ptr> slots;
};

using DBusPropertyDeathTest = DBusProperty;

} // namespace

TEST_F(DBusProperty, ABooleanIsReadFromItsText)
{
	EXPECT_EQ(read("b", "true"), "b true");
	EXPECT_EQ(read("b", "1"), "b true");
	EXPECT_EQ(read("b", "false"), "b false");
}

TEST_F(DBusProperty, IntegersAreReadFromTheirTexts)
{
	EXPECT_EQ(read("u", "4294967295"), "u 4294967295");
	EXPECT_EQ(read("u", "0"), "u 0");
	EXPECT_EQ(read("i", "-2147483648"), "i -2147483648");
	EXPECT_EQ(read("i", "2147483647"), "i 2147483647");
	EXPECT_EQ(read("x", "-9223372036854775808"), "x -9223372036854775808");
	EXPECT_EQ(read("x", "9223372036854775807"), "x 9223372036854775807");
}

TEST_F(DBusProperty, AnIntegerThatIsNoneOrOutOfRangeIsWarnedOfAndFails)
{
	const auto expect_failure = [this](const char *signature, const char *value, const std::string &type) {
		capture.clear();
		EXPECT_TRUE(fails(signature, value)) << value;
		const std::string warning = "Failed to parse \"value\"=\"" + std::string{value} + "\" as " + type;
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, warning), 1u) << capture.text();
	};
	for (const char *value : {"4294967296", "-1294967296", "x", "1.5", ""})
		expect_failure("u", value, "uint32");
	for (const char *value : {"2147483648", "-2147483649", "x", ""})
		expect_failure("i", value, "int32");
	for (const char *value : {"9223372036854775808", "x", ""})
		expect_failure("x", value, "int64");
}

TEST_F(DBusProperty, AMissingValueFails)
{
	for (const char *signature : {"b", "u", "i", "x"})
		EXPECT_TRUE(fails(signature, nullptr)) << signature;
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(DBusProperty, AMissingFloatIsWarnedOfAndFails)
{
	EXPECT_TRUE(fails("f", nullptr));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "\"=\"(null)\" as float"), 1u) << capture.text();
	EXPECT_TRUE(fails("d", nullptr));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "\"=\"(null)\" as double"), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 2u) << capture.text();
}

TEST_F(DBusProperty, AFloatIsSentAsADoubleOfItsPrecision)
{
	EXPECT_EQ(read("f", "0.1"), "d 0.100000001");
	EXPECT_EQ(read("d", "0.1"), "d 0.1");
	EXPECT_EQ(read("f", "-2.5"), "d -2.5");
	EXPECT_EQ(read("d", "1e300"), "d 1e+300");
}

TEST_F(DBusProperty, AFloatThatIsNoneIsWarnedOfAndFails)
{
	for (const char *value : {"", "x", "1.5 ", "1,5", "1e39"}) {
		capture.clear();
		EXPECT_TRUE(fails("f", value));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "\"=\"" + std::string{value} + "\" as float"), 1u)
			<< capture.text();
	}
	for (const char *value : {"", "x", "1.5 ", "1,5", "1e999"}) {
		capture.clear();
		EXPECT_TRUE(fails("d", value));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "\"=\"" + std::string{value} + "\" as double"), 1u)
			<< capture.text();
	}
}

TEST_F(DBusProperty, TheWarningNamesPropertyAndValue)
{
	store(settings_interface, "Gain", "loud");
	add_table(hs_dbus_cb_writeable_property("d", "Gain"), settings_interface);
	EXPECT_EQ(client->get(path, settings_interface, "Gain"), refusal(settings_interface, "Gain"));
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_WARN, "Failed to parse \"Gain\"=\"loud\" as double"))
		<< capture.text();
}

TEST_F(DBusProperty, DecimalsHaveAPointWhateverTheLocale)
{
	const hs_comma_locale locale;
	ASSERT_TRUE(locale.active());
	store(event_interface, "Level", "0.5");
	store(event_interface, "Comma", "0,5");
	for (const char *signature : {"d", "f"}) {
		EXPECT_GE(call_getter(signature, event_interface, "Level"), 0);
		sd_bus_message_seal(reply.get(), 1, 0);
		double value = 0;
		EXPECT_GT(sd_bus_message_read(reply.get(), "d", &value), 0);
		EXPECT_EQ(value, 0.5);
		EXPECT_EQ(call_getter(signature, event_interface, "Comma"), -EIO);
	}
}

TEST_F(DBusProperty, AStringIsReadAsItIs)
{
	EXPECT_EQ(read("s", "quiet, please"), "s \"quiet, please\"");
	EXPECT_EQ(read("s", ""), "s \"\"");
	EXPECT_EQ(read("s", nullptr), "s \"\"");
}

TEST_F(DBusProperty, SettingsAndEventsAreLookedUpByTheInterface)
{
	store(settings_interface, "Level", "setting");
	store(event_interface, "Level", "event");
	for (const char *interface : {settings_interface, event_interface}) {
		add_table(hs_dbus_cb_property_emits_change("s", "Level"), interface);
	}
	EXPECT_EQ(client->get(path, settings_interface, "Level"), "s \"setting\"");
	EXPECT_EQ(client->get(path, event_interface, "Level"), "s \"event\"");
}

TEST_F(DBusProperty, WithoutATableThereIsNothingToRead)
{
	source->events.clear();
	pw_properties_free(std::exchange(source->settings, nullptr));
	EXPECT_EQ(call_getter("b", event_interface, "Level"), -EIO);
	EXPECT_STREQ(error.name, "com.orvel.HearSense.Error");
	EXPECT_STREQ(error.message, ("Unable to get/set property Level in interface " + std::string{event_interface} +
				     " at path " + path)
					    .c_str());
	EXPECT_EQ(call_getter("ai", settings_interface, "Level"), -EIO);
}

TEST_F(DBusProperty, WhatIsNeitherStoredNorGeneratedFails)
{
	for (const char *signature : {"b", "u", "i", "x", "f", "d", "s", "o", "ai", "()"}) {
		EXPECT_EQ(call_getter(signature, event_interface, "Unknown"), -EIO) << signature;
		EXPECT_STREQ(error.message, refusal(event_interface, "Unknown").substr(27).c_str()) << signature;
	}
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(DBusProperty, AnArrayIsReadElementByElement)
{
	EXPECT_EQ(read("au", "[ 1, 4294967295 ]", "au"), "au [1, 4294967295]");
	EXPECT_EQ(read("ai", "[ -1, 2 ]", "ai"), "ai [-1, 2]");
	EXPECT_EQ(read("ax", "[ 9223372036854775807 ]", "ax"), "ax [9223372036854775807]");
	EXPECT_EQ(read("ad", "[ 0.5, -1 ]", "ad"), "ad [0.5, -1]");
	EXPECT_EQ(read("ai", "[ ]", "ai"), "ai []");
	EXPECT_EQ(read("ai", " ]", "ai"), "ai []");
}

TEST_F(DBusProperty, ArraysOfBooleansAndStringsCanBeReadToo)
{
	EXPECT_EQ(read("ab", "[ true, false, true ]", "ab"), "ab [true, false, true]");
	EXPECT_EQ(read("ab", "[ ]", "ab"), "ab []");
	EXPECT_EQ(read("as", "[ \"low\", \"high noise\" ]", "as"), "as [\"low\", \"high noise\"]");
	EXPECT_EQ(read("as", "[ ]", "as"), "as []");
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(DBusProperty, AnArrayOfAnUnknownTypeFails)
{
	/* No bus has floats. */
	for (const char *complex_type : {"af", "a", "a(ii)"}) {
		store(event_interface, complex_type, "[ 1 ]", complex_type);
		EXPECT_EQ(call_getter("ai", event_interface, complex_type), -EIO) << complex_type;
	}
	EXPECT_TRUE(fails("ai", "[ 1 ]", nullptr));
	EXPECT_TRUE(fails("ai", nullptr, "ai"));
}

TEST_F(DBusProperty, AStructureIsADictionaryTypedByItsSignature)
{
	EXPECT_EQ(read("(buixfds)",
		       R"({ "A": "true", "B": "0x10", "C": "-3", "D": "-9223372036854775808", "E": "0.1", "F": "0.1", )"
		       R"("G": "text" })",
		       "(buixfds)"),
		  R"(a{sv} ["A": b true, "B": u 16, "C": i -3, "D": x -9223372036854775808, "E": d 0.100000001, )"
		  R"("F": d 0.1, "G": s "text"])");
	EXPECT_EQ(read("()", "{ }", "()"), "a{sv} []");
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(DBusProperty, ABooleanMemberIsTrueForThatWordOnly)
{
	EXPECT_EQ(read("(bbb)", R"({ "A": "true", "B": "1", "C": "TRUE" })", "(bbb)"),
		  R"(a{sv} ["A": b true, "B": b false, "C": b false])");
}

TEST_F(DBusProperty, FewerMembersThanTheSignatureAreFine)
{
	EXPECT_EQ(read("(bb)", R"({ "A": "true" })", "(bb)"), R"(a{sv} ["A": b true])");
}

TEST_F(DBusProperty, AMemberThatIsNoneFailsTheWholeStructure)
{
	struct bad_member {
		const char *signature;
		const char *value;
	};
	const bad_member members[] = {{"(u)", "4294967296"}, {"(u)", "x"}, {"(i)", "2147483648"}, {"(i)", "1 "},
				      {"(x)", "9223372036854775808"}, {"(d)", "1,5"}, {"(d)", "1e999"},
				      {"(f)", "1e39"}, {"(f)", "x"}};
	for (const bad_member &member : members) {
		capture.clear();
		EXPECT_TRUE(fails(member.signature, ("{ \"A\": \"" + std::string{member.value} + "\" }").c_str(),
			       member.signature));
		const std::string warning =
			"Failed to parse '" + std::string{member.value} + "' as " + member.signature[1];
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, warning), 1u) << capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Unable to close dictionary container: Invalid argument"), 1u)
			<< capture.text();
	}
}

TEST_F(DBusProperty, AnEmptyMemberOfAnyTypeFailsTheWholeStructure)
{
	for (const char *signature : {"(b)", "(u)", "(i)", "(x)", "(f)", "(d)", "(s)"}) {
		capture.clear();
		EXPECT_TRUE(fails(signature, R"({ "A": "" })", signature));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, std::string{"Failed to parse '' as "} + signature[1]), 1u)
			<< capture.text();
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Unable to close dictionary container: "), 1u);
	}
}

TEST_F(DBusProperty, MoreMembersThanTheSignatureEndInAnUnknownType)
{
	EXPECT_TRUE(fails("(b)", R"({ "A": "true", "B": "true", "C": "true", "D": "true" })", "(b)"));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Unkown type in struct )"), 1u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Unable to close dictionary container: "), 1u);
}

TEST_F(DBusProperty, ASignatureThatEndsTooEarlyIsNotReadPastItsEnd)
{
	using namespace std::string_literals;
	for (const char *signature : {"(", ""}) {
		capture.clear();
		store(event_interface, *signature ? "Open" : "Empty", R"({ "A": "true", "B": "true" })", signature);
		EXPECT_EQ(call_getter("()", event_interface, *signature ? "Open" : "Empty"), -EIO);
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Unkown type in struct \0"s), 1u) << capture.text();
	}
	EXPECT_TRUE(fails("(y)", R"({ "A": "1" })", "(y)"));
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_WARN, "Unkown type in struct y"));
}

TEST_F(DBusProperty, AStructureWithoutValueOrSignatureFails)
{
	EXPECT_TRUE(fails("(b)", R"({ "A": "true" })", nullptr));
	EXPECT_TRUE(fails("(b)", nullptr, "(b)"));
}

TEST_F(DBusProperty, AStoredReportIsHiddenWhereThePluginHasNone)
{
	ear.add_event({.title = "Silence", .members = {"Detected"}});
	hs_source *other = ear.add_source("AudioDevice1Input0.Unprocessed");
	const char *both = R"({ "Detected": "true", "Report": "true" })";
	other->events = {{0, {}, "Noise", nullptr, "(bb)", both}, {1, {}, "Silence", nullptr, "(bb)", both}};
	source = other;
	add_table(hs_dbus_cb_property_emits_change("(bb)", "Noise"), event_interface);
	add_table(hs_dbus_cb_property_emits_change("(bb)", "Silence"), event_interface);
	EXPECT_EQ(client->get(path, event_interface, "Noise"), R"(a{sv} ["Detected": b true, "Report": b true])");
	EXPECT_EQ(client->get(path, event_interface, "Silence"), R"(a{sv} ["Detected": b true, "Report": b false])");
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(DBusProperty, TheReportIsThatOfThePluginsOwnEvent)
{
	/* The second event of the table is the plug-in's first: another was left out between them. */
	ear.add_event({.title = "Silence", .members = {"Detected"}});
	const char *report = R"({ "Report": "true" })";
	source->events = {{1, {}, "Silence", nullptr, "(b)", report}, {0, {}, "Noise", nullptr, "(b)", report}};
	for (const char *title : {"Silence", "Noise"})
		add_table(hs_dbus_cb_property_emits_change("(b)", title), event_interface);
	EXPECT_EQ(client->get(path, event_interface, "Noise"), R"(a{sv} ["Report": b true])");
	EXPECT_EQ(client->get(path, event_interface, "Silence"), R"(a{sv} ["Report": b false])");
}

TEST_F(DBusProperty, DataTypesComeFromThePluginsDescription)
{
	EXPECT_EQ(read_fixed(event_interface, "()", "DataTypes"), R"(a{sv} ["Stats": b false, "Event": b true])");
	description->data_types = HS_EVENT_DATA_STATS;
	/* Even where an event has that title. */
	store(event_interface, "DataTypes", R"({ "A": "true" })", "(b)");
	EXPECT_EQ(client->get(path, event_interface, "DataTypes"), R"(a{sv} ["Stats": b true, "Event": b false])");
	EXPECT_EQ(call_getter("()", "com.orvel.HearSense.Events.Ear.Unknown", "DataTypes"), -EIO);
}

TEST_F(DBusProperty, EventFlagsComeFromThePluginsDescription)
{
	EXPECT_EQ(read_fixed(event_interface, "b", "isDeprecated"), "b false");
	EXPECT_EQ(read_fixed(event_interface, "b", "isApplicationData"), "b false");
	EXPECT_EQ(read_fixed(event_interface, "b", "isPropertyState"), "b false");
	const auto flags = [this] {
		std::string text;
		for (const char *name : {"isDeprecated", "isApplicationData", "isPropertyState"})
			text += client->get(path, event_interface, name) + " ";
		return text;
	};
	description->isDeprecated = true;
	EXPECT_EQ(flags(), "b true b false b false ");
	description->isDeprecated = false;
	description->isApplicationData = true;
	EXPECT_EQ(flags(), "b false b true b false ");
	description->isApplicationData = false;
	description->isPropertyState = true;
	EXPECT_EQ(flags(), "b false b false b true ");
}

TEST_F(DBusProperty, EventTextsComeFromThePluginsDescription)
{
	EXPECT_EQ(read_fixed(event_interface, "s", "EventName"), "s \"Noise\"");
	EXPECT_EQ(read_fixed(event_interface, "s", "NiceName"), "s \"A Noise\"");
	EXPECT_EQ(read_fixed(event_interface, "s", "Topic0Name"), "s \"sound\"");
	EXPECT_EQ(read_fixed(event_interface, "s", "Topic0Namespace"), "s \"com.example.topics\"");
	EXPECT_EQ(read_fixed(event_interface, "s", "Topic0NiceName"), "s \"A Sound\"");
	EXPECT_EQ(read_fixed(event_interface, "s", "Topic1Name"), "s \"loud\"");
	for (const char *name :
	     {"Topic1Namespace", "Topic1NiceName", "Topic2Name", "Topic2Namespace", "Topic2NiceName"})
		EXPECT_EQ(read_fixed(event_interface, "s", name), "s \"\"") << name;
	EXPECT_EQ(call_getter("s", event_interface, "Topic3Name"), -EIO);
}

TEST_F(DBusProperty, TheSchemaIsThePathOfThePluginsFile)
{
	EXPECT_EQ(read_fixed(settings_interface, "s", "Schema"), "s \"/schemas/ear.schema.json\"");
}

TEST_F(DBusProperty, TheNodeAndItsDeviceTellTheirNames)
{
	EXPECT_EQ(read_fixed(HS_DBUS_SOURCE_INTERFACE, "s", "Id"), "s \"AudioDevice0Input0.Unprocessed\"");
	EXPECT_EQ(read_fixed(HS_DBUS_CHAIN_INTERFACE, "s", "Id"), "s \"AudioDevice0Input0\"");
	EXPECT_EQ(read_fixed(HS_DBUS_CHAIN_INTERFACE, "s", "NiceName"), "s \"Audio Device 0 Input 0\"");
	EXPECT_EQ(read_fixed(HS_DBUS_CHAIN_INTERFACE, "s", "Direction"), "s \"Input\"");
	for (const char *name : {"NiceName", "Schema", "Name"})
		EXPECT_EQ(call_getter("s", HS_DBUS_SOURCE_INTERFACE, name), -EIO) << name;
	for (const char *name : {"EventName", "Schema", "Name"})
		EXPECT_EQ(call_getter("s", HS_DBUS_CHAIN_INTERFACE, name), -EIO) << name;
}

TEST_F(DBusProperty, ElsewhereAnInstanceTellsItsNameAndItsNode)
{
	for (const std::string interface : {settings_interface, event_interface, HS_DBUS_INSTANCE_INTERFACE})
		EXPECT_EQ(read_fixed(interface, "s", "Name"), "s \"hs-AudioDevice0Input0.Unprocessed\"") << interface;

	const auto source_of = [this](const char *interface) -> std::string {
		if (call_getter("s", interface, "Source") < 0)
			return "";
		sd_bus_message_seal(reply.get(), 1, 0);
		return sd_bus_message_get_signature(reply.get(), 1) + (" " + hs_render_all(reply.get()));
	};
	for (const char *interface : {settings_interface, event_interface, HS_DBUS_INSTANCE_INTERFACE})
		EXPECT_EQ(source_of(interface), "o \"/com/orvel/HearSense/AudioDevice0Input0/Unprocessed\"");
	for (const char *interface : {HS_DBUS_SOURCE_INTERFACE, HS_DBUS_CHAIN_INTERFACE})
		EXPECT_EQ(source_of(interface), "");
}

TEST_F(DBusProperty, ObjectsPointToEachOther)
{
	const std::string node = "o \"/com/orvel/HearSense/AudioDevice0Input0/Unprocessed\"";
	EXPECT_EQ(read_fixed(event_interface, "o", "Source"), node);
	EXPECT_EQ(read_fixed(HS_DBUS_INSTANCE_INTERFACE, "o", "Source"), node);
	EXPECT_EQ(read_fixed(HS_DBUS_SOURCE_INTERFACE, "o", "AudioChain"),
		  "o \"/com/orvel/HearSense/AudioDevice0Input0\"");
	for (const char *interface : {settings_interface, HS_DBUS_SOURCE_INTERFACE, HS_DBUS_CHAIN_INTERFACE})
		EXPECT_EQ(call_getter("o", interface, "Source"), -EIO) << interface;
	for (const char *interface : {event_interface, HS_DBUS_INSTANCE_INTERFACE, HS_DBUS_CHAIN_INTERFACE})
		EXPECT_EQ(call_getter("o", interface, "AudioChain"), -EIO) << interface;
}

TEST_F(DBusProperty, EnableEventIsTheStatusOnTheBusThatAsks)
{
	EXPECT_EQ(read_fixed(event_interface, "b", "EnableEvent"), "b false");
	hs_loop_bus_set_event_status(bed.get(), server, "Noise", source, true);
	EXPECT_EQ(client->get(path, event_interface, "EnableEvent"), "b true");

	hs_bus_pair other = hs_new_bus_pair();
	EXPECT_EQ(call_getter("b", event_interface, "EnableEvent", other.server.get()), -EIO);
	EXPECT_STREQ(error.name, HS_DBUS_ERROR);
}

TEST_F(DBusPropertyDeathTest, EnableEventNeedsAnInterfaceWithAPoint)
{
	EXPECT_DEATH(call_getter("b", "NoPoint", "EnableEvent"), "'event_name\\+\\+' failed at ");
}

TEST_F(DBusProperty, ARefusedWriteHasOneAnswerAndChangesNothing)
{
	/* A peer without a bus between has no name, so on the main bus its user is unknown. */
	context->bus = sd_bus_ref(server);
	for (const char *signature : {"b", "u", "i", "x", "f", "d", "s"}) {
		store(settings_interface, signature, "1");
		add_table(hs_dbus_cb_writeable_property(signature, signature), settings_interface);
	}
	const auto denied = [](const std::string &answer) {
		return answer == "org.freedesktop.DBus.Error.AccessDenied: User unknown";
	};
	EXPECT_PRED1(denied, client->set(path, settings_interface, "b", "b", 0));
	EXPECT_PRED1(denied, client->set(path, settings_interface, "u", "u", 2u));
	EXPECT_PRED1(denied, client->set(path, settings_interface, "i", "i", -2));
	EXPECT_PRED1(denied, client->set(path, settings_interface, "x", "x", int64_t{2}));
	EXPECT_PRED1(denied, client->set(path, settings_interface, "f", "d", 0.5));
	EXPECT_PRED1(denied, client->set(path, settings_interface, "d", "d", 0.5));
	EXPECT_PRED1(denied, client->set(path, settings_interface, "s", "s", "new"));
	/* The bus is in order, and nobody was told anything. */
	EXPECT_EQ(client->get(path, settings_interface, "u"), "u 1");
	EXPECT_EQ(client->get(path, settings_interface, "s"), "s \"1\"");
	EXPECT_TRUE(ear.told.empty());
	EXPECT_TRUE(client->signals().empty());
}

TEST_F(DBusProperty, ARefusalLeavesTheValueUnread)
{
	context->bus = sd_bus_ref(server);
	sd_bus_message *message = nullptr;
	sd_bus_message_new_signal(server, &message, "/", "com.example.A", "Any");
	const hs_message_ptr owned{message};
	sd_bus_message_append(message, "i", 7);
	sd_bus_message_seal(message, 1, 0);
	const table_ptr table{hs_dbus_cb_writeable_property("i", "Level")};
	EXPECT_EQ(table.get()[1].x.property.set(server, path, settings_interface, "Level", message, source, &error),
		  -EACCES);
	EXPECT_STREQ(error.name, SD_BUS_ERROR_ACCESS_DENIED);
	sd_bus_error_free(&error);
	int32_t value = 0;
	EXPECT_GT(sd_bus_message_read(message, "i", &value), 0);
	EXPECT_EQ(value, 7);
}

namespace {

struct failing_step {
	const char *function;
	int call;
	const char *signature;
	const char *text;
};

void PrintTo(const failing_step &step, std::ostream *out)
{
	*out << step.text;
}

class DBusStructure : public DBusProperty, public testing::WithParamInterface<failing_step>
{
};

} // namespace

TEST_P(DBusStructure, AStepThatFailsIsLoggedAndFailsTheGetter)
{
	const failing_step &step = GetParam();
	store(event_interface, "Value", "{ \"A\": \"1\" }", step.signature);
	hs_fail_call(step.function, step.call, ENOMEM);
	EXPECT_EQ(call_getter("()", event_interface, "Value"), -EIO);
	EXPECT_FALSE(hs_failure_is_due());
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR), 1u) << capture.text();
	EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_ERROR, std::string{step.text} + ": Cannot allocate memory"))
		<< capture.text();
	EXPECT_STREQ(error.name, HS_DBUS_ERROR);
	sd_bus_error_free(&error);
}

INSTANTIATE_TEST_SUITE_P(
	Steps, DBusStructure,
	testing::Values(failing_step{"open_container", 1, "(b)", "Unable to open array container"},
			failing_step{"open_container", 2, "(b)", "Unable to open dictionary container"},
			failing_step{"append", 1, "(b)", "Unable to open append string"},
			failing_step{"append", 2, "(b)", "Unable to open append bool variant"},
			failing_step{"append", 2, "(u)", "Unable to open append uint32_t variant"},
			failing_step{"append", 2, "(i)", "Unable to open append int32_t variant"},
			failing_step{"append", 2, "(x)", "Unable to open append int64_t variant"},
			failing_step{"append", 2, "(f)", "Unable to open append float variant"},
			failing_step{"append", 2, "(d)", "Unable to open append double variant"},
			failing_step{"append", 2, "(s)", "Unable to open append string variant"},
			failing_step{"close_container", 1, "(b)", "Unable to close dictionary container"},
			failing_step{"close_container", 2, "(b)", "Unable to close array container"}));
