#include "dbus-methods.hpp"

#include <cerrno>
#include <cstring>
#include <string>

#include <spa/utils/string.h>

#include "context.hpp"
#include "dbus.hpp"
#include "plugin.hpp"
#include "source-settings.hpp"
#include "source.hpp"

namespace {

/* There is no comma between the members: the parser of properties takes them without. */
constexpr char triggered_value[] = "{\n  \"Detected\": \"true\"\n  \"Report\": \"true\"\n}";

constexpr char trigger_suffix[] = ".Methods";

int set_error(sd_bus_error *error, const char *doing, const char *method)
{
	return sd_bus_error_setf(error, HS_DBUS_ERROR, "Error while %s %s method call.", doing, method);
}

int reply_empty(sd_bus_message *message, const char *method, sd_bus_error *error)
{
	const int r = sd_bus_reply_method_return(message, nullptr);
	if (r < 0)
		set_error(error, "replying to", method);
	return r;
}

/** Hands the value to every instance of the audio chain that was called, until one refuses it. */
bool handle_on_chain(const hs_context *context, const char *chain_path, const char *name, const char *value,
		     const char *type)
{
	hs_plugin *plugin;
	spa_list_for_each(plugin, &context->plugins, link) {
		hs_source *source;
		spa_list_for_each(source, &plugin->sources, link) {
			if (spa_streq(source->device_path.c_str(), chain_path) &&
			    !hs_source_handle_settings(source, nullptr, name, value, type))
				return false;
		}
	}
	return true;
}

int work_on_chain(sd_bus_message *message, const hs_dbus *dbus, const char *name, const char *value, const char *type,
		  sd_bus_error *error)
{
	if (handle_on_chain(dbus->context, sd_bus_message_get_path(message), name, value, type))
		return 1;
	set_error(error, "processing", name);
	return -EPERM;
}

int indicate_boolean(sd_bus_message *message, const hs_dbus *dbus, const char *name, sd_bus_error *error)
{
	int active = 0;
	int r = sd_bus_message_read(message, "b", &active);
	if (r < 0) {
		set_error(error, "parsing", name);
		return r;
	}
	r = reply_empty(message, name, error);
	if (r < 0)
		return r;
	return work_on_chain(message, dbus, name, active ? "true" : "false", "boolean", error);
}

} // namespace

int hs_dbus_indicate_internal_speaker_active(sd_bus_message *message, void *data, sd_bus_error *error)
{
	return indicate_boolean(message, static_cast<const hs_dbus *>(data), "IndicateInternalSpeakerActive", error);
}

int hs_dbus_indicate_continuous_audio_disturbance(sd_bus_message *message, void *data, sd_bus_error *error)
{
	return indicate_boolean(message, static_cast<const hs_dbus *>(data), "IndicateContinuousAudioDisturbance",
				error);
}

int hs_dbus_indicate_transient_audio_disturbance(sd_bus_message *message, void *data, sd_bus_error *error)
{
	constexpr char name[] = "IndicateTransientAudioDisturbance";
	const int r = reply_empty(message, name, error);
	if (r < 0)
		return r;
	return work_on_chain(message, static_cast<const hs_dbus *>(data), name, nullptr, nullptr, error);
}

int hs_dbus_trigger_event(sd_bus_message *message, void *data, sd_bus_error *error)
{
	const auto *dbus = static_cast<const hs_dbus *>(data);
	const std::string interface = dbus->interface.substr(0, dbus->interface.size() - std::strlen(trigger_suffix));
	const std::string event_name = interface.substr(interface.rfind('.') + 1);

	hs_events_set_value(dbus->owner->events, event_name.c_str(), triggered_value);
	const int r = reply_empty(message, "TriggerEvent", error);
	if (r < 0)
		return r;
	hs_dbus_emit_event(dbus->owner, event_name.c_str(), false);
	return 1;
}
