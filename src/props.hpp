/*
 * Tables whose values are JSON object texts: a source's settings.
 *
 * An entry is found by the "title" inside its value, not by its key.
 */
#pragma once

#include <cstddef>
#include <initializer_list>

#include "owned.hpp"

/** An object text in a table is shorter than this. */
inline constexpr size_t HS_PROPS_OBJECT_SIZE = 1024;

struct hs_props_member {
	const char *key;
	const char *value;
};

/**
 * Renders `table` as a JSON object text; a value that begins with "{" goes in as it stands, every other
 * one as a string, with escapes where it needs them. Returns 0, -ENOENT for a null table, -ENOSPC for a
 * null or too small buffer.
 */
int hs_props_to_json(const pw_properties *table, char *buffer, size_t size);

/**
 * Adds an object of `members` under the value of its first member; members without a key or a value are
 * left out. A key that is there already keeps its entry. An object that is too long is warned of and not
 * added.
 */
void hs_props_add_object(pw_properties *table, std::initializer_list<hs_props_member> members);

/** Sets "value" in the entry titled `title`; logs an error and changes nothing where that cannot be done. */
void hs_props_set_value(pw_properties *table, const char *title, const char *value);

/** A copy of the object titled `title`; null where there is none or the table is null. */
hs_properties_ptr hs_props_find(const pw_properties *table, const char *title);

/** Whether `value`, set in the entry titled `title`, would read back as itself, and the entry stay whole. */
bool hs_props_value_survives(const pw_properties *table, const char *title, const char *value);
