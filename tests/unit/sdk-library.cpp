/*
 * A library of plug-ins that serves two names, which it learns when it is asked.
 */
#include <deque>

#include <hear-sense/plugin.hpp>

namespace {

class side final : public hear_sense::plugin
{
public:
	using plugin::plugin;

private:
	void process(channels) override
	{
	}

	hear_sense::setting<bool> own{*this, {.title = name() == "left" ? "Left" : "Right"}};
};

const std::deque<hear_sense::factory> &sides()
{
	static std::deque<hear_sense::factory> factories;
	if (factories.empty()) {
		for (const char *name : {"left", "right"})
			factories.emplace_back(hear_sense::plugin_info{.name = name}, hear_sense::make_plugin<side>);
	}
	return factories;
}

} // namespace

HS_EXPORT_PLUGINS(sides)
