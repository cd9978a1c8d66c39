#include "commands.hpp"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <set>

#include <nlohmann/json.hpp>

#include <pipewire/properties.h>
#include <spa/utils/result.h>

#include "audio-buffer.hpp"
#include "audio-file.hpp"
#include "event-json.hpp"
#include "failure.hpp"
#include "format.hpp"
#include "host.hpp"
#include "pod.hpp"

namespace hs_tool {

namespace {

/** As long as a buffer of PipeWire's usual stream, about. */
constexpr uint32_t blocks_per_second = 50;

/** Prints a line for each event. */
class printer : public listener
{
public:
	printer(std::string plugin_name, std::string source_name)
	    : plugin(std::move(plugin_name)), source(std::move(source_name))
	{
	}

	void on_event(const hs_event &event) override
	{
		const std::optional<nlohmann::ordered_json> value =
			value_json(event.type->name, event.complex_type.c_str(), event.value.c_str());
		if (!value) {
			if (unpublished.insert(event.title).second)
				std::fprintf(
					stderr,
					"hs-plugin: The daemon could not publish the event %s: \"%s\" is no whole %s.\n",
					event.title.c_str(), event.value.c_str(), event.type->name);
			return;
		}
		/* A line goes out whole, or a plug-in that dies would leave half of one. */
		const std::string line = to_line({{"time", std::round(time * 1000) / 1000},
						  {"source", source},
						  {"plugin", plugin},
						  {"event", event.title},
						  {"value", *value}}) +
					 "\n";
		if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size() || std::fflush(stdout) != 0)
			throw failure(std::string("The output cannot be written: ") + std::strerror(errno) + ".");
	}

	/** Seconds of audio that the plug-in was given. */
	double time = 0;

private:
	std::string plugin;
	std::string source;
	/** Events whose value could not be told; each is warned of once. */
	std::set<std::string> unpublished;
};

std::string seconds(double time)
{
	char text[32];
	std::snprintf(text, sizeof(text), "%.3f", time);
	return text;
}

void apply(const std::vector<std::string> &settings, host *instance)
{
	for (const std::string &setting : settings) {
		const size_t equals = setting.find('=');
		if (equals == std::string::npos || equals == 0)
			throw failure("--set " + setting + " is not of the form Setting=Value.");
		const std::string title = setting.substr(0, equals);
		if (title == "Enable")
			throw failure("Enable is a setting of the daemon: here the plug-in always listens.");
		instance->set(title, setting.substr(equals + 1));
	}
}

void hear(const library &plugin, const configuration &conf, const options &options, const std::string &path)
{
	const std::string source =
		options.source.empty() ? std::filesystem::path(path).filename().string() : options.source;
	audio_file file(path);
	const spa_audio_info_raw format = wanted_format(conf.info.get(), file.rate(), file.channels());
	audio_stream stream(&file, format.rate, format.channels);

	printer out(plugin.name(), source);
	host instance(plugin, conf.config.get(), &out);
	instance.describe_events();
	for (const std::string &message : instance.set_defaults(conf.info.get()))
		std::fprintf(stderr, "hs-plugin: %s: %s\n", conf.path.c_str(), message.c_str());
	apply(options.settings, &instance);

	int result = instance.init(stream_info(format, source));
	if (result < 0)
		throw failure(plugin.name() + " cannot be initialised for " + path + " (" + describe(format) +
			      "): " + spa_strerror(result) +
			      ". Its log line, if any, tells more; audio.format, audio.rate and "
			      "audio.channels in \"plugin.info\" of its configuration set what it hears.");
	result = instance.activate();
	if (result < 0)
		throw failure(plugin.name() + " cannot be activated for " + path + ": " + spa_strerror(result) + ".");

	const size_t block = options.block > 0 ? options.block : std::max(format.rate / blocks_per_second, 1U);
	audio_buffer buffer(format.format, format.channels, block);
	instance.handle_events(true);
	std::string trouble;
	for (size_t n_frames = 0;;) {
		const std::vector<float> &samples = stream.next(block);
		if (samples.empty())
			break;
		const size_t n = samples.size() / format.channels;
		n_frames += n;
		out.time = static_cast<double>(n_frames) / format.rate;
		instance.process(buffer.fill(samples.data(), n));
		instance.handle_events(false);
		const std::optional<std::string> error = instance.take_process_error();
		if (error && trouble.empty())
			trouble = " at " + seconds(out.time) + " s: " + *error + ".";
	}
	if (!trouble.empty())
		throw failure(plugin.name() + " logged an error while it heard " + path + "," + trouble);
}

} // namespace

int run(const options &options)
{
	const plugin_file file = find_plugin(options.plugin);
	const library plugin(file);
	const configuration conf = find_configuration({plugin.name(), plugin.path()}, options.conf);
	if (conf.path.empty())
		std::fprintf(stderr,
			     "hs-plugin: There is no %s.conf, so %s runs without a configuration; --conf names one.\n",
			     plugin.name().c_str(), plugin.name().c_str());

	int status = STATUS_OK;
	for (const std::string &path : options.files) {
		try {
			hear(plugin, conf, options, path);
		} catch (const failure &why) {
			std::fprintf(stderr, "hs-plugin: %s\n", why.what());
			status = STATUS_ERROR;
		}
	}
	return status;
}

} // namespace hs_tool
