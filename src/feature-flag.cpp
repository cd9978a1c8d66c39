#include "feature-flag.hpp"

#include <cerrno>
#include <cstring>

#include <spa/utils/string.h>

#include <systemd/sd-bus.h>

#include "log.hpp"
#include "loop.hpp"
#include "owned.hpp"

namespace {

constexpr char service[] = "com.orvel.FeatureFlagService1";
constexpr char object_path[] = "/com/orvel/FeatureFlagService1";
constexpr char preview_flag[] = "hear_sense_preview";

int feature_flag_dbus_callback(sd_bus_message *message, void *data, sd_bus_error *)
{
	/* The bus checks the sender of what it hands to everyone; what is addressed to us may come from anyone. */
	if (sd_bus_message_get_destination(message))
		return 1;
	int r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "s");
	if (r < 0) {
		pw_log_error("Failed to read message: %s", std::strerror(-r));
		return 1;
	}
	const char *flag = nullptr;
	while ((r = sd_bus_message_read(message, "s", &flag)) > 0) {
		if (!flag) {
			pw_log_error("Feature flag is null");
			return 1;
		}
		if (spa_strstartswith(flag, preview_flag)) {
			hs_loop_do_quit(data, 0);
			return 0;
		}
	}
	if (r < 0)
		pw_log_error("Failed to read message: %s", std::strerror(-r));
	return 1;
}

int ask_service(sd_bus *bus, hs_message_ptr *reply)
{
	sd_bus_message *created = nullptr;
	int r = sd_bus_message_new_method_call(bus, &created, service, object_path, service, "Get");
	if (r < 0)
		return r;
	const hs_message_ptr call(created);
	r = sd_bus_message_append(call.get(), "as", 1, preview_flag);
	if (r < 0)
		return r;
	sd_bus_message *answer = nullptr;
	r = sd_bus_call(bus, call.get(), 0, nullptr, &answer);
	reply->reset(answer);
	return r;
}

/** The first flag of the reply; one that the service does not know is off. */
int read_flag(sd_bus_message *reply)
{
	int r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{sb}");
	if (r < 0)
		return r;
	r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "sb");
	if (r <= 0)
		return r;
	const char *name = nullptr;
	int enabled = 0;
	r = sd_bus_message_read(reply, "sb", &name, &enabled);
	return r < 0 ? r : enabled;
}

/** The flag's value, or a negative errno. */
int check_feature_flag_state(sd_bus *bus)
{
	hs_message_ptr reply;
	int r = ask_service(bus, &reply);
	if (r >= 0)
		r = read_flag(reply.get());
	if (r < 0)
		pw_log_warn("Feature flag check failed: %s", std::strerror(-r));
	return r;
}

} // namespace

void hs_feature_flag_setup_dbus_signals(sd_bus *bus, hs_loop *loop)
{
	const int r = sd_bus_match_signal(bus, nullptr, service, object_path, service, "FeaturesSet",
					  feature_flag_dbus_callback, loop);
	if (r < 0)
		pw_log_error("Could not setup match signal: %s", std::strerror(-r));
}

bool hs_feature_flag_is_preview_enabled(sd_bus *bus)
{
	const int r = check_feature_flag_state(bus);
	if (r < 0)
		pw_log_warn("Feature flag \"%s\" is not present.", preview_flag);
	return r > 0;
}
