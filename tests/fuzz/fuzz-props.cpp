/* Settings and events as JSON texts: what goes in comes out, or is refused. */
#include "fuzz.hpp"

#include <vector>

#include <spa/utils/string.h>

#include "conf.hpp"
#include "props.hpp"
#include "utf8.hpp"

namespace {

constexpr const char *keys[] = {"name", "title", "description", "type", "complexType", "value", "defaultValue"};

/** Goes in as it stands, and what reads it back is the plug-in's affair. */
bool is_object(const std::string &text)
{
	return text.starts_with('{');
}

void require_members(const pw_properties *object, const std::vector<hs_props_member> &members)
{
	HS_REQUIRE(object);
	HS_REQUIRE(object->dict.n_items == members.size());
	for (const hs_props_member &member : members)
		HS_REQUIRE(spa_streq(pw_properties_get(object, member.key), member.value));
}

void check_rendering(const std::vector<hs_props_member> &members)
{
	const hs_properties_ptr table{pw_properties_new(nullptr, nullptr)};
	for (const hs_props_member &member : members)
		pw_properties_set(table.get(), member.key, member.value);
	char text[1024];
	if (hs_props_to_json(table.get(), text, sizeof(text)) < 0)
		return;
	const hs_properties_ptr object{pw_properties_new_string(text)};
	require_members(object.get(), members);

	for (const size_t room : {std::strlen(text), std::strlen(text) / 2}) {
		const auto small = std::make_unique_for_overwrite<char[]>(room);
		HS_REQUIRE(hs_props_to_json(table.get(), small.get(), room) < 0);
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	hs_fuzz_input input{data, size};
	std::vector<std::string> values;
	for (size_t i = 0; i < std::size(keys); i++)
		values.push_back(hs_utf8_repair(input.text()));
	const std::string next = hs_utf8_repair(input.text());

	std::vector<hs_props_member> members;
	for (size_t i = 0; i < std::size(keys); i++) {
		if (is_object(values[i]))
			return 0;
		members.push_back({keys[i], values[i].c_str()});
	}
	check_rendering(members);

	const hs_properties_ptr table{pw_properties_new("$schema", "/schema.json", "path", "/settings.conf", nullptr)};
	const char *title = values[1].c_str();
	hs_props_add_object(table.get(),
			    {members[0], members[1], members[2], members[3], members[4], members[5], members[6]});
	hs_properties_ptr found = hs_props_find(table.get(), title);
	if (!found)
		return 0;
	require_members(found.get(), members);

	/* A new value is the only thing that changes, and only where it comes back as itself. */
	const bool survives = hs_props_value_survives(table.get(), title, next.c_str());
	const hs_properties_ptr before{pw_properties_copy(table.get())};
	hs_props_set_value(table.get(), title, next.c_str());
	if (is_object(next) && !survives)
		return 0;
	found = hs_props_find(table.get(), title);
	const bool is_refused =
		spa_streq(pw_properties_get(found.get(), "value"), values[5].c_str()) && values[5] != next;
	HS_REQUIRE(!survives || !is_refused);
	if (!is_refused)
		members[5].value = next.c_str();
	require_members(found.get(), members);
	HS_REQUIRE(table->dict.n_items == before->dict.n_items);
	HS_REQUIRE(spa_streq(pw_properties_get(table.get(), "path"), "/settings.conf") || values[0] == "path");
	return 0;
}
