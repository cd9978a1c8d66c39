#include "message.hpp"

#include <cmath>
#include <cstring>

#include <fmt/format.h>

#include "failure.hpp"

namespace hs_ctl {

namespace {

constexpr char reading[] = "read what the daemon sent";
constexpr char writing[] = "write a message";

template <typename T>
T read_basic(sd_bus_message *message, char type)
{
	T content{};
	check(sd_bus_message_read_basic(message, type, &content), reading);
	return content;
}

json read_content(sd_bus_message *message);

json read_real(sd_bus_message *message)
{
	const auto number = read_basic<double>(message, 'd');
	return std::isfinite(number) ? json(number) : json(nullptr);
}

/** An array, or the members of a structure. */
json read_array(sd_bus_message *message, const char *contents)
{
	const bool is_object = std::strcmp(contents, "{sv}") == 0;
	json all = is_object ? json::object() : json::array();
	check(sd_bus_message_enter_container(message, 'a', contents), reading);
	while (sd_bus_message_at_end(message, 0) == 0) {
		if (!is_object) {
			all.push_back(read_content(message));
			continue;
		}
		check(sd_bus_message_enter_container(message, 'e', "sv"), reading);
		const std::string key = read_text(message);
		all[key] = read_variant(message).content;
		check(sd_bus_message_exit_container(message), reading);
	}
	check(sd_bus_message_exit_container(message), reading);
	return all;
}

/** The next thing of the message; null for what the daemon publishes nowhere. */
json read_content(sd_bus_message *message)
{
	char type = 0;
	const char *contents = nullptr;
	check(sd_bus_message_peek_type(message, &type, &contents), reading);
	switch (type) {
	case 'b':
		return read_basic<int>(message, type) != 0;
	case 'u':
		return read_basic<uint32_t>(message, type);
	case 'i':
		return read_basic<int32_t>(message, type);
	case 'x':
		return read_basic<int64_t>(message, type);
	case 'd':
		return read_real(message);
	case 's':
	case 'o':
		return read_text(message, type);
	case 'a':
		return read_array(message, contents);
	default:
		check(sd_bus_message_skip(message, nullptr), reading);
		return nullptr;
	}
}

/** Reads an array of dictionary entries with `read_entry`. */
template <typename T, typename Read>
std::map<std::string, T> read_dictionary(sd_bus_message *message, char key_type, const char *entry, Read read_entry)
{
	std::map<std::string, T> all;
	check(sd_bus_message_enter_container(message, 'a', fmt::format("{{{}}}", entry).c_str()), reading);
	while (sd_bus_message_at_end(message, 0) == 0) {
		check(sd_bus_message_enter_container(message, 'e', entry), reading);
		const std::string key = read_text(message, key_type);
		all[key] = read_entry(message);
		check(sd_bus_message_exit_container(message), reading);
	}
	check(sd_bus_message_exit_container(message), reading);
	return all;
}

template <typename T>
int append_basic(sd_bus_message *message, char type, T content)
{
	return sd_bus_message_append_basic(message, type, &content);
}

int append_content(sd_bus_message *message, const value &appended)
{
	const json &content = appended.content;
	const char type = appended.signature[0];
	switch (type) {
	case 'b':
		return append_basic(message, type, content.get<bool>() ? 1 : 0);
	case 'u':
		return append_basic(message, type, content.get<uint32_t>());
	case 'i':
		return append_basic(message, type, content.get<int32_t>());
	case 'x':
		return append_basic(message, type, content.get<int64_t>());
	case 'd':
		return append_basic(message, type, content.get<double>());
	case 's':
		return sd_bus_message_append_basic(message, type, content.get_ref<const std::string &>().c_str());
	default:
		return -EINVAL;
	}
}

} // namespace

void check(int r, const char *doing)
{
	if (r < 0)
		throw failure(STATUS_FAILED, fmt::format("Could not {}: {}", doing, std::strerror(-r)));
}

value read_variant(sd_bus_message *message)
{
	const char *contents = nullptr;
	check(sd_bus_message_peek_type(message, nullptr, &contents), reading);
	value read{contents ? contents : "", nullptr};
	check(sd_bus_message_enter_container(message, 'v', read.signature.c_str()), reading);
	read.content = read_content(message);
	check(sd_bus_message_exit_container(message), reading);
	return read;
}

void append_variant(sd_bus_message *message, const value &appended)
{
	check(sd_bus_message_open_container(message, 'v', appended.signature.c_str()), writing);
	check(append_content(message, appended), writing);
	check(sd_bus_message_close_container(message), writing);
}

properties read_properties(sd_bus_message *message)
{
	return read_dictionary<value>(message, 's', "sv", read_variant);
}

interfaces read_interfaces(sd_bus_message *message)
{
	return read_dictionary<properties>(message, 's', "sa{sv}", read_properties);
}

object_tree read_tree(sd_bus_message *message)
{
	object_tree tree;
	for (const auto &[path, added] : read_dictionary<interfaces>(message, 'o', "oa{sa{sv}}", read_interfaces))
		add_interfaces(&tree, path, added);
	return tree;
}

std::vector<std::string> read_texts(sd_bus_message *message)
{
	std::vector<std::string> all;
	check(sd_bus_message_enter_container(message, 'a', "s"), reading);
	while (sd_bus_message_at_end(message, 0) == 0)
		all.push_back(read_text(message));
	check(sd_bus_message_exit_container(message), reading);
	return all;
}

std::string read_text(sd_bus_message *message, char type)
{
	return read_basic<const char *>(message, type);
}

} // namespace hs_ctl
