/*
 * What a scripted plug-in is told to be, read from a JSON file.
 *
 * All members are optional. Top level:
 *
 *   record           path of the record of calls
 *   control          folder of the files that commands are read from, "<instance>.ctl"
 *   record_process   how many process calls are recorded per instance (3)
 *   version          interface version (3)
 *   name, interface_name, schema, settings_schema
 *                    texts of the interface; null for none
 *   interface_type   the only type that get_interface answers, in place of the right one
 *   init_handle      result of the factory's init (0)
 *   no_funcs         true: the interface has no method table
 *   absent           methods whose slot is null
 *   returns          by method: the result, or an array of the results of successive calls, the last
 *                    of which stays
 *   notify_in        by method: the event index that is notified from within the method
 *   settings, events arrays of items
 *
 * An item of settings or events:
 *
 *   title, description, type
 *   value            a scalar; for an array its elements; for a struct its values in order
 *   element          element type of an array
 *   members          of a struct: [name, type] pairs
 *   pod              "normal" or a kind of nonsense, see script-pod.hpp
 *   info             of an event: name (the title), nice_name, isDeprecated, isApplicationData,
 *                    isPropertyState, is_public, data_types, topics ([name, nice_name, namespace]
 *                    triples, null for a null topic); null: no such record
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct JsonMember;

/** A JSON value; numbers, true and false are kept as the text they were written with. */
struct Json {
	enum class Kind
	{
		absent,
		null,
		bare,
		string,
		array,
		object,
	};

	Kind kind = Kind::absent;
	std::string text;
	std::vector<Json> items;
	std::vector<JsonMember> members;

	/** The member of that name; a value of kind absent where there is none. */
	const Json &at(std::string_view key) const;
	bool is_true() const;
	std::int64_t integer(std::int64_t otherwise) const;
	std::string str(std::string_view otherwise) const;
	/** Nothing for null, `otherwise` where the value is absent. */
	std::optional<std::string> text_or_null(std::string_view otherwise) const;
};

struct JsonMember {
	std::string name;
	Json value;
};

/** Nothing when `text` is not JSON. */
std::optional<Json> json_parse(std::string_view text);

/** Nothing when the file cannot be read. */
std::optional<std::string> read_file(const std::string &path);
