/*
 * Keyed reference counts.
 *
 * A count is kept as decimal text under its key in a caller's properties table, so the table can be
 * shared, printed and freed like any other.
 *
 * Threads: main loop only. Failure: a null key is a programming error and aborts.
 */
#pragma once

#include <cstdint>

struct pw_properties;

/** Adds one to the count of `key`; an absent key counts as 0. */
void hs_refcount_inc(pw_properties *counts, const char *key);

/** Takes one from the count of `key`, which must not be 0; an absent key counts as UINT32_MAX. */
void hs_refcount_dec(pw_properties *counts, const char *key);

/** The count of `key`, UINT32_MAX where it is absent. */
uint32_t hs_refcount_get(const pw_properties *counts, const char *key);
