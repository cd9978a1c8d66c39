#include "authorization.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <pwd.h>

#include <vetto2.h>

#include "context.hpp"
#include "log.hpp"
#include "owned.hpp"
#include "utf8.hpp"

namespace {

constexpr size_t key_size = 256;

bool refuse_unknown(sd_bus_error *error)
{
	sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "User unknown");
	return false;
}

/** False where the user database can not be asked; `*name` is null for a user without an entry. */
bool get_user_name(uid_t uid, const char **name)
{
	errno = 0;
	const passwd *entry = getpwuid(uid);
	*name = entry ? entry->pw_name : nullptr;
	return entry || errno == 0;
}

bool check_rights(const char *user, const char *key, const char *property, sd_bus_error *error)
{
	vetto2_error result{};
	if (vetto2_check_username(user, key, &result))
		return true;
	result.message[sizeof(result.message) - 1] = '\0';

	const char *shown = user ? user : "(null)";
	/* A text that the bus does not take would leave the caller without an answer. */
	sd_bus_error_setf(error, SD_BUS_ERROR_ACCESS_DENIED, "%s: [caller: %s property: %s]",
			  hs_utf8_repair(result.message).c_str(), hs_utf8_repair(shown).c_str(), property);
	if (result.code == VETTO2_NOT_AUTHORIZED)
		pw_log_error("Vetto: %s is not authorized for %s", shown, property);
	else
		pw_log_error("Vetto: Internal error %d for %s", result.code, property);
	return false;
}

} // namespace

bool hs_authorization_get_uid(sd_bus_message *message, uid_t *uid)
{
	if (!sd_bus_message_get_sender(message))
		return false;
	sd_bus_creds *queried = nullptr;
	if (sd_bus_query_sender_creds(message, SD_BUS_CREDS_EUID, &queried) < 0)
		return false;
	const hs_creds_ptr creds(queried);
	return sd_bus_creds_get_euid(creds.get(), uid) >= 0 || sd_bus_creds_get_uid(creds.get(), uid) >= 0;
}

bool hs_authorization_is_authorized(sd_bus_message *message, const char *interface, const char *property,
				    sd_bus_error *error)
{
	if (sd_bus_message_get_bus(message) != hs_context_get()->bus)
		return true;

	uid_t uid = 0;
	const char *user = nullptr;
	if (!hs_authorization_get_uid(message, &uid) || !get_user_name(uid, &user))
		return refuse_unknown(error);
	if (std::getenv("HS_USE_SESSION_BUS"))
		return true;

	char key[key_size];
	std::snprintf(key, sizeof(key), "%s.%s", interface, property);
	return check_rights(user, key, property, error);
}
