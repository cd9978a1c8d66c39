#include "source-name.hpp"

namespace {

/* sd-bus and the plug-ins' schemas know no longer names. */
constexpr size_t name_size = 256;

bool is_upper(char c)
{
	return c >= 'A' && c <= 'Z';
}

bool is_digit(char c)
{
	return c >= '0' && c <= '9';
}

} // namespace

std::string hs_source_name_cut(std::string text, size_t size)
{
	if (text.size() >= size)
		text.resize(size - 1);
	return text;
}

std::string hs_source_name_to_path(std::string_view node_name)
{
	std::string path;
	path.reserve(node_name.size());
	for (const char c : node_name) {
		if (c == '.')
			path += '/';
		else if (c == '-')
			path += '_';
		else
			path += c;
	}
	if (node_name.find('.') == std::string_view::npos)
		path += "/Processed";
	return hs_source_name_cut(std::move(path), name_size);
}

std::string hs_source_name_to_device(std::string_view node_name)
{
	return std::string(node_name.substr(0, node_name.find('.')));
}

std::string hs_source_name_to_display(std::string_view device_name)
{
	std::string display;
	bool in_digits = false;
	for (size_t i = 0; i < device_name.size(); ++i) {
		const char c = device_name[i];
		const bool first_digit = is_digit(c) && !in_digits;
		if (i > 0 && (is_upper(c) || first_digit))
			display += ' ';
		display += c;
		/* An upper-case letter does not end a run of digits: "A1B2" is "A 1 B2". */
		if (is_digit(c))
			in_digits = true;
		else if (!is_upper(c))
			in_digits = false;
	}
	return display;
}

std::string hs_source_name_to_direction(std::string_view node_name)
{
	if (node_name.find("Input") != std::string_view::npos)
		return "Input";
	if (node_name.find("Output") != std::string_view::npos)
		return "Output";
	return "";
}
