/*
 * The plug-in header is C as well: a plug-in written in C sees the layout that the daemon sees.
 */
#include <hear-sense/plugin.h>

#include <stddef.h>

#define CHECK_FIELD(type, field, at, bytes)                                                              \
	_Static_assert(offsetof(struct type, field) == (at), #type "." #field " has moved");             \
	_Static_assert(sizeof(((struct type *)0)->field) == (bytes), #type "." #field " has another size")
#define CHECK_SIZE(type, bytes) _Static_assert(sizeof(struct type) == (bytes), #type " has another size")
#define NAMESPACE_FIELD namespace

#include "plugin-layout.h"
