#include "refcount.hpp"

#include <pipewire/properties.h>

#include "assert.hpp"

void hs_refcount_inc(pw_properties *counts, const char *key)
{
	HS_ASSERT_TEXT(key, "key != ((void *)0)");

	const uint32_t count = pw_properties_get_uint32(counts, key, 0);
	pw_properties_setf(counts, key, "%u", count + 1);
}

void hs_refcount_dec(pw_properties *counts, const char *key)
{
	HS_ASSERT_TEXT(key, "key != ((void *)0)");

	const uint32_t count = hs_refcount_get(counts, key);
	HS_ASSERT(count > 0);
	pw_properties_setf(counts, key, "%u", count - 1);
}

uint32_t hs_refcount_get(const pw_properties *counts, const char *key)
{
	HS_ASSERT_TEXT(key, "key != ((void *)0)");

	return pw_properties_get_uint32(counts, key, UINT32_MAX);
}
