/* What a node's name turns into, and texts that are made fit for the bus. */
#include "fuzz.hpp"

#include <algorithm>
#include <cctype>

#include <systemd/sd-bus.h>

#include "pw-source.hpp"
#include "source-name.hpp"
#include "source-settings.hpp"
#include "utf8.hpp"

namespace {

/** A name as every device has it: elements of letters, digits, "_" and "-", joined by points. */
bool is_ordinary(const std::string &name)
{
	if (name.empty() || name.front() == '.' || name.back() == '.' || name.find("..") != std::string::npos)
		return false;
	return std::all_of(name.begin(), name.end(), [](char c) {
		return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.';
	});
}

std::string without_blanks(std::string text)
{
	text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
	return text;
}

void check_utf8(std::string_view text)
{
	const std::string repaired = hs_utf8_repair(text);
	HS_REQUIRE(hs_utf8_is_valid(repaired));
	HS_REQUIRE(hs_utf8_is_valid(text) == (repaired == text));
	HS_REQUIRE(hs_utf8_repair(repaired) == repaired);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	check_utf8({reinterpret_cast<const char *>(data), size});

	const std::string name = hs_fuzz_input{data, size}.text();
	const std::string path = hs_source_name_to_path(name);
	const std::string device = hs_source_name_to_device(name);
	const std::string display = hs_source_name_to_display(device);
	const std::string direction = hs_source_name_to_direction(name);

	HS_REQUIRE(path.size() <= 255);
	HS_REQUIRE(path.find_first_of(".-") == std::string::npos);
	HS_REQUIRE(name.starts_with(device) && device.find('.') == std::string::npos);
	HS_REQUIRE(display.size() <= 2 * device.size());
	HS_REQUIRE(without_blanks(display) == without_blanks(device));
	HS_REQUIRE(hs_utf8_is_valid(display) || !hs_utf8_is_valid(device));
	HS_REQUIRE(direction.empty() || name.find(direction) != std::string::npos);
	if (is_ordinary(name) && path.size() < 255)
		HS_REQUIRE(sd_bus_object_path_is_valid(("/" + path).c_str()));

	const std::string file = hs_pw_source_settings_path("/settings", "ear", name.c_str());
	HS_REQUIRE(file.starts_with("/settings/ear-") && file.size() < 4096);
	HS_REQUIRE(file.ends_with(".conf") || file.size() == 4095);

	const std::string setting = hs_setting_name(name.c_str());
	HS_REQUIRE(setting.size() == name.size());
	HS_REQUIRE(hs_setting_name(setting.c_str()) == setting);
	return 0;
}
