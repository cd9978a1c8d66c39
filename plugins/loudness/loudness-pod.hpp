/* SPDX-License-Identifier: MIT */
/*
 * The form in which settings and events describe themselves.
 */
#pragma once

#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/utils/type.h>

/** Begins the object; the present value is to be built next, and the object to be popped. */
inline void loudness_begin_description(spa_pod_builder *builder, spa_pod_frame *object, const char *name,
				       const char *description)
{
	spa_pod_builder_push_object(builder, object, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_name, 0);
	spa_pod_builder_string(builder, name);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_description, 0);
	spa_pod_builder_string(builder, description);
	spa_pod_builder_prop(builder, SPA_PROP_INFO_type, 0);
}
