/*
 * The record of calls: one JSON object per line, appended to a file.
 *
 * A line is written with one write call to a file opened for appending, so that the instances of a
 * plug-in can share the file and a reader never sees half a line followed by another.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/** `text` as a JSON string, quotes included. */
std::string json_quote(std::string_view text);

/** One line under construction. Member functions return the line itself, so that calls can be chained. */
class RecordLine
{
public:
	RecordLine(std::string_view instance, std::string_view method);

	RecordLine &text(std::string_view key, std::string_view value);
	RecordLine &number(std::string_view key, std::int64_t value);
	RecordLine &real(std::string_view key, double value);
	RecordLine &flag(std::string_view key, bool value);
	/** `value` is JSON already. */
	RecordLine &json(std::string_view key, std::string_view value);

	void append_to(const std::string &path) const;

private:
	RecordLine &member(std::string_view key);

	std::string line_;
};
