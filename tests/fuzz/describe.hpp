/*
 * Descriptions as plug-ins build them, well or badly: the input tells what is built, and what is spoilt in it
 * afterwards.
 */
#pragma once

#include <spa/param/props.h>
#include <spa/pod/builder.h>

#include "fuzz.hpp"
#include "pod.hpp"

/** Limits what is built to what a careful plug-in builds. */
enum class hs_fuzz_care { none, careful };

inline void hs_fuzz_add_scalar(hs_fuzz_input &input, spa_pod_builder *builder, hs_fuzz_care care)
{
	const bool careful = care == hs_fuzz_care::careful;
	std::string text;
	switch (input.byte() % 8) {
	case 0:
		spa_pod_builder_bool(builder, input.byte() != 0);
		break;
	case 1: {
		/* Higher ones are told as negative numbers, which no reader takes for an unsigned one. */
		const uint32_t id = input.number<uint32_t>();
		spa_pod_builder_id(builder, careful ? id & INT32_MAX : id);
		break;
	}
	case 2:
		spa_pod_builder_int(builder, input.number<int32_t>());
		break;
	case 3:
		spa_pod_builder_long(builder, input.number<int64_t>());
		break;
	case 4:
		spa_pod_builder_float(builder, input.number<float>());
		break;
	case 5:
		spa_pod_builder_double(builder, input.number<double>());
		break;
	default:
		text = input.text();
		spa_pod_builder_string(builder, careful && text.empty() ? "-" : text.c_str());
		break;
	}
}

inline void hs_fuzz_add_array(hs_fuzz_input &input, spa_pod_builder *builder)
{
	spa_pod_frame frame;
	spa_pod_builder_push_array(builder, &frame);
	const unsigned int n = input.byte() % 64;
	const unsigned int type = input.byte() % 7;
	for (unsigned int i = 0; i < n; i++) {
		switch (type) {
		case 0:
			spa_pod_builder_bool(builder, input.byte() & 1);
			break;
		case 1:
			spa_pod_builder_id(builder, input.number<uint32_t>());
			break;
		case 2:
			spa_pod_builder_int(builder, input.number<int32_t>());
			break;
		case 3:
			spa_pod_builder_long(builder, input.number<int64_t>());
			break;
		case 4:
			spa_pod_builder_float(builder, input.number<float>());
			break;
		case 5:
			spa_pod_builder_double(builder, input.number<double>());
			break;
		default: {
			std::string text = input.text();
			text.resize(16);
			spa_pod_builder_string_len(builder, text.c_str(), 15);
			break;
		}
		}
	}
	spa_pod_builder_pop(builder, &frame);
}

inline void hs_fuzz_add_value(hs_fuzz_input &input, spa_pod_builder *builder, hs_fuzz_care care, int depth)
{
	spa_pod_frame frame;
	switch (input.byte() % 8) {
	case 0:
		hs_fuzz_add_array(input, builder);
		break;
	case 1:
	case 2: {
		spa_pod_builder_push_struct(builder, &frame);
		for (unsigned int n = input.byte() % 24; n > 0; n--) {
			if (care == hs_fuzz_care::none && input.byte() == 0xff && depth > 0) {
				hs_fuzz_add_value(input, builder, care, depth - 1);
				continue;
			}
			spa_pod_builder_string(builder, input.text().c_str());
			hs_fuzz_add_scalar(input, builder, care);
		}
		spa_pod_builder_pop(builder, &frame);
		break;
	}
	case 3:
		if (care == hs_fuzz_care::none) {
			spa_pod_builder_bytes(builder, input.rest().data(),
					      static_cast<uint32_t>(input.rest().size() % 64));
			break;
		}
		[[fallthrough]];
	default:
		hs_fuzz_add_scalar(input, builder, care);
		break;
	}
}

/** Builds one description into `builder`; null where it does not fit. */
inline spa_pod *hs_fuzz_describe(hs_fuzz_input &input, spa_pod_builder *builder, hs_fuzz_care care)
{
	spa_pod_frame object;
	spa_pod_builder_push_object(builder, &object, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
	const uint8_t shape = input.byte();
	if (care == hs_fuzz_care::careful || (shape & 1) == 0) {
		spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
		spa_pod_builder_string(builder, input.text().c_str());
	}
	if ((shape & 2) != 0) {
		spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
		spa_pod_builder_string(builder, input.text().c_str());
	}
	if (care == hs_fuzz_care::careful || (shape & 4) == 0) {
		spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
		hs_fuzz_add_value(input, builder, care, 3);
	}
	return static_cast<spa_pod *>(spa_pod_builder_pop(builder, &object));
}
