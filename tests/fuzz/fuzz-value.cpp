/* Values on their way to a plug-in and back from it. */
#include "fuzz.hpp"

#include <algorithm>
#include <cmath>

#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/utils/string.h>

#include <hear-sense/plugin.h>

#include "parse.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "source-settings.hpp"
#include "source.hpp"

namespace {

constexpr const char *types[] = {"boolean", "uint32", "int32", "int64", "float", "double", "string", nullptr};
constexpr const char *array_types[] = {"ab", "au", "ai", "ax", "ad", "as", "af", "N/A"};

const spa_pod *first_member(const spa_pod *built)
{
	HS_REQUIRE(spa_pod_is_struct(built));
	HS_REQUIRE(SPA_POD_SIZE(built) <= hs_pod_buffer::size);
	return static_cast<const spa_pod *>(SPA_POD_BODY_CONST(built));
}

/** The value behind the name; null where the text did not fit the type. */
const spa_pod *value_of(const spa_pod *built, const std::string &name)
{
	const spa_pod *member = first_member(built);
	const char *text = nullptr;
	HS_REQUIRE(spa_pod_get_string(member, &text) == 0 && name == text);
	const auto *value = static_cast<const spa_pod *>(spa_pod_next(member));
	const auto *end = reinterpret_cast<const uint8_t *>(built) + SPA_POD_SIZE(built);
	if (reinterpret_cast<const uint8_t *>(value) == end)
		return nullptr;
	HS_REQUIRE(reinterpret_cast<const uint8_t *>(value) + SPA_ROUND_UP_N(SPA_POD_SIZE(value), 8) == end);
	return value;
}

void check_scalar(const std::string &name, const std::string &text, const char *type)
{
	const hs_malloc_ptr<spa_pod> built = hs_pod_build(name.c_str(), text.c_str(), type, nullptr);
	if (!built) {
		HS_REQUIRE(name.size() + text.size() > hs_pod_buffer::size - 64);
		return;
	}
	const spa_pod *value = value_of(built.get(), name);
	if (!value) {
		HS_REQUIRE(type && !spa_streq(type, "string"));
		return;
	}

	int32_t word = 0;
	uint32_t id = 0;
	int64_t wide = 0;
	float single = 0;
	double real = 0;
	const char *string = nullptr;
	switch (value->type) {
	case SPA_TYPE_Bool:
		HS_REQUIRE(text == (SPA_POD_VALUE(spa_pod_bool, value) ? "true" : "false"));
		break;
	case SPA_TYPE_Id:
		HS_REQUIRE(hs_parse_uint32(text.c_str(), &id) && id == SPA_POD_VALUE(spa_pod_id, value));
		break;
	case SPA_TYPE_Int:
		HS_REQUIRE(hs_parse_int32(text.c_str(), &word) && word == SPA_POD_VALUE(spa_pod_int, value));
		break;
	case SPA_TYPE_Long:
		HS_REQUIRE(hs_parse_int64(text.c_str(), &wide) && wide == SPA_POD_VALUE(spa_pod_long, value));
		break;
	case SPA_TYPE_Float:
		HS_REQUIRE(hs_parse_float(text.c_str(), &single));
		HS_REQUIRE(std::isnan(single) || single == SPA_POD_VALUE(spa_pod_float, value));
		break;
	case SPA_TYPE_Double:
		HS_REQUIRE(hs_parse_double(text.c_str(), &real));
		HS_REQUIRE(std::isnan(real) || real == SPA_POD_VALUE(spa_pod_double, value));
		break;
	case SPA_TYPE_String:
		HS_REQUIRE(spa_pod_get_string(value, &string) == 0 && text == string);
		break;
	default:
		hs_fuzz_fail("the value is a scalar", __FILE__, __LINE__);
	}
	if (type)
		HS_REQUIRE(hs_schema_type_by_name(type)->id == value->type);
}

void check_array(const std::string &name, const std::string &text, const char *type)
{
	const hs_malloc_ptr<spa_pod> built = hs_pod_build(name.c_str(), text.c_str(), "array", type);
	if (!built)
		return;
	const uint32_t count = hs_parse_array_count(text.c_str(), text.size());
	const spa_pod *value = value_of(built.get(), name);
	if (!value) {
		HS_REQUIRE(count == 0 || spa_streq(type, "af") || spa_streq(type, "N/A"));
		return;
	}
	HS_REQUIRE(spa_pod_is_array(value) && SPA_POD_ARRAY_N_VALUES(value) == count);
	HS_REQUIRE(SPA_POD_ARRAY_VALUE_TYPE(value) == hs_schema_type_by_signature(type + 1)->id);
}

/** A plug-in that answers get_settings with `bytes`, and claims to have built more or less. */
struct counter {
	std::string_view bytes;
	uint32_t claimed;
	std::string told;
};

int get_settings(void *object, spa_pod_builder *builder)
{
	const auto *self = static_cast<const counter *>(object);
	const size_t n = std::min<size_t>(self->bytes.size(), builder->size);
	std::memcpy(builder->data, self->bytes.data(), n);
	builder->state.offset = self->claimed;
	return 0;
}

int set_settings(void *object, const spa_pod *settings)
{
	const spa_pod *value = value_of(settings, "IndicateTransientAudioDisturbance");
	HS_REQUIRE(value && value->type == SPA_TYPE_Long);
	static_cast<counter *>(object)->told = std::to_string(SPA_POD_VALUE(spa_pod_long, value));
	return 0;
}

/** The counter of disturbances is looked for in whatever the plug-in answers. */
void check_counter(std::string_view bytes, uint32_t claimed)
{
	counter self{bytes, claimed, ""};
	hs_plugin_methods methods{};
	methods.get_settings = get_settings;
	methods.set_settings = set_settings;
	hs_plugin_interface interface {
	};
	interface.funcs = &methods;
	interface.data = &self;
	hs_source source{};
	source.interface = &interface;
	HS_REQUIRE(hs_source_handle_settings(&source, nullptr, "IndicateTransientAudioDisturbance", nullptr, nullptr));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	hs_fuzz_input input{data, size};
	const uint8_t shape = input.byte();
	if ((shape & 0x80) != 0) {
		const uint16_t claimed = input.number<uint16_t>();
		check_counter(input.rest(), (shape & 1) ? claimed : static_cast<uint32_t>(input.rest().size()));
		return 0;
	}

	const std::string name = input.text();
	const std::string text = input.text();
	for (const char *type : types)
		check_scalar(name, text, type);
	for (const char *type : array_types)
		check_array(name, text, type);
	for (const char *type : {"struct", "other"}) {
		const hs_malloc_ptr<spa_pod> built = hs_pod_build(name.c_str(), text.c_str(), type, nullptr);
		HS_REQUIRE(!built || !value_of(built.get(), name));
	}
	return 0;
}
