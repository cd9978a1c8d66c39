/*
 * Two Vamp plug-ins for the tests, with an output of every kind, and values that show which samples they were given:
 * "scripted" hears samples, "spectral" frequencies.
 */
#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include <vamp-sdk/PluginAdapter.h>
#include <vamp/vamp.h>

namespace {

using Vamp::RealTime;

template <Vamp::Plugin::InputDomain Domain>
class scripted final : public Vamp::Plugin
{
public:
	explicit scripted(float rate) : Plugin{rate}
	{
	}

	InputDomain getInputDomain() const override
	{
		return Domain;
	}
	std::string getIdentifier() const override
	{
		return Domain == TimeDomain ? "scripted" : "spectral";
	}
	std::string getName() const override
	{
		return "Scripted";
	}
	std::string getDescription() const override
	{
		return "What the tests need";
	}
	std::string getMaker() const override
	{
		return "hear-sense";
	}
	int getPluginVersion() const override
	{
		return 1;
	}
	std::string getCopyright() const override
	{
		return "MIT";
	}

	size_t getPreferredBlockSize() const override
	{
		return gain == 0.25F ? 300 : 500;
	}
	size_t getPreferredStepSize() const override
	{
		return 200;
	}
	size_t getMaxChannelCount() const override
	{
		return 4;
	}

	bool initialise(size_t channels, size_t step, size_t block) override
	{
		n_channels = channels;
		n_frames = block;
		is_initialised = true;
		return m_inputSampleRate > 8000.0F && step >= 100;
	}

	void reset() override
	{
	}

	ParameterList getParameterDescriptors() const override
	{
		ParameterList all;
		const auto add = [&all](const char *identifier, float minimum, float maximum, float initial) {
			ParameterDescriptor one;
			one.identifier = identifier;
			one.name = std::string{"The "} + identifier;
			one.minValue = minimum;
			one.maxValue = maximum;
			one.defaultValue = initial;
			all.push_back(one);
		};
		add("gain", 0.0F, 2.0F, 1.0F);
		add("path", -1.0F, 1.0F, 0.0F);
		add("3d-effect", 0.0F, 1.0F, 0.0F);
		add("GAIN", 0.0F, 1.0F, 0.0F);
		add("mode", 1.0F, 3.0F, 2.0F);
		all.back().unit = "bins";
		all.back().isQuantized = true;
		all.back().quantizeStep = 1.0F;
		all.back().valueNames = {"One", "Two", "Three"};
		return all;
	}

	float getParameter(std::string name) const override
	{
		return name == "gain" ? gain : name == "mode" ? mode : 0.0F;
	}

	void setParameter(std::string name, float value) override
	{
		/* As Vamp has it, parameters are set before. */
		if (is_initialised)
			return;
		if (name == "gain")
			gain = value;
		else if (name == "mode")
			mode = value;
	}

	OutputList getOutputDescriptors() const override
	{
		OutputList all;
		const auto add = [&all](const char *identifier, size_t bins) {
			OutputDescriptor one;
			one.identifier = identifier;
			one.name = std::string{"The "} + identifier;
			one.hasFixedBinCount = true;
			one.binCount = bins;
			one.sampleType = OutputDescriptor::OneSamplePerStep;
			all.push_back(one);
		};
		add("first", 1);
		add("whole", 1);
		all.back().isQuantized = true;
		all.back().quantizeStep = 1.0F;
		add("halves", 1);
		all.back().isQuantized = true;
		all.back().quantizeStep = 0.5F;
		add("channels", is_initialised ? n_channels : 1);
		add("rate", static_cast<size_t>(m_inputSampleRate) / 16000);
		add("mode", static_cast<size_t>(mode));
		add("widest", 32);
		add("too-wide", 33);
		add("notes", 2);
		all.back().hasDuration = true;
		all.back().sampleType = OutputDescriptor::VariableSampleRate;
		add("beats", 0);
		all.back().sampleType = OutputDescriptor::VariableSampleRate;
		add("unsure", 1);
		all.back().sampleType = OutputDescriptor::VariableSampleRate;
		add("short", 2);
		add("too-many", 17);
		all.back().sampleType = OutputDescriptor::VariableSampleRate;
		add("open", 0);
		all.back().hasFixedBinCount = false;
		return all;
	}

	FeatureSet process(const float *const *samples, RealTime time) override
	{
		FeatureSet all;
		const OutputList outputs = getOutputDescriptors();
		for (size_t i = 0; i < outputs.size(); i++) {
			Feature feature;
			feature.values.assign(outputs[i].binCount, samples[0][0] * gain);
			const std::string &output = outputs[i].identifier;
			std::vector<Feature> &told = all[static_cast<int>(i)];
			if (output == "channels") {
				for (size_t c = 0; c < n_channels; c++)
					feature.values[c] = samples[c][n_frames - 1];
			} else if (output == "notes") {
				feature.hasTimestamp = feature.hasDuration = true;
				feature.timestamp = time + RealTime::fromMilliseconds(1);
				feature.duration = RealTime::fromMilliseconds(250);
				feature.label = "A4";
				told.push_back(feature);
				feature.hasDuration = false;
				feature.label = "";
			} else if (output == "short") {
				feature.values.pop_back();
			} else if (output == "unsure" && samples[0][0] > 0.5F) {
				feature.values[0] = std::numeric_limits<float>::quiet_NaN();
			} else if (output == "whole") {
				feature.values[0] = samples[0][0] > 0.5F ? 3e9F : samples[0][0] * 100.0F;
			}
			told.push_back(feature);
		}
		return all;
	}

	FeatureSet getRemainingFeatures() override
	{
		return {};
	}

private:
	size_t n_channels = 1;
	size_t n_frames = 0;
	bool is_initialised = false;
	float gain = 1.0F;
	float mode = 2.0F;
};

} // namespace

extern "C" __attribute__((visibility("default"))) const VampPluginDescriptor *vampGetPluginDescriptor(
	unsigned int version, unsigned int index)
{
	static Vamp::PluginAdapter<scripted<Vamp::Plugin::TimeDomain>> in_time;
	static Vamp::PluginAdapter<scripted<Vamp::Plugin::FrequencyDomain>> in_frequency;
	if (version < 1)
		return nullptr;
	return index == 0 ? in_time.getDescriptor() : index == 1 ? in_frequency.getDescriptor() : nullptr;
}
