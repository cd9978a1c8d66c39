/* Files of user rights: what is broken grants nothing, and nothing grants more than it says. */
#include "fuzz.hpp"

#define VETTO2_RIGHTS_DIR "rights.d"
#include "../../platform/vetto2/vetto2.cpp"

namespace {

std::optional<std::vector<rule>> read(std::string_view text)
{
	rules_reader reader{std::string{text} + "\n", {}, {}, 0};
	if (read_rules(reader)) {
		HS_REQUIRE(reader.error.empty());
		return reader.rules;
	}
	HS_REQUIRE(!reader.error.empty() && reader.error_line > 0);
	HS_REQUIRE(reader.error_line <= 1 + static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
	return std::nullopt;
}

bool operator==(const rule &a, const rule &b)
{
	return a.is_group == b.is_group && a.name == b.name && a.keys == b.keys;
}

/** A text that is cut off grants the first rules of the whole text, or nothing. */
void check_cut(const std::vector<rule> &rules, std::string_view text, size_t length)
{
	const std::optional<std::vector<rule>> cut = read(text.substr(0, length));
	if (!cut)
		return;
	HS_REQUIRE(cut->size() <= rules.size());
	for (size_t i = 0; i < cut->size(); i++)
		HS_REQUIRE((*cut)[i] == rules[i]);
}

bool is_ascii(const std::string &text)
{
	return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string quoted(const std::string &text)
{
	std::string result = "\"";
	for (const char c : text) {
		char code[8];
		std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned char>(c));
		const bool is_plain = c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
		result += is_plain ? std::string(1, c) : std::string{code};
	}
	return result + "\"";
}

/** Written down plainly, the rules are the same. */
void check_written(const std::vector<rule> &rules)
{
	std::string text;
	for (const rule &each : rules) {
		/* Other bytes are no text that could be quoted. */
		if (!is_ascii(each.name) || !is_ascii(each.keys))
			return;
		text += std::string{each.is_group ? "groups" : "users"} + " = { " + quoted(each.name) + " = [ " +
			quoted(each.keys) + " ] }\n";
	}
	const std::optional<std::vector<rule>> again = read(text);
	HS_REQUIRE(again && again->size() == rules.size());
	for (size_t i = 0; i < rules.size(); i++)
		HS_REQUIRE((*again)[i] == rules[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string_view text{reinterpret_cast<const char *>(data), size};
	const std::optional<std::vector<rule>> rules = read(text);
	if (!rules)
		return 0;
	check_written(*rules);
	for (size_t length = 0; length < size; length += 1 + size / 64)
		check_cut(*rules, text, length);

	store.emplace();
	for (const rule &each : *rules) {
		if (!each.is_group)
			store->rules.push_back(each);
	}
	const bool granted = is_granted("ear", "com.orvel.HearSense.Settings.Loudness.Threshold");
	const bool named = std::any_of(store->rules.begin(), store->rules.end(),
				       [](const rule &each) { return each.name == "ear"; });
	HS_REQUIRE(named || !granted);
	store.reset();
	return 0;
}
