#include "record.hpp"

#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

std::string json_quote(std::string_view text)
{
	std::string result = "\"";

	for (char c : text) {
		if (c == '"' || c == '\\') {
			result += '\\';
			result += c;
		} else if (static_cast<unsigned char>(c) < 0x20) {
			char escape[8];
			std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned int>(c));
			result += escape;
		} else {
			result += c;
		}
	}
	return result + '"';
}

RecordLine::RecordLine(std::string_view instance, std::string_view method)
	: line_("{")
{
	timespec now{};

	clock_gettime(CLOCK_MONOTONIC, &now);
	line_ += "\"instance\": " + json_quote(instance);
	text("method", method);
	number("thread", gettid());
	flag("main_thread", gettid() == getpid());
	real("time", static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9);
}

RecordLine &RecordLine::member(std::string_view key)
{
	line_ += ", " + json_quote(key) + ": ";
	return *this;
}

RecordLine &RecordLine::text(std::string_view key, std::string_view value)
{
	member(key).line_ += json_quote(value);
	return *this;
}

RecordLine &RecordLine::number(std::string_view key, std::int64_t value)
{
	member(key).line_ += std::to_string(value);
	return *this;
}

RecordLine &RecordLine::real(std::string_view key, double value)
{
	char text[64];

	std::snprintf(text, sizeof(text), "%.9g", value);
	member(key).line_ += text;
	return *this;
}

RecordLine &RecordLine::flag(std::string_view key, bool value)
{
	member(key).line_ += value ? "true" : "false";
	return *this;
}

RecordLine &RecordLine::json(std::string_view key, std::string_view value)
{
	member(key).line_ += value;
	return *this;
}

void RecordLine::append_to(const std::string &path) const
{
	const std::string whole = line_ + "}\n";
	const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);

	if (fd < 0) {
		std::perror(path.c_str());
		return;
	}
	if (write(fd, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size()))
		std::perror(path.c_str());
	close(fd);
}
