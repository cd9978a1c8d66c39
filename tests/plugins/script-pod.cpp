#include "script-pod.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/utils/type.h>

#include "record.hpp"

namespace {

/* The children of an array share one header, so they have one size: texts are padded to the longest. */
void add_array(spa_pod_builder *builder, const Json &item)
{
	const std::string element = item.at("element").str("int32");
	const std::vector<Json> &values = item.at("value").items;
	alignas(8) std::array<std::uint8_t, 1024> room{};
	std::vector<std::uint8_t> bytes;
	spa_pod child{};

	for (int pass = 0; pass < 2; pass++) {
		for (std::size_t i = 0; i < std::max<std::size_t>(values.size(), 1); i++) {
			spa_pod_builder scratch = SPA_POD_BUILDER_INIT(room.data(), room.size());
			room.fill(0);
			add_scalar(&scratch, element, values.empty() ? Json{} : values[i]);
			const auto *pod = reinterpret_cast<const spa_pod *>(room.data());
			child.type = pod->type;
			child.size = std::max(child.size, pod->size);
			if (pass == 1)
				bytes.insert(bytes.end(), room.data() + sizeof(spa_pod),
					room.data() + sizeof(spa_pod) + child.size);
		}
	}
	spa_pod_builder_array(builder, child.size, child.type, static_cast<std::uint32_t>(values.size()), bytes.data());
}

void add_struct(spa_pod_builder *builder, const Json &item)
{
	const Json &members = item.at("members");
	const Json &values = item.at("value");
	spa_pod_frame frame{};

	spa_pod_builder_push_struct(builder, &frame);
	for (std::size_t i = 0; i < members.items.size() && i < values.items.size(); i++) {
		const std::vector<Json> &member = members.items[i].items;
		spa_pod_builder_string(builder, member[0].text.c_str());
		add_scalar(builder, member[1].text, values.items[i]);
	}
	spa_pod_builder_pop(builder, &frame);
}

void add_nonsense_struct(spa_pod_builder *builder, const std::string &kind)
{
	spa_pod_frame frame{};
	spa_pod_frame inner{};

	spa_pod_builder_push_struct(builder, &frame);
	if (kind == "struct-names") {
		spa_pod_builder_int(builder, 1);
		spa_pod_builder_int(builder, 2);
	} else if (kind == "struct-odd") {
		spa_pod_builder_string(builder, "Detected");
		spa_pod_builder_bool(builder, true);
		spa_pod_builder_string(builder, "Report");
	} else if (kind == "struct-nested") {
		spa_pod_builder_string(builder, "Inner");
		spa_pod_builder_push_struct(builder, &inner);
		spa_pod_builder_string(builder, "Deep");
		spa_pod_builder_int(builder, 1);
		spa_pod_builder_pop(builder, &inner);
	}
	spa_pod_builder_pop(builder, &frame);
}

void add_choice(spa_pod_builder *builder)
{
	spa_pod_frame frame{};

	spa_pod_builder_push_choice(builder, &frame, SPA_CHOICE_Range, 0);
	spa_pod_builder_int(builder, 1);
	spa_pod_builder_int(builder, 0);
	spa_pod_builder_int(builder, 10);
	spa_pod_builder_pop(builder, &frame);
}

void add_rectangles(spa_pod_builder *builder)
{
	spa_pod_frame frame{};

	spa_pod_builder_push_array(builder, &frame);
	spa_pod_builder_rectangle(builder, 1, 2);
	spa_pod_builder_rectangle(builder, 3, 4);
	spa_pod_builder_pop(builder, &frame);
}

void add_value(spa_pod_builder *builder, const Json &item, const std::string &kind)
{
	const std::string type = item.at("type").str("boolean");

	if (kind == "wrong-type")
		spa_pod_builder_rectangle(builder, 16, 9);
	else if (kind == "choice")
		add_choice(builder);
	else if (kind == "array-nested")
		add_rectangles(builder);
	else if (kind == "overflow")
		spa_pod_builder_string(builder, std::string(5000, 'x').c_str());
	else if (kind == "big")
		spa_pod_builder_string(builder, std::string(8000, 'x').c_str());
	else if (kind == "huge")
		spa_pod_builder_string(builder, std::string(0x100000, 'x').c_str());
	else if (kind.starts_with("struct-"))
		add_nonsense_struct(builder, kind);
	else if (type == "array")
		add_array(builder, item);
	else if (type == "struct")
		add_struct(builder, item);
	else
		add_scalar(builder, type, item.at("value"));
}

spa_pod *build_object(const Json &item, const std::string &kind, spa_pod_builder *builder)
{
	const std::string title = item.at("title").str("");
	const std::string description = item.at("description").str("");
	spa_pod_frame frame{};

	if (kind == "wrong-object")
		spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Props);
	else
		spa_pod_builder_push_object(builder, &frame, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
	if (kind == "wrong-name") {
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_int(builder, 7);
	} else if (kind != "no-name") {
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(builder, title.c_str());
	}
	if (kind != "no-description") {
		spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
		spa_pod_builder_string(builder, description.c_str());
	}
	if (kind != "no-type") {
		spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
		add_value(builder, item, kind);
	}
	return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &frame));
}

std::string children_to_json(const spa_pod *pod)
{
	const void *body = SPA_POD_BODY_CONST(pod);
	const std::uint32_t size = SPA_POD_BODY_SIZE(pod);
	std::string result = "[";

	for (auto *child = static_cast<const spa_pod *>(body); spa_pod_is_inside(body, size, child);
	     child = static_cast<const spa_pod *>(spa_pod_next(child))) {
		if (result.size() > 1)
			result += ", ";
		result += pod_to_json(child);
	}
	return result + "]";
}

} // namespace

void add_scalar(spa_pod_builder *builder, const std::string &type, const Json &value)
{
	const char *text = value.text.c_str();

	if (type == "boolean")
		spa_pod_builder_bool(builder, value.is_true());
	else if (type == "uint32")
		spa_pod_builder_id(builder, static_cast<std::uint32_t>(std::strtoul(text, nullptr, 0)));
	else if (type == "int32")
		spa_pod_builder_int(builder, static_cast<std::int32_t>(std::strtol(text, nullptr, 0)));
	else if (type == "int64")
		spa_pod_builder_long(builder, std::strtoll(text, nullptr, 0));
	else if (type == "float")
		spa_pod_builder_float(builder, std::strtof(text, nullptr));
	else if (type == "double")
		spa_pod_builder_double(builder, std::strtod(text, nullptr));
	else if (type == "string")
		spa_pod_builder_string(builder, text);
	else
		spa_pod_builder_none(builder);
}

spa_pod *build_description(const Json &item, spa_pod_builder *builder, std::vector<std::uint64_t> &own)
{
	const std::string kind = item.at("pod").str("normal");

	if (kind == "null")
		return nullptr;
	if (kind == "not-object") {
		const std::uint32_t offset = builder->state.offset;
		spa_pod_builder_int(builder, 7);
		return spa_pod_builder_deref(builder, offset);
	}
	if (kind == "big" || kind == "huge") {
		spa_pod_builder big{};
		own.resize(0x110000 / sizeof(std::uint64_t));
		spa_pod_builder_init(&big, own.data(), static_cast<std::uint32_t>(own.size() * sizeof(own[0])));
		return build_object(item, kind, &big);
	}
	return build_object(item, kind, builder);
}

std::string pod_to_json(const spa_pod *pod)
{
	bool boolean = false;
	std::uint32_t id = 0;
	std::int32_t integer = 0;
	std::int64_t number = 0;
	float real = 0;
	double precise = 0;
	const char *text = nullptr;

	if (pod == nullptr)
		return "null";
	if (spa_pod_get_bool(pod, &boolean) == 0)
		return boolean ? "[\"Bool\", true]" : "[\"Bool\", false]";
	if (spa_pod_get_id(pod, &id) == 0)
		return "[\"Id\", " + std::to_string(id) + "]";
	if (spa_pod_get_int(pod, &integer) == 0)
		return "[\"Int\", " + std::to_string(integer) + "]";
	if (spa_pod_get_long(pod, &number) == 0)
		return "[\"Long\", " + std::to_string(number) + "]";
	if (spa_pod_get_float(pod, &real) == 0)
		return "[\"Float\", " + std::to_string(real) + "]";
	if (spa_pod_get_double(pod, &precise) == 0)
		return "[\"Double\", " + std::to_string(precise) + "]";
	if (spa_pod_get_string(pod, &text) == 0)
		return "[\"String\", " + json_quote(text) + "]";
	if (spa_pod_is_struct(pod))
		return "[\"Struct\", " + children_to_json(pod) + "]";
	return "[\"Other\", " + std::to_string(SPA_POD_TYPE(pod)) + "]";
}
