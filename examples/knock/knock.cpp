/* SPDX-License-Identifier: MIT */
/*
 * The plug-in "knock": somebody knocks, that is, for a moment it is much louder than before.
 */
#include <hear-sense/plugin.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <optional>

#include <hear-sense/sdk/hold.hpp>

namespace {

/** What silence reads, in dBFS. */
constexpr double floor_dbfs = -100.0;

/** Of a block, in seconds. */
constexpr double block_time = 0.01;

class knock final : public hear_sense::plugin
{
public:
	using plugin::plugin;

private:
	int start() override
	{
		if (stream().info.rate < 8000)
			return refuse(-EINVAL, "set audio.rate to 8000 or more in knock.conf");
		hear_in_blocks(stream().info.rate / 100);
		background.reset();
		shown = {};
		return 0;
	}

	void process(channels heard) override
	{
		const double now = level_of(heard);
		if (!background)
			background = now;
		const bool is_knock = now > *background + rise.value();
		if (is_knock)
			level.tell(std::round(now));
		detected.tell(shown.update(is_knock, block_time, hold_time.value()));
		/* It follows within a second or so, and hardly heeds anything as short as a knock. */
		*background += (now - *background) * block_time;
	}

	/** RMS of the loudest channel in dBFS. */
	static double level_of(channels heard)
	{
		double loudest = 0.0;
		for (const auto &samples : heard) {
			double square_sum = 0.0;
			for (const float sample : samples)
				square_sum += double{sample} * double{sample};
			loudest = std::max(loudest, square_sum / static_cast<double>(samples.size()));
		}
		return std::max(floor_dbfs, 10.0 * std::log10(loudest));
	}

	hear_sense::setting<double> rise{*this,
					 {.title = "Rise",
					  .description = "How much louder than the background a knock is",
					  .unit = "dB",
					  .initial = 20.0,
					  .minimum = 3.0,
					  .maximum = 60.0}};
	hear_sense::setting<double> hold_time{*this,
					      {.title = "HoldTime",
					       .description = "How long a knock is shown",
					       .unit = "s",
					       .initial = 1.0,
					       .minimum = 0.1,
					       .maximum = 60.0}};

	hear_sense::detection detected{*this,
				       {.title = "Knock",
					.description = "Somebody knocks",
					.is_property_state = true,
					.data_types = HS_EVENT_DATA_EVENT}};
	hear_sense::event<double> level{*this,
					{.title = "KnockLevel",
					 .nice_name = "Level of the last knock",
					 .description = "Level of the last knock",
					 .unit = "dBFS"},
					floor_dbfs};

	/** Level in dBFS; nothing before the first block. */
	std::optional<double> background;
	hear_sense::hold shown;
};

} // namespace

HS_EXPORT_PLUGIN(knock, {.name = "knock",
			 .schema = "knock.json",
			 .settings_schema = "knock-settings.json",
			 .topics = {{"Audio", "Audio", "com.example"}}})
