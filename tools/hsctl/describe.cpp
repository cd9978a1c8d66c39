#include "describe.hpp"

#include <fmt/format.h>

namespace hs_ctl {

namespace {

/** Null where the daemon does not tell it. */
json about(const event &of, const std::string &property)
{
	const auto found = of.about.find(property);
	return found == of.about.end() ? json() : found->second.content;
}

json describe_topics(const event &of)
{
	json topics = json::array();
	for (int i = 0; i < 3; ++i) {
		const json name = about(of, fmt::format("Topic{}Name", i));
		if (!name.is_string() || name == "")
			continue;
		topics.push_back({{"name", name},
				  {"namespace", about(of, fmt::format("Topic{}Namespace", i))},
				  {"niceName", about(of, fmt::format("Topic{}NiceName", i))}});
	}
	return topics;
}

} // namespace

json describe_chain(const chain &of)
{
	return {{"chain", of.id}, {"niceName", of.nice_name}, {"direction", of.direction}, {"path", of.path}};
}

json describe_source(const model &all, const source &of)
{
	json described = {{"source", of.id}, {"path", of.path}};
	described["chain"] = nullptr;
	described["niceName"] = nullptr;
	described["direction"] = nullptr;
	for (const chain &each : all.chains) {
		if (each.path != of.chain_path)
			continue;
		described["chain"] = each.id;
		described["niceName"] = each.nice_name;
		described["direction"] = each.direction;
	}
	described["plugins"] = json::array();
	for (const instance &each : all.instances) {
		if (each.source == of.id)
			described["plugins"].push_back(each.plugin);
	}
	return described;
}

json describe_instance(const instance &of)
{
	return {{"plugin", of.plugin},
		{"source", of.source},
		{"name", of.name},
		{"path", of.path},
		{"enabled", of.is_enabled}};
}

json describe_setting(const instance &of, const setting &described)
{
	return {{"plugin", of.plugin},
		{"source", of.source},
		{"setting", described.title},
		{"type", type_name(described.current.signature)},
		{"value", described.current.content}};
}

json describe_event(const instance &of, const event &described)
{
	return {{"plugin", of.plugin},
		{"source", of.source},
		{"event", described.title},
		{"type", described.is_hidden ? json() : json(type_name(described.current.signature))},
		{"value", described.current.content},
		{"public", described.is_public},
		{"announced", about(described, "EnableEvent")},
		{"trigger", !described.trigger_interface.empty()},
		{"niceName", about(described, "NiceName")},
		{"isDeprecated", about(described, "isDeprecated")},
		{"isApplicationData", about(described, "isApplicationData")},
		{"isPropertyState", about(described, "isPropertyState")},
		{"topics", describe_topics(described)},
		{"dataTypes", about(described, "DataTypes")}};
}

json describe_all_of(const instance &of)
{
	json described = describe_instance(of);
	described["schema"] = of.schema;
	described["settings"] = json::array();
	for (const setting &each : of.settings)
		described["settings"].push_back(describe_setting(of, each));
	described["events"] = json::array();
	for (const event &each : of.events)
		described["events"].push_back(describe_event(of, each));
	return described;
}

json describe_values(const instance &of)
{
	json values = json::array();
	for (const event &each : of.events)
		values.push_back({{"event", each.title}, {"value", each.current.content}});
	return values;
}

json describe_tree(const model &all)
{
	json chains = json::array();
	for (const chain &each_chain : all.chains) {
		json described = describe_chain(each_chain);
		described["sources"] = json::array();
		for (const source &each_source : all.sources) {
			if (each_source.chain_path != each_chain.path)
				continue;
			json plugins = json::array();
			for (const instance &each : all.instances) {
				if (each.source != each_source.id)
					continue;
				plugins.push_back(describe_instance(each));
				plugins.back()["events"] = describe_values(each);
			}
			described["sources"].push_back(
				{{"source", each_source.id}, {"path", each_source.path}, {"plugins", plugins}});
		}
		chains.push_back(described);
	}
	return {{"chains", chains}};
}

} // namespace hs_ctl
