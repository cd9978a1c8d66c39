#include "pcm-event.hpp"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "daemon-bed.hpp"
#include "dbus.hpp"
#include "event.hpp"
#include "pcm.hpp"
#include "pod.hpp"
#include "source.hpp"

namespace
{

using calls = std::vector<std::string>;
using members = std::vector<std::pair<std::string, bool>>;

/** A source with events but without a bus, made by hand. */
struct PcmEvent : testing::Test {
	PcmEvent()
	{
		std::strcpy(record.name, "motion");
		source.name = "AudioDevice0Input0.Unprocessed";
		source.plugin = &record;
		source.interface = &plugin.interface;
		source.pcm = &pcm;
		pcm.source = &source;
	}

	/** Describes the plug-in's next event. */
	void store(const char *title, const char *type, const char *value)
	{
		const auto index = static_cast<uint32_t>(source.events.size());
		source.events.push_back({index, {}, title, hs_schema_type_by_name(type), "", value});
	}

	std::string stored(const char *title) const
	{
		const hs_event *event = hs_events_find(source.events, title);
		return event ? event->value : "(none)";
	}

	/** Whether the source took the text for its event "E". */
	bool update(const char *type, const char *value, bool *report_changed = nullptr)
	{
		const hs_pod_ptr event = hs_pod_new("E", "About E", type, value);
		if (event->type == "array" || event->type == "struct") {
			std::snprintf(event->json, sizeof(event->json), "%s", value);
			event->value[0] = '\0';
		}
		bool ignored;
		return hs_events_update(source.events, *event, report_changed ? report_changed : &ignored);
	}

	hs_plugin record{};
	hs_source source{};
	hs_pcm pcm{};
	hs_handmade_plugin plugin;
};

/** A published source and a client that listens on a private bus. */
struct PcmEventSignals : testing::Test {
	PcmEventSignals()
	{
		node.name = "AudioDevice0Input0.Unprocessed";
		node.registered = true;
	}

	void publish(std::vector<hs_description> descriptions)
	{
		bed.host.prepare = [descriptions](hs_handmade_plugin &made) {
			made.events = descriptions;
			made.add_info("Level");
			made.add_info("Alarm");
		};
		hs_plugin *record = bed.add_plugin("motion");
		const std::string path = bed.settings + "/x.conf";
		source = hs_source_new(record, node.name.c_str(), nullptr, path.c_str(), &node);
		ASSERT_NE(source, nullptr);
		plugin = bed.host.plugins[0].get();
		bus = &bed.add_private_bus();
		ASSERT_TRUE(hs_dbus_setup_plugin_interfaces(source));
	}

	void enable(const char *title)
	{
		hs_loop_bus_set_event_status(bed.loop, bus->bus(), title, source, true);
	}

	/** What the client was told of the event's values since the last call. */
	std::vector<std::string> told()
	{
		EXPECT_TRUE(bus->client.ping());
		std::vector<std::string> contents =
		        bus->client.contents(source->object_path, "PropertiesChanged");
		bus->client.forget_signals();
		return contents;
	}

	static std::string level(int value)
	{
		return "\"com.orvel.HearSense.Events.Mover.Level\", [\"Level\": i " + std::to_string(value) +
		       "], []";
	}

	hs_pw_source node{};
	hs_daemon_bed bed;
	hs_source *source = nullptr;
	hs_handmade_plugin *plugin = nullptr;
	hs_bed_bus *bus = nullptr;
};

} // namespace

TEST_F(PcmEvent, NewValueIsStored)
{
	store("E", "int32", "1");
	EXPECT_TRUE(update("int32", "2"));
	EXPECT_EQ(stored("E"), "2");
}

TEST_F(PcmEvent, EqualValueIsNoChange)
{
	store("E", "int32", "1");
	const hs_log_capture capture;
	EXPECT_FALSE(update("int32", "1"));
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
}

TEST_F(PcmEvent, ValuesAreComparedAsTexts)
{
	store("E", "int32", "1");
	EXPECT_TRUE(update("int32", "01"));
	EXPECT_EQ(stored("E"), "01");
}

TEST_F(PcmEvent, ReportIsNoMatterOfScalars)
{
	store("E", "string", "x");
	bool report_changed = true;
	EXPECT_TRUE(update("string", "Report", &report_changed));
	EXPECT_FALSE(report_changed);
}

TEST_F(PcmEvent, NumbersMayBeHexadecimalOrOctal)
{
	store("E", "int32", "0");
	for (const char *value : {"0x10", "010", "-0x10", "-2147483648", "2147483647", "+5"}) {
		EXPECT_TRUE(update("int32", value)) << value;
		EXPECT_EQ(stored("E"), value);
	}
}

TEST_F(PcmEvent, ValueThatDoesNotFitItsTypeIsRejected)
{
	const std::pair<const char *, const char *> bad[] = {
	        {"int32", "2147483648"},
	        {"int32", "-2147483649"},
	        {"int32", ""},
	        {"int32", "1x"},
	        {"int32", "08"},
	        {"int32", "1.5"},
	        {"int32", "99999999999999999999"},
	        {"uint32", "4294967296"},
	        {"uint32", ""},
	        {"uint32", "-1"},
	        {"uint32", "five"},
	        {"int64", "9223372036854775808"},
	        {"int64", ""},
	        {"int64", "1 "},
	        {"float", ""},
	        {"float", "1,5"},
	        {"float", "1.5 "},
	        {"float", "1e99"},
	        {"double", ""},
	        {"double", "1e999"},
	        {"double", "loud"},
	};
	store("E", "int32", "7");
	for (const auto &[type, value] : bad) {
		const hs_log_capture capture;
		bool report_changed = true;
		EXPECT_FALSE(update(type, value, &report_changed)) << type << " " << value;
		EXPECT_FALSE(report_changed);
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN,
		                        std::string{"Failed to parse \"E\"=\""} + value + "\" as " + type),
		          1u)
		        << capture.text();
		EXPECT_EQ(capture.complaints(), 1u) << capture.text();
		EXPECT_EQ(stored("E"), "7");
	}
}

TEST_F(PcmEvent, ValueThatFitsItsTypeIsTaken)
{
	const std::pair<const char *, const char *> good[] = {
	        {"uint32", "4294967295"}, {"uint32", "0xffffffff"},       {"int64", "-9223372036854775808"},
	        {"float", "1.5"},         {"float", "-0.000000"},         {"float", "1e10"},
	        {"double", "1e300"},      {"double", "123456789.123456"},
	};
	store("E", "string", "");
	for (const auto &[type, value] : good) {
		const hs_log_capture capture;
		EXPECT_TRUE(update(type, value)) << type << " " << value << capture.text();
		EXPECT_EQ(stored("E"), value);
	}
}

TEST_F(PcmEvent, BooleansAndStringsMayBeEmptyOrAnything)
{
	for (const char *type : {"boolean", "string"}) {
		source.events.clear();
		store("E", type, "true");
		EXPECT_TRUE(update(type, "")) << type;
		EXPECT_EQ(stored("E"), "");
		EXPECT_TRUE(update(type, "maybe")) << type;
		EXPECT_EQ(stored("E"), "maybe");
	}
}

TEST_F(PcmEvent, UnknownTypeIsRejected)
{
	store("E", "int32", "7");
	const hs_log_capture capture;
	EXPECT_FALSE(update("colour", "red"));
	EXPECT_FALSE(update(nullptr, "red"));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Unsupported type 'colour' (\"E\"=\"red\")"), 1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Unsupported type '(null)' (\"E\"=\"red\")"), 1u)
	        << capture.text();
	EXPECT_EQ(stored("E"), "7");
}

TEST_F(PcmEvent, ArraysAreComparedByTheirText)
{
	store("E", "array", "[ 1, 2 ]");
	bool report_changed = true;
	EXPECT_FALSE(update("array", "[ 1, 2 ]"));
	EXPECT_TRUE(update("array", "[ 1, 3 ]", &report_changed));
	EXPECT_FALSE(report_changed);
	EXPECT_EQ(stored("E"), "[ 1, 3 ]");
}

TEST_F(PcmEvent, StructureThatChangesOutsideReportDoesNotReport)
{
	store("E", "struct", "{\n  \"Detected\": \"false\",\n  \"Report\": \"true\"\n }");
	bool report_changed = true;
	EXPECT_TRUE(update("struct", "{\n  \"Detected\": \"true\",\n  \"Report\": \"true\"\n }",
	                   &report_changed));
	EXPECT_FALSE(report_changed);
	EXPECT_EQ(stored("E"), "{\n  \"Detected\": \"true\",\n  \"Report\": \"true\"\n }");
}

TEST_F(PcmEvent, StructureThatChangesReportReports)
{
	store("E", "struct", "{\n  \"Detected\": \"false\",\n  \"Report\": \"true\"\n }");
	bool report_changed = false;
	EXPECT_TRUE(update("struct", "{\n  \"Detected\": \"false\",\n  \"Report\": \"false\"\n }",
	                   &report_changed));
	EXPECT_TRUE(report_changed);
}

TEST_F(PcmEvent, ReportThatComesOrGoesReports)
{
	store("E", "struct", "{\n  \"Detected\": \"false\"\n }");
	bool report_changed = false;
	EXPECT_TRUE(update("struct", "{\n  \"Detected\": \"false\",\n  \"Report\": \"false\"\n }",
	                   &report_changed));
	EXPECT_TRUE(report_changed);
	report_changed = false;
	EXPECT_TRUE(update("struct", "{\n  \"Detected\": \"true\"\n }", &report_changed));
	EXPECT_TRUE(report_changed);
}

TEST_F(PcmEvent, StructureWithoutReportDoesNotReport)
{
	store("E", "struct", "{\n  \"Detected\": \"false\"\n }");
	bool report_changed = true;
	EXPECT_TRUE(update("struct", "{\n  \"Detected\": \"true\"\n }", &report_changed));
	EXPECT_FALSE(report_changed);
}

TEST_F(PcmEvent, EqualStructureIsNoChange)
{
	store("E", "struct", "{\n  \"Report\": \"true\"\n }");
	bool report_changed = true;
	EXPECT_FALSE(update("struct", "{\n  \"Report\": \"true\"\n }", &report_changed));
	EXPECT_FALSE(report_changed);
}

TEST_F(PcmEvent, EventThatWasNeverDescribedCanNotBeStored)
{
	store("Other", "int32", "7");
	const hs_log_capture capture;
	update("int32", "1");
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Failed to set value 1 for props title E"), 1u)
	        << capture.text();
	EXPECT_EQ(stored("Other"), "7");
}

TEST_F(PcmEvent, BatchAsksForEveryEventAndStoresIt)
{
	store("A", "int32", "0");
	store("B", "boolean", "false");
	plugin.events = {hs_describe_int("A", 5), hs_describe_bool("B", true)};
	hs_pcm_handle_events(&source, false);
	EXPECT_EQ(plugin.count("get_event"), 2u);
	EXPECT_EQ(stored("A"), "5");
	EXPECT_EQ(stored("B"), "true");
}

TEST_F(PcmEvent, BatchWithoutEventsAsksForNone)
{
	plugin.events = {hs_describe_int("A", 5)};
	for (const int n : {0, -5}) {
		plugin.methods.get_event =
		        n == 0 ? plugin.methods.get_event
		               : [](void *, uint32_t, spa_pod **result, spa_pod_builder *) {
			                 EXPECT_EQ(result, nullptr);
			                 return -5;
		                 };
		plugin.n_events = n;
		hs_pcm_handle_events(&source, true);
	}
	plugin.methods.get_event = nullptr;
	hs_pcm_handle_events(&source, true);
	EXPECT_TRUE(plugin.calls.empty());
}

TEST_F(PcmEvent, BatchWarnsOfAnEventWithoutAPodAndGoesOn)
{
	store("B", "int32", "0");
	plugin.events = {hs_describe_nothing, hs_describe_int("B", 5), hs_describe_nothing};
	const hs_log_capture capture;
	hs_pcm_handle_events(&source, false);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not fetch event with index 0"), 1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not fetch event with index 2"), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 2u) << capture.text();
	EXPECT_EQ(stored("B"), "5");
}

TEST_F(PcmEvent, BatchPassesOverAPodThatIsNoDescription)
{
	store("B", "int32", "0");
	plugin.events = {hs_describe_nonsense, hs_describe_int("B", 5)};
	const hs_log_capture capture;
	hs_pcm_handle_events(&source, false);
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_EQ(stored("B"), "5");
}

/*
 * Every kind of value, good and bad, one after another on the quick way and, with tracing, on the long one: both
 * must store and log the same.
 */
TEST_F(PcmEvent, QuickWayGivesWhatTheLongOneGives)
{
	const std::string long_text(600, 'x');
	const std::string broken = "caf\xc3";
	const auto number = [](auto build, auto value) {
		return hs_describe("E", [=](spa_pod_builder *b) { build(b, value); });
	};
	std::vector<hs_description> said;
	for (const bool value : {true, false, true})
		said.push_back(hs_describe_bool("E", value));
	for (const int value : {0, 1, -1, INT32_MAX, INT32_MIN, 7, 7, 8})
		said.push_back(hs_describe_int("E", value));
	for (const uint32_t value : {0u, 1u, 2147483647u, 2147483648u, 4294967295u, 3u})
		said.push_back(number(spa_pod_builder_id, value));
	for (const int64_t value : {INT64_MIN, INT64_MAX, int64_t{0}})
		said.push_back(number(spa_pod_builder_long, value));
	for (const float value : {0.0f, -0.0f, 1.5f, FLT_MAX, -FLT_MAX, FLT_MIN, 1e-45f, HUGE_VALF, -HUGE_VALF, NAN})
		said.push_back(number(spa_pod_builder_float, value));
	for (const double value : {0.0, -1e-9, 1e300, DBL_MAX, DBL_MIN, 5e-324, HUGE_VAL, -HUGE_VAL, double{NAN}})
		said.push_back(number(spa_pod_builder_double, value));
	for (const std::string &text : {std::string{}, std::string{"hello"}, long_text, broken,
	                                std::string{"{ \"a\": 1 }"}, std::string{"\"\\\n"}, std::string(400, '\n')})
		said.push_back(hs_describe("E", [text](spa_pod_builder *b) { spa_pod_builder_string(b, text.c_str()); }));
	said.push_back(hs_describe_int("Other", 1));
	said.push_back(hs_describe_nonsense);
	said.push_back(hs_describe_flags("E", members{{"Detected", true}, {"Report", true}}));
	said.push_back(hs_describe_int("E", 1));

	const auto outcomes = [&](spa_log_level level) {
		source.events.clear();
		store("E", "int32", "0");
		std::vector<std::string> all;
		for (const hs_description &description : said) {
			plugin.events = {description};
			const hs_log_capture capture;
			hs_log_topic->level = level;
			/* Twice: the second time it is nothing new. */
			hs_pcm_handle_events(&source, false);
			hs_pcm_handle_events(&source, false);
			std::string outcome = stored("E");
			for (const hs_log_capture::line &line : capture.lines()) {
				if (line.level <= SPA_LOG_LEVEL_WARN)
					outcome += "\n" + line.text;
			}
			all.push_back(outcome);
		}
		return all;
	};
	EXPECT_EQ(outcomes(SPA_LOG_LEVEL_WARN), outcomes(SPA_LOG_LEVEL_TRACE));
}

TEST_F(PcmEvent, EachLookIsTracedWhetherThereIsNewsOrNot)
{
	store("A", "int32", "0");
	plugin.events = {hs_describe_int("A", 5)};
	const hs_log_capture capture;
	hs_log_topic->level = SPA_LOG_LEVEL_TRACE;
	for (int i = 0; i < 3; ++i)
		hs_pcm_handle_events(&source, false);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_TRACE, "Parsed POD A with type int32."), 3u) << capture.text();
}

TEST_F(PcmEvent, ValueThatWasSetOtherwiseIsReplacedByThePluginsOwn)
{
	store("A", "int32", "0");
	plugin.events = {hs_describe_int("A", 5)};
	hs_pcm_handle_events(&source, false);
	hs_events_set_value(source.events, "A", "9");
	EXPECT_EQ(stored("A"), "9");
	hs_pcm_handle_events(&source, false);
	EXPECT_EQ(stored("A"), "5");
}

TEST_F(PcmEvent, WhatGaveTheValueIsKeptUntilAnotherComesFromElsewhere)
{
	store("A", "int32", "0");
	store("B", "struct", "");
	plugin.events = {hs_describe_int("A", 5), hs_describe_flags("B", members{{"Detected", true}})};
	hs_pcm_handle_events(&source, false);
	for (const hs_event &event : source.events) {
		EXPECT_FALSE(event.said.empty()) << event.title;
		hs_events_set_value(source.events, event.title.c_str(), "1");
		EXPECT_TRUE(event.said.empty()) << event.title;
	}
}

TEST_F(PcmEvent, ValueThatIsTooLongIsRefusedEachTime)
{
	store("A", "string", "short");
	const std::string text(1000, 'x');
	const hs_pod_ptr event = hs_pod_new("A", "", "array", nullptr);
	std::snprintf(event->json, sizeof(event->json), "%s", text.c_str());
	for (int i = 0; i < 2; ++i) {
		const hs_log_capture capture;
		bool report_changed;
		EXPECT_TRUE(hs_events_update(source.events, *event, &report_changed));
		EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR,
		                        "Failed to set value " + text + " for props title A"),
		          1u)
		        << capture.text();
		EXPECT_EQ(stored("A"), "short");
	}
}

TEST_F(PcmEvent, SingleEventStoresOnlyItsOwnValue)
{
	store("A", "int32", "0");
	store("B", "int32", "0");
	plugin.events = {hs_describe_int("A", 5), hs_describe_int("B", 6)};
	hs_pcm_handle_event(&pcm, 1, false);
	EXPECT_EQ(plugin.calls, calls{"get_event"});
	EXPECT_EQ(stored("A"), "0");
	EXPECT_EQ(stored("B"), "6");
}

TEST_F(PcmEvent, SingleEventWithoutAPodIsAnError)
{
	plugin.events = {hs_describe_nothing};
	const hs_log_capture capture;
	hs_pcm_handle_event(&pcm, 0, true);
	hs_pcm_handle_event(&pcm, 9, true);
	plugin.methods.get_event = nullptr;
	hs_pcm_handle_event(&pcm, 0, true);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Event index 0 out of range"), 2u) << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Event index 9 out of range"), 1u) << capture.text();
	EXPECT_EQ(capture.complaints(), 3u) << capture.text();
}

TEST_F(PcmEvent, SingleEventWhosePodIsNoDescriptionIsAnError)
{
	plugin.events = {hs_describe_nonsense};
	const hs_log_capture capture;
	hs_pcm_handle_event(&pcm, 0, true);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Could not parse pod for event index 0"), 1u)
	        << capture.text();
}

TEST_F(PcmEvent, PodLargerThanItsBufferCountsAsNone)
{
	plugin.events = {[](spa_pod_builder *builder) {
		auto *pod = static_cast<spa_pod *>(builder->data);
		*pod = {100000, SPA_TYPE_Object};
		return pod;
	}};
	const hs_log_capture capture;
	hs_pcm_handle_events(&source, false);
	hs_pcm_handle_event(&pcm, 0, false);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not fetch event with index 0"), 1u)
	        << capture.text();
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_ERROR, "Event index 0 out of range"), 1u) << capture.text();
}

TEST_F(PcmEvent, WithoutAStreamOrANodeNothingIsSignalled)
{
	store("A", "int32", "0");
	plugin.events = {hs_describe_int("A", 5)};
	hs_pcm_handle_event(&pcm, 0, true);
	source.pcm = nullptr;
	hs_pcm_handle_events(&source, true);
	EXPECT_EQ(stored("A"), "5");
}

TEST_F(PcmEventSignals, ChangedValueIsSignalledOnce)
{
	publish({hs_describe_int("Level", 0)});
	enable("Level");
	plugin->events = {hs_describe_int("Level", 3)};
	hs_pcm_handle_events(source, false);
	hs_pcm_handle_events(source, false);
	EXPECT_EQ(told(), calls{level(3)});
}

TEST_F(PcmEventSignals, ForceSignalsEveryTime)
{
	publish({hs_describe_int("Level", 3)});
	enable("Level");
	hs_pcm_handle_events(source, true);
	hs_pcm_handle_events(source, true);
	hs_pcm_handle_event(source->pcm, 0, true);
	EXPECT_EQ(told(), (calls{level(3), level(3), level(3)}));
}

TEST_F(PcmEventSignals, TurningThePluginOnAndOffTellsItsValuesAgain)
{
	publish({hs_describe_int("Level", 3)});
	enable("Level");
	const auto change_state = [this](pw_stream_state old, pw_stream_state state) {
		spa_callbacks_call(&source->pcm->listener.cb, pw_stream_events, state_changed, 0, old, state, nullptr);
	};
	source->is_initialized = true;
	change_state(PW_STREAM_STATE_PAUSED, PW_STREAM_STATE_STREAMING);
	EXPECT_EQ(told(), calls{level(3)});
	change_state(PW_STREAM_STATE_STREAMING, PW_STREAM_STATE_PAUSED);
	EXPECT_EQ(told(), calls{level(3)});
}

TEST_F(PcmEventSignals, NotificationTellsOfChangesToThoseWhoEnabledTheEvent)
{
	publish({hs_describe_int("Level", 3)});
	plugin->interface.notify_event(&plugin->interface, 0);
	EXPECT_TRUE(told().empty());
	plugin->events = {hs_describe_int("Level", 4)};
	plugin->interface.notify_event(&plugin->interface, 0);
	EXPECT_TRUE(told().empty());
	enable("Level");
	plugin->interface.notify_event(&plugin->interface, 0);
	EXPECT_TRUE(told().empty());
	plugin->events = {hs_describe_int("Level", 5)};
	plugin->interface.notify_event(&plugin->interface, 0);
	EXPECT_EQ(told(), calls{level(5)});
}

TEST_F(PcmEventSignals, ForcedBatchDoesNotReachABusThatDidNotEnableTheEvent)
{
	publish({hs_describe_int("Level", 3)});
	hs_pcm_handle_events(source, true);
	EXPECT_TRUE(told().empty());
}

TEST_F(PcmEventSignals, ForcedSingleEventReachesEveryBus)
{
	publish({hs_describe_int("Level", 3)});
	hs_pcm_handle_event(source->pcm, 0, true);
	EXPECT_EQ(told(), calls{level(3)});
}

TEST_F(PcmEventSignals, ChangeOfReportReachesEveryBus)
{
	publish({hs_describe_flags("Alarm", members{{"Detected", false}, {"Report", false}})});
	plugin->events = {hs_describe_flags("Alarm", members{{"Detected", true}, {"Report", false}})};
	hs_pcm_handle_events(source, false);
	EXPECT_TRUE(told().empty());
	plugin->events = {hs_describe_flags("Alarm", members{{"Detected", true}, {"Report", true}})};
	hs_pcm_handle_events(source, false);
	EXPECT_EQ(told().size(), 1u);
	plugin->events = {hs_describe_flags("Alarm", members{{"Detected", true}, {"Report", false}})};
	hs_pcm_handle_event(source->pcm, 0, false);
	EXPECT_EQ(told().size(), 1u);
}

TEST_F(PcmEventSignals, UntilTheNodeIsRegisteredValuesAreStoredButNotSignalled)
{
	node.registered = false;
	publish({hs_describe_int("Level", 0)});
	enable("Level");
	plugin->events = {hs_describe_int("Level", 3)};
	hs_pcm_handle_events(source, false);
	hs_pcm_handle_event(source->pcm, 0, true);
	EXPECT_TRUE(told().empty());
	node.registered = true;
	hs_pcm_handle_events(source, false);
	EXPECT_TRUE(told().empty());
	hs_pcm_handle_events(source, true);
	EXPECT_EQ(told(), calls{level(3)});
}

TEST_F(PcmEventSignals, RejectedValueIsNotSignalledUnlessForced)
{
	publish({hs_describe("Level", [](spa_pod_builder *b) { spa_pod_builder_id(b, 5); })});
	enable("Level");
	plugin->events = {
	        hs_describe("Level", [](spa_pod_builder *b) { spa_pod_builder_id(b, 3000000000); })};
	const hs_log_capture capture;
	hs_pcm_handle_events(source, false);
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Failed to parse \"Level\"=\"-1294967296\" as uint32"),
	          1u)
	        << capture.text();
	EXPECT_TRUE(told().empty());
	hs_pcm_handle_events(source, true);
	EXPECT_EQ(told(), calls{"\"com.orvel.HearSense.Events.Mover.Level\", [\"Level\": u 5], []"});
}

TEST_F(PcmEventSignals, NodeThatIsGoneIsNotRegistered)
{
	publish({hs_describe_int("Level", 3)});
	enable("Level");
	source->pcm->node = nullptr;
	hs_pcm_handle_events(source, true);
	EXPECT_TRUE(told().empty());
}
