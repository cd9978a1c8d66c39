#include "check-description.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <pipewire/properties.h>
#include <spa/param/props.h>
#include <spa/pod/iter.h>

#include "conf.hpp"
#include "owned.hpp"
#include "parse.hpp"
#include "plugin.hpp"
#include "props.hpp"
#include "source-settings.hpp"
#include "utf8.hpp"

namespace hs_tool {

namespace {

constexpr size_t max_bus_name = 255;

/** What the daemon itself calls so on the same objects. */
constexpr const char *daemon_settings[] = {"Enable", "EnableEvent"};
constexpr const char *daemon_event_properties[] = {
	"Id",	     "NiceName",     "Direction",	  "Source",	    "EnableEvent", "DataTypes",
	"EventName", "isDeprecated", "isApplicationData", "isPropertyState"};

const char *name_of(topic what)
{
	return what == topic::setting ? "The setting " : "The event ";
}

std::string string_of(const spa_pod *pod)
{
	const char *text = nullptr;
	return spa_pod_get_string(pod, &text) == 0 ? text : "";
}

void read_scalar(const spa_pod *pod, raw_description *raw)
{
	float single = 0;
	double real = 0;
	if (spa_pod_is_string(pod))
		raw->texts.push_back(string_of(pod));
	else if (spa_pod_get_float(pod, &single) == 0)
		raw->has_non_finite |= !std::isfinite(single);
	else if (spa_pod_get_double(pod, &real) == 0)
		raw->has_non_finite |= !std::isfinite(real);
}

void read_members(const spa_pod *pod, raw_description *raw)
{
	const void *body = SPA_POD_BODY_CONST(pod);
	const uint32_t size = SPA_POD_BODY_SIZE(pod);
	bool is_name = true;
	for (const auto *member = static_cast<const spa_pod *>(body); spa_pod_is_inside(body, size, member);
	     member = static_cast<const spa_pod *>(spa_pod_next(member))) {
		if (is_name) {
			raw->member_names.push_back(string_of(member));
			raw->texts.push_back(raw->member_names.back());
		} else {
			raw->member_types.push_back(SPA_POD_TYPE(member));
			raw->has_empty_member |= spa_pod_is_string(member) && string_of(member).empty();
			read_scalar(member, raw);
		}
		is_name = !is_name;
	}
}

void read_elements(const spa_pod *pod, raw_description *raw)
{
	const auto *array = reinterpret_cast<const spa_pod_array *>(pod);
	const uint32_t child_size = array->body.child.size;
	raw->member_types.push_back(array->body.child.type);
	if (child_size == 0)
		return;
	const uint32_t n = (array->pod.size - static_cast<uint32_t>(sizeof(array->body))) / child_size;
	const auto *element = reinterpret_cast<const uint8_t *>(&array->body + 1);
	for (uint32_t i = 0; i < n; ++i, element += child_size) {
		float single = 0;
		double real = 0;
		if (array->body.child.type == SPA_TYPE_String) {
			const auto *text = reinterpret_cast<const char *>(element);
			raw->texts.emplace_back(text, strnlen(text, child_size));
		} else if (array->body.child.type == SPA_TYPE_Float && child_size >= sizeof(single)) {
			std::memcpy(&single, element, sizeof(single));
			raw->has_non_finite |= !std::isfinite(single);
		} else if (array->body.child.type == SPA_TYPE_Double && child_size >= sizeof(real)) {
			std::memcpy(&real, element, sizeof(real));
			raw->has_non_finite |= !std::isfinite(real);
		}
	}
}

/** The array's text as the daemon's getter reads it again. */
std::vector<std::string> texts_of_array(const char *text)
{
	const size_t length = std::strlen(text);
	void *data = nullptr;
	uint32_t size = 0;
	hs_parse_array(text, length, hs_parse_array_count(text, length), &data, "as", &size);
	const hs_malloc_ptr<void> owner(data);
	std::vector<std::string> texts;
	for (uint32_t i = 0; i < size / HS_PARSE_TEXT_SIZE; ++i) {
		const hs_malloc_ptr<char> element(static_cast<char **>(data)[i]);
		texts.emplace_back(element.get());
	}
	return texts;
}

/** Whether the array's text reads back with the elements that the plug-in gave. */
bool array_survives(const raw_description &raw, const hs_pod &parsed)
{
	const char *text = hs_pod_value_text(parsed);
	if (parsed.element_type == SPA_TYPE_String)
		return texts_of_array(text) == raw.texts;
	return hs_parse_array_count(text, std::strlen(text)) == parsed.n_elements;
}

/** Whether the daemon keeps the value as it is: of a setting as an object text, of an event just so. */
bool entry_survives(topic what, const hs_pod &parsed, bool *is_too_long)
{
	const std::string title = parsed.title.value_or("");
	const std::string name = hs_setting_name(title.c_str());
	const char *value = hs_pod_value_text(parsed);
	const hs_properties_ptr table(pw_properties_new(nullptr, nullptr));
	if (what == topic::setting)
		hs_props_add_object(table.get(), {{"name", name.c_str()},
						  {"title", title.c_str()},
						  {"description", hs_c_str(parsed.description)},
						  {"type", hs_c_str(parsed.type)},
						  {"value", value},
						  {"defaultValue", value}});
	else
		hs_props_add_object(table.get(), {{"title", title.c_str()},
						  {"type", hs_c_str(parsed.type)},
						  {"complexType", parsed.signature},
						  {"value", value}});
	*is_too_long = table->dict.n_items == 0;
	if (what == topic::event)
		return !*is_too_long;
	const hs_properties_ptr entry = hs_props_find(table.get(), title.c_str());
	const char *kept = entry ? pw_properties_get(entry.get(), "value") : nullptr;
	return kept && std::string_view(kept) == value && hs_settings_value_survives(value);
}

void check_structure(const std::string &who, const raw_description &raw, report *found)
{
	if (raw.member_names.empty())
		found->fail(who + " is a structure without members, which the bus has no type for.");
	if (raw.has_empty_member)
		found->warn(who + " has an empty text as a member: the daemon cannot publish the structure then. Use a "
				  "word such as \"none\".");
}

/** Why the daemon does not read the structure; empty where its names are not the reason. */
std::string mistake_in_names(const raw_description &raw)
{
	std::set<std::string> names;
	for (const std::string &name : raw.member_names) {
		if (name.empty())
			return " has a member without a name.";
		if (!names.insert(name).second)
			return " has two members " + name + ".";
	}
	return "";
}

} // namespace

bool is_bus_name(const std::string &name)
{
	const auto is_letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; };
	const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
	return !name.empty() && name.size() <= max_bus_name && !is_digit(name[0]) &&
	       std::all_of(name.begin(), name.end(), [&](char c) { return is_letter(c) || is_digit(c); });
}

raw_description read_raw(const spa_pod *pod)
{
	raw_description raw;
	const spa_pod_prop *name = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_name);
	const spa_pod_prop *text = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_description);
	const spa_pod_prop *value = spa_pod_find_prop(pod, nullptr, SPA_PROP_INFO_type);
	if (name)
		raw.title = string_of(&name->value);
	if (text)
		raw.description = string_of(&text->value);
	if (!value)
		return raw;
	raw.type = SPA_POD_TYPE(&value->value);
	if (raw.type == SPA_TYPE_Struct)
		read_members(&value->value, &raw);
	else if (raw.type == SPA_TYPE_Array)
		read_elements(&value->value, &raw);
	else
		read_scalar(&value->value, &raw);
	return raw;
}

void check_description(topic what, const raw_description &raw, std::set<std::string> *titles, report *found)
{
	const std::string who = name_of(what) + (raw.title.empty() ? "without a title" : raw.title);
	if (!is_bus_name(raw.title))
		found->fail(who + " has no name that the bus takes: letters, digits and \"_\", no digit first.");
	if (!titles->insert(hs_setting_name(raw.title.c_str())).second)
		found->fail(who + " has a title that another has already, but for case.");
	if (raw.description.empty())
		found->warn(who + " has no description.");
	if (!hs_utf8_is_valid(raw.description))
		found->fail(who + " has a description that is no UTF-8 that the bus takes.");

	const auto is_title = [&raw](const char *reserved) { return raw.title == reserved; };
	const bool is_taken =
		what == topic::setting
			? std::any_of(std::begin(daemon_settings), std::end(daemon_settings), is_title)
			: std::any_of(std::begin(daemon_event_properties), std::end(daemon_event_properties), is_title);
	if (is_taken)
		found->fail(who + " is called like something of the daemon's own.");
	if (what == topic::setting && (raw.type == SPA_TYPE_Array || raw.type == SPA_TYPE_Struct))
		found->fail(who + " is an array or a structure, which only an event can be.");
}

void check_unreadable(topic what, uint32_t index, const spa_pod *pod, report *found)
{
	const raw_description raw = pod && spa_pod_is_object(pod) ? read_raw(pod) : raw_description{};
	const std::string mistake = mistake_in_names(raw);
	if (mistake.empty())
		found->fail(std::string(name_of(what)) + "with index " + std::to_string(index) +
			    " is not described as the daemon reads it.");
	else
		found->fail(name_of(what) + raw.title + mistake);
}

void check_value(topic what, const raw_description &raw, const hs_pod &parsed, report *found)
{
	const std::string who = name_of(what) + raw.title;
	for (const std::string &text : raw.texts) {
		if (!hs_utf8_is_valid(text))
			found->fail(who + " has a text that is no UTF-8 that the bus takes.");
		if (text.size() >= sizeof(parsed.value))
			found->warn(who + " has a text of more than " + std::to_string(sizeof(parsed.value) - 1) +
				    " bytes, which is cut.");
	}
	if (raw.type == SPA_TYPE_Struct)
		check_structure(who, raw, found);
	if (raw.type == SPA_TYPE_Array && std::string_view(parsed.signature) == "N/A")
		found->fail(who + " is an array of something that the bus does not know from the daemon.");
	else if (raw.type == SPA_TYPE_Array && !array_survives(raw, parsed))
		found->fail(
			who +
			" is an array whose texts do not read back: blanks, commas, quotes and the like split them.");

	const hs_schema_type *type = hs_schema_type_by_id(raw.type);
	const bool is_scalar = type && raw.type != SPA_TYPE_Struct && raw.type != SPA_TYPE_Array;
	if (is_scalar && !hs_pod_value_is_valid(*type, parsed.value))
		found->fail(who + " has the value " + parsed.value + ", which the daemon does not take as " +
			    type->name + (raw.type == SPA_TYPE_Id ? ": keep below 2147483648." : "."));

	bool is_too_long = false;
	if (entry_survives(what, parsed, &is_too_long))
		return;
	if (is_too_long)
		found->fail(who +
			    " is left out by the daemon: title, texts and value are longer than 1000 bytes together.");
	else
		found->fail(who + " has a text that does not read back from the daemon's entry: \"" +
			    std::string(hs_pod_value_text(parsed)).substr(0, 60) + "\".");
}

std::set<std::string> non_finite_events(const host &instance)
{
	std::set<std::string> titles;
	const int n_events = hs_plugin_count_events(instance.interface());
	for (int i = 0; i < n_events; ++i) {
		hs_pod_buffer buffer;
		const spa_pod *pod = hs_plugin_fetch_event(instance.interface(), static_cast<uint32_t>(i), &buffer);
		if (!hs_pod_parse(pod))
			continue;
		const raw_description raw = read_raw(pod);
		if (raw.has_non_finite)
			titles.insert(raw.title);
	}
	return titles;
}

event_watch::event_watch(host *watched, report *to) : instance(watched), found(to)
{
	look();
}

void event_watch::look()
{
	hs_plugin_interface *interface = instance->interface();
	const int n_events = std::max(hs_plugin_count_events(interface), 0);
	shapes.resize(std::max(shapes.size(), static_cast<size_t>(n_events)));
	for (int i = 0; i < n_events; ++i) {
		hs_pod_buffer buffer;
		const spa_pod *pod = hs_plugin_fetch_event(interface, static_cast<uint32_t>(i), &buffer);
		const hs_pod_ptr parsed = hs_pod_parse(pod);
		if (!parsed) {
			check_unreadable(topic::event, static_cast<uint32_t>(i), pod, found);
			continue;
		}
		const raw_description raw = read_raw(pod);
		check_value(topic::event, raw, *parsed, found);

		std::vector<uint32_t> shape = raw.member_types;
		shape.push_back(raw.type);
		std::vector<uint32_t> &first = shapes[static_cast<size_t>(i)];
		if (first.empty())
			first = shape;
		else if (first != shape)
			found->fail("The event " + raw.title +
				    " changes its type, which the bus was told once and for all.");
	}
}

} // namespace hs_tool
