/*
 * A library of plug-ins that goes by the names of the links to it, and has a setting called like it.
 */
#include <hear-sense/plugin.hpp>
#include <hear-sense/sdk/links.hpp>

namespace {

class linked final : public hear_sense::plugin
{
public:
	using plugin::plugin;

private:
	void process(channels) override
	{
	}

	hear_sense::setting<bool> own{*this, {.title = name()}};
};

} // namespace

HS_EXPORT_LINKED_PLUGINS(linked, {.schema = "linked.json"})
