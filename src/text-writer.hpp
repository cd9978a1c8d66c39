/*
 * Puts a text together in a buffer of fixed size.
 *
 * The text is always terminated and never overflows. A piece that does not fit is left out whole, and with
 * it every later one; full() tells afterwards, so that a writer need not check each piece.
 */
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

class hs_text_writer
{
public:
	/** `buffer` is borrowed; a size of 0 is full from the start. */
	hs_text_writer(char *buffer, size_t size) : at{buffer}, room{size}
	{
		if (room > 0)
			*at = '\0';
	}

	void add(std::string_view text)
	{
		if (text.size() >= room) {
			room = 0;
			return;
		}
		std::memcpy(at, text.data(), text.size());
		at += text.size();
		room -= text.size();
		*at = '\0';
	}

	/** Adds `text` as it stands inside the quotes of a JSON string. */
	void add_escaped(std::string_view text)
	{
		while (!text.empty()) {
			const size_t plain = plain_length(text);
			add(text.substr(0, plain));
			if (plain == text.size())
				return;
			add_escape(text[plain]);
			text.remove_prefix(plain + 1);
		}
	}

	/** Writes `text` over the last `n` characters; there must be as many. */
	void replace_last(size_t n, std::string_view text)
	{
		if (room == 0)
			return;
		at -= n;
		room += n;
		add(text);
	}

	/** A piece did not fit. */
	bool full() const
	{
		return room == 0;
	}

private:
	static bool needs_escape(char c)
	{
		const auto byte = static_cast<unsigned char>(c);
		return byte < 0x20 || byte == 0x7f || c == '"' || c == '\\';
	}

	static size_t plain_length(std::string_view text)
	{
		size_t n = 0;
		while (n < text.size() && !needs_escape(text[n]))
			n++;
		return n;
	}

	void add_escape(char c)
	{
		static constexpr char hex[] = "0123456789abcdef";
		const auto byte = static_cast<unsigned char>(c);
		const char code[] = {'\\', 'u', '0', '0', hex[byte >> 4], hex[byte & 0xf]};
		switch (c) {
		case '"':
			return add("\\\"");
		case '\\':
			return add("\\\\");
		case '\b':
			return add("\\b");
		case '\f':
			return add("\\f");
		case '\n':
			return add("\\n");
		case '\r':
			return add("\\r");
		case '\t':
			return add("\\t");
		default:
			return add({code, sizeof(code)});
		}
	}

	char *at;
	/** Bytes left, the terminator's included; 0 once a piece did not fit. */
	size_t room;
};
