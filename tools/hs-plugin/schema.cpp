#include "schema.hpp"

#include <cmath>

#include <nlohmann/json.hpp>

#include "event-json.hpp"

namespace hs_tool {

namespace {

using json = nlohmann::ordered_json;

bool is_of_type(const json &value, const std::string &type)
{
	if (type == "integer")
		return value.is_number_integer() ||
		       (value.is_number() && std::trunc(value.get<double>()) == value.get<double>());
	return (type == "number" && value.is_number()) || (type == "boolean" && value.is_boolean()) ||
	       (type == "string" && value.is_string()) || (type == "null" && value.is_null()) ||
	       (type == "object" && value.is_object()) || (type == "array" && value.is_array());
}

/** `type` is a name or a list of names. */
bool is_of_types(const json &value, const json &type)
{
	if (type.is_string())
		return is_of_type(value, type.get<std::string>());
	for (const json &one : type) {
		if (one.is_string() && is_of_type(value, one.get<std::string>()))
			return true;
	}
	return !type.is_array();
}

bool lists(const json &values, const json &value)
{
	for (const json &one : values) {
		if (one == value)
			return true;
	}
	return false;
}

/** Characters, not bytes. */
double length_of(const json &text)
{
	double n = 0;
	for (const char c : text.get<std::string>())
		n += (static_cast<unsigned char>(c) & 0xc0) == 0x80 ? 0 : 1;
	return n;
}

struct limit {
	const char *keyword;
	bool (*is_broken)(double value, double limit);
	const char *text;
};

constexpr limit number_limits[] = {
	{"minimum", [](double value, double limit) { return value < limit; }, "is below its minimum of "},
	{"maximum", [](double value, double limit) { return value > limit; }, "is above its maximum of "},
	{"exclusiveMinimum", [](double value, double limit) { return value <= limit; }, "is not above "},
	{"exclusiveMaximum", [](double value, double limit) { return value >= limit; }, "is not below "},
};

constexpr limit length_limits[] = {
	{"minLength", [](double value, double limit) { return value < limit; }, "is shorter than its minLength of "},
	{"maxLength", [](double value, double limit) { return value > limit; }, "is longer than its maxLength of "},
};

template <size_t N>
std::optional<std::string> broken_limit(const limit (&limits)[N], const json &schema, double value)
{
	for (const limit &l : limits) {
		const auto bound = schema.find(l.keyword);
		if (bound != schema.end() && bound->is_number() && l.is_broken(value, bound->get<double>()))
			return l.text + to_line(*bound);
	}
	return std::nullopt;
}

} // namespace

std::optional<std::string> refusal(const json &schema, const json &value)
{
	if (schema == false)
		return "is not allowed";
	if (!schema.is_object())
		return std::nullopt;
	const auto type = schema.find("type");
	if (type != schema.end() && !is_of_types(value, *type))
		return "is not of the type " + to_line(*type);
	const auto constant = schema.find("const");
	if (constant != schema.end() && *constant != value)
		return "is not " + to_line(*constant);
	const auto values = schema.find("enum");
	if (values != schema.end() && !lists(*values, value))
		return "is none of " + to_line(*values);
	if (value.is_number())
		return broken_limit(number_limits, schema, value.get<double>());
	if (value.is_string())
		return broken_limit(length_limits, schema, length_of(value));
	return std::nullopt;
}

std::vector<std::string> refusals(const json &schema, const json &object)
{
	std::vector<std::string> reasons;
	const auto required = schema.find("required");
	if (required != schema.end()) {
		for (const json &name : *required) {
			if (name.is_string() && !object.contains(name.get<std::string>()))
				reasons.push_back("it requires " + name.get<std::string>() + ", which is never there");
		}
	}
	for (const auto &[name, value] : object.items()) {
		const json *property = find_property(schema, name);
		if (!property && !takes_others(schema)) {
			reasons.push_back("it lacks " + name + ", and takes nothing that it lacks");
			continue;
		}
		const auto others = schema.find("additionalProperties");
		if (!property && others != schema.end() && !schema.contains("patternProperties"))
			property = &*others;
		const std::optional<std::string> why = property ? refusal(*property, value) : std::nullopt;
		if (why)
			reasons.push_back(name + " = " + to_line(value) + " " + *why);
	}
	return reasons;
}

bool takes_others(const json &schema)
{
	const auto others = schema.find("additionalProperties");
	return others == schema.end() || *others != false || schema.contains("patternProperties");
}

const json *find_property(const json &schema, const std::string &name)
{
	const auto properties = schema.find("properties");
	if (properties == schema.end() || !properties->is_object())
		return nullptr;
	const auto property = properties->find(name);
	return property == properties->end() ? nullptr : &*property;
}

} // namespace hs_tool
