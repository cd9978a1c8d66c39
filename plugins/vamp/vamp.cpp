/* SPDX-License-Identifier: MIT */
/*
 * Vamp plug-ins on a microphone: one library that goes by any number of names.
 *
 * What NAME.conf says is known when a plug-in is constructed, but not the audio that is to be heard. So the Vamp
 * plug-in is first tried with a nominal rate and number of channels, to describe its output; with the true ones it
 * must look the same.
 *
 * Failure: std::invalid_argument, which tells what to change: from the constructor where NAME.conf is wrong, from
 * start() where it does not fit the audio.
 */
#include <hear-sense/plugin.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>

#include <hear-sense/sdk/links.hpp>

#include "vamp-output.hpp"

namespace {

using namespace hear_sense;
using namespace Vamp::HostExt;
using output_info = Vamp::Plugin::OutputDescriptor;
using parameter_info = Vamp::Plugin::ParameterDescriptor;

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

/** Debian's folder is not among those that Vamp looks into by itself. */
void add_system_folder()
{
	std::string folders = HS_VAMP_FOLDER;
	for (const std::string &folder : Vamp::PluginHostAdapter::getPluginPath())
		folders += ":" + folder;
	setenv("VAMP_PATH", folders.c_str(), 0);
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
		add_system_folder();
		const auto rate = config.read_number<uint32_t>("rate", {.otherwise = 48000, .minimum = 1});
		const auto n_channels = config.read_number<uint32_t>("channels", {.otherwise = 1, .minimum = 1});
		for (const parameter_info &parameter : load(rate)->getParameterDescriptors())
			add_setting(parameter);
		add_event(make_instance(rate, n_channels).output);
		config.refuse_unknown();
	}

private:
	int start() override
	{
		live = make_instance(stream().info.rate, stream().info.channels);
		hear_in_blocks(live.block, live.step);
		return 0;
	}

	void stop() override
	{
		live = {};
	}

	void process(channels) override
	{
		const auto begin = Vamp::RealTime::frame2RealTime(static_cast<long>(block_begin()), stream().info.rate);
		Vamp::Plugin::FeatureSet found = live.plugin->process(block_data(), begin);
		for (const Vamp::Plugin::Feature &feature : found[live.output_index])
			output->tell(feature, feature.hasTimestamp ? feature.timestamp : begin + live.shift);
	}

	/** Parameters are for a Vamp plug-in that is not initialised: another one begins, with blocks as they are. */
	int setting_changed(const setting_base &) override
	{
		if (live.plugin)
			live = make_instance(stream().info.rate, stream().info.channels);
		return 0;
	}

	/** With the parameters as they are set, and blocks as they are now or, before the audio, as configured. */
	vamp_instance make_instance(uint32_t rate, size_t n_channels) const
	{
		vamp_instance made{.plugin = load(rate)};
		for (const auto &[identifier, parameter] : settings)
			made.plugin->setParameter(identifier, parameter.value());
		const auto read_size = [this](const char *key, std::initializer_list<size_t> otherwise, size_t most) {
			const size_t known = *std::ranges::find_if(otherwise, [](size_t size) { return size > 0; });
			return config.read_number<size_t>(key, {.otherwise = known, .minimum = 1, .maximum = most});
		};
		made.block =
			read_size("block", {live.block, made.plugin->getPreferredBlockSize(), usual_block}, most_block);
		made.step = read_size("step", {live.step, made.plugin->getPreferredStepSize(), made.block}, made.block);
		if (!made.plugin->initialise(n_channels, made.step, made.block))
			config.refuse("change \"block\", \"step\" or audio.rate: now " + std::to_string(made.block) +
				      ", " + std::to_string(made.step) + ", " + std::to_string(rate));
		/* Only now a Vamp plug-in has to know what its outputs look like. */
		const Vamp::Plugin::OutputList outputs = made.plugin->getOutputDescriptors();
		const auto found = std::ranges::find(outputs, config.read_text("output"), &output_info::identifier);
		if (found == outputs.end())
			config.refuse("set \"output\" to one of vamp-simple-host --list-outputs");
		made.output = *found;
		made.output_index = static_cast<int>(found - outputs.begin());
		if (!vamp_shape{made.output}.fits())
			config.refuse("set \"output\" to one of fewer values, and of a fixed number of them");
		if (output && vamp_shape{made.output} != output->shape)
			config.refuse("set \"rate\", \"channels\" and parameters to those in use: the output differs");
		if (auto *adapter = dynamic_cast<PluginWrapper &>(*made.plugin).getWrapper<PluginInputDomainAdapter>())
			made.shift = adapter->getTimestampAdjustment();
		return made;
	}

	std::unique_ptr<Vamp::Plugin> load(uint32_t rate) const
	{
		PluginLoader *loader = PluginLoader::getInstance();
		const std::string key = config.read_text("plugin");
		/* Of one that there is not the loader would complain on standard error. */
		const auto known = loader->listPluginsIn({key.substr(0, key.find(':'))});
		if (std::ranges::find(known, key) == known.end())
			config.refuse("set \"plugin\" to one of vamp-simple-host --list-ids, not \"" + key + "\"");
		std::unique_ptr<Vamp::Plugin> made{
			loader->loadPlugin(key, static_cast<float>(rate), PluginLoader::ADAPT_ALL_SAFE)};
		if (!made)
			config.refuse("install \"" + key + "\" again: it cannot be loaded");
		return made;
	}

	void add_setting(const parameter_info &parameter)
	{
		setting_info<float> info{.title = free_setting_title(parameter.identifier), .unit = parameter.unit};
		info.description = describe(parameter);
		info.minimum = parameter.minValue;
		info.maximum = parameter.maxValue;
		info.initial = config.read_number<float>("parameter." + parameter.identifier,
							 {parameter.defaultValue, info.minimum, info.maximum});
		settings.try_emplace(parameter.identifier, *this, info);
	}

	void add_event(const output_info &from)
	{
		const vamp_shape shape{from};
		event_info info{.title = free_event_title(from.identifier), .nice_name = from.name};
		info.description = from.description;
		info.unit = from.unit;
		info.is_public = config.read_flag("public", shape.is_structure);
		info.is_property_state = !shape.is_structure;
		info.data_types = shape.is_structure ? HS_EVENT_DATA_EVENT : HS_EVENT_DATA_STATS;
		output.emplace(*this, info, shape);
	}

	/** Of the output, and of the parameters by their identifiers; all from the constructor. */
	std::optional<vamp_output> output;
	std::map<std::string, setting<float>> settings;

	/** While there is audio. */
	vamp_instance live;
};

} // namespace

HS_EXPORT_LINKED_PLUGINS(vamp, {.schema = "vamp.json",
				.settings_schema = "vamp-settings.json",
				.topics = {{"Audio", "Audio", "com.orvel"}}})
