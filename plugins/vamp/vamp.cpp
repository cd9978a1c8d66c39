/* SPDX-License-Identifier: MIT */
/*
 * Vamp plug-ins on a microphone: one library that goes by any number of names.
 *
 * A name is a link to the library, libspa-hs-NAME.so in its folder. What NAME.conf says is known when a plug-in
 * is constructed, but not the audio that is to be heard. So the Vamp plug-in is first tried with a nominal rate
 * and number of channels, to describe its output; with the true ones it must look the same.
 *
 * Failure: std::invalid_argument, which tells what to change: from the constructor where NAME.conf is wrong, from
 * start() where it does not fit the audio.
 */
#include <hear-sense/plugin.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include <spa/utils/string.h>

#include <dlfcn.h>

#include "vamp-output.hpp"

namespace {

using namespace hear_sense;
using namespace Vamp::HostExt;
using output_info = Vamp::Plugin::OutputDescriptor;
using parameter_info = Vamp::Plugin::ParameterDescriptor;

constexpr std::string_view link_prefix = "libspa-hs-";
constexpr size_t usual_block = 1024;
constexpr size_t most_block = 1 << 20;

/** A Vamp plug-in that is ready for blocks of samples. */
struct vamp_instance {
	std::unique_ptr<Vamp::Plugin> plugin;
	/** Frames of a block, and from the beginning of one to that of the next. */
	size_t block = 0;
	size_t step = 0;
	output_info output{};
	int output_index = 0;
	/** From the beginning of a block to the time of features that do not tell theirs. */
	Vamp::RealTime shift{};
};

/** A D-Bus member name for an identifier; it joins those `taken`, which are in lower case. */
std::string title_of(std::string name, std::set<std::string> *taken)
{
	for (char &c : name)
		c = c > 0 && std::isalnum(c) ? c : '_';
	name.insert(0, name.empty() || std::isdigit(name[0]) ? "_" : "");
	name[0] = static_cast<char>(std::toupper(name[0]));
	std::string lower = name;
	for (char &c : lower)
		c = static_cast<char>(std::tolower(c));
	return taken->insert(lower).second ? name : title_of(name + "_", taken);
}

std::string describe(const parameter_info &parameter)
{
	std::string text = parameter.description.empty() ? parameter.name : parameter.description;
	for (size_t i = 0; i < parameter.valueNames.size(); i++) {
		const long value = std::lround(parameter.minValue + static_cast<float>(i) * parameter.quantizeStep);
		text += (i == 0 ? "; " : ", ") + std::to_string(value) + ": " + parameter.valueNames[i];
	}
	return text;
}

class vamp final : public plugin
{
public:
	explicit vamp(const host &from) : plugin{from}
	{
		const vamp_instance tried = make_instance(read_whole("rate", 48000), read_whole("channels", 1), 0, 0);
		check_keys(*from.config, tried.plugin->getParameterDescriptors());
		add_settings(tried.plugin->getParameterDescriptors());
		add_event(tried.output);
	}

private:
	int start() override
	{
		live = make_instance(stream().info.rate, stream().info.channels, 0, 0);
		hear_in_blocks(live.block, live.step);
		n_frames = 0;
		return 0;
	}

	void stop() override
	{
		live = {};
	}

	void process(channels heard) override
	{
		std::array<const float *, SPA_AUDIO_MAX_CHANNELS> samples;
		std::ranges::transform(heard, samples.begin(), [](auto channel) { return channel.data(); });
		const Vamp::RealTime begin = Vamp::RealTime::frame2RealTime(n_frames, stream().info.rate);
		n_frames += static_cast<long>(live.step);
		Vamp::Plugin::FeatureSet found = live.plugin->process(samples.data(), begin);
		for (const Vamp::Plugin::Feature &feature : found[live.output_index]) {
			if (feature.values.size() >= shape->n_values)
				output->tell(feature, feature.hasTimestamp ? feature.timestamp : begin + live.shift);
		}
	}

	/** Parameters are for a Vamp plug-in that is not initialised: another one begins, with blocks as they are. */
	int setting_changed(const setting_base &) override
	{
		if (live.plugin)
			live = make_instance(stream().info.rate, stream().info.channels, live.block, live.step);
		return 0;
	}

	[[noreturn]] void refuse_config(const std::string &why) const
	{
		throw std::invalid_argument(name() + ".conf: " + why);
	}

	/** With the parameters as they are set; 0 for a size is what is configured, or else preferred. */
	vamp_instance make_instance(uint32_t rate, size_t n_channels, size_t block, size_t step) const
	{
		const auto first_of = [](std::initializer_list<size_t> sizes) {
			return *std::ranges::find_if(sizes, [](size_t size) { return size > 0; });
		};
		vamp_instance made{.plugin = load(static_cast<float>(rate))};
		for (const parameter_info &parameter : made.plugin->getParameterDescriptors())
			made.plugin->setParameter(parameter.identifier, value_of(parameter));
		made.block =
			first_of({block, read_whole("block", 0), made.plugin->getPreferredBlockSize(), usual_block});
		made.step = first_of({step, read_whole("step", 0), made.plugin->getPreferredStepSize(), made.block});
		if (made.block > most_block || made.step > made.block ||
		    !made.plugin->initialise(n_channels, made.step, made.block))
			refuse_config("change \"block\", \"step\" or audio.rate: now " + std::to_string(made.block) +
				      ", " + std::to_string(made.step) + ", " + std::to_string(rate));
		/* Only now a Vamp plug-in has to know what its outputs look like. */
		const Vamp::Plugin::OutputList outputs = made.plugin->getOutputDescriptors();
		const char *wanted = config("output");
		const auto found = std::ranges::find(outputs, wanted ? wanted : "", &output_info::identifier);
		if (found == outputs.end())
			refuse_config("set \"output\" to one of vamp-simple-host --list-outputs");
		made.output = *found;
		made.output_index = static_cast<int>(found - outputs.begin());
		if (!vamp_shape{made.output}.fits())
			refuse_config("set \"output\" to one of fewer values, and of a fixed number of them");
		if (shape && vamp_shape{made.output} != *shape)
			refuse_config("set \"rate\", \"channels\" and parameters to those in use: the output differs");
		if (auto *adapter = dynamic_cast<PluginWrapper &>(*made.plugin).getWrapper<PluginInputDomainAdapter>())
			made.shift = adapter->getTimestampAdjustment();
		return made;
	}

	std::unique_ptr<Vamp::Plugin> load(float rate) const
	{
		PluginLoader *loader = PluginLoader::getInstance();
		const std::string key = config("plugin") ? config("plugin") : "";
		/* Of one that there is not the loader would complain on standard error. */
		const auto known = loader->listPluginsIn({key.substr(0, key.find(':'))});
		if (std::ranges::find(known, key) == known.end())
			refuse_config("set \"plugin\" to one of vamp-simple-host --list-ids, not \"" + key + "\"");
		std::unique_ptr<Vamp::Plugin> made{loader->loadPlugin(key, rate, PluginLoader::ADAPT_ALL_SAFE)};
		if (!made)
			refuse_config("install \"" + key + "\" again: it cannot be loaded");
		return made;
	}

	/** That of the setting, of the configuration or of the Vamp plug-in itself. */
	float value_of(const parameter_info &parameter) const
	{
		const std::string key = "parameter." + parameter.identifier;
		float value = parameter.defaultValue;
		if (const auto found = settings.find(parameter.identifier); found != settings.end())
			value = found->second.value();
		else if (config(key) && !spa_atof(config(key), &value))
			refuse_config("set \"" + key + "\" to a number");
		if (!(value >= parameter.minValue && value <= parameter.maxValue))
			refuse_config("set \"" + key + "\" to a number from " + std::to_string(parameter.minValue) +
				      " to " + std::to_string(parameter.maxValue));
		return value;
	}

	uint32_t read_whole(const std::string &key, uint32_t otherwise) const
	{
		uint32_t number = otherwise;
		if (config(key) && (!spa_atou32(config(key), &number, 10) || number == 0))
			refuse_config("set \"" + key + "\" to a whole number above 0");
		return number;
	}

	void check_keys(const spa_dict &all, const Vamp::Plugin::ParameterList &parameters) const
	{
		std::set<std::string> known = {"plugin",   "output", "public", "rate",
					       "channels", "block",  "step",   "preview"};
		for (const parameter_info &parameter : parameters)
			known.insert("parameter." + parameter.identifier);
		for (const spa_dict_item &item : std::span{all.items, all.n_items}) {
			if (!known.contains(item.key))
				refuse_config("take out \"" + std::string{item.key} + "\", which is unknown");
		}
	}

	void add_settings(const Vamp::Plugin::ParameterList &parameters)
	{
		std::set<std::string> taken = {"enable", "enableevent", "path"};
		for (const parameter_info &one : parameters) {
			setting_info<float> info{.title = title_of(one.identifier, &taken), .unit = one.unit};
			info.description = describe(one);
			info.initial = value_of(one);
			info.minimum = one.minValue;
			info.maximum = one.maxValue;
			settings.try_emplace(one.identifier, *this, info);
		}
	}

	void add_event(const output_info &from)
	{
		std::set<std::string> none_taken;
		event_info info{.title = title_of(from.identifier, &none_taken), .nice_name = from.name};
		info.description = from.description;
		info.unit = from.unit;
		shape.emplace(from);
		info.is_public = config("public") ? spa_atob(config("public")) : shape->is_structure;
		info.is_property_state = !shape->is_structure;
		info.data_types = shape->is_structure ? HS_EVENT_DATA_EVENT : HS_EVENT_DATA_STATS;
		info.topics = {{"Audio", "Audio", "com.orvel"}};
		output.emplace(*this, info, *shape);
	}

	/** Of the output, and of the parameters by their identifiers; all from the constructor. */
	std::optional<vamp_shape> shape;
	std::optional<vamp_output> output;
	std::map<std::string, setting<float>> settings;

	/** While there is audio. */
	vamp_instance live;
	/** Up to the next block. */
	long n_frames = 0;
};

const std::deque<factory> &find_factories()
{
	static const std::deque<factory> found = [] {
		std::deque<factory> all;
		Dl_info self;
		if (dladdr(reinterpret_cast<const void *>(&find_factories), &self) == 0)
			return all;
		/* Debian's folder is not among those that the loader looks into by itself. */
		std::string folders = HS_VAMP_FOLDER;
		for (const std::string &folder : Vamp::PluginHostAdapter::getPluginPath())
			folders += ":" + folder;
		setenv("VAMP_PATH", folders.c_str(), 0);

		const std::filesystem::path library = std::filesystem::absolute(self.dli_fname);
		for (const auto &entry : std::filesystem::directory_iterator(library.parent_path())) {
			const std::string stem = entry.path().stem().string();
			std::error_code error;
			if (!stem.starts_with(link_prefix) || entry.path().extension() != ".so" ||
			    !std::filesystem::equivalent(entry.path(), library, error))
				continue;
			plugin_info info{.name = stem.substr(link_prefix.size()), .schema = "vamp.json"};
			info.settings_schema = "vamp-settings.json";
			all.emplace_back(info, make_plugin<vamp>);
		}
		return all;
	}();
	return found;
}

} // namespace

HS_EXPORT_PLUGINS(find_factories)
