/*
 * Vamp plug-ins as the daemon has them: names, events, settings, bad configurations, and the same values as from a
 * host of Vamp's own. VAMP_PATH names the folders of the scripted Vamp plug-in and of vamp-examples.
 */
#include <array>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <vamp-hostsdk/vamp-hostsdk.h>

#include <dlfcn.h>

#include "sdk-host.hpp"
#include "temp-dir.hpp"

namespace {

using settings_text = std::vector<std::pair<std::string, std::string>>;
using signals = std::vector<std::vector<float>>;

constexpr uint32_t usual_rate = 48000;

/** A folder with the library, some links, and what only looks like one; all tests share it, as it is read once. */
class installation
{
public:
	installation()
	{
		namespace fs = std::filesystem;
		fs::copy_file(VAMP_LIBRARY, folder / "libhs-vamp.so");
		for (const char *name : {"onset", "Loud_2", "2bad"})
			fs::create_symlink("libhs-vamp.so", folder / ("libspa-hs-" + std::string{name} + ".so"));
		fs::create_symlink("libspa-hs-onset.so", folder / "libspa-hs-chained.so");
		fs::create_symlink("nowhere.so", folder / "libspa-hs-broken.so");
		fs::create_symlink("libhs-vamp.so", folder / "libspa-hs-onset.so.1");
		fs::create_symlink("libhs-vamp.so", folder / "libspa-other.so");
		hs_write_text(folder / "libspa-hs-other.so", "another library");

		library = dlopen((folder / "libspa-hs-onset.so").c_str(), RTLD_NOW | RTLD_LOCAL);
		if (!library)
			throw std::runtime_error{dlerror()};
		enumerate = reinterpret_cast<spa_handle_factory_enum_func_t>(
			dlsym(library, SPA_HANDLE_FACTORY_ENUM_FUNC_NAME));
	}

	~installation()
	{
		dlclose(library);
	}

	std::vector<const spa_handle_factory *> factories() const
	{
		std::vector<const spa_handle_factory *> all;
		const spa_handle_factory *factory = nullptr;
		uint32_t index = 0;
		while (enumerate(&factory, &index) == 1)
			all.push_back(factory);
		return all;
	}

	const hear_sense::factory &factory(const std::string &name) const
	{
		for (const spa_handle_factory *factory : factories()) {
			if (factory->name == "hear-sense." + name)
				return *static_cast<const hear_sense::factory *>(factory);
		}
		throw std::runtime_error{"no factory " + name};
	}

private:
	hs_temp_dir folder;
	void *library = nullptr;
	spa_handle_factory_enum_func_t enumerate = nullptr;
};

const installation &installed()
{
	static const installation only;
	return only;
}

/** A structure or array without its quotes, line ends and indents. */
std::string in_one_line(const std::string &text)
{
	std::string line;
	for (const char c : text) {
		const bool is_gap = c == ' ' || c == '\n';
		if (c != '"' && !(is_gap && line.ends_with(' ')))
			line.push_back(is_gap ? ' ' : c);
	}
	return line;
}

/** The plug-in "onset", with that for its "plugin.config". */
class vamp_host
{
public:
	explicit vamp_host(settings_text config) : texts{std::move(config)}, host{installed().factory("onset"), items()}
	{
	}

	sdk_host *operator->()
	{
		return &host;
	}

	int init(uint32_t rate = usual_rate, uint32_t channels = 1)
	{
		host.stream.info.format = SPA_AUDIO_FORMAT_F32P;
		host.stream.info.rate = rate;
		host.stream.info.channels = channels;
		std::snprintf(host.stream.source_name, sizeof(host.stream.source_name), "Mic0");
		const std::vector<spa_dict_item> all = items();
		const spa_dict config = SPA_DICT_INIT(all.data(), static_cast<uint32_t>(all.size()));
		return host.interface->funcs->init(host.interface->data, &host.stream, &config);
	}

	void start(uint32_t rate = usual_rate, uint32_t channels = 1)
	{
		ASSERT_EQ(init(rate, channels), 0) << log_text();
		ASSERT_EQ(host.activate(), 0);
	}

	void hear(const signals &all, size_t portion)
	{
		for (size_t first = 0; first < all[0].size(); first += portion) {
			signals part;
			for (const std::vector<float> &signal : all) {
				const auto begin = signal.begin() + static_cast<std::ptrdiff_t>(first);
				part.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(
									 std::min(portion, signal.size() - first)));
			}
			host.process(planar(part));
		}
	}

	/** What was told, one text after the other, without quotes and each in one line. */
	std::vector<std::string> told() const
	{
		std::vector<std::string> values;
		for (const sdk_told &one : host.told)
			values.push_back(in_one_line(one.value));
		return values;
	}

	std::string log_text() const
	{
		std::string all;
		for (const sdk_log::line &line : host.log.lines)
			all += line.text + "\n";
		return all;
	}

private:
	std::vector<spa_dict_item> items() const
	{
		std::vector<spa_dict_item> all;
		for (const auto &[key, value] : texts)
			all.push_back(SPA_DICT_ITEM_INIT(key.c_str(), value.c_str()));
		return all;
	}

	settings_text texts;
	sdk_host host;
};

settings_text scripted(const std::string &output, const settings_text &more = {})
{
	settings_text all = {{"plugin", "vamp-scripted:scripted"}, {"output", output}, {"preview", "false"}};
	all.insert(all.end(), more.begin(), more.end());
	return all;
}

/** Each sample is its own number, in thousandths. */
std::vector<float> ramp(size_t n)
{
	std::vector<float> samples(n);
	for (size_t i = 0; i < n; i++)
		samples[i] = static_cast<float>(i) / 1000.0F;
	return samples;
}

/** A tone, and noise that begins and ends. */
std::vector<float> music(double seconds, uint32_t rate = usual_rate)
{
	std::minstd_rand generator{1};
	std::uniform_real_distribution<float> noise{-0.5F, 0.5F};
	std::vector<float> samples(static_cast<size_t>(seconds * rate));
	for (size_t i = 0; i < samples.size(); i++) {
		const double time = static_cast<double>(i) / rate;
		samples[i] = 0.2F * static_cast<float>(std::sin(6.283185307 * 440.0 * time));
		if (std::fmod(time, 0.5) < 0.02)
			samples[i] += noise(generator);
	}
	return samples;
}

/** A number as the daemon publishes it. */
std::string text_of(double number)
{
	char text[64];
	std::snprintf(text, sizeof(text), "%f", number);
	return text;
}

/*
 * Names.
 */

TEST(VampNames, AreThoseOfTheLinksThatLeadToTheLibrary)
{
	std::set<std::string> names;
	for (const spa_handle_factory *factory : installed().factories())
		names.insert(factory->name);
	const std::set<std::string> expected = {"hear-sense.onset", "hear-sense.Loud_2", "hear-sense.2bad",
						"hear-sense.chained"};
	EXPECT_EQ(names, expected);
}

TEST(VampNames, BecomeTheInterface)
{
	const hear_sense::factory &factory = installed().factory("Loud_2");
	EXPECT_STREQ(factory.interface_type(), "Spa:Pointer:Interface:HearSense:LOUD_2");
	sdk_host host{factory, {{"plugin", "vamp-scripted:scripted"}, {"output", "first"}}};
	ASSERT_EQ(host.result, 0);
	EXPECT_STREQ(host.interface->interface_name, "Loud_2");

	vamp_host onset{scripted("first")};
	EXPECT_STREQ(onset->interface->interface_name, "Onset");
}

TEST(VampNames, ThatNoObjectCouldHaveAreRefused)
{
	sdk_host host{installed().factory("2bad")};
	EXPECT_EQ(host.result, -EINVAL);
	ASSERT_EQ(host.log.lines.size(), 1U);
	EXPECT_NE(host.log.lines[0].text.find("no digit first"), std::string::npos) << host.log.lines[0].text;
}

TEST(VampNames, SchemasAreInstalledWithThePlugin)
{
	vamp_host host{scripted("first")};
	for (const char *file : {host->interface->schema, host->interface->settings_schema})
		EXPECT_TRUE(std::filesystem::exists(std::string{VAMP_SCHEMAS} + "/" + file)) << file;
}

/*
 * Events.
 */

struct expected_event {
	const char *output;
	const char *title;
	const char *type;
	const char *signature;
	bool is_structure;

	friend void PrintTo(const expected_event &event, std::ostream *out)
	{
		*out << event.output;
	}
};

class VampEvent : public testing::TestWithParam<expected_event>
{
};

TEST_P(VampEvent, FitsTheOutput)
{
	const expected_event &expected = GetParam();
	vamp_host host{scripted(expected.output)};
	ASSERT_EQ(host->interface->n_events, 1U) << host.log_text();
	const hs_pod_ptr event = host->event(0);
	ASSERT_TRUE(event);
	EXPECT_EQ(event->title, expected.title);
	EXPECT_EQ(event->type, expected.type);
	EXPECT_STREQ(event->signature, expected.signature);
	const hs_event_info &info = *host->interface->events[0];
	EXPECT_STREQ(info.name, expected.title);
	EXPECT_EQ(info.nice_name, std::string{"The "} + expected.output);
	EXPECT_EQ(info.is_public, expected.is_structure);
	EXPECT_EQ(info.isPropertyState, !expected.is_structure);
	EXPECT_EQ(info.data_types, uint32_t{expected.is_structure ? HS_EVENT_DATA_EVENT : HS_EVENT_DATA_STATS});
}

INSTANTIATE_TEST_SUITE_P(Outputs, VampEvent,
			 testing::Values(expected_event{"first", "First", "float", "", false},
					 expected_event{"whole", "Whole", "int32", "", false},
					 expected_event{"halves", "Halves", "float", "", false},
					 expected_event{"rate", "Rate", "array", "ad", false},
					 expected_event{"widest", "Widest", "array", "ad", false},
					 expected_event{"beats", "Beats", "struct", "(udds)", true},
					 expected_event{"notes", "Notes", "struct", "(uddsdd)", true}),
			 [](const auto &test) { return std::string{test.param.output}; });

TEST(VampEvents, ArePublicAsConfigured)
{
	vamp_host open{scripted("first", {{"public", "true"}})};
	EXPECT_TRUE(open->interface->events[0]->is_public);
	vamp_host closed{scripted("beats", {{"public", "false"}})};
	EXPECT_FALSE(closed->interface->events[0]->is_public);
}

TEST(VampEvents, TellWhatBlocksOfThePreferredSizeGive)
{
	for (const size_t portion : {size_t{1}, size_t{333}, size_t{2000}}) {
		vamp_host host{scripted("first")};
		host.start();
		host.hear({ramp(1299)}, portion);
		/* Blocks of 500 frames begin at 0, 200, 400, 600; the first tells no change. */
		const std::vector<std::string> expected = {text_of(0.2F), text_of(0.4F), text_of(0.6F)};
		EXPECT_EQ(host.told(), expected) << portion;
		host.hear({{0.0F}}, 1);
		EXPECT_EQ(host.told().back(), text_of(0.8F));
	}
}

TEST(VampEvents, BlocksAreAsConfigured)
{
	vamp_host host{scripted("channels", {{"block", "300"}, {"step", "100"}})};
	host.start();
	host.hear({ramp(500)}, 64);
	const std::vector<std::string> expected = {text_of(0.299F), text_of(0.399F), text_of(0.499F)};
	EXPECT_EQ(host.told(), expected);
}

TEST(VampEvents, EachFeatureOfABufferIsTold)
{
	vamp_host host{scripted("notes")};
	host.start();
	host.hear({ramp(700)}, 700);
	const auto note = [](int count, const std::string &rest, const std::string &value) {
		return "{ Count: " + std::to_string(count) + ", " + rest + ", Value1: " + value + ", Value2: " + value +
		       " }";
	};
	const std::vector<std::string> expected = {note(1, "Time: 0.001000, Duration: 0.250000, Label: A4", "0.000000"),
						   note(2, "Time: 0.001000, Duration: 0.000000, Label: -", "0.000000"),
						   note(3, "Time: 0.005167, Duration: 0.250000, Label: A4", "0.200000"),
						   note(4, "Time: 0.005167, Duration: 0.000000, Label: -", "0.200000")};
	EXPECT_EQ(host.told(), expected);
}

TEST(VampEvents, WithoutATimeHaveThatOfTheirBlock)
{
	vamp_host host{scripted("beats")};
	host.start();
	host.hear({ramp(900)}, 900);
	ASSERT_EQ(host.told().size(), 3U);
	EXPECT_NE(host.told()[2].find("Count: 3, Time: 0.008333,"), std::string::npos) << host.told()[2];
}

TEST(VampEvents, OfFrequenciesHaveTheTimeOfTheMiddleOfTheirBlock)
{
	vamp_host host{{{"plugin", "vamp-scripted:spectral"}, {"output", "beats"}, {"block", "512"}, {"step", "256"}}};
	host.start();
	host.hear({ramp(768)}, 768);
	ASSERT_EQ(host.told().size(), 2U);
	EXPECT_NE(host.told()[0].find("Time: 0.005333,"), std::string::npos) << host.told()[0];
	EXPECT_NE(host.told()[1].find("Time: 0.010667,"), std::string::npos) << host.told()[1];
}

TEST(VampEvents, BeginAgainWithTheAudio)
{
	vamp_host host{scripted("beats")};
	host.start();
	host.hear({ramp(900)}, 900);
	host->deactivate();
	EXPECT_NE(in_one_line(host->event_text(0)).find("Count: 0, Time: 0.000000"), std::string::npos)
		<< host->event_text(0);
	host->told.clear();
	ASSERT_EQ(host->activate(), 0);
	host.hear({ramp(500)}, 500);
	ASSERT_EQ(host.told().size(), 1U);
	EXPECT_NE(host.told()[0].find("Count: 1, Time: 0.000000"), std::string::npos) << host.told()[0];
}

TEST(VampEvents, WhatIsNoNumberIsKeptBack)
{
	vamp_host host{scripted("unsure")};
	host.start();
	host.hear({ramp(1100)}, 1100);
	ASSERT_EQ(host.told().size(), 4U);
	EXPECT_NE(host.told()[2].find("Value: 0.400000"), std::string::npos) << host.told()[2];
	EXPECT_NE(host.told()[3].find("Value: 0.400000"), std::string::npos) << host.told()[3];
}

TEST(VampEvents, WhatIsNoInt32IsKeptBack)
{
	vamp_host host{scripted("whole")};
	host.start();
	host.hear({ramp(1100)}, 1100);
	EXPECT_EQ(host.told(), (std::vector<std::string>{"20", "40"}));
}

TEST(VampEvents, FeaturesWithTooFewValuesAreLeftOut)
{
	vamp_host host{scripted("short")};
	host.start();
	host.hear({ramp(1100)}, 1100);
	EXPECT_TRUE(host.told().empty());
}

TEST(VampEvents, SeveralChannelsAreHeard)
{
	vamp_host host{scripted("channels", {{"channels", "2"}})};
	host.start(usual_rate, 2);
	host.hear({ramp(500), std::vector<float>(500, 0.25F)}, 100);
	EXPECT_EQ(host.told(), std::vector<std::string>{"[ 0.499000, 0.250000 ]"});
}

TEST(VampEvents, SixChannelsAreMoreThanItTakesAndTheLastAreLeftOut)
{
	vamp_host host{scripted("channels", {{"channels", "6"}})};
	host.start(usual_rate, 6);
	host.hear(signals(6, ramp(500)), 100);
	EXPECT_EQ(host.told(), std::vector<std::string>{"[ 0.499000, 0.499000, 0.499000, 0.499000 ]"});
}

TEST(VampEvents, TwoConfigurationsRunSideBySide)
{
	vamp_host first{scripted("first")};
	vamp_host second{{{"plugin", "vamp-example-plugins:zerocrossing"}, {"output", "counts"}}};
	first.start();
	second.start();
	first.hear({ramp(800)}, 100);
	second.hear({music(0.1)}, 100);
	EXPECT_EQ(first.told(), (std::vector<std::string>{text_of(0.2F)}));
	EXPECT_EQ(second->event(0)->type, "int32");
	EXPECT_FALSE(second.told().empty());
}

/*
 * Settings.
 */

TEST(VampSettings, AreTheParameters)
{
	vamp_host host{scripted("first", {{"parameter.gain", "1.5"}})};
	ASSERT_EQ(host->interface->funcs->get_setting(host->interface->data, 0, nullptr, nullptr), 5);
	const char *titles[] = {"Gain", "Path_", "_3d_effect", "GAIN_", "Mode"};
	const double values[] = {1.5, 0.0, 0.0, 0.0, 2.0};
	for (uint32_t i = 0; i < 5; i++) {
		EXPECT_EQ(host->setting(i)->title, titles[i]);
		EXPECT_EQ(host->setting(i)->type, "float");
		EXPECT_EQ(host->setting_text(i), text_of(values[i]));
	}
	EXPECT_EQ(host->setting(4)->description, "The mode; 1: One, 2: Two, 3: Three (bins)");
}

TEST(VampSettings, HaveTheRangesOfTheParameters)
{
	vamp_host host{scripted("first")};
	EXPECT_EQ(host->set("Gain", "2.0", "float"), 0);
	EXPECT_EQ(host->set("Gain", "2.1", "float"), -EINVAL);
	EXPECT_EQ(host->set("Gain", "-0.1", "float"), -EINVAL);
	EXPECT_EQ(host->set("Path_", "-1.0", "float"), 0);
	EXPECT_EQ(host->setting_text(0), text_of(2.0));
}

TEST(VampSettings, FromBeforeTheAudioCount)
{
	vamp_host host{scripted("first", {{"parameter.gain", "1.5"}})};
	ASSERT_EQ(host->set("Gain", "0.5", "float"), 0);
	host.start();
	host.hear({ramp(700)}, 100);
	EXPECT_EQ(host.told(), std::vector<std::string>{text_of(0.1F)});
}

TEST(VampSettings, OfTheConfigurationCount)
{
	vamp_host host{scripted("first", {{"parameter.gain", "1.5"}})};
	host.start();
	host.hear({ramp(700)}, 100);
	EXPECT_EQ(host.told(), std::vector<std::string>{text_of(0.3F)});
}

TEST(VampSettings, ChangeWhileItListens)
{
	vamp_host host{scripted("beats")};
	host.start();
	host.hear({ramp(500)}, 500);
	ASSERT_EQ(host->set("Gain", "0.5", "float"), 0);
	host.hear({ramp(200)}, 200);
	/* The time goes on. */
	ASSERT_EQ(host.told().size(), 2U);
	EXPECT_NE(host.told()[1].find("Count: 2, Time: 0.004167"), std::string::npos) << host.told()[1];

	vamp_host value{scripted("first")};
	value.start();
	ASSERT_EQ(value->set("Gain", "0.5", "float"), 0);
	value.hear({ramp(700)}, 700);
	EXPECT_EQ(value.told(), std::vector<std::string>{text_of(0.1F)});
}

TEST(VampSettings, ThatChangeTheBlockDoSoWhenTheAudioBeginsAgain)
{
	vamp_host host{scripted("channels")};
	host.start();
	ASSERT_EQ(host->set("Gain", "0.25", "float"), 0);
	host.hear({ramp(500)}, 500);
	host->deactivate();
	ASSERT_EQ(host->activate(), 0);
	host.hear({ramp(300)}, 300);
	EXPECT_EQ(host.told(), (std::vector<std::string>{text_of(0.499F), text_of(0.299F)}));
}

TEST(VampSettings, ThatWouldChangeTheEventAreRefusedWhileItListens)
{
	vamp_host host{scripted("mode")};
	host.start();
	EXPECT_EQ(host->set("Mode", "3.0", "float"), -EINVAL);
	EXPECT_EQ(host->setting_text(4), text_of(2.0));
	EXPECT_NE(host.log_text().find("parameters"), std::string::npos) << host.log_text();
	host.hear({ramp(700)}, 700);
	EXPECT_EQ(host.told(), std::vector<std::string>{"[ 0.200000, 0.200000 ]"});
}

/*
 * Bad input.
 */

struct bad_config {
	const char *name;
	settings_text config;
	/** Of the log line. */
	const char *advice;

	friend void PrintTo(const bad_config &bad, std::ostream *out)
	{
		*out << bad.name;
	}
};

class VampBadConfig : public testing::TestWithParam<bad_config>
{
};

TEST_P(VampBadConfig, IsRefusedWithOneLineOfAdvice)
{
	testing::internal::CaptureStderr();
	vamp_host host{GetParam().config};
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
	EXPECT_EQ(host->result, -EINVAL);
	ASSERT_EQ(host->log.lines.size(), 1U) << host.log_text();
	EXPECT_EQ(host->log.lines[0].level, SPA_LOG_LEVEL_ERROR);
	EXPECT_NE(host.log_text().find("hear-sense.onset: onset.conf: "), std::string::npos) << host.log_text();
	EXPECT_NE(host.log_text().find(GetParam().advice), std::string::npos) << host.log_text();
}

INSTANTIATE_TEST_SUITE_P(
	Configs, VampBadConfig,
	testing::Values(
		bad_config{"Empty", {}, "set \"plugin\""},
		bad_config{"NoKey", {{"plugin", "vamp-scripted"}}, "set \"plugin\""},
		bad_config{"NoLibrary", {{"plugin", "nowhere:scripted"}, {"output", "first"}}, "set \"plugin\""},
		bad_config{"NoPlugin", {{"plugin", "vamp-scripted:lost"}, {"output", "first"}}, "set \"plugin\""},
		bad_config{"NoOutput", {{"plugin", "vamp-scripted:scripted"}}, "set \"output\""},
		bad_config{"OutputUnknown", scripted("last"), "set \"output\""},
		bad_config{"OutputTooWide", scripted("too-wide"), "set \"output\""},
		bad_config{"OutputTooManyMembers", scripted("too-many"), "set \"output\""},
		bad_config{"OutputOpen", scripted("open"), "set \"output\""},
		bad_config{"ParameterTooLarge", scripted("first", {{"parameter.gain", "2.5"}}),
			   "set \"parameter.gain\" to a number from 0.000000 to 2.000000"},
		bad_config{"ParameterNoNumber", scripted("first", {{"parameter.gain", "loud"}}),
			   "set \"parameter.gain\" to a number"},
		bad_config{"ParameterNan", scripted("first", {{"parameter.gain", "nan"}}),
			   "set \"parameter.gain\" to a number"},
		bad_config{"ParameterUnknown", scripted("first", {{"parameter.volume", "1"}}),
			   "take out \"parameter.volume\""},
		bad_config{"KeyUnknown", scripted("first", {{"ouput", "first"}}), "take out \"ouput\""},
		bad_config{"BlockNoNumber", scripted("first", {{"block", "big"}}), "set \"block\""},
		bad_config{"BlockHuge", scripted("first", {{"block", "4294967295"}}), "\"block\""},
		bad_config{"BlockZero", scripted("first", {{"block", "0"}}), "set \"block\""},
		bad_config{"StepTooSmall", scripted("first", {{"step", "50"}}), "\"step\""},
		bad_config{"StepBeyondBlock", scripted("first", {{"block", "300"}, {"step", "400"}}), "\"step\""},
		bad_config{"RateNegative", scripted("first", {{"rate", "-1"}}), "set \"rate\""}),
	[](const auto &test) { return std::string{test.param.name}; });

TEST(VampBadFormat, OfARateThatThePluginDoesNotTakeIsRefused)
{
	vamp_host host{scripted("first")};
	EXPECT_EQ(host.init(8000), -EINVAL);
	ASSERT_EQ(host->log.lines.size(), 1U);
	EXPECT_NE(host.log_text().find("audio.rate"), std::string::npos) << host.log_text();
	EXPECT_EQ(host.init(16000), 0);
}

TEST(VampBadFormat, ThatMakesAnotherOutputIsRefusedUnlessItWasDescribed)
{
	vamp_host host{scripted("rate")};
	EXPECT_EQ(host.init(32000), -EINVAL);
	ASSERT_EQ(host->log.lines.size(), 1U);
	EXPECT_NE(host.log_text().find("set \"rate\", \"channels\""), std::string::npos) << host.log_text();
	EXPECT_EQ(host.init(48000), 0);

	vamp_host right{scripted("rate", {{"rate", "32000"}})};
	EXPECT_EQ(right.init(32000), 0);
}

TEST(VampBadFormat, OfSamplesIsRefused)
{
	vamp_host host{scripted("first")};
	EXPECT_EQ(host->init(1, SPA_AUDIO_FORMAT_F64P), -ENOTSUP);
	EXPECT_NE(host.log_text().find("set audio.format to F32P in onset.conf"), std::string::npos) << host.log_text();
}

/*
 * The same as a host of Vamp's own.
 */

struct example {
	const char *plugin;
	const char *output;

	friend void PrintTo(const example &which, std::ostream *out)
	{
		*out << which.plugin << ":" << which.output;
	}
};

class VampExample : public testing::TestWithParam<example>
{
};

/** The features of an output, by the host SDK alone. */
std::vector<Vamp::Plugin::Feature> run_alone(const example &which, const std::vector<float> &samples, uint32_t rate)
{
	using namespace Vamp::HostExt;
	const std::string key = std::string{"vamp-example-plugins:"} + which.plugin;
	const std::unique_ptr<Vamp::Plugin> plugin{
		PluginLoader::getInstance()->loadPlugin(key, static_cast<float>(rate), PluginLoader::ADAPT_ALL_SAFE)};
	if (!plugin)
		throw std::runtime_error{"the package vamp-examples is not installed"};
	const size_t block = plugin->getPreferredBlockSize() ? plugin->getPreferredBlockSize() : 1024;
	const size_t step = plugin->getPreferredStepSize() ? plugin->getPreferredStepSize() : block;
	EXPECT_TRUE(plugin->initialise(1, step, block));
	int index = 0;
	for (const auto &output : plugin->getOutputDescriptors()) {
		if (output.identifier == which.output)
			break;
		index++;
	}
	std::vector<Vamp::Plugin::Feature> all;
	for (size_t first = 0; first + block <= samples.size(); first += step) {
		const float *channel = samples.data() + first;
		const auto time = Vamp::RealTime::frame2RealTime(static_cast<long>(first), rate);
		const auto found = plugin->process(&channel, time);
		if (const auto features = found.find(index); features != found.end())
			all.insert(all.end(), features->second.begin(), features->second.end());
	}
	return all;
}

TEST_P(VampExample, TellsWhatVampTells)
{
	const uint32_t rate = 44100;
	const std::vector<float> samples = music(12.0, rate);
	vamp_host host{
		{{"plugin", std::string{"vamp-example-plugins:"} + GetParam().plugin}, {"output", GetParam().output}}};
	host.start(rate);
	const bool is_structure = host->event(0)->type == "struct";
	const bool is_whole = host->event(0)->type == "int32";
	host.hear({samples}, 441);

	std::vector<std::string> expected;
	std::string last = is_whole ? "0" : text_of(0.0);
	for (const Vamp::Plugin::Feature &feature : run_alone(GetParam(), samples, rate)) {
		if (is_structure) {
			std::string members = "{ Count: " + std::to_string(expected.size() + 1);
			members += ", Time: " + text_of(feature.timestamp.sec + feature.timestamp.nsec / 1e9);
			members += ", Duration: " + text_of(feature.duration.sec + feature.duration.nsec / 1e9);
			members += ", Label: " + (feature.label.empty() ? "-" : feature.label);
			if (!feature.values.empty())
				members += ", Value: " + text_of(feature.values[0]);
			expected.push_back(members + " }");
			continue;
		}
		const float value = feature.values.at(0);
		if (!std::isfinite(value))
			continue;
		const std::string now = is_whole ? std::to_string(std::lround(value)) : text_of(value);
		if (now != last)
			expected.push_back(now);
		last = now;
	}
	/* A change that six decimals do not show is told, and the daemon leaves it out. */
	std::vector<std::string> told;
	last = is_whole ? "0" : text_of(0.0);
	for (const std::string &value : host.told()) {
		if (value != last)
			told.push_back(value);
		last = value;
	}
	EXPECT_FALSE(told.empty());
	EXPECT_EQ(told, expected);
}

INSTANTIATE_TEST_SUITE_P(Examples, VampExample,
			 testing::Values(example{"amplitudefollower", "amplitude"}, example{"fixedtempo", "tempo"},
					 example{"fixedtempo", "detectionfunction"}, example{"fixedtempo", "acf"},
					 example{"fixedtempo", "filtered_acf"}, example{"percussiononsets", "onsets"},
					 example{"percussiononsets", "detectionfunction"},
					 example{"spectralcentroid", "logcentroid"},
					 example{"spectralcentroid", "linearcentroid"},
					 example{"zerocrossing", "counts"}, example{"zerocrossing", "zerocrossings"}),
			 [](const auto &test) { return std::string{test.param.plugin} + "_" + test.param.output; });

} // namespace
