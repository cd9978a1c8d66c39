/*
 * The C++ layer for plug-ins: what it makes of a class, in the eyes of the daemon.
 */
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <numeric>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <spa/pod/builder.h>
#include <spa/pod/parser.h>

#include <dlfcn.h>

#include <hear-sense/plugin.hpp>

#include "counting-new.hpp"
#include "sdk-host.hpp"
#include "temp-dir.hpp"

namespace {

using namespace hear_sense;

constexpr float quiet_nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr double double_nan = std::numeric_limits<double>::quiet_NaN();

/** Of every type of setting one, and how often it heard of changes. */
class all_settings : public plugin
{
public:
	using plugin::plugin;

	setting<bool> flag{*this, {.title = "Flag", .description = "A flag", .initial = true}};
	setting<uint32_t> count{*this, {.title = "Count", .initial = 3, .minimum = 1, .maximum = 4000000000}};
	setting<int32_t> shift{*this, {.title = "Shift", .initial = -3, .minimum = -5, .maximum = 5}};
	setting<int64_t> time{*this, {.title = "Time", .unit = "ns", .initial = 5000000000}};
	setting<float> gain{*this, {.title = "Gain", .initial = 0.5F, .minimum = 0.0F, .maximum = 1.0F}};
	setting<double> level{*this,
			      {.title = "Level",
			       .description = "How loud",
			       .unit = "dB",
			       .initial = -20.0,
			       .minimum = -70.0,
			       .maximum = 0.0}};
	setting<std::string> text{*this, {.title = "Text", .initial = "abc"}};

	std::vector<const setting_base *> changed;
	int answer = 0;
	bool throws = false;
	std::string indication;

private:
	void process(channels) override
	{
	}

	int setting_changed(const setting_base &setting) override
	{
		changed.push_back(&setting);
		if (throws)
			throw std::runtime_error("no");
		return answer;
	}

	void indicated(std::string_view name, bool state) override
	{
		indication = std::string{name} + (state ? "+" : "-");
	}
};

/** Of every type of event one. */
class all_events : public plugin
{
public:
	using plugin::plugin;

	event<bool> flag{*this, {.title = "Flag"}};
	event<uint32_t> count{*this, {.title = "Count"}, 7};
	event<int32_t> shift{*this, {.title = "Shift"}, -7};
	event<int64_t> time{*this, {.title = "Time"}, -5000000000};
	event<float> gain{*this, {.title = "Gain"}, 0.5F};
	event<double> level{*this, {.title = "Level", .description = "How loud", .unit = "dB"}, -120.0};
	event<std::string> text{*this, {.title = "Text"}, "none"};
	array_event<double> bands{*this, {.title = "Bands"}, 3, -1.0};
	struct_event whole{*this, {.title = "Whole"}};
	member<int32_t> part{whole, "Part", 2};
	member<bool> good{whole, "Good", true};
	member<std::string> words{whole, "Words"};
	detection smoke{*this, {.title = "Smoke"}};

private:
	void process(channels heard) override
	{
		const float value = heard[0][0];
		const std::array<double, 3> row{double{value}, 2.0, 3.0};
		flag.tell(value > 0.0F);
		count.tell(static_cast<uint32_t>(value));
		shift.tell(static_cast<int32_t>(-value));
		time.tell(static_cast<int64_t>(value));
		gain.tell(value);
		level.tell(double{value});
		text.tell(value > 0.0F ? "a text that is much longer than the place that a string has in itself" : "b");
		bands.tell(row);
		words.set(value > 0.0F ? "another text that is too long to have its place in the string itself" : "");
		part.set(static_cast<int32_t>(value));
		whole.notify();
		smoke.tell(value > 0.0F);
	}
};

/** Keeps what it hears, and how it was treated. */
template <typename Base, typename Sample>
class recorder : public Base
{
public:
	using Base::Base;

	std::string calls;
	/** Of each channel all samples, and the length of each block. */
	std::vector<std::vector<Sample>> heard;
	std::vector<size_t> lengths;
	size_t frames = 0;
	size_t hop = 0;
	int answer = 0;
	int fails_at_block = -1;
	std::string configured;

private:
	int start() override
	{
		calls += '<';
		const char *text = this->config("key");
		configured = text ? text : "nothing";
		if (frames > 0)
			this->hear_in_blocks(frames, hop);
		if (answer < 0)
			return this->refuse(answer, "try another");
		heard.resize(this->stream().info.channels);
		return 0;
	}

	void stop() override
	{
		calls += '>';
	}

	void process(typename Base::channels block) override
	{
		calls += '.';
		lengths.push_back(block[0].size());
		ASSERT_EQ(block.size(), heard.size());
		for (size_t c = 0; c < block.size(); c++) {
			ASSERT_EQ(block[c].size(), lengths.back());
			heard[c].insert(heard[c].end(), block[c].begin(), block[c].end());
		}
		if (fails_at_block == static_cast<int>(lengths.size()))
			throw std::runtime_error("too much");
	}
};

using ear = recorder<plugin, float>;
using ear_s16 = recorder<plugin_s16, int16_t>;

std::vector<float> ramp(size_t n, float first = 0.0F)
{
	std::vector<float> samples(n);
	std::iota(samples.begin(), samples.end(), first);
	return samples;
}

/** Builds a Struct by hand, for what the daemon would never send. */
template <typename Build>
int set_by_hand(sdk_host &host, Build build)
{
	alignas(8) std::array<uint8_t, 2048> memory;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory.data(), static_cast<uint32_t>(memory.size()));
	spa_pod_frame frame;
	spa_pod_builder_push_struct(&builder, &frame);
	build(&builder);
	return host.set(static_cast<spa_pod *>(spa_pod_builder_pop(&builder, &frame)));
}

} // namespace

/*
 * The way in.
 */

TEST(PluginSdk, FillsTheInterface)
{
	sdk_hosted<all_events> hosted{{.name = "tried", .schema = "tried.json", .settings_schema = "stored.json"}};
	const hs_plugin_interface &interface = *hosted->interface;
	EXPECT_STREQ(interface.type, "Spa:Pointer:Interface:HearSense:TRIED");
	EXPECT_EQ(interface.version, uint32_t{HS_PLUGIN_INTERFACE_VERSION});
	EXPECT_STREQ(interface.name, "Tried");
	EXPECT_STREQ(interface.interface_name, "Tried");
	EXPECT_STREQ(interface.schema, "tried.json");
	EXPECT_STREQ(interface.settings_schema, "stored.json");
	EXPECT_EQ(interface.n_events, 10U);

	sdk_hosted<all_events> other{{.name = "tried", .interface_name = "tRiEd"}};
	EXPECT_NE(other->interface, hosted->interface);
	EXPECT_STREQ(other->interface->interface_name, "tRiEd");
	EXPECT_EQ(other->interface->schema, nullptr);
	EXPECT_EQ(other->interface->settings_schema, nullptr);
}

TEST(PluginSdk, RefusesNamesThatHaveNoPlaceOnTheBus)
{
	const plugin_info infos[] = {
		{.name = ""},
		{.name = "my-plugin"},
		{.name = "2fast"},
		{.name = "a.b"},
		{.name = "f\xc3\xa4r"},
		{.name = "tried", .interface_name = "Other"},
		{.name = "a", .interface_name = "A-"},
	};
	for (const plugin_info &info : infos) {
		sdk_hosted<ear> hosted{info};
		EXPECT_EQ(hosted->result, -EINVAL) << info.name;
		ASSERT_EQ(hosted->log.lines.size(), 1U) << info.name;
		EXPECT_EQ(hosted->log.lines[0].level, SPA_LOG_LEVEL_ERROR);
		EXPECT_EQ(hosted->log.lines[0].text.find("hear-sense." + info.name), 0U) << hosted->log.lines[0].text;
	}
}

TEST(PluginSdk, ServesSeveralNamesFromOneLibraryThatUnloadsAgain)
{
	void *library = dlopen(SDK_LIBRARY, RTLD_NOW | RTLD_LOCAL);
	ASSERT_NE(library, nullptr) << dlerror();
	const auto enumerate =
		reinterpret_cast<spa_handle_factory_enum_func_t>(dlsym(library, SPA_HANDLE_FACTORY_ENUM_FUNC_NAME));
	uint32_t index = 0;
	std::vector<std::string> names;
	const spa_handle_factory *raw = nullptr;
	while (enumerate(&raw, &index) == 1) {
		names.emplace_back(raw->name);
		const spa_interface_info *info = nullptr;
		uint32_t interface_index = 0;
		EXPECT_EQ(spa_handle_factory_enum_interface_info(raw, &info, &interface_index), 1);
		EXPECT_EQ(spa_handle_factory_enum_interface_info(raw, &info, &interface_index), 0);

		sdk_host host{*static_cast<const factory *>(raw)};
		ASSERT_EQ(host.result, 0);
		EXPECT_STREQ(info->type, host.interface->type);
		EXPECT_EQ(host.setting(0)->title, names.size() == 1 ? "Left" : "Right");
		auto *handle = static_cast<spa_handle *>(host.interface->data);
		void *other = nullptr;
		EXPECT_LT(handle->get_interface(handle, "Spa:Pointer:Interface:HearSense:OTHER", &other), 0);
		EXPECT_LT(handle->get_interface(handle, nullptr, &other), 0);
		EXPECT_EQ(other, nullptr);
	}
	EXPECT_EQ(names, (std::vector<std::string>{"hear-sense.left", "hear-sense.right"}));
	EXPECT_EQ(index, 2U);

	dlclose(library);
	EXPECT_EQ(dlopen(SDK_LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD), nullptr);
}

TEST(PluginSdk, ServesTheNamesOfLinksToOneLibrary)
{
	namespace fs = std::filesystem;
	const hs_temp_dir folder;
	fs::copy_file(SDK_LINKS_LIBRARY, folder / "libhs-linked.so");
	for (const char *link : {"libspa-hs-First.so", "libspa-hs-second.so", "libspa-hs-second.so.1", "libother.so"})
		fs::create_symlink("libhs-linked.so", folder / link);
	fs::create_symlink("nowhere.so", folder / "libspa-hs-broken.so");
	hs_write_text(folder / "libspa-hs-other.so", "another library");

	void *library = dlopen((folder / "libspa-hs-second.so").c_str(), RTLD_NOW | RTLD_LOCAL);
	ASSERT_NE(library, nullptr) << dlerror();
	const auto enumerate =
		reinterpret_cast<spa_handle_factory_enum_func_t>(dlsym(library, SPA_HANDLE_FACTORY_ENUM_FUNC_NAME));
	uint32_t index = 0;
	std::set<std::string> names;
	const spa_handle_factory *raw = nullptr;
	while (enumerate(&raw, &index) == 1) {
		sdk_host host{*static_cast<const factory *>(raw)};
		ASSERT_EQ(host.result, 0);
		EXPECT_STREQ(host.interface->schema, "linked.json");
		names.insert(raw->name);
		EXPECT_EQ(raw->name, "hear-sense." + host.setting(0)->title.value());
	}
	EXPECT_EQ(names, (std::set<std::string>{"hear-sense.First", "hear-sense.second"}));
	dlclose(library);
}

TEST(PluginSdk, TellsTheDaemonOfAPluginThatCanNotBeMade)
{
	class broken : public ear
	{
	public:
		explicit broken(const host &from) : ear{from}
		{
			if (!config("key"))
				throw std::invalid_argument("set key in tried.conf");
			if (config("key") == std::string_view{"memory"})
				throw std::bad_alloc{};
			if (config("key") == std::string_view{"other"})
				throw 1;
		}
	};
	sdk_hosted<broken> no_key;
	EXPECT_EQ(no_key->result, -EINVAL);
	ASSERT_EQ(no_key->log.lines.size(), 1U);
	EXPECT_EQ(no_key->log.lines[0].text, "hear-sense.tried: set key in tried.conf");
	EXPECT_EQ(sdk_hosted<broken>({.name = "tried"}, {{"key", "memory"}})->result, -ENOMEM);
	EXPECT_EQ(sdk_hosted<broken>({.name = "tried"}, {{"key", "other"}})->result, -EIO);
	EXPECT_EQ(sdk_hosted<broken>({.name = "tried"}, {{"key", "good"}})->result, 0);
}

/*
 * Settings.
 */

TEST(PluginSdk, DescribesSettingsOfEveryType)
{
	sdk_hosted<all_settings> hosted;
	ASSERT_EQ(hosted->interface->funcs->get_setting(hosted->interface->data, 0, nullptr, nullptr), 7);
	const char *const expected[][4] = {
		{"Flag", "A flag", "boolean", "true"}, {"Count", "", "uint32", "3"},
		{"Shift", "", "int32", "-3"},	       {"Time", " (ns)", "int64", "5000000000"},
		{"Gain", "", "float", "0.500000"},     {"Level", "How loud (dB)", "double", "-20.000000"},
		{"Text", "", "string", "abc"},
	};
	for (uint32_t i = 0; i < 7; i++) {
		const hs_pod_ptr pod = hosted->setting(i);
		ASSERT_TRUE(pod) << i;
		EXPECT_EQ(pod->title, expected[i][0]);
		EXPECT_EQ(pod->description, expected[i][1]);
		EXPECT_EQ(pod->type, expected[i][2]);
		EXPECT_STREQ(hs_pod_value_text(*pod), expected[i][3]);
	}
}

TEST(PluginSdk, TakesWhatTheDaemonSends)
{
	sdk_hosted<all_settings> hosted;
	all_settings &plugin = *hosted.plugin;
	EXPECT_EQ(hosted->set("Flag", "false", "boolean"), 0);
	EXPECT_EQ(hosted->set("Count", "4000000000", "uint32"), 0);
	EXPECT_EQ(hosted->set("Shift", "-5", "int32"), 0);
	EXPECT_EQ(hosted->set("Time", "-9223372036854775808", "int64"), 0);
	EXPECT_EQ(hosted->set("Gain", "1.0", "float"), 0);
	EXPECT_EQ(hosted->set("Level", "-70.0", "double"), 0);
	EXPECT_EQ(hosted->set("Text", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x94\x94", "string"), 0);
	EXPECT_EQ(plugin.flag.value(), false);
	EXPECT_EQ(plugin.count.value(), 4000000000U);
	EXPECT_EQ(plugin.shift.value(), -5);
	EXPECT_EQ(plugin.time.value(), std::numeric_limits<int64_t>::min());
	EXPECT_EQ(plugin.gain.value(), 1.0F);
	EXPECT_EQ(plugin.level.value(), -70.0);
	EXPECT_EQ(plugin.text.value(), "\xc3\xa4\xe2\x82\xac\xf0\x9f\x94\x94");
	EXPECT_EQ(plugin.changed,
		  (std::vector<const setting_base *>{&plugin.flag, &plugin.count, &plugin.shift, &plugin.time,
						     &plugin.gain, &plugin.level, &plugin.text}));
	EXPECT_EQ(hosted->setting_text(2), "-5");

	alignas(8) std::array<uint8_t, 4096> memory;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory.data(), static_cast<uint32_t>(memory.size()));
	ASSERT_EQ(hosted->interface->funcs->get_settings(hosted->interface->data, &builder), 0);
	spa_pod_parser parser;
	spa_pod_frame frame;
	spa_pod_parser_init(&parser, memory.data(), builder.state.offset);
	ASSERT_EQ(spa_pod_parser_push_struct(&parser, &frame), 0);
	for (const setting_base *setting : plugin.settings()) {
		const char *name = nullptr;
		spa_pod *value = nullptr;
		ASSERT_EQ(spa_pod_parser_get_string(&parser, &name), 0);
		ASSERT_EQ(spa_pod_parser_get_pod(&parser, &value), 0);
		EXPECT_EQ(setting->title(), name);
	}
	EXPECT_EQ(spa_pod_parser_current(&parser), nullptr);
}

TEST(PluginSdk, RefusesEverythingElseWithoutChange)
{
	sdk_hosted<all_settings> hosted;
	const char *const refused[][3] = {
		{"Count", "0", "uint32"},
		{"Count", "4000000001", "uint32"},
		{"Count", "3", "int32"},
		{"Shift", "-6", "int32"},
		{"Shift", "6", "int32"},
		{"Shift", "0", "int64"},
		{"Time", "0", "int32"},
		{"Gain", "1.000001", "float"},
		{"Gain", "-0.000001", "float"},
		{"Gain", "nan", "float"},
		{"Gain", "0.5", "double"},
		{"Level", "nan", "double"},
		{"Level", "-inf", "double"},
		{"Level", "inf", "double"},
		{"Level", "-70.001", "double"},
		{"Level", "1e300", "double"},
		{"Level", "-20", "int32"},
		{"Level", "-20", "string"},
		{"Level", "true", "boolean"},
		{"Flag", "1", "uint32"},
		{"Flag", "true", "string"},
		{"Text", "\xc3", "string"},
		{"Text", "\xc0\xaf", "string"},
		{"Text", "\xed\xa0\x80", "string"},
		{"Text", "\xf5\x80\x80\x80", "string"},
		{"Text", "1", "int32"},
		{"level", "-20.0", "double"},
		{"Levels", "-20.0", "double"},
		{"", "-20.0", "double"},
		{"Enable", "true", "boolean"},
	};
	for (const auto &[name, text, type] : refused)
		EXPECT_EQ(hosted->set(name, text, type), -EINVAL) << name << " " << text << " " << type;
	EXPECT_EQ(hosted->set("Text", std::string(max_text + 1, 'x').c_str(), "string"), -EINVAL);

	EXPECT_EQ(hosted->set(nullptr), -EINVAL);
	const spa_pod_double scalar = SPA_POD_INIT_Double(-30.0);
	EXPECT_EQ(hosted->set(&scalar.pod), -EINVAL);
	const auto nothing = [](spa_pod_builder *) {};
	const auto name_only = [](spa_pod_builder *b) { spa_pod_builder_string(b, "Level"); };
	const auto no_name = [](spa_pod_builder *b) {
		spa_pod_builder_double(b, -30.0);
		spa_pod_builder_double(b, -30.0);
	};
	const auto too_much = [](spa_pod_builder *b) {
		spa_pod_builder_string(b, "Level");
		spa_pod_builder_double(b, -30.0);
		spa_pod_builder_string(b, "Gain");
	};
	const auto nested = [](spa_pod_builder *b) {
		spa_pod_frame frame;
		spa_pod_builder_string(b, "Level");
		spa_pod_builder_push_struct(b, &frame);
		spa_pod_builder_double(b, -30.0);
		spa_pod_builder_pop(b, &frame);
	};
	EXPECT_EQ(set_by_hand(*hosted.operator->(), nothing), -EINVAL);
	EXPECT_EQ(set_by_hand(*hosted.operator->(), name_only), -EINVAL);
	EXPECT_EQ(set_by_hand(*hosted.operator->(), no_name), -EINVAL);
	EXPECT_EQ(set_by_hand(*hosted.operator->(), too_much), -EINVAL);
	EXPECT_EQ(set_by_hand(*hosted.operator->(), nested), -EINVAL);

	EXPECT_TRUE(hosted.plugin->changed.empty());
	EXPECT_EQ(hosted.plugin->level.value(), -20.0);
	EXPECT_EQ(hosted.plugin->gain.value(), 0.5F);
	EXPECT_EQ(hosted.plugin->text.value(), "abc");
	EXPECT_EQ(hosted.plugin->count.value(), 3U);
}

TEST(PluginSdk, LetsThePluginRefuseAChange)
{
	sdk_hosted<all_settings> hosted;
	hosted.plugin->answer = -EBUSY;
	EXPECT_EQ(hosted->set("Level", "-30.0", "double"), -EBUSY);
	EXPECT_EQ(hosted->set("Text", "xyz", "string"), -EBUSY);
	hosted.plugin->throws = true;
	EXPECT_EQ(hosted->set("Level", "-30.0", "double"), -EIO);
	EXPECT_EQ(hosted.plugin->level.value(), -20.0);
	EXPECT_EQ(hosted.plugin->text.value(), "abc");
	ASSERT_EQ(hosted->log.lines.size(), 1U);
	EXPECT_EQ(hosted->log.lines[0].text, "set_settings: no");
	EXPECT_EQ(hosted->log.lines[0].topic, "hear-sense.tried");
}

TEST(PluginSdk, HandsOnWhatTheDeviceSaysOfItself)
{
	sdk_hosted<all_settings> hosted;
	EXPECT_EQ(hosted->set("IndicateInternalSpeakerActive", "true", "boolean"), 0);
	EXPECT_EQ(hosted.plugin->indication, "IndicateInternalSpeakerActive+");
	EXPECT_EQ(hosted->set("IndicateContinuousAudioDisturbance", "false", "boolean"), 0);
	EXPECT_EQ(hosted.plugin->indication, "IndicateContinuousAudioDisturbance-");
	EXPECT_EQ(hosted->set("IndicateInternalSpeakerActive", "1.0", "double"), -EINVAL);
	EXPECT_TRUE(hosted.plugin->changed.empty());
}

TEST(PluginSdk, TakesSettingsAndEventsThatAreKnownAtRunTimeOnly)
{
	class read_from_configuration : public plugin
	{
	public:
		explicit read_from_configuration(const host &from) : plugin{from}
		{
			for (int i = 0; i < std::atoi(config("number")); i++) {
				const std::string title = "Value" + std::to_string(i);
				settings_made.emplace_back(*this, setting_info<float>{.title = title});
				events_made.emplace_back(*this, event_info{.title = title});
				events_made.back().set(static_cast<float>(i));
				for (int k = 0; k <= i; k++)
					members_made.emplace_back(structure(i), "Bin" + std::to_string(k));
			}
		}

		std::deque<setting<float>> settings_made;
		std::deque<event<float>> events_made;
		std::deque<struct_event> structures_made;
		std::deque<member<double>> members_made;

	private:
		void process(channels) override
		{
		}

		struct_event &structure(int i)
		{
			if (structures_made.size() == static_cast<size_t>(i))
				structures_made.emplace_back(*this, event_info{.title = "All" + std::to_string(i)});
			return structures_made.back();
		}
	};
	sdk_hosted<read_from_configuration> hosted{{.name = "tried"}, {{"number", "3"}}};
	ASSERT_EQ(hosted->result, 0);
	EXPECT_EQ(hosted->interface->funcs->get_setting(hosted->interface->data, 0, nullptr, nullptr), 3);
	ASSERT_EQ(hosted->interface->n_events, 6U);
	for (uint32_t i = 0; i < 6; i++)
		EXPECT_EQ(hosted->event(i)->title, hosted->interface->events[i]->name);
	EXPECT_EQ(hosted->set("Value2", "7.5", "float"), 0);
	EXPECT_EQ(hosted.plugin->settings_made[2].value(), 7.5F);
	EXPECT_EQ(hosted->event_text(2), "1.000000");
	EXPECT_STREQ(hosted->event(5)->signature, "(ddd)");
}

TEST(PluginSdk, MakesTitlesOfAnyNames)
{
	class titled : public plugin
	{
	public:
		explicit titled(const host &from) : plugin{from}
		{
			for (const std::string &name : names()) {
				settings_made.emplace_back(*this,
							   setting_info<bool>{.title = free_setting_title(name)});
				events_made.emplace_back(*this, event_info{.title = free_event_title(name)});
			}
		}

		static std::vector<std::string> names()
		{
			return {"gain",
				"GAIN",
				"gain",
				"3d-effect",
				"",
				"\xc3\xa4",
				"path",
				"enable_",
				"Enable",
				"dataTypes",
				"nice name",
				std::string(300, 'x'),
				std::string(300, 'x')};
		}

		std::deque<setting<bool>> settings_made;
		std::deque<event<bool>> events_made;

	private:
		void process(channels) override
		{
		}
	};
	sdk_hosted<titled> hosted;
	ASSERT_EQ(hosted->result, 0);
	const std::string long_title = "X" + std::string(199, 'x');
	const std::vector<std::string> settings = {"Gain",	"GAIN_",    "Gain__",	     "_3d_effect", "_",
						   "__",	"Path_",    "Enable_",	     "Enable__",   "DataTypes",
						   "Nice_name", long_title, long_title + "_"};
	const std::vector<std::string> events = {"Gain",      "GAIN",	  "Gain_",	   "_3d_effect", "_",
						 "__",	      "Path",	  "Enable_",	   "Enable",	 "DataTypes_",
						 "Nice_name", long_title, long_title + "_"};
	for (uint32_t i = 0; i < settings.size(); i++) {
		EXPECT_EQ(hosted->setting(i)->title, settings[i]) << i;
		EXPECT_EQ(hosted->event(i)->title, events[i]) << i;
	}
}

TEST(PluginSdk, RefusesWhatNoClientCouldRead)
{
	/* Makes in its constructor what `make` makes. */
	class made : public plugin
	{
	public:
		explicit made(const host &from) : plugin{from}
		{
			const std::string what = config("what");
			setting<double> &first =
				settings_made.emplace_back(*this, setting_info<double>{.title = "First"});
			EXPECT_EQ(first.value(), 0.0);
			events_made.emplace_back(*this, event_info{.title = "First"});
			if (what.starts_with("setting "))
				settings_made.emplace_back(*this, setting_info<double>{.title = what.substr(8)});
			else if (what.starts_with("event "))
				events_made.emplace_back(*this, event_info{.title = what.substr(6)});
			else if (what == "description")
				events_made.emplace_back(*this, event_info{.title = "Good", .description = "\xff"});
			else if (what == "range")
				settings_made.emplace_back(
					*this, setting_info<double>{.title = "Good", .initial = 1.0, .maximum = 0.5});
			else if (what == "nan")
				settings_made.emplace_back(
					*this, setting_info<double>{.title = "Good", .initial = double_nan});
			else if (what == "array")
				arrays_made.emplace_back(*this, event_info{.title = "Good"}, 0);
			else if (what.starts_with("member "))
				structures_made.emplace_back(*this, event_info{.title = "Good"});
			if (what.starts_with("member ")) {
				members_made.emplace_back(structures_made[0], "First");
				members_made.emplace_back(structures_made[0], what.substr(7));
			}
			if (what == "structure")
				structures_made.emplace_back(*this, event_info{.title = "Good"});
		}

		std::deque<setting<double>> settings_made;
		std::deque<event<double>> events_made;
		std::deque<array_event<float>> arrays_made;
		std::deque<struct_event> structures_made;
		std::deque<member<double>> members_made;

	private:
		void process(channels) override
		{
		}
	};
	const std::string long_title(256, 'x');
	for (const std::string &bad : {std::string{"setting "},
				       std::string{"setting First"},
				       std::string{"setting fIRST"},
				       std::string{"setting 1st"},
				       std::string{"setting a-b"},
				       std::string{"setting enable"},
				       std::string{"setting EnableEvent"},
				       std::string{"setting Path"},
				       std::string{"setting Schema"},
				       std::string{"event NiceName"},
				       "setting " + long_title,
				       std::string{"event "},
				       std::string{"event First"},
				       std::string{"event a b"},
				       std::string{"event \xc3\xa4"},
				       "event " + long_title,
				       std::string{"description"},
				       std::string{"range"},
				       std::string{"nan"},
				       std::string{"array"},
				       std::string{"member First"},
				       std::string{"member "},
				       std::string{"member a\"b"},
				       std::string{"structure"}}) {
		sdk_hosted<made> hosted{{.name = "tried"}, {{"what", bad.c_str()}}};
		EXPECT_EQ(hosted->result, -EINVAL) << bad;
		EXPECT_EQ(hosted->log.lines.size(), 1U) << bad;
	}
	for (const char *good :
	     {"setting Second", "event Second", "event first", "member Second", "setting _1", "event Sources"})
		EXPECT_EQ(sdk_hosted<made>({.name = "tried"}, {{"what", good}})->result, 0) << good;
}

TEST(PluginSdk, RefusesSettingsAndEventsThatComeTooLate)
{
	class late : public plugin
	{
	public:
		using plugin::plugin;

		std::deque<event<bool>> events_made;

	private:
		int start() override
		{
			events_made.emplace_back(*this, event_info{.title = "Late"});
			return 0;
		}
		void process(channels) override
		{
		}
	};
	sdk_hosted<late> hosted;
	EXPECT_EQ(hosted->init(), -EINVAL);
	EXPECT_EQ(hosted->interface->funcs->get_event(hosted->interface->data, 0, nullptr, nullptr), 0);
}

TEST(PluginSdk, RefusesMembersThatComeTooLate)
{
	class late : public plugin
	{
	public:
		using plugin::plugin;

		struct_event whole{*this, {.title = "Whole"}};
		member<bool> part{whole, "Part"};
		std::deque<member<std::string>> members_made;

	private:
		int start() override
		{
			members_made.emplace_back(whole, "Late");
			return 0;
		}
		void process(channels) override
		{
		}
	};
	sdk_hosted<late> hosted;
	EXPECT_EQ(hosted->init(), -EINVAL);
	EXPECT_STREQ(hosted->event(0)->signature, "(b)");
}

TEST(PluginSdk, AnswersNothingForAnIndexThatIsNotThereOrThatDoesNotFit)
{
	sdk_hosted<all_events> hosted;
	hs_pod_buffer buffer;
	spa_pod pod{};
	const auto *funcs = hosted->interface->funcs;
	for (const uint32_t index : {10U, 11U, 0xffffffffU}) {
		spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, 4096);
		spa_pod *result = &pod;
		EXPECT_EQ(funcs->get_event(hosted->interface->data, index, &result, &builder), -EINVAL);
		EXPECT_EQ(result, nullptr);
	}
	for (uint32_t size = 0; size < 88; size += 8) {
		for (uint32_t index = 0; index < 10; index++) {
			spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, size);
			spa_pod *result = &pod;
			EXPECT_EQ(funcs->get_event(hosted->interface->data, index, &result, &builder), -ENOSPC) << size;
			EXPECT_EQ(result, nullptr);
		}
	}
	spa_pod *result = nullptr;
	EXPECT_EQ(funcs->get_event(hosted->interface->data, 0, &result, nullptr), -EINVAL);
	EXPECT_EQ(funcs->get_setting(hosted->interface->data, 1, nullptr, nullptr), -EINVAL);

	sdk_hosted<all_settings> settings;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, 16);
	EXPECT_EQ(settings->interface->funcs->get_settings(settings->interface->data, &builder), -ENOSPC);
}

/*
 * Events.
 */

TEST(PluginSdk, DescribesEventsOfEveryType)
{
	sdk_hosted<all_events> hosted;
	const char *const expected[][4] = {
		{"Flag", "", "boolean", "false"},
		{"Count", "", "uint32", "7"},
		{"Shift", "", "int32", "-7"},
		{"Time", "", "int64", "-5000000000"},
		{"Gain", "", "float", "0.500000"},
		{"Level", "How loud (dB)", "double", "-120.000000"},
		{"Text", "", "string", "none"},
		{"Bands", "", "array", "[ -1.000000, -1.000000, -1.000000 ]"},
		{"Whole", "", "struct", "{\n  \"Part\": \"2\",\n  \"Good\": \"true\",\n  \"Words\": \"-\"\n }"},
		{"Smoke", "", "struct", "{\n  \"Detected\": \"false\",\n  \"Report\": \"false\"\n }"},
	};
	ASSERT_EQ(hosted->interface->funcs->get_event(hosted->interface->data, 0, nullptr, nullptr), 10);
	for (uint32_t i = 0; i < 10; i++) {
		const hs_pod_ptr pod = hosted->event(i);
		ASSERT_TRUE(pod) << i;
		EXPECT_EQ(pod->title, expected[i][0]);
		EXPECT_STREQ(hosted->interface->events[i]->name, expected[i][0]);
		EXPECT_EQ(pod->description, expected[i][1]);
		EXPECT_EQ(pod->type, expected[i][2]);
		EXPECT_STREQ(hs_pod_value_text(*pod), expected[i][3]);
	}
	EXPECT_STREQ(hosted->event(7)->signature, "ad");
	EXPECT_STREQ(hosted->event(8)->signature, "(ibs)");
	EXPECT_STREQ(hosted->event(9)->signature, "(bb)");
}

TEST(PluginSdk, PublishesWhatIsSaidOfEvents)
{
	class described_events : public plugin
	{
	public:
		using plugin::plugin;

	private:
		void process(channels) override
		{
		}

		event<bool> plain{*this, {.title = "Plain"}};
		event<bool> full{*this,
				 {.title = "Full",
				  .nice_name = "Everything said",
				  .is_public = false,
				  .is_property_state = true,
				  .is_deprecated = true,
				  .is_application_data = true,
				  .data_types = HS_EVENT_DATA_STATS | HS_EVENT_DATA_EVENT,
				  .topics = {{"One", "First", "com.example"}, {"Two"}}}};
	};
	sdk_hosted<described_events> hosted{{.name = "tried", .topics = {{"Audio", "All sound", "org.example"}}}};
	const hs_event_info &plain = *hosted->interface->events[0];
	EXPECT_STREQ(plain.nice_name, "Plain");
	EXPECT_TRUE(plain.is_public);
	EXPECT_FALSE(plain.isPropertyState || plain.isDeprecated || plain.isApplicationData);
	EXPECT_EQ(plain.data_types, HS_EVENT_DATA_STATS);
	ASSERT_EQ(plain.n_topics, 1U);
	EXPECT_STREQ(plain.topics[0]->name, "Audio");
	EXPECT_STREQ(plain.topics[0]->nice_name, "All sound");
	EXPECT_STREQ(plain.topics[0]->namespace_, "org.example");

	const hs_event_info &full = *hosted->interface->events[1];
	EXPECT_STREQ(full.nice_name, "Everything said");
	EXPECT_FALSE(full.is_public);
	EXPECT_TRUE(full.isPropertyState && full.isDeprecated && full.isApplicationData);
	EXPECT_EQ(full.data_types, HS_EVENT_DATA_STATS | HS_EVENT_DATA_EVENT);
	ASSERT_EQ(full.n_topics, 2U);
	EXPECT_STREQ(full.topics[0]->nice_name, "First");
	EXPECT_STREQ(full.topics[1]->name, "Two");
	EXPECT_STREQ(full.topics[1]->namespace_, "");
}

TEST(PluginSdk, TellsOfChangesAndTheDaemonFetchesTheNewValue)
{
	sdk_hosted<all_events> hosted;
	ASSERT_EQ(hosted->init(), 0);
	hosted->process(planar<float>({{3.0F}}));
	const std::string words = "another text that is too long to have its place in the string itself";
	const std::vector<sdk_told> expected{
		{0, "true"},
		{1, "3"},
		{2, "-3"},
		{3, "3"},
		{4, "3.000000"},
		{5, "3.000000"},
		{6, "a text that is much longer than the place that a string has in itself"},
		{7, "[ 3.000000, 2.000000, 3.000000 ]"},
		{8, "{\n  \"Part\": \"3\",\n  \"Good\": \"true\",\n  \"Words\": \"" + words + "\"\n }"},
		{9, "{\n  \"Detected\": \"true\",\n  \"Report\": \"true\"\n }"},
	};
	EXPECT_EQ(hosted->told, expected);

	/* The same again: only what is told in any case. */
	hosted->told.clear();
	hosted->process(planar<float>({{3.0F}}));
	EXPECT_EQ(hosted->told, std::vector<sdk_told>{expected[8]});
}

TEST(PluginSdk, CountsWhatHappens)
{
	class door : public plugin
	{
	public:
		using plugin::plugin;

		occurrences bell{*this, {.title = "Bell"}};
		member<float> strength{bell, "Strength"};

	private:
		void process(channels heard) override
		{
			strength.set(heard[0][0]);
			bell.tell(1.5);
		}
	};
	sdk_hosted<door> hosted;
	EXPECT_STREQ(hosted->event(0)->signature, "(udd)");
	ASSERT_EQ(hosted->init(), 0);
	const auto ring = [](const char *count, const char *time, const char *strength) {
		return "{\n  \"Count\": \"" + std::string{count} + "\",\n  \"Time\": \"" + time +
		       "\",\n  \"Strength\": \"" + strength + "\"\n }";
	};
	/* The same twice: both are told. */
	hosted->process(planar<float>({{0.5F}}));
	hosted->process(planar<float>({{0.5F}}));
	const std::vector<sdk_told> expected{{0, ring("1", "1.500000", "0.500000")},
					     {0, ring("2", "1.500000", "0.500000")}};
	EXPECT_EQ(hosted->told, expected);
	hosted->deactivate();
	EXPECT_EQ(hosted->event_text(0), ring("0", "0.000000", "0.000000"));
}

TEST(PluginSdk, StoresOnlyWhatTheBusCanHold)
{
	sdk_hosted<all_events> hosted;
	all_events &plugin = *hosted.plugin;
	for (const double value : {double_nan, HUGE_VAL, -HUGE_VAL})
		EXPECT_FALSE(plugin.level.set(value));
	EXPECT_FALSE(plugin.gain.set(quiet_nan));
	EXPECT_EQ(hosted->event_text(5), "-120.000000");
	const std::array<double, 4> row{double_nan, 2.0, HUGE_VAL, 4.0};
	EXPECT_TRUE(plugin.bands.set(row));
	EXPECT_EQ(hosted->event_text(7), "[ -1.000000, 2.000000, -1.000000 ]");
	EXPECT_FALSE(plugin.bands.set(std::span{row}.first(2)));

	const std::pair<std::string, std::string> texts[] = {
		{"", ""},
		{"\xe2\x82\xac", "\xe2\x82\xac"},
		{"a\xffz", "a?z"},
		{"\xc0\xaf", "??"},
		{"\xed\xa0\x80", "???"},
		{"end\xe2\x82", "end??"},
		{std::string{"a\0b", 3}, "a?b"},
		{"{\"a\"}", " {\"a\"}"},
		{std::string(600, 'x'), std::string(511, 'x')},
		{std::string(510, 'x') + "\xc3\xa4", std::string(510, 'x')},
	};
	for (const auto &[text, stored] : texts) {
		plugin.text.set("before");
		EXPECT_TRUE(plugin.text.set(text));
		EXPECT_FALSE(plugin.text.set(text));
		EXPECT_EQ(plugin.text.value(), stored);
		EXPECT_EQ(hosted->event_text(6), stored);
	}
	plugin.words.set("");
	EXPECT_EQ(plugin.words.value(), "-");
}

TEST(PluginSdk, HandsOverTheBytesOfADescriptionThatIsBuiltAnew)
{
	class texts : public all_events
	{
	public:
		using all_events::all_events;

		struct_event two{*this, {.title = "Two"}};
		member<std::string> first{two, "First", "one"};
		member<std::string> second{two, "Second", "and another"};
		event<bool> last{*this, {.title = "Last"}};

	private:
		/* Until somebody asks, each has said nothing but this. */
		bool is_set = first.set("set before anybody could ask") && bands.set(std::array{9.0});
	};
	sdk_hosted<texts> hosted;
	texts &plugin = *hosted.plugin;
	const auto expect_bytes_built_anew = [&] {
		for (uint32_t i = 0; i < plugin.events().size(); i++) {
			hs_pod_buffer asked;
			hs_pod_buffer anew;
			spa_pod_builder builder = SPA_POD_BUILDER_INIT(asked.data, 4096);
			spa_pod *pod = nullptr;
			ASSERT_EQ(hosted->interface->funcs->get_event(hosted->interface->data, i, &pod, &builder), 0);
			ASSERT_EQ(static_cast<void *>(pod), static_cast<void *>(asked.data));
			builder = SPA_POD_BUILDER_INIT(anew.data, 4096);
			const spa_pod *expected = plugin.events()[i]->describe(&builder);
			ASSERT_TRUE(expected);
			ASSERT_EQ(SPA_POD_SIZE(pod), SPA_POD_SIZE(expected)) << i;
			EXPECT_EQ(std::memcmp(pod, expected, SPA_POD_SIZE(expected)), 0) << i;
		}
	};
	expect_bytes_built_anew();
	const std::string longest(max_text, 'x');
	for (const std::string &text : {longest, std::string{"b"}, longest + "y", std::string{}}) {
		EXPECT_TRUE(plugin.text.set(text));
		EXPECT_TRUE(plugin.first.set(text));
		EXPECT_TRUE(plugin.second.set(text));
		expect_bytes_built_anew();
	}
	ASSERT_EQ(hosted->init(), 0);
	for (const float value : {3.0F, 3.0F, 0.0F}) {
		hosted->process(planar<float>({{value}}));
		expect_bytes_built_anew();
	}
	hosted->deactivate();
	expect_bytes_built_anew();
}

TEST(PluginSdk, DescribesAnEventWithinWhatABuilderHasAlready)
{
	sdk_hosted<all_events> hosted;
	hs_pod_buffer buffer;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, 4096);
	spa_pod_frame all;
	spa_pod *pod = nullptr;
	spa_pod_builder_push_struct(&builder, &all);
	for (const uint32_t index : {5U, 6U})
		ASSERT_EQ(hosted->interface->funcs->get_event(hosted->interface->data, index, &pod, &builder), 0);
	EXPECT_EQ(hs_pod_parse(pod)->title, "Text");
	const auto *both = static_cast<spa_pod *>(spa_pod_builder_pop(&builder, &all));
	spa_pod_parser parser;
	spa_pod_parser_pod(&parser, both);
	ASSERT_EQ(spa_pod_parser_push_struct(&parser, &all), 0);
	for (const char *title : {"Level", "Text"}) {
		ASSERT_EQ(spa_pod_parser_get_pod(&parser, &pod), 0);
		EXPECT_EQ(hs_pod_parse(pod)->title, title);
	}
	EXPECT_FALSE(spa_pod_parser_current(&parser));
}

TEST(PluginSdk, TakesNoMemoryWhileItHears)
{
	sdk_hosted<all_events> hosted;
	ASSERT_EQ(hosted->init(8), 0);
	ASSERT_EQ(hosted->activate(), 0);
	hosted->interface->notify_event = [](hs_plugin_interface *interface, uint32_t index) {
		static hs_pod_buffer buffer;
		spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, 4096);
		spa_pod *pod = nullptr;
		EXPECT_EQ(interface->funcs->get_event(interface->data, index, &pod, &builder), 0);
	};
	sdk_buffer loud = planar(std::vector<std::vector<float>>(8, std::vector<float>(5000, 3.0F)));
	sdk_buffer quiet = planar(std::vector<std::vector<float>>(8, std::vector<float>(5000, 0.0F)));
	const size_t before = hs_count_allocations();
	for (int i = 0; i < 10; i++) {
		hosted->process(loud);
		hosted->process(quiet);
	}
	EXPECT_EQ(hs_count_allocations(), before);
}

TEST(PluginSdk, DoesWithoutAnyoneToTell)
{
	sdk_hosted<all_events> hosted;
	hosted->interface->notify_event = nullptr;
	ASSERT_EQ(hosted->init(), 0);
	hosted->process(planar<float>({{3.0F}}));
	EXPECT_EQ(hosted->event_text(1), "3");
}

TEST(PluginSdk, PutsEventsBackWheneverThereIsNoAudio)
{
	const auto is_as_declared = [](sdk_host &host) {
		return host.event_text(0) == "false" && host.event_text(1) == "7" && host.event_text(6) == "none" &&
		       host.event_text(7) == "[ -1.000000, -1.000000, -1.000000 ]" &&
		       host.event_text(8).find("\"Words\": \"-\"") != std::string::npos &&
		       host.event_text(9).find("true") == std::string::npos;
	};
	sdk_hosted<all_events> hosted;
	for (const bool by_deinit : {false, true}) {
		ASSERT_EQ(hosted->init(), 0);
		ASSERT_EQ(hosted->activate(), 0);
		hosted->process(planar<float>({{3.0F}}));
		EXPECT_FALSE(is_as_declared(*hosted.operator->()));
		by_deinit ? hosted->deinit() : hosted->deactivate();
		EXPECT_TRUE(is_as_declared(*hosted.operator->()));
	}
}

/*
 * Life.
 */

TEST(PluginSdk, StartsAndStopsInTurnWhateverTheOrder)
{
	/* i, a, p, d and x for init, activate, process, deactivate and deinit. */
	const std::pair<const char *, const char *> orders[] = {
		{"iapdx", "<.>"},   {"iapdapdx", "<.><.>"}, {"ipdx", "<.>"},   {"iapx", "<.>"},
		{"apdx", ""},	    {"ixap", "<>"},	    {"iiap", "<><."},  {"iaap", "<."},
		{"iapddxx", "<.>"}, {"xdpa", ""},	    {"idpap", "<><."}, {"iadip", "<><."},
	};
	for (const auto &[order, expected] : orders) {
		sdk_hosted<ear> hosted;
		for (const char *call = order; *call; call++) {
			switch (*call) {
			case 'i':
				EXPECT_EQ(hosted->init(), 0) << order;
				break;
			case 'a':
				hosted->activate();
				break;
			case 'p':
				hosted->process(planar<float>({{1.0F}}));
				break;
			case 'd':
				hosted->deactivate();
				break;
			case 'x':
				hosted->deinit();
				break;
			}
		}
		EXPECT_EQ(hosted.plugin->calls, expected) << order;
	}
	sdk_hosted<ear> never;
	EXPECT_EQ(never->activate(), -EINVAL);
	EXPECT_EQ(never->interface->funcs->init(never->interface->data, nullptr, nullptr), -EINVAL);
}

TEST(PluginSdk, StopsBeforeItIsCleared)
{
	class last_words : public plugin
	{
	public:
		using plugin::plugin;
		bool *is_stopped = nullptr;

	private:
		void stop() override
		{
			*is_stopped = true;
		}
		void process(channels) override
		{
		}
	};
	bool is_stopped = false;
	sdk_hosted<last_words> hosted;
	hosted.plugin->is_stopped = &is_stopped;
	ASSERT_EQ(hosted->init(), 0);
	hosted->clear();
	EXPECT_TRUE(is_stopped);
}

TEST(PluginSdk, SaysWhyItCanNotHear)
{
	sdk_hosted<ear> hosted;
	hosted.plugin->answer = -ERANGE;
	EXPECT_EQ(hosted->init(2), -ERANGE);
	ASSERT_EQ(hosted->log.lines.size(), 1U);
	EXPECT_EQ(hosted->log.lines[0].text, "cannot hear Mic0 (F32P, 2 channels, 48000 Hz): try another");
	EXPECT_EQ(hosted->activate(), -EINVAL);
	hosted->process(planar<float>({{1.0F}, {1.0F}}));
	EXPECT_EQ(hosted.plugin->calls, "<");

	hosted.plugin->answer = 0;
	EXPECT_EQ(hosted->init(2), 0);
	hosted->deactivate();
	hosted.plugin->answer = -ERANGE;
	EXPECT_EQ(hosted->activate(), -ERANGE);
	EXPECT_EQ(hosted.plugin->calls, "<<><");
}

TEST(PluginSdk, RefusesFormatsThatItDoesNotTake)
{
	sdk_hosted<ear> hosted{{.name = "tried", .formats = {SPA_AUDIO_FORMAT_S16, SPA_AUDIO_FORMAT_F32}}};
	EXPECT_EQ(hosted->init(1, SPA_AUDIO_FORMAT_F32P), -ENOTSUP);
	ASSERT_EQ(hosted->log.lines.size(), 1U);
	EXPECT_EQ(hosted->log.lines[0].text, "cannot hear Mic0 (F32P, 1 channel, 48000 Hz): "
					     "set audio.format to S16LE in tried.conf");
	EXPECT_EQ(hosted->init(1, SPA_AUDIO_FORMAT_F32), 0);

	sdk_hosted<ear> all;
	for (const spa_audio_format format : {SPA_AUDIO_FORMAT_UNKNOWN, SPA_AUDIO_FORMAT_S24, SPA_AUDIO_FORMAT_F64P,
					      SPA_AUDIO_FORMAT_F32_OE, static_cast<spa_audio_format>(77)})
		EXPECT_EQ(all->init(1, format), -ENOTSUP) << format;
	EXPECT_EQ(all->init(0), -EINVAL);
	EXPECT_EQ(all->init(65), -EINVAL);
	EXPECT_EQ(all->init(64), 0);
}

TEST(PluginSdk, KeepsExceptionsFromTheDaemon)
{
	class thrower : public plugin
	{
	public:
		using plugin::plugin;
		int what = 0;
		size_t stops = 0;

	private:
		int start() override
		{
			if (what == 1)
				throw std::bad_alloc{};
			if (what == 2)
				throw std::invalid_argument("bad");
			if (what == 3)
				throw 3;
			if (what == 4)
				hear_in_blocks(std::numeric_limits<size_t>::max() / 4);
			if (what == 5)
				hear_in_blocks(10, 11);
			return 0;
		}
		void stop() override
		{
			stops++;
			throw std::runtime_error("stop");
		}
		void process(channels) override
		{
		}
	};
	sdk_hosted<thrower> hosted;
	const int expected[] = {0, -ENOMEM, -EINVAL, -EIO, -EIO, -EINVAL};
	for (const int what : {1, 2, 3, 5}) {
		hosted.plugin->what = what;
		EXPECT_EQ(hosted->init(), expected[what]) << what;
		EXPECT_EQ(hosted->log.lines.size(), 1U) << what;
		hosted->log.lines.clear();
	}
	EXPECT_EQ(hosted.plugin->stops, 0U);
	/* It has started, but there is no memory for its blocks. */
	hosted.plugin->what = 4;
	EXPECT_LT(hosted->init(), 0);
	EXPECT_EQ(hosted.plugin->stops, 1U);
	EXPECT_LT(hosted->activate(), 0);
	hosted.plugin->what = 0;
	EXPECT_EQ(hosted->init(), 0);
	hosted->deactivate();
	EXPECT_EQ(hosted.plugin->stops, 2U);
}

TEST(PluginSdk, HearsNothingMoreOnceProcessHasThrown)
{
	sdk_hosted<ear> hosted;
	hosted.plugin->fails_at_block = 2;
	ASSERT_EQ(hosted->init(), 0);
	for (int i = 0; i < 4; i++)
		hosted->process(planar<float>({{1.0F}}));
	EXPECT_EQ(hosted.plugin->calls, "<..>");
	ASSERT_EQ(hosted->log.lines.size(), 1U);
	EXPECT_EQ(hosted->log.lines[0].text, "process: too much");
	EXPECT_EQ(hosted->activate(), 0);
	hosted->process(planar<float>({{1.0F}}));
	EXPECT_EQ(hosted.plugin->calls, "<..><.");
}

TEST(PluginSdk, ReadsItsConfiguration)
{
	sdk_hosted<ear> hosted;
	ASSERT_EQ(hosted->init(1, SPA_AUDIO_FORMAT_F32P, {{"key", "text"}, {"other", nullptr}}), 0);
	EXPECT_EQ(hosted.plugin->configured, "text");
	/* The daemon may have freed its own meanwhile. */
	hosted->deactivate();
	ASSERT_EQ(hosted->activate(), 0);
	EXPECT_EQ(hosted.plugin->configured, "text");
	ASSERT_EQ(hosted->init(), 0);
	EXPECT_EQ(hosted.plugin->configured, "nothing");
	EXPECT_EQ(hosted->interface->funcs->init(hosted->interface->data, &hosted->stream, nullptr), 0);
}

TEST(PluginSdk, LogsAtTheLevelsThatAreAskedFor)
{
	class talker : public ear
	{
	public:
		explicit talker(const host &from) : ear{from}
		{
			log(SPA_LOG_LEVEL_WARN, "%s has %d", name().c_str(), 5);
			log(SPA_LOG_LEVEL_DEBUG, "%s", "unheard");
			log(SPA_LOG_LEVEL_INFO, "%s", std::string(2000, 'x').c_str());
		}
	};
	sdk_hosted<talker> hosted;
	ASSERT_EQ(hosted->log.lines.size(), 2U);
	EXPECT_EQ(hosted->log.lines[0].text, "tried has 5");
	EXPECT_EQ(hosted->log.lines[0].level, SPA_LOG_LEVEL_WARN);
	EXPECT_EQ(hosted->log.lines[1].text.size(), 1023U);

	const factory maker{{.name = "tried"}, make_plugin<talker>};
	const std::unique_ptr<spa_handle, void (*)(void *)> memory{
		static_cast<spa_handle *>(std::calloc(1, maker.get_size(&maker, nullptr))), std::free};
	ASSERT_EQ(spa_handle_factory_init(&maker, memory.get(), nullptr, nullptr, 0), 0);
	memory->clear(memory.get());
}

/*
 * Audio.
 */

TEST(PluginSdkAudio, HandsOverChannelsFromEveryFormat)
{
	const std::vector<std::vector<float>> floats{{0.0F, 0.5F, -1.0F}, {0.25F, -0.25F, 1.0F}};
	const std::vector<std::vector<int16_t>> shorts{{0, 16384, -32768}, {8192, -8192, 32767}};
	const std::vector<std::vector<float>> from_shorts{{0.0F, 0.5F, -1.0F}, {0.25F, -0.25F, 32767.0F / 32768.0F}};

	const auto hear = [](auto &hosted, spa_audio_format format, sdk_buffer buffer) {
		EXPECT_EQ(hosted->init(2, format), 0);
		hosted.plugin->heard = {{}, {}};
		hosted->process(buffer);
		return hosted.plugin->heard;
	};
	sdk_hosted<ear> ears;
	EXPECT_EQ(hear(ears, SPA_AUDIO_FORMAT_F32P, planar(floats)), floats);
	EXPECT_EQ(hear(ears, SPA_AUDIO_FORMAT_F32, interleaved(floats)), floats);
	EXPECT_EQ(hear(ears, SPA_AUDIO_FORMAT_S16P, planar(shorts)), from_shorts);
	EXPECT_EQ(hear(ears, SPA_AUDIO_FORMAT_S16, interleaved(shorts)), from_shorts);

	sdk_hosted<ear_s16> ears_s16;
	EXPECT_EQ(hear(ears_s16, SPA_AUDIO_FORMAT_S16P, planar(shorts)), shorts);
	EXPECT_EQ(hear(ears_s16, SPA_AUDIO_FORMAT_S16, interleaved(shorts)), shorts);
	EXPECT_EQ(hear(ears_s16, SPA_AUDIO_FORMAT_F32P, planar(floats)), shorts);
	EXPECT_EQ(hear(ears_s16, SPA_AUDIO_FORMAT_F32, interleaved(floats)), shorts);

	const std::vector<std::vector<float>> odd{{quiet_nan, infinity, -infinity, 2.0F, -2.0F, 1e-42F},
						  {1e38F, -1e38F, 0.0F, -0.0F, 0.00001F, 0.00002F}};
	EXPECT_EQ(hear(ears, SPA_AUDIO_FORMAT_F32P, planar(odd)),
		  (std::vector<std::vector<float>>{{0.0F, 0.0F, 0.0F, 2.0F, -2.0F, 1e-42F}, odd[1]}));
	EXPECT_EQ(hear(ears_s16, SPA_AUDIO_FORMAT_F32P, planar(odd)),
		  (std::vector<std::vector<int16_t>>{{0, 0, 0, 32767, -32768, 0}, {32767, -32768, 0, 0, 0, 1}}));
}

TEST(PluginSdkAudio, SilencesWhatIsNoNumberWhereverItStands)
{
	sdk_hosted<ear> hosted;
	const auto hear = [&](spa_audio_format format, sdk_buffer buffer) {
		EXPECT_EQ(hosted->init(2, format), 0);
		hosted.plugin->heard = {{}, {}};
		hosted->process(buffer);
		return hosted.plugin->heard;
	};
	constexpr size_t n = 21;
	for (size_t at = 0; at < n; at++) {
		for (const float no_number : {quiet_nan, infinity, -infinity}) {
			std::vector<std::vector<float>> channels{ramp(n, 1.0F), ramp(n, 30.0F)};
			auto expected = channels;
			channels[1][at] = no_number;
			expected[1][at] = 0.0F;
			ASSERT_EQ(hear(SPA_AUDIO_FORMAT_F32P, planar(channels)), expected) << at;
			ASSERT_EQ(hear(SPA_AUDIO_FORMAT_F32, interleaved(channels)), expected) << at;
		}
	}
}

TEST(PluginSdkAudio, MakesBlocksAsTheBuffersCome)
{
	sdk_hosted<ear> hosted;
	ASSERT_EQ(hosted->init(2), 0);
	const std::vector<float> signal = ramp(5000);
	size_t first = 0;
	for (const size_t n : {1UL, 7UL, 1024UL, 1025UL, 0UL, 2943UL}) {
		const auto begin = signal.begin() + static_cast<std::ptrdiff_t>(first);
		const std::vector<float> part(begin, begin + static_cast<std::ptrdiff_t>(n));
		hosted->process(planar<float>({part, part}));
		first += n;
	}
	EXPECT_EQ(first, signal.size());
	EXPECT_EQ(hosted.plugin->lengths, (std::vector<size_t>{1, 7, 1024, 1024, 1, 1024, 1024, 895}));
	EXPECT_EQ(hosted.plugin->heard, (std::vector<std::vector<float>>{signal, signal}));
}

TEST(PluginSdkAudio, MakesBlocksOfTheSizeThatIsAskedForWhateverTheBuffers)
{
	const std::vector<float> signal = ramp(5000);
	for (const size_t portion : {1UL, 3UL, 160UL, 161UL, 1023UL, 5000UL}) {
		sdk_hosted<ear> hosted;
		hosted.plugin->frames = 160;
		ASSERT_EQ(hosted->init(), 0);
		for (size_t first = 0; first < signal.size(); first += portion) {
			const std::span<const float> part =
				std::span{signal}.subspan(first, std::min(portion, signal.size() - first));
			hosted->process(planar<float>({{part.begin(), part.end()}}));
		}
		ASSERT_EQ(hosted.plugin->lengths, std::vector<size_t>(31, 160)) << portion;
		EXPECT_EQ(hosted.plugin->heard[0], ramp(31 * 160)) << portion;
	}
}

TEST(PluginSdkAudio, MakesBlocksThatOverlap)
{
	for (const size_t portion : {1UL, 5UL, 8UL, 100UL}) {
		sdk_hosted<ear> hosted;
		hosted.plugin->frames = 8;
		hosted.plugin->hop = 3;
		ASSERT_EQ(hosted->init(2), 0);
		for (size_t first = 0; first < 100; first += portion) {
			const std::vector<float> part = ramp(std::min(portion, 100 - first), static_cast<float>(first));
			hosted->process(planar<float>({part, part}));
		}
		std::vector<float> expected;
		for (size_t first = 0; first + 8 <= 100; first += 3) {
			const std::vector<float> block = ramp(8, static_cast<float>(first));
			expected.insert(expected.end(), block.begin(), block.end());
		}
		EXPECT_EQ(hosted.plugin->heard[0], expected) << portion;
		EXPECT_EQ(hosted.plugin->heard[1], expected) << portion;
	}
}

TEST(PluginSdkAudio, TellsWhereABlockBeginsAndLiesInMemory)
{
	class teller : public plugin
	{
	public:
		using plugin::plugin;

		size_t frames = 0;
		size_t hop = 0;
		std::vector<uint64_t> begins;

	private:
		int start() override
		{
			if (frames > 0)
				hear_in_blocks(frames, hop);
			return 0;
		}

		void process(channels heard) override
		{
			begins.push_back(block_begin());
			for (size_t c = 0; c < heard.size(); c++)
				EXPECT_EQ(block_data()[c], heard[c].data());
		}
	};
	sdk_hosted<teller> hosted;
	ASSERT_EQ(hosted->init(2), 0);
	hosted->process(planar<float>({ramp(1500), ramp(1500)}));
	hosted->process(planar<float>({ramp(10), ramp(10)}));
	EXPECT_EQ(hosted.plugin->begins, (std::vector<uint64_t>{0, 1024, 1500}));

	hosted.plugin->begins.clear();
	hosted->deactivate();
	hosted.plugin->frames = 8;
	hosted.plugin->hop = 3;
	ASSERT_EQ(hosted->activate(), 0);
	hosted->process(planar<float>({ramp(10), ramp(10)}));
	hosted->process(planar<float>({ramp(7), ramp(7)}));
	EXPECT_EQ(hosted.plugin->begins, (std::vector<uint64_t>{0, 3, 6, 9}));
}

TEST(PluginSdkAudio, ForgetsAcrossAPauseWhatWasNotAWholeBlock)
{
	sdk_hosted<ear> hosted;
	hosted.plugin->frames = 8;
	ASSERT_EQ(hosted->init(), 0);
	hosted->process(planar<float>({ramp(7, 100.0F)}));
	hosted->deactivate();
	ASSERT_EQ(hosted->activate(), 0);
	hosted->process(planar<float>({ramp(8)}));
	EXPECT_EQ(hosted.plugin->heard[0], ramp(8));
}

TEST(PluginSdkAudio, ReadsSamplesAtAnyAddress)
{
	const std::vector<std::vector<float>> signals{ramp(100), ramp(100, 1000.0F)};
	sdk_buffer buffer = interleaved(signals);
	std::vector<std::byte> shifted(buffer.blocks[0].size() + 1);
	std::copy(buffer.blocks[0].begin(), buffer.blocks[0].end(), shifted.begin() + 1);
	buffer.datas[0].data = shifted.data() + 1;
	sdk_hosted<ear> hosted;
	ASSERT_EQ(hosted->init(2, SPA_AUDIO_FORMAT_F32), 0);
	hosted->process(buffer);
	EXPECT_EQ(hosted.plugin->heard, signals);
}

TEST(PluginSdkAudio, LeavesOutFramesThatAreNotWhole)
{
	sdk_hosted<ear_s16> hosted;
	ASSERT_EQ(hosted->init(3, SPA_AUDIO_FORMAT_S16), 0);
	for (uint32_t size = 0; size < 30; size++) {
		sdk_buffer buffer = interleaved<int16_t>({{1, 4, 7, 10, 13}, {2, 5, 8, 11, 14}, {3, 6, 9, 12, 15}});
		buffer.chunks[0].size = size;
		hosted.plugin->heard = {{}, {}, {}};
		hosted->process(buffer);
		ASSERT_EQ(hosted.plugin->heard[2].size(), size / 6) << size;
		if (size >= 6) {
			EXPECT_EQ(hosted.plugin->heard[2].front(), 3);
		}
	}
}

TEST(PluginSdkAudio, StaysInsideABlockWhateverItsChunkSays)
{
	/* Of four equal bytes, so that a sample is the same at any offset in the block, and only there. */
	const float inside = std::bit_cast<float>(0x3c3c3c3c);
	const float outside = std::bit_cast<float>(0x47474747);
	const uint32_t all = 400;
	for (const uint32_t offset : {0U, 3U, 4U, 200U, 399U, 400U, 404U, 0x80000000U, 0xffffffffU}) {
		for (const uint32_t size : {0U, 1U, 4U, 399U, 400U, 401U, 0x80000000U, 0xffffffffU}) {
			sdk_buffer buffer = planar<float>({std::vector<float>(300, outside)});
			std::vector<std::byte> block = bytes_of_samples(std::vector<float>(100, inside));
			std::copy(block.begin(), block.end(), buffer.blocks[0].begin() + all);
			buffer.datas[0].data = buffer.blocks[0].data() + all;
			buffer.datas[0].maxsize = all;
			buffer.chunks[0].offset = offset;
			buffer.chunks[0].size = size;
			buffer.chunks[0].stride = static_cast<int32_t>(offset);
			sdk_hosted<ear> hosted;
			ASSERT_EQ(hosted->init(), 0);
			hosted->process(buffer);
			const size_t expected = std::min(size, all - offset % all) / sizeof(float);
			EXPECT_EQ(hosted.plugin->heard[0], std::vector<float>(expected, inside))
				<< offset << " " << size;
		}
	}
}

TEST(PluginSdkAudio, IgnoresBuffersWithoutSamples)
{
	sdk_hosted<ear> hosted;
	ASSERT_EQ(hosted->init(), 0);
	sdk_buffer none{{}};
	none.raw.datas = nullptr;
	hosted->process(none);
	none.raw.n_datas = 1;
	hosted->process(none);
	hosted->interface->funcs->process(hosted->interface->data, nullptr);
	sdk_buffer no_room = planar<float>({ramp(10)});
	no_room.datas[0].maxsize = 0;
	hosted->process(no_room);
	sdk_buffer no_data = planar<float>({ramp(10)});
	no_data.datas[0].data = nullptr;
	hosted->process(no_data);
	sdk_buffer no_chunk = planar<float>({ramp(10)});
	no_chunk.datas[0].chunk = nullptr;
	hosted->process(no_chunk);
	sdk_buffer corrupted = planar<float>({ramp(10)});
	corrupted.chunks[0].flags = SPA_CHUNK_FLAG_CORRUPTED;
	hosted->process(corrupted);
	EXPECT_EQ(hosted.plugin->calls, "<");

	sdk_buffer empty = planar<float>({ramp(10)});
	empty.chunks[0].flags = SPA_CHUNK_FLAG_EMPTY;
	hosted->process(empty);
	EXPECT_EQ(hosted.plugin->heard[0], std::vector<float>(10));
}

TEST(PluginSdkAudio, HearsMissingChannelsAsSilenceAndAsFarAsAllGo)
{
	sdk_hosted<ear> hosted;
	ASSERT_EQ(hosted->init(3), 0);
	hosted->process(planar<float>({ramp(10), ramp(20)}));
	EXPECT_EQ(hosted.plugin->heard, (std::vector<std::vector<float>>{ramp(10), ramp(10), std::vector<float>(10)}));
	hosted->process(planar<float>({ramp(5), ramp(6), ramp(7), ramp(1)}));
	EXPECT_EQ(hosted.plugin->lengths, (std::vector<size_t>{10, 5}));
	hosted->process(planar<float>({ramp(5), {}, ramp(7)}));
	EXPECT_EQ(hosted.plugin->lengths.size(), 2U);
}

TEST(PluginSdkAudio, KeepsToTheFormatThatItWasTold)
{
	sdk_hosted<ear> hosted;
	ASSERT_EQ(hosted->init(), 0);
	/* As the daemon does just before it begins anew. */
	hosted->stream.info.channels = 64;
	hosted->stream.info.format = SPA_AUDIO_FORMAT_S16;
	hosted->process(planar<float>({ramp(10)}));
	EXPECT_EQ(hosted.plugin->heard[0], ramp(10));
}
