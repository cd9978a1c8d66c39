#include <gtest/gtest.h>

#include "describe.hpp"
#include "failure.hpp"
#include "introspection.hpp"
#include "model.hpp"
#include "names.hpp"
#include "objects.hpp"
#include "output.hpp"
#include "top-view.hpp"
#include "value.hpp"

using namespace hs_ctl;

namespace {

constexpr char chain_path[] = "/com/orvel/HearSense/Mic";
constexpr char source_path[] = "/com/orvel/HearSense/Mic/Raw";
constexpr char loudness_path[] = "/com/orvel/HearSense/Mic/Raw/Loudness";
constexpr char alarm_path[] = "/com/orvel/HearSense/Mic/Raw/Alarm";

value text(const char *content)
{
	return {"s", content};
}

/** What the daemon publishes for the node "Mic.Raw" with two plug-ins. */
object_tree main_objects()
{
	object_tree tree;
	tree[chain_path][CHAIN_INTERFACE] = {{"Id", text("Mic")}, {"NiceName", text("M")}, {"Direction", text("in")}};
	tree[source_path][SOURCE_INTERFACE] = {{"Id", text("Mic.Raw")}, {"AudioChain", {"o", chain_path}}};
	for (const char *path : {loudness_path, alarm_path})
		tree[path][INSTANCE_INTERFACE] = {{"Source", {"o", source_path}}};

	interfaces &loudness = tree[loudness_path];
	loudness["com.orvel.HearSense.Settings.Loudness"] = {
		{"Enable", {"b", true}}, {"Schema", text("/s.json")}, {"Threshold", {"d", -20.0}}};
	loudness["com.orvel.HearSense.Events.Loudness.Loudness"] = {
		{"Loudness", {"a{sv}", {{"Momentary", -23.5}, {"Peak", -3.0}}}},
		{"EnableEvent", {"b", true}},
		{"Topic0Name", text("Audio")},
		{"Topic0Namespace", text("com.orvel")},
		{"Topic0NiceName", text("Sound")},
		{"Topic1Name", text("")}};
	loudness["com.orvel.HearSense.Events.Loudness.LoudnessAlarm"] = {
		{"LoudnessAlarm", {"a{sv}", {{"Detected", true}, {"Report", false}}}}};
	loudness["com.orvel.HearSense.Events.Loudness.LoudnessAlarm.Methods"] = {};
	tree[alarm_path]["com.orvel.HearSense.Settings.Alarm"] = {{"Enable", {"b", false}}};
	tree[alarm_path]["com.orvel.HearSense.Events.Alarm.Secret.Methods"] = {};
	return tree;
}

object_tree private_objects()
{
	object_tree tree;
	tree[loudness_path]["com.orvel.HearSense.Events.Loudness.Level"] = {{"Level", {"d", -65.25}}};
	return tree;
}

std::string failure_text(const model &all, const char *name)
{
	try {
		find_instance(all, name);
	} catch (const failure &error) {
		EXPECT_EQ(error.result, STATUS_USAGE);
		return error.what();
	}
	return "";
}

output plain_output()
{
	return {form::text, false, false};
}

} // namespace

TEST(HsctlValue, NumbersAreCheckedAgainstTheirType)
{
	EXPECT_EQ(parse_value("i", "-2147483648"), INT32_MIN);
	EXPECT_EQ(parse_value("i", "+7"), 7);
	EXPECT_EQ(parse_value("u", "4294967295"), UINT32_MAX);
	EXPECT_EQ(parse_value("u", "0xff"), 255);
	EXPECT_EQ(parse_value("x", "-9223372036854775808"), INT64_MIN);
	EXPECT_EQ(parse_value("x", "9223372036854775807"), INT64_MAX);
	EXPECT_EQ(parse_value("d", "-1.5e2"), -150.0);
	for (const char *wrong :
	     {"", "-", "+-1", "1 ", " 1", "1.0", "2147483648", "-2147483649", "0x", "99999999999999999999"})
		EXPECT_THROW(parse_value("i", wrong), failure) << wrong;
	for (const char *wrong : {"-1", "4294967296"})
		EXPECT_THROW(parse_value("u", wrong), failure) << wrong;
	for (const char *wrong : {"", "nan", "inf", "1e999", "1,5", "1.5x", "+-1"})
		EXPECT_THROW(parse_value("d", wrong), failure) << wrong;
}

TEST(HsctlValue, BooleansHaveWordsInAnyCase)
{
	for (const char *word : {"true", "ON", "Yes", "1"})
		EXPECT_EQ(parse_value("b", word), true) << word;
	for (const char *word : {"false", "off", "NO", "0"})
		EXPECT_EQ(parse_value("b", word), false) << word;
	EXPECT_THROW(parse_value("b", "2"), failure);
	EXPECT_THROW(parse_value("b", ""), failure);
}

TEST(HsctlValue, TextsAreNoLongerThanTheDaemonKeepsAndUtf8)
{
	EXPECT_EQ(parse_value("s", std::string(127, 'x')), std::string(127, 'x'));
	EXPECT_EQ(parse_value("s", ""), "");
	EXPECT_THROW(parse_value("s", std::string(128, 'x')), failure);
	EXPECT_THROW(parse_value("s", "ab\xc3"), failure);
	EXPECT_THROW(parse_value("ai", "[1]"), failure);
}

TEST(HsctlValue, FloatsReadAsTheyWereBeforeTheyBecameDoubles)
{
	EXPECT_EQ(to_text(static_cast<double>(0.1F)), "0.1");
	EXPECT_EQ(to_text(0.1), "0.1");
	EXPECT_EQ(to_text(-20.0), "-20");
	EXPECT_EQ(to_text(nullptr), "-");
}

TEST(HsctlValue, TextsCannotSteerTheTerminal)
{
	EXPECT_EQ(to_text("a\033[2Jb\n"), "a?[2Jb?");
	EXPECT_EQ(to_text({{"K\x07", "v\t"}}), "K?: v?");
	EXPECT_EQ(to_text({1, 2.5, "x"}), "[1, 2.5, x]");
}

TEST(HsctlValue, TypesHaveNames)
{
	EXPECT_EQ(type_name("b"), "boolean");
	EXPECT_EQ(type_name("ad"), "array of double");
	EXPECT_EQ(type_name("a{sv}"), "struct");
	EXPECT_EQ(type_name("t"), "t");
}

TEST(HsctlObjects, EventInterfacesAreTold)
{
	const auto title = [](const char *interface) {
		const auto split = split_event_interface(loudness_path, interface);
		return split ? split->title + (split->is_trigger ? "!" : "") : "none";
	};
	EXPECT_EQ(title("com.orvel.HearSense.Events.Loudness.Level"), "Level");
	EXPECT_EQ(title("com.orvel.HearSense.Events.Loudness.Level.Methods"), "Level!");
	EXPECT_EQ(title("com.orvel.HearSense.Events.Loudness.Methods"), "Methods");
	EXPECT_EQ(title("com.orvel.HearSense.Events.Loudness."), "none");
	EXPECT_EQ(title("com.orvel.HearSense.Events.Alarm.Level"), "none");
	EXPECT_EQ(title("com.orvel.HearSense.Settings.Loudness"), "none");
}

TEST(HsctlObjects, WhatIsRemovedGoes)
{
	object_tree tree = main_objects();
	remove_interfaces(&tree, source_path, {SOURCE_INTERFACE, "com.orvel.HearSense.None"});
	EXPECT_FALSE(tree.contains(source_path));
	remove_interfaces(&tree, "/nowhere", {SOURCE_INTERFACE});
	EXPECT_EQ(source_name(tree, loudness_path), "Mic.Raw");
	add_interfaces(&tree, source_path,
		       {{SOURCE_INTERFACE, {{"Id", text("Other")}}}, {"org.freedesktop.DBus.Peer", {}}});
	EXPECT_EQ(source_name(tree, loudness_path), "Other");
	EXPECT_EQ(tree[source_path].size(), 1U);
}

TEST(HsctlObjects, WhatAnObjectSaysOfItselfIsRead)
{
	const introspection read =
		read_introspection("<!DOCTYPE node PUBLIC \"-//x//EN\"\n\"https://x/y.dtd\">\n<node>\n"
				   " <interface name=\"a.Empty\">\n </interface>\n"
				   " <interface name=\"a.B\">\n"
				   "  <method name=\"Do\">\n   <arg type=\"s\" name=\"of\"/>\n  </method>\n"
				   "  <property name=\"One\" type=\"a{sv}\" access=\"read\">\n"
				   "   <annotation name=\"x.y\" value=\"const\"/>\n  </property>\n"
				   "  <property type=\"i\" name=\"Two\" access=\"read\">\n  </property>\n"
				   " </interface>\n <node name=\"below\"/>\n</node>\n");
	ASSERT_EQ(read.interfaces.size(), 2U);
	EXPECT_TRUE(read.interfaces.at("a.Empty").empty());
	const std::map<std::string, std::string> expected{{"One", "a{sv}"}, {"Two", "i"}};
	EXPECT_EQ(read.interfaces.at("a.B"), expected);
	EXPECT_EQ(read.children, std::vector<std::string>{"below"});
	EXPECT_TRUE(read_introspection("").interfaces.empty());
	EXPECT_EQ(read_introspection("<interface name=\"cut").interfaces.size(), 1U);
}

TEST(HsctlModel, PluginsHaveTheirSettingsAndEvents)
{
	const object_tree hidden = private_objects();
	const model all = make_model(main_objects(), &hidden);
	ASSERT_EQ(all.instances.size(), 2U);
	EXPECT_EQ(all.instances[0].name, "alarm@Mic.Raw");
	EXPECT_FALSE(all.instances[0].is_enabled);
	ASSERT_EQ(all.instances[0].events.size(), 1U);
	EXPECT_TRUE(all.instances[0].events[0].is_hidden);
	EXPECT_FALSE(all.instances[0].events[0].is_public);

	const instance &loudness = all.instances[1];
	EXPECT_TRUE(loudness.is_enabled);
	EXPECT_EQ(loudness.schema, "/s.json");
	ASSERT_EQ(loudness.settings.size(), 2U);
	ASSERT_EQ(loudness.events.size(), 3U);
	EXPECT_EQ(loudness.events[0].title, "Level");
	EXPECT_FALSE(loudness.events[0].is_public);
	EXPECT_FALSE(loudness.events[0].is_hidden);
	EXPECT_TRUE(loudness.events[1].is_public);
	EXPECT_EQ(loudness.events[2].trigger_interface, loudness.events[2].interface + ".Methods");
	EXPECT_EQ(number_of(loudness.events[1].current.content), -23.5);
	EXPECT_EQ(detection_of(loudness.events[2].current.content), true);
	EXPECT_FALSE(detection_of(loudness.events[1].current.content));
	EXPECT_FALSE(number_of(loudness.events[2].current.content));
}

TEST(HsctlModel, KeysOfAnEventAsJson)
{
	const model all = make_model(main_objects());
	const json described = describe_event(all.instances[1], *find_event(all.instances[1], "loudness"));
	EXPECT_EQ(described["topics"], json::parse(R"([{"name":"Audio","namespace":"com.orvel","niceName":"Sound"}])"));
	EXPECT_EQ(described["announced"], true);
	EXPECT_EQ(described["dataTypes"], nullptr);
	EXPECT_EQ(described["value"]["Momentary"], -23.5);
}

TEST(HsctlNames, AreFoundInAnyCaseAndOtherwiseListed)
{
	const model all = make_model(main_objects());
	EXPECT_EQ(find_instance(all, "LOUDNESS").name, "loudness@Mic.Raw");
	EXPECT_EQ(find_instance(all, "alarm@mic.raw").plugin, "alarm");
	EXPECT_EQ(find_instance(all, "loudness@m").name, "loudness@Mic.Raw");
	EXPECT_THROW(find_instance(all, "loudness@"), failure);
	EXPECT_EQ(failure_text(all, "voice"), "No plug-in 'voice'; there is:\n  alarm@Mic.Raw\n  loudness@Mic.Raw");
	EXPECT_EQ(failure_text(model(), "voice"), "No plug-in 'voice'; there is none");
	EXPECT_EQ(need_setting(all.instances[1], "threshold").title, "Threshold");
	EXPECT_EQ(need_trigger(all.instances[1], "").title, "LoudnessAlarm");
	EXPECT_THROW(need_trigger(all.instances[1], "Loudness"), failure);
	EXPECT_EQ(find_chains(all, "").size(), 1U);
	EXPECT_THROW(find_chains(all, "Other"), failure);
}

TEST(HsctlNames, PatternsMeanPluginsAndEvents)
{
	const auto is_meant_by = [](const char *pattern) {
		return is_meant({pattern}, "loudness", "Mic.Raw", "LoudnessAlarm");
	};
	for (const char *pattern :
	     {"loudness", "Loudness*", "loudness@mic.*", "loudnessalarm", "loudness/*Alarm", "*@Mic.Raw/*"})
		EXPECT_TRUE(is_meant_by(pattern)) << pattern;
	for (const char *pattern : {"", "alarm", "loud", "Mic.Raw", "loudness/Loudness", "loudness@Other*"})
		EXPECT_FALSE(is_meant_by(pattern)) << pattern;
	EXPECT_TRUE(is_meant({}, "loudness", "Mic.Raw", "LoudnessAlarm"));
	EXPECT_TRUE(is_meant({"voice", "loudness"}, "loudness", "Mic.Raw", "LoudnessAlarm"));
}

TEST(HsctlOutput, ColumnsAreForATerminal)
{
	const table shown{{{"A"}, {"B"}}, {{{"wörd"}, {"x"}}, {{"y"}, {"z", colour::green}}}};
	EXPECT_EQ(render(plain_output(), shown), "wörd\tx\ny\tz\n");
	EXPECT_EQ(render({form::text, true, false}, shown), "A     B\nwörd  x\ny     z\n");
	EXPECT_EQ(render({form::text, true, true}, {{{"A"}}, {{{"z", colour::green}}}}),
		  "\033[1mA\033[0m\n\033[32mz\033[0m\n");
}

TEST(HsctlTop, MetersSpanWhatHasBeenSeen)
{
	EXPECT_EQ(meter_text(5, {0, 10}, 4), "##--");
	EXPECT_EQ(meter_text(0, {0, 10}, 4), "----");
	EXPECT_EQ(meter_text(10, {0, 10}, 4), "####");
	EXPECT_EQ(meter_text(3, {3, 3}, 4), "----");

	object_tree tree = main_objects();
	spans seen;
	widen_spans(make_model(tree), &seen);
	tree[loudness_path]["com.orvel.HearSense.Events.Loudness.Loudness"]["Loudness"].content["Momentary"] = -13.5;
	const model all = make_model(tree);
	widen_spans(all, &seen);
	const std::vector<pieces> rows = make_rows(all, seen);
	ASSERT_EQ(rows.size(), 2U);
	ASSERT_EQ(rows[1].size(), 4U);
	EXPECT_EQ(rows[1][2].text, "Loudness [############]    -13.5");
	EXPECT_EQ(rows[1][3].text, "(*) LoudnessAlarm");
	EXPECT_EQ(rows[1][3].kind, piece_kind::lamp_on);
	EXPECT_EQ(rows[0][1].kind, piece_kind::disabled);
}
