#include "props.hpp"

#include <cerrno>
#include <cstring>

#include <spa/utils/json.h>
#include <spa/utils/string.h>

#include "assert.hpp"
#include "log.hpp"
#include "text-writer.hpp"

namespace {

/**
 * Whether `text` is an object with that "title", or without one where `title` is null. It looks no further
 * than it must.
 */
bool is_titled(const char *text, const char *title)
{
	spa_json outer;
	spa_json members;
	spa_json_init(&outer, text, std::strlen(text));
	/* "path" and "$schema" are no objects, though they may well read as a list of keys and values. */
	if (spa_json_enter_object(&outer, &members) <= 0)
		return false;

	char key[HS_PROPS_OBJECT_SIZE];
	while (spa_json_get_string(&members, key, sizeof(key)) > 0) {
		const char *value;
		const int length = spa_json_next(&members, &value);
		if (length <= 0)
			break;
		if (!spa_streq(key, "title"))
			continue;

		char found[HS_PROPS_OBJECT_SIZE];
		return title && !spa_json_is_container(value, length) &&
		       spa_json_parse_stringn(value, length, found, sizeof(found)) > 0 && spa_streq(found, title);
	}
	return !title;
}

/** The entry of that title, or null. */
const spa_dict_item *find_item(const pw_properties *table, const char *title)
{
	if (!table)
		return nullptr;

	const spa_dict_item *item;
	spa_dict_for_each(item, &table->dict) {
		if (is_titled(item->value, title))
			return item;
	}
	return nullptr;
}

/** Renders the item's object with another "value"; false where it does not fit. */
bool render_with_value(const spa_dict_item *item, const char *value, char (&text)[HS_PROPS_OBJECT_SIZE])
{
	const hs_properties_ptr object{pw_properties_new_string(item->value)};
	pw_properties_set(object.get(), "value", value);
	return hs_props_to_json(object.get(), text, sizeof(text)) >= 0;
}

bool set_value(pw_properties *table, const char *title, const char *value)
{
	const spa_dict_item *item = find_item(table, title);
	char text[HS_PROPS_OBJECT_SIZE];
	if (!item || !render_with_value(item, value, text))
		return false;
	pw_properties_set(table, item->key, text);
	return true;
}

/** Whether both tables have the same members with the same values, "value" aside. */
bool same_but_for_value(const pw_properties *a, const pw_properties *b)
{
	if (a->dict.n_items != b->dict.n_items)
		return false;
	const spa_dict_item *item;
	spa_dict_for_each(item, &a->dict) {
		if (!spa_streq(item->key, "value") && !spa_streq(item->value, pw_properties_get(b, item->key)))
			return false;
	}
	return true;
}

} // namespace

int hs_props_to_json(const pw_properties *table, char *buffer, size_t size)
{
	if (!table)
		return -ENOENT;
	if (!buffer)
		return -ENOSPC;

	hs_text_writer writer{buffer, size};
	writer.add("{\n");

	const spa_dict_item *item;
	spa_dict_for_each(item, &table->dict) {
		writer.add("  \"");
		writer.add(item->key);
		if (item->value[0] == '{') {
			writer.add("\": ");
			writer.add(item->value);
			writer.add(",\n");
		} else {
			writer.add("\": \"");
			writer.add_escaped(item->value);
			writer.add("\",\n");
		}
		if (writer.full())
			return -ENOSPC;
	}
	writer.add("\n }");
	return writer.full() ? -ENOSPC : 0;
}

void hs_props_add_object(pw_properties *table, std::initializer_list<hs_props_member> members)
{
	HS_ASSERT(table);

	const hs_properties_ptr object{pw_properties_new(nullptr, nullptr)};
	const char *entry = nullptr;
	for (const hs_props_member &member : members) {
		if (!member.key || !*member.key || !member.value)
			continue;
		if (!entry)
			entry = member.value;
		pw_properties_set(object.get(), member.key, member.value);
	}
	if (!entry || pw_properties_get(table, entry))
		return;

	char text[HS_PROPS_OBJECT_SIZE];
	if (hs_props_to_json(object.get(), text, sizeof(text)) < 0) {
		pw_log_warn("%s is left out, it is too long", entry);
		return;
	}
	pw_properties_set(table, entry, text);
}

void hs_props_set_value(pw_properties *table, const char *title, const char *value)
{
	if (!set_value(table, title, value))
		pw_log_error("Failed to set value %s for props title %s", value ? value : "(null)",
			     title ? title : "(null)");
}

hs_properties_ptr hs_props_find(const pw_properties *table, const char *title)
{
	const spa_dict_item *item = find_item(table, title);

	return hs_properties_ptr{item ? pw_properties_new_string(item->value) : nullptr};
}

bool hs_props_value_survives(const pw_properties *table, const char *title, const char *value)
{
	const spa_dict_item *item = find_item(table, title);
	char text[HS_PROPS_OBJECT_SIZE];
	if (!item || !render_with_value(item, value, text))
		return false;
	const hs_properties_ptr before{pw_properties_new_string(item->value)};
	const hs_properties_ptr after{pw_properties_new_string(text)};
	return spa_streq(pw_properties_get(after.get(), "value"), value) &&
	       same_but_for_value(before.get(), after.get());
}
