/* Descriptions of settings and events, as careless plug-ins build them. */
#include "fuzz.hpp"

#include <algorithm>

#include <spa/utils/string.h>
#include <systemd/sd-bus.h>

#include "describe.hpp"
#include "event.hpp"
#include "parse.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "source-settings.hpp"
#include "utf8.hpp"

namespace {

/** Gives one event, wherever in the builder's buffer or outside of it. */
struct describer {
	std::string_view bytes;
	uint8_t shape;
	hs_pod_buffer own;

	static int get(void *object, uint32_t index, spa_pod **result, spa_pod_builder *builder)
	{
		auto *self = static_cast<describer *>(object);
		if (!result)
			return 1;
		HS_REQUIRE(index == 0);
		if (self->bytes.empty())
			return 0;
		if ((self->shape & 1) != 0)
			return self->give_bytes(result, builder);
		hs_fuzz_input input{reinterpret_cast<const uint8_t *>(self->bytes.data()), self->bytes.size()};
		*result = hs_fuzz_describe(input, builder, hs_fuzz_care::none);
		if (*result && (self->shape & 2) != 0)
			spoil(input, *result);
		return 0;
	}

	/** The bytes are the description. */
	int give_bytes(spa_pod **result, spa_pod_builder *builder)
	{
		const size_t at = (shape & 4) != 0 ? hs_pod_buffer::size - bytes.size() % hs_pod_buffer::size : 0;
		auto *buffer = static_cast<uint8_t *>(builder->data);
		std::memset(buffer, 0, hs_pod_buffer::size);
		std::memcpy(buffer + at, bytes.data(), std::min(bytes.size(), hs_pod_buffer::size - at));
		*result = reinterpret_cast<spa_pod *>(buffer + at);
		return 0;
	}

	/** Overwrites words inside what was built. */
	static void spoil(hs_fuzz_input &input, spa_pod *pod)
	{
		const size_t n_words = (sizeof(*pod) + pod->size) / sizeof(uint32_t);
		for (unsigned int n = input.byte() % 4; n > 0; n--) {
			const size_t at = input.number<uint16_t>() % n_words;
			const auto word = input.number<uint32_t>();
			std::memcpy(reinterpret_cast<uint8_t *>(pod) + at * sizeof(word), &word, sizeof(word));
		}
	}
};

size_t count_codes(const char *signature)
{
	return std::strlen(signature) - 2;
}

/** Every member is there, as the signature has it. */
void check_members(const hs_pod &pod)
{
	const hs_properties_ptr members{pw_properties_new_string(pod.json)};
	HS_REQUIRE(pod.signature[0] == '(' && pod.signature[std::strlen(pod.signature) - 1] == ')');
	HS_REQUIRE(members->dict.n_items == count_codes(pod.signature));
	const char *code = pod.signature + 1;
	const spa_dict_item *item;
	spa_dict_for_each(item, &members->dict) {
		const hs_schema_type *type = hs_schema_type_by_signature(std::string(1, *code++).c_str());
		HS_REQUIRE(type);
		HS_REQUIRE(hs_utf8_is_valid(item->key) && hs_utf8_is_valid(item->value));
		HS_REQUIRE(type->id == SPA_TYPE_Id || hs_pod_value_is_valid(*type, item->value));
	}
}

void check_array(const hs_pod &pod, const hs_pod_buffer *buffer)
{
	const auto *start = static_cast<const uint8_t *>(pod.elements);
	HS_REQUIRE(start >= buffer->data && start <= buffer->data + sizeof(buffer->data));
	HS_REQUIRE(size_t{pod.n_elements} * pod.element_size <=
		   static_cast<size_t>(buffer->data + sizeof(buffer->data) - start));
	const bool is_known = !spa_streq(pod.signature, "N/A");
	HS_REQUIRE(!is_known || hs_schema_type_by_signature(pod.signature + 1));
	/* Numbers are told one by one; texts go in as they stand. */
	if (is_known && !spa_streq(pod.signature, "as"))
		HS_REQUIRE(hs_parse_array_count(pod.json, std::strlen(pod.json)) == pod.n_elements);
}

void check_parsed(const hs_pod &pod, const hs_pod_buffer *buffer)
{
	HS_REQUIRE(!pod.title || hs_utf8_is_valid(*pod.title));
	HS_REQUIRE(!pod.description || hs_utf8_is_valid(*pod.description));
	HS_REQUIRE(hs_utf8_is_valid(pod.value) && hs_utf8_is_valid(pod.json));
	const hs_schema_type *type = hs_schema_type_by_name(hs_c_str(pod.type));
	HS_REQUIRE(type);
	if (type->id == SPA_TYPE_Struct)
		check_members(pod);
	else if (type->id == SPA_TYPE_Array)
		check_array(pod, buffer);
	else
		HS_REQUIRE(type->id == SPA_TYPE_Id || hs_pod_value_is_valid(*type, pod.value));
}

/** What is told once is no news the second time, whichever way it is looked at. */
void check_event(hs_plugin_interface *interface, const hs_pod &pod)
{
	hs_events events = hs_events_describe(interface, 1);
	if (events.empty())
		return;
	HS_REQUIRE(events[0].title == *pod.title && events[0].value == hs_pod_value_text(pod));
	bool report_changed = true;
	HS_REQUIRE(!hs_events_update(events, pod, &report_changed) && !report_changed);
	const auto tell = [](void *, const hs_event &, bool) { HS_REQUIRE(false); };
	for (int i = 0; i < 2; ++i)
		hs_events_handle_all(interface, events, false, tell, nullptr);
}

/** The quick way to a scalar finds what the long one does. */
void check_scalar(const spa_pod *pod, const hs_pod *parsed)
{
	hs_pod_scalar scalar;
	if (!hs_pod_read_scalar(pod, &scalar))
		return;
	HS_REQUIRE(parsed && parsed->title == scalar.title && parsed->type == scalar.type->name);
	HS_REQUIRE(spa_streq(hs_pod_value_text(*parsed), scalar.value));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size == 0)
		return 0;
	describer self{{reinterpret_cast<const char *>(data) + 1, size - 1}, data[0], {}};
	hs_plugin_methods methods{};
	methods.get_event = describer::get;
	hs_plugin_interface interface {
	};
	interface.funcs = &methods;
	interface.data = &self;

	const auto buffer = std::make_unique_for_overwrite<hs_pod_buffer>();
	const spa_pod *given = hs_plugin_fetch_event(&interface, 0, buffer.get());
	const hs_pod_ptr pod = hs_pod_parse(given);
	if (given)
		check_scalar(given, pod.get());
	if (!pod)
		return 0;
	check_parsed(*pod, buffer.get());
	check_event(&interface, *pod);
	hs_source_has_report(&interface, 0);
	return 0;
}
