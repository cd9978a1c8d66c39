#include "authorization.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <pwd.h>

#include <vetto2.h>

#include "bus-bed.hpp"
#include "failing.hpp"

namespace {

using strings = std::vector<std::string>;

/** The user database, with one answer to everything. */
struct user_database {
	/** Null for no entry. */
	const char *name;
	/** What a lookup without an entry leaves in errno; 0 leaves it alone. */
	int error;
	std::vector<uid_t> asked;
	int errno_when_asked;
};

user_database users;

/** The rights library, with one answer to everything. */
struct rights_library {
	bool allows;
	vetto2_error refusal;
	strings asked;
	/** The result record was not zeroed before a call. */
	bool was_dirty;
};

rights_library rights;

/** What the bus was last asked to tell of a sender. */
uint64_t queried_mask;

/** The user that the bus tells; without a value it tells the true one. */
std::optional<uid_t> effective_user;
std::optional<uid_t> real_user;

} // namespace

extern "C" {

passwd *__wrap_getpwuid(uid_t uid)
{
	static passwd entry;
	static char name[64];
	users.asked.push_back(uid);
	users.errno_when_asked = errno;
	if (!users.name) {
		if (users.error != 0)
			errno = users.error;
		return nullptr;
	}
	std::snprintf(name, sizeof(name), "%s", users.name);
	entry.pw_name = name;
	return &entry;
}

bool __wrap_vetto2_check_username(const char *username, const char *key, vetto2_error *result)
{
	const vetto2_error zeroed{};
	rights.was_dirty = rights.was_dirty || std::memcmp(result, &zeroed, sizeof(zeroed)) != 0;
	rights.asked.push_back(std::string{username ? username : "(null)"} + " " + key);
	if (!rights.allows)
		*result = rights.refusal;
	return rights.allows;
}

int __real_sd_bus_query_sender_creds(sd_bus_message *message, uint64_t mask, sd_bus_creds **creds);
int __wrap_sd_bus_query_sender_creds(sd_bus_message *message, uint64_t mask, sd_bus_creds **creds)
{
	queried_mask = mask;
	return hs_must_fail("query") ? -errno : __real_sd_bus_query_sender_creds(message, mask, creds);
}

int __real_sd_bus_creds_get_euid(sd_bus_creds *creds, uid_t *uid);
int __wrap_sd_bus_creds_get_euid(sd_bus_creds *creds, uid_t *uid)
{
	if (hs_must_fail("euid"))
		return -errno;
	if (!effective_user)
		return __real_sd_bus_creds_get_euid(creds, uid);
	*uid = *effective_user;
	return 0;
}

int __real_sd_bus_creds_get_uid(sd_bus_creds *creds, uid_t *uid);
int __wrap_sd_bus_creds_get_uid(sd_bus_creds *creds, uid_t *uid)
{
	if (!real_user)
		return __real_sd_bus_creds_get_uid(creds, uid);
	*uid = *real_user;
	return 0;
}
}

namespace {

constexpr char object_path[] = "/com/orvel/HearSense/AudioDevice0Input0/Unprocessed/Ear";
constexpr char interface[] = "com.orvel.HearSense.Settings.Ear";
constexpr char key[] = "com.orvel.HearSense.Settings.Ear.Gain";
constexpr char unknown[] = "org.freedesktop.DBus.Error.AccessDenied: User unknown";

/** A client of the main bus that wants to write "Gain". */
class Authorization : public testing::Test
{
protected:
	Authorization()
	{
		unsetenv("HS_USE_SESSION_BUS");
		users = {};
		users.name = "ann";
		rights = {};
		effective_user.reset();
		real_user.reset();
	}

	~Authorization() override
	{
		hs_fail_call("", 0, 0);
		unsetenv("HS_USE_SESSION_BUS");
	}

	void refuse(int code, const char *text)
	{
		rights.allows = false;
		rights.refusal.code = code;
		std::snprintf(rights.refusal.message, sizeof(rights.refusal.message), "%s", text);
	}

	static std::string outcome(bool authorized, sd_bus_error *error)
	{
		std::string text = authorized ? "allowed" : "no error";
		if (sd_bus_error_is_set(error))
			text = (authorized ? "allowed with " : "") + std::string{error->name} + ": " + error->message;
		sd_bus_error_free(error);
		return text;
	}

	static std::string ask(sd_bus_message *message, const char *of = interface, const char *property = "Gain")
	{
		sd_bus_error error = SD_BUS_ERROR_NULL;
		const bool authorized = hs_authorization_is_authorized(message, of, property, &error);
		return outcome(authorized, &error);
	}

	/** A call that has come in over that bus; what was logged meanwhile is forgotten. */
	hs_message_ptr receive(sd_bus *bus, hs_bus_client &from)
	{
		received = nullptr;
		sd_bus_slot *slot = nullptr;
		sd_bus_add_filter(bus, &slot, on_call, this);
		const hs_slot_ptr owned{slot};
		bed.run([&] { EXPECT_EQ(from.call("/", "com.example.A", "Write"), ""); });
		bed.capture.clear();
		return hs_message_ptr{received};
	}

	/** What becomes of a write over the main bus. */
	std::string ask_on_main_bus()
	{
		const hs_message_ptr message = receive(bed.context->bus, bed.client);
		return ask(message.get());
	}

	hs_bus_bed bed;

private:
	static int on_call(sd_bus_message *message, void *data, sd_bus_error *)
	{
		if (!sd_bus_message_is_method_call(message, "com.example.A", "Write"))
			return 0;
		static_cast<Authorization *>(data)->received = sd_bus_message_ref(message);
		return sd_bus_reply_method_return(message, "");
	}

	sd_bus_message *received = nullptr;
};

} // namespace

TEST_F(Authorization, TheRightsLibraryIsAskedByUserAndProperty)
{
	rights.allows = true;
	EXPECT_EQ(ask_on_main_bus(), "allowed");
	EXPECT_EQ(queried_mask, 16u);
	EXPECT_EQ(users.asked, std::vector<uid_t>{geteuid()});
	EXPECT_EQ(rights.asked, strings{std::string{"ann "} + key});
	EXPECT_FALSE(rights.was_dirty);
	EXPECT_TRUE(bed.capture.lines().empty()) << bed.capture.text();
}

TEST_F(Authorization, ARefusalTellsTheLibrarysTextTheUserAndTheProperty)
{
	refuse(VETTO2_NOT_AUTHORIZED, "not in the group");
	EXPECT_EQ(ask_on_main_bus(),
		  "org.freedesktop.DBus.Error.AccessDenied: not in the group: [caller: ann property: Gain]");
	ASSERT_EQ(bed.capture.lines().size(), 1u) << bed.capture.text();
	EXPECT_EQ(bed.capture.lines()[0].level, SPA_LOG_LEVEL_ERROR);
	EXPECT_EQ(bed.capture.lines()[0].text, "Vetto: ann is not authorized for Gain");
}

TEST_F(Authorization, EveryOtherCodeOfTheLibraryIsAnErrorInsideIt)
{
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	for (const int code : {0, 1, 3, -5}) {
		refuse(code, "store broken");
		bed.capture.clear();
		EXPECT_EQ(ask(message.get()),
			  "org.freedesktop.DBus.Error.AccessDenied: store broken: [caller: ann property: Gain]");
		ASSERT_EQ(bed.capture.lines().size(), 1u) << bed.capture.text();
		EXPECT_EQ(bed.capture.lines()[0].level, SPA_LOG_LEVEL_ERROR);
		EXPECT_EQ(bed.capture.lines()[0].text, "Vetto: Internal error " + std::to_string(code) + " for Gain");
	}
}

TEST_F(Authorization, ARefusalWhoseTextsAreNotUtf8IsAnsweredAllTheSame)
{
	users.name = "b\xf6rn";
	refuse(VETTO2_NOT_AUTHORIZED, "nicht f\xfcr dich");
	const std::string answer = ask_on_main_bus();
	EXPECT_EQ(answer.rfind("org.freedesktop.DBus.Error.AccessDenied: nicht f", 0), 0u) << answer;
	EXPECT_NE(answer.find("r dich: [caller: b"), std::string::npos) << answer;
	EXPECT_NE(answer.find("rn property: Gain]"), std::string::npos) << answer;
	EXPECT_EQ(answer.find('\xf6'), std::string::npos);
	EXPECT_EQ(answer.find('\xfc'), std::string::npos);
	EXPECT_EQ(rights.asked, strings{std::string{"b\xf6rn "} + key});
}

TEST_F(Authorization, AKeyIsCutAt255Characters)
{
	rights.allows = true;
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	const std::string property(255, 'p');
	EXPECT_EQ(ask(message.get(), interface, property.c_str()), "allowed");
	const std::string whole = std::string{interface} + "." + property;
	EXPECT_EQ(rights.asked, strings{"ann " + whole.substr(0, 255)});
}

TEST_F(Authorization, AUserWithoutAnEntryIsTheLibrarysToJudge)
{
	users.name = nullptr;
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	errno = EIO;
	rights.allows = true;
	EXPECT_EQ(ask(message.get()), "allowed");
	EXPECT_EQ(users.errno_when_asked, 0);
	EXPECT_EQ(rights.asked, strings{std::string{"(null) "} + key});

	refuse(VETTO2_NOT_AUTHORIZED, "who?");
	bed.capture.clear();
	EXPECT_EQ(ask(message.get()), "org.freedesktop.DBus.Error.AccessDenied: who?: [caller: (null) property: Gain]");
	ASSERT_EQ(bed.capture.lines().size(), 1u) << bed.capture.text();
	EXPECT_EQ(bed.capture.lines()[0].level, SPA_LOG_LEVEL_ERROR);
	EXPECT_EQ(bed.capture.lines()[0].text, "Vetto: (null) is not authorized for Gain");
}

TEST_F(Authorization, WithoutTheUserDatabaseTheUserIsUnknown)
{
	rights.allows = true;
	users.name = nullptr;
	users.error = EIO;
	EXPECT_EQ(ask_on_main_bus(), unknown);
	EXPECT_EQ(rights.asked, strings{});
	EXPECT_TRUE(bed.capture.lines().empty()) << bed.capture.text();
}

TEST_F(Authorization, AMessageWithoutASenderComesFromAnUnknownUser)
{
	rights.allows = true;
	hs_bus_bed::private_bus &bus = bed.add_private();
	const hs_message_ptr message = receive(bus.server, bus.client);
	ASSERT_EQ(sd_bus_message_get_sender(message.get()), nullptr);
	/* A main bus without a bus between: sd-bus knows the user at its other end, but nobody was named. */
	sd_bus *main_bus = std::exchange(bed.context->bus, bus.server);
	EXPECT_EQ(ask(message.get()), unknown);
	bed.context->bus = main_bus;
	EXPECT_EQ(users.asked, std::vector<uid_t>{});
	EXPECT_EQ(rights.asked, strings{});
	EXPECT_TRUE(bed.capture.lines().empty()) << bed.capture.text();
}

TEST_F(Authorization, WithoutCredentialsTheUserIsUnknown)
{
	rights.allows = true;
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	hs_fail_call("query", 1, ENXIO);
	EXPECT_EQ(ask(message.get()), unknown);
	EXPECT_FALSE(hs_failure_is_due());
	EXPECT_EQ(rights.asked, strings{});
}

TEST_F(Authorization, ASenderThatHasLeftIsUnknown)
{
	rights.allows = true;
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	bed.client.close();
	/* The bus forgets it in its own time. */
	hs_wait_until(
		[&] {
			return sd_bus_get_name_creds(bed.context->bus, sd_bus_message_get_sender(message.get()), 0,
						     nullptr) < 0;
		},
		[] {});
	EXPECT_EQ(ask(message.get()), unknown);
	EXPECT_EQ(rights.asked, strings{});
}

TEST_F(Authorization, WithoutAnEffectiveUserTheRealOneCounts)
{
	rights.allows = true;
	real_user = 4711;
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	hs_fail_call("euid", 1, ENODATA);
	EXPECT_EQ(ask(message.get()), "allowed");
	EXPECT_FALSE(hs_failure_is_due());
	EXPECT_EQ(users.asked, std::vector<uid_t>{4711});
}

TEST_F(Authorization, TheEffectiveUserCountsBeforeTheRealOne)
{
	rights.allows = true;
	effective_user = 815;
	real_user = 4711;
	EXPECT_EQ(ask_on_main_bus(), "allowed");
	EXPECT_EQ(users.asked, std::vector<uid_t>{815});
}

TEST_F(Authorization, WithoutEitherTheUserIsUnknown)
{
	rights.allows = true;
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	/* The bus tells no real user. */
	hs_fail_call("euid", 1, ENODATA);
	EXPECT_EQ(ask(message.get()), unknown);
	EXPECT_FALSE(hs_failure_is_due());
	EXPECT_EQ(users.asked, std::vector<uid_t>{});
	EXPECT_EQ(rights.asked, strings{});
}

TEST_F(Authorization, OnTheSessionBusAnyUserMayWrite)
{
	refuse(VETTO2_NOT_AUTHORIZED, "no");
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	for (const char *value : {"true", "false", ""}) {
		setenv("HS_USE_SESSION_BUS", value, 1);
		EXPECT_EQ(ask(message.get()), "allowed") << value;
	}
	users.name = nullptr;
	EXPECT_EQ(ask(message.get()), "allowed");
	EXPECT_EQ(rights.asked, strings{});
	EXPECT_TRUE(bed.capture.lines().empty()) << bed.capture.text();
}

TEST_F(Authorization, OnTheSessionBusAUserThatCannotBeToldMayNotWrite)
{
	rights.allows = true;
	setenv("HS_USE_SESSION_BUS", "true", 1);
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	EXPECT_EQ(ask(bed.unsealed_call("/", interface, "Any").get()), unknown);
	hs_fail_call("query", 1, ENXIO);
	EXPECT_EQ(ask(message.get()), unknown);
	hs_fail_call("euid", 1, ENODATA);
	EXPECT_EQ(ask(message.get()), unknown);
	users.name = nullptr;
	users.error = EMFILE;
	EXPECT_EQ(ask(message.get()), unknown);
}

TEST_F(Authorization, APrivateBusIsNeverChecked)
{
	refuse(VETTO2_NOT_AUTHORIZED, "no");
	hs_bus_bed::private_bus &bus = bed.add_private();
	const hs_message_ptr message = receive(bus.server, bus.client);
	EXPECT_EQ(ask(message.get()), "allowed");
	EXPECT_EQ(users.asked, std::vector<uid_t>{});
	EXPECT_EQ(rights.asked, strings{});
}

TEST_F(Authorization, AWriterHearsTheRefusalAndNothingChanges)
{
	refuse(VETTO2_NOT_AUTHORIZED, "not in the group");
	hs_paper_plugin &ear = bed.add_plugin("Ear");
	ear.add_setting({.title = "Gain", .type = "int32", .value = "3"});
	hs_source *source = ear.add_source("AudioDevice0Input0.Unprocessed");
	bed.run([&] {
		ASSERT_TRUE(bed.publish(source));
		EXPECT_EQ(bed.client.set(object_path, interface, "Gain", "i", 5),
			  "org.freedesktop.DBus.Error.AccessDenied: not in the group: [caller: ann property: Gain]");
		EXPECT_EQ(bed.client.get(object_path, interface, "Gain"), "i 3");
		EXPECT_EQ(bed.client.contents(object_path, "PropertiesChanged"), strings{});
		rights.allows = true;
		EXPECT_EQ(bed.client.set(object_path, interface, "Gain", "i", 5), "");
		EXPECT_EQ(bed.client.get(object_path, interface, "Gain"), "i 5");
	});
	EXPECT_EQ(ear.told.size(), 1u);
	EXPECT_EQ(rights.asked, (strings{std::string{"ann "} + key, std::string{"ann "} + key}));
}

TEST_F(Authorization, TellsTheUserOfAMessage)
{
	const hs_message_ptr message = receive(bed.context->bus, bed.client);
	uid_t uid = 1;
	EXPECT_TRUE(hs_authorization_get_uid(message.get(), &uid));
	EXPECT_EQ(uid, geteuid());
	EXPECT_FALSE(hs_authorization_get_uid(bed.unsealed_call("/", interface, "Any").get(), &uid));
}
