/* How clients read values: whatever text is stored, the answer is whole, or an error. */
#include "fuzz.hpp"

#include <memory>

#include <spa/utils/string.h>

#include <hear-sense/plugin.h>

#include "bus.hpp"
#include "dbus-cb.hpp"
#include "dbus-get.hpp"
#include "dbus.hpp"
#include "plugin.hpp"
#include "pod.hpp"
#include "source.hpp"
#include "utf8.hpp"

namespace {

constexpr char interface_name[] = "com.orvel.HearSense.Events.Ear.Alarm";
constexpr const char *signatures[] = {"b", "u", "i", "x", "f", "d", "s", "ab", "au", "ai", "ax", "ad", "as"};

/** The answer to one read; null where it failed. */
hs_message_ptr read_property(hs_source *source, const std::string &signature)
{
	static const hs_fuzz_bus bus;
	sd_bus_message *created = nullptr;
	HS_REQUIRE(sd_bus_message_new_signal(bus.get(), &created, "/a", "a.b", "C") >= 0);
	hs_message_ptr message{created};
	const char *shown = hs_dbus_cb_published_signature(signature.c_str());
	HS_REQUIRE(sd_bus_message_open_container(created, SD_BUS_TYPE_VARIANT, shown) >= 0);

	sd_bus_error error = SD_BUS_ERROR_NULL;
	const std::unique_ptr<sd_bus_error, hs_release<sd_bus_error_free>> texts{&error};
	const int r = hs_dbus_get_find(signature.c_str())(bus.get(), "/ear", interface_name, "Alarm", created, source,
							  &error);
	if (r < 0) {
		HS_REQUIRE(sd_bus_error_has_name(&error, HS_DBUS_ERROR));
		return nullptr;
	}
	HS_REQUIRE(!sd_bus_error_is_set(&error));
	HS_REQUIRE(sd_bus_message_close_container(created) >= 0);
	HS_REQUIRE(sd_bus_message_seal(created, 1, 0) >= 0);
	return message;
}

std::string text_of(sd_bus_message *message)
{
	char *text = nullptr;
	size_t size = 0;
	FILE *stream = open_memstream(&text, &size);
	HS_REQUIRE(stream);
	HS_REQUIRE(sd_bus_message_rewind(message, 1) >= 0);
	HS_REQUIRE(sd_bus_message_dump(message, stream, SD_BUS_MESSAGE_DUMP_SUBTREE_ONLY) >= 0);
	HS_REQUIRE(std::fclose(stream) == 0);
	const hs_malloc_ptr<char> owned{text};
	return text;
}

/** Every member once, under the name and of the type that it was given. */
void check_members(sd_bus_message *message, const pw_properties *members, const std::string &signature)
{
	HS_REQUIRE(sd_bus_message_rewind(message, 1) >= 0);
	HS_REQUIRE(sd_bus_message_enter_container(message, 'v', "a{sv}") > 0);
	HS_REQUIRE(sd_bus_message_enter_container(message, 'a', "{sv}") > 0);
	size_t n = 0;
	while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
		const char *key = nullptr;
		const char *type = nullptr;
		HS_REQUIRE(sd_bus_message_read(message, "s", &key) > 0);
		HS_REQUIRE(spa_streq(key, members->dict.items[n].key));
		HS_REQUIRE(sd_bus_message_peek_type(message, nullptr, &type) > 0);
		HS_REQUIRE(1 + n < signature.size() && hs_schema_type_by_signature(signature.substr(1 + n, 1).c_str()));
		HS_REQUIRE(*type == (signature[1 + n] == 'f' ? 'd' : signature[1 + n]));
		HS_REQUIRE(sd_bus_message_skip(message, "v") >= 0);
		HS_REQUIRE(sd_bus_message_exit_container(message) >= 0);
		n++;
	}
	HS_REQUIRE(n == members->dict.n_items);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	hs_fuzz_input input{data, size};
	const uint8_t shape = input.byte();
	const std::string signature = shape < std::size(signatures) ? signatures[shape] : "(" + input.text();
	const std::string value = input.text();

	hs_plugin plugin{};
	spa_list_init(&plugin.sources);
	hs_plugin_interface interface {
	};
	hs_source source{};
	source.name = "AudioDevice0Input0.Unprocessed";
	source.plugin = &plugin;
	source.interface = &interface;
	source.events = {{0, {}, "Alarm", hs_schema_type_by_name("struct"), signature, value}};

	const hs_message_ptr answer = read_property(&source, signature);
	const hs_message_ptr again = read_property(&source, signature);
	HS_REQUIRE(!answer == !again);
	if (!answer)
		return 0;
	HS_REQUIRE(text_of(answer.get()) == text_of(again.get()));
	if (signature[0] == '(') {
		const hs_properties_ptr members{pw_properties_new_string(value.c_str())};
		check_members(answer.get(), members.get(), signature);
	}
	return 0;
}
