/*
 * Checks of the settings: how they are described, what is taken and what is refused.
 */
#include "check-bench.hpp"
#include "check-description.hpp"

#include <cfloat>
#include <climits>
#include <limits>

#include <spa/pod/builder.h>
#include <spa/pod/iter.h>

#include "failure.hpp"
#include "plugin.hpp"
#include "source-settings.hpp"

namespace hs_tool {

namespace {

constexpr int many = 1024;
constexpr size_t long_text = 3000;

/** What set_settings is given: the Struct of a name and whatever `add` adds. */
template <typename Add>
hs_malloc_ptr<spa_pod> build(const std::string &name, const Add &add)
{
	hs_pod_buffer buffer;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, static_cast<uint32_t>(sizeof(buffer.data)));
	spa_pod_frame frame{};
	spa_pod_builder_push_struct(&builder, &frame);
	spa_pod_builder_string(&builder, name.c_str());
	add(&builder);
	return hs_malloc_ptr<spa_pod>(spa_pod_copy(static_cast<spa_pod *>(spa_pod_builder_pop(&builder, &frame))));
}

void add_nothing(spa_pod_builder *)
{
}

void add_text(spa_pod_builder *b)
{
	spa_pod_builder_string(b, "loud");
}

void add_integer(spa_pod_builder *b)
{
	spa_pod_builder_int(b, 1);
}

void add_fraction(spa_pod_builder *b)
{
	spa_pod_builder_double(b, 0.5);
}

void add_array(spa_pod_builder *b)
{
	static constexpr int32_t numbers[] = {1, 2, 3};
	spa_pod_builder_array(b, sizeof(int32_t), SPA_TYPE_Int, 3, numbers);
}

/** Every setting's value, as a text to compare. */
std::string values_of(host *instance)
{
	std::string all;
	for (const setting &s : instance->settings())
		all += s.title + "=" + s.value + "\n";
	return all;
}

int count_settings(const host &instance, report *found)
{
	found->begin("asking for the number of settings");
	const int n = hs_plugin_count_settings(instance.interface());
	if (n >= many)
		found->warn("It tells of " + std::to_string(many) + " settings or more; those beyond are left out.");
	if (n != hs_plugin_count_settings(instance.interface()))
		found->fail("The number of its settings changes.");
	return std::max(n, 0);
}

void check_one(host *instance, uint32_t index, std::set<std::string> *titles, report *found)
{
	found->begin("asking for the setting with index " + std::to_string(index));
	hs_pod_buffer buffer;
	const spa_pod *pod = hs_plugin_fetch_setting(instance->interface(), index, &buffer);
	const hs_pod_ptr parsed = hs_pod_parse(pod);
	if (!parsed) {
		check_unreadable(topic::setting, index, pod, found);
		return;
	}
	const raw_description raw = read_raw(pod);
	check_description(topic::setting, raw, titles, found);
	check_value(topic::setting, raw, *parsed, found);
	if (raw.has_non_finite)
		found->fail("The setting " + raw.title + " is not a finite number.");
}

void check_beyond(const host &instance, int n, report *found)
{
	for (const uint32_t index :
	     {static_cast<uint32_t>(n), static_cast<uint32_t>(n) + 1, 0x7fffffffU, 0xffffffffU}) {
		found->begin("asking for the setting with index " + std::to_string(index) + ", of " +
			     std::to_string(n));
		hs_pod_buffer buffer;
		if (hs_plugin_fetch_setting(instance.interface(), index, &buffer))
			found->warn("It describes a setting beyond the last one.");
	}
}

/** Whether the present settings are a Struct of those described. */
void check_present(host *instance, report *found)
{
	if (!instance->interface()->funcs->get_settings)
		return;
	found->begin("asking for the present settings");
	hs_pod_buffer buffer;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, static_cast<uint32_t>(sizeof(buffer.data)));
	const int result = hs_plugin_get_settings(instance->interface(), &builder);
	if (result < 0)
		return;
	const auto *pod = static_cast<const spa_pod *>(
		spa_pod_from_data(buffer.data, sizeof(buffer.data), 0, builder.state.offset));
	if (!pod || !spa_pod_is_struct(pod)) {
		found->warn("Its get_settings builds no Struct of names and values.");
		return;
	}
	std::set<std::string> named;
	const void *body = SPA_POD_BODY_CONST(pod);
	const uint32_t size = SPA_POD_BODY_SIZE(pod);
	bool is_name = true;
	for (const auto *member = static_cast<const spa_pod *>(body); spa_pod_is_inside(body, size, member);
	     member = static_cast<const spa_pod *>(spa_pod_next(member)), is_name = !is_name) {
		const char *text = nullptr;
		if (is_name && spa_pod_get_string(member, &text) == 0)
			named.insert(text);
	}
	for (const setting &s : instance->settings()) {
		if (!named.contains(s.title))
			found->warn("Its get_settings does not tell " + s.title + ".");
	}
}

void check_described(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	host instance(loaded.plugin, loaded.conf.config.get(), nullptr);
	const int n = count_settings(instance, found);
	std::set<std::string> titles;
	for (int i = 0; i < n; ++i)
		check_one(&instance, static_cast<uint32_t>(i), &titles, found);
	check_beyond(instance, n, found);
	check_present(&instance, found);

	for (const setting &s : instance.settings()) {
		found->begin("writing back the default of " + s.title);
		const std::string before = values_of(&instance);
		try {
			instance.set(s.title, s.value);
		} catch (const failure &why) {
			found->fail("The setting " + s.title + " cannot be given its own default: " + why.what());
			continue;
		}
		if (values_of(&instance) != before)
			found->fail("The setting " + s.title + ", given its own default, is another then.");
	}
	found->note(std::to_string(n) + (n == 1 ? " setting" : " settings"));
}

struct probe {
	std::string what;
	hs_malloc_ptr<spa_pod> pod;
};

/** Values that the setting cannot have, whatever it is for. */
std::vector<probe> wrong_values(const setting &s)
{
	std::vector<probe> probes;
	const auto add = [&probes, &s](const char *what, const auto &add_value) {
		probes.push_back({what, build(s.title, add_value)});
	};
	add("no value", add_nothing);
	add("an array", add_array);
	if (s.type == "string")
		add("a number in place of a text", add_integer);
	else
		add("a text in place of a value", add_text);
	if (s.type == "boolean")
		add("a real number in place of a truth", add_fraction);
	for (const double number : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
				    -std::numeric_limits<double>::infinity()}) {
		const std::string what = std::to_string(number);
		if (s.type == "double")
			add(what.c_str(), [number](spa_pod_builder *b) { spa_pod_builder_double(b, number); });
		if (s.type == "float")
			add(what.c_str(),
			    [number](spa_pod_builder *b) { spa_pod_builder_float(b, static_cast<float>(number)); });
	}
	return probes;
}

/** Values that a setting of that type may have, but need not. */
std::vector<std::string> extremes(const std::string &type)
{
	if (type == "boolean")
		return {"true", "false"};
	if (type == "uint32")
		return {"0", "2147483647", "4294967295"};
	if (type == "int32")
		return {std::to_string(INT32_MIN), "-1", "0", std::to_string(INT32_MAX)};
	if (type == "int64")
		return {std::to_string(INT64_MIN), "-1", "0", std::to_string(INT64_MAX)};
	if (type == "float")
		return {"-3e38", "-1", "0", "1e-37", "3e38"};
	if (type == "double")
		return {"-1e300", "-1", "0", "1e-300", "1e300"};
	return {"", "\xc3\xa4", std::string(long_text, 'x')};
}

void refuse_wrong_values(host *instance, const setting &s, report *found)
{
	for (const probe &wrong : wrong_values(s)) {
		found->begin("giving the setting " + s.title + " " + wrong.what);
		const std::string before = values_of(instance);
		if (hs_plugin_set_settings(instance->interface(), wrong.pod.get()) >= 0)
			found->fail("The setting " + s.title + " takes " + wrong.what + ".");
		else if (values_of(instance) != before)
			found->fail("The setting " + s.title + " refuses " + wrong.what +
				    ", yet the settings are changed.");
	}
}

/** Takes or refuses each extreme value, and goes on hearing. */
void bear_extremes(host *instance, const setting &s, const spa_audio_info_raw &format, report *found)
{
	for (const std::string &value : extremes(s.type)) {
		const std::string shown = value.size() > 20 ? "a text of " + std::to_string(value.size()) + " bytes"
							    : "\"" + value + "\"";
		found->begin("giving the setting " + s.title + " " + shown);
		const std::string before = values_of(instance);
		const bool is_taken =
			hs_setting_hand_over(instance->interface(), s.title.c_str(), value.c_str(), s.type.c_str());
		if (!is_taken && values_of(instance) != before)
			found->fail("The setting " + s.title + " refuses " + shown + ", yet the settings are changed.");
		if (!is_taken)
			continue;
		found->begin("hearing with the setting " + s.title + " at " + shown);
		signal_source noise(signal_source::NOISE, format);
		hear(instance, &noise, format, 0.3);
		if (!non_finite_events(*instance).empty())
			found->fail("With the setting " + s.title + " at " + shown + " an event is no finite number.");
		try {
			instance->set(s.title, s.value);
		} catch (const failure &) {
			found->fail("The setting " + s.title + ", once given " + shown +
				    ", does not take its default any more.");
		}
	}
}

void refuse_nonsense(host *instance, report *found)
{
	const std::string before = values_of(instance);
	found->begin("giving a setting that there is not");
	if (hs_plugin_set_settings(instance->interface(), build("NoSuchSetting", add_integer).get()) >= 0)
		found->fail("It takes a value for a setting that it has not.");
	found->begin("giving settings without a name");
	if (hs_plugin_set_settings(instance->interface(), build("", add_nothing).get()) >= 0)
		found->fail("It takes settings without a name.");

	hs_pod_buffer buffer;
	spa_pod_builder builder = SPA_POD_BUILDER_INIT(buffer.data, static_cast<uint32_t>(sizeof(buffer.data)));
	found->begin("giving settings that are no Struct");
	spa_pod_builder_int(&builder, 42);
	if (hs_plugin_set_settings(instance->interface(), reinterpret_cast<const spa_pod *>(buffer.data)) >= 0)
		found->fail("It takes settings that are no Struct.");

	found->begin("giving an empty Struct of settings");
	spa_pod_frame frame{};
	spa_pod_builder_init(&builder, buffer.data, sizeof(buffer.data));
	spa_pod_builder_push_struct(&builder, &frame);
	const auto *empty = static_cast<const spa_pod *>(spa_pod_builder_pop(&builder, &frame));
	if (hs_plugin_set_settings(instance->interface(), empty) >= 0)
		found->warn("It takes an empty Struct of settings.");
	if (values_of(instance) != before)
		found->fail("Settings that make no sense change those that it has.");
}

void check_refused(const subject &plugin, report *found)
{
	const bench loaded(plugin);
	const spa_audio_info_raw format = loaded.usual_format();
	const auto instance = loaded.make();
	if (!instance->interface()->funcs->set_settings) {
		found->note("it takes no settings");
		return;
	}
	refuse_nonsense(instance.get(), found);
	start(instance.get(), format);
	for (const setting &s : instance->settings()) {
		refuse_wrong_values(instance.get(), s, found);
		bear_extremes(instance.get(), s, format, found);
	}
	stop(instance.get());
}

constexpr check_case checks[] = {
	{"settings", "describes its settings as the daemon reads them, and takes its own defaults", check_described},
	{"refusals", "refuses wrong types, unknown names and NaN, and bears extremes", check_refused},
};

} // namespace

std::span<const check_case> setting_checks()
{
	return checks;
}

} // namespace hs_tool
