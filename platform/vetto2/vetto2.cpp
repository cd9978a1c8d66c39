/* SPDX-License-Identifier: MIT */
/*
 * A small rights store: files of rules below one folder, read again whenever they have changed.
 *
 * Only what a rule grants is allowed, so every kind of trouble ends in a refusal. Trouble is logged the
 * way the program around this library logs, where the administrator looks already.
 */
#include "vetto2.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <pipewire/log.h>
#include <spa/utils/defs.h>
#include <spa/utils/json.h>

#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

/* Fixed at build time: a folder named by the environment would hand the rights to whoever sets it. */
#ifndef VETTO2_RIGHTS_DIR
#define VETTO2_RIGHTS_DIR "/etc/vetto2/rights.d"
#endif

PW_LOG_TOPIC_STATIC(log_topic, "hear-sense.vetto2");
#undef PW_LOG_TOPIC_DEFAULT
#define PW_LOG_TOPIC_DEFAULT log_topic

namespace {

/** The rights store cannot be asked; VETTO2_NOT_AUTHORIZED is the other code in use. */
constexpr int32_t unusable_store = 1;

/** A file of rights is some lines long; one beyond this is there by mistake. */
constexpr off_t largest_file = 1024 * 1024;

/** Two changes within this time can leave the same time stamp. */
constexpr int64_t stamp_resolution_ns = 2'000'000'000;

struct rule {
	/** Of a Unix group, else of a user. */
	bool is_group;
	std::string name;
	/** Shell pattern of keys. */
	std::string keys;
};

/**
 * What tells one state of a file from another. The status time stands for the modification time too,
 * and unlike that one cannot be set back.
 */
struct file_stamp {
	std::string path;
	dev_t device;
	ino_t inode;
	off_t size;
	int64_t status_changed_ns;

	bool operator==(const file_stamp &) const = default;
};

struct rights_store {
	std::vector<rule> rules;
	std::vector<file_stamp> stamps;
	int64_t read_ns = 0;
	/** Said already; a complaint is made once, not at every check. */
	std::vector<std::string> complaints;
};

std::optional<rights_store> store;

struct close_file {
	void operator()(FILE *file) const noexcept
	{
		static_cast<void>(std::fclose(file));
	}
};
using file_ptr = std::unique_ptr<FILE, close_file>;

int64_t to_ns(const timespec &time)
{
	return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/** On the clock that stamps files. */
int64_t now_ns()
{
	timespec now{};
	clock_gettime(CLOCK_REALTIME_COARSE, &now);
	return to_ns(now);
}

void fill(vetto2_error *error, int32_t code, const std::string &message)
{
	error->code = code;
	std::snprintf(error->message, sizeof(error->message), "%s", message.c_str());
}

/*
 * Reading one file. SPA's parser takes much that is broken, such as a bracket that is never closed; where
 * rights are granted a file is taken as it was meant or not at all.
 */

struct rules_reader {
	std::string text;
	std::vector<rule> rules;
	/** Set where the file is broken. */
	std::string error;
	size_t error_line = 0;
};

bool fail(rules_reader &reader, const spa_json &at, std::string error)
{
	reader.error = std::move(error);
	reader.error_line = 1 + static_cast<size_t>(std::count(reader.text.c_str(), at.cur, '\n'));
	return false;
}

bool is_closed(const spa_json &container, char bracket)
{
	return container.cur < container.end && *container.cur == bracket;
}

/**
 * Whether the text is one that the parser decodes as it stands. Of escapes that it cannot decode it drops a
 * part, and "\u0000" ends the text early: a pattern would then grant more than it says.
 */
bool is_decodable(std::string_view value)
{
	if (value[0] != '"')
		return value.find('\0') == std::string_view::npos;
	for (size_t at = value.find('\\'); at != std::string_view::npos; at = value.find('\\', at + 2)) {
		if (!value.substr(at + 1).starts_with('u'))
			continue;
		const std::string_view digits = value.substr(at + 2, 4);
		unsigned int code = 0;
		const auto [end, error] = std::from_chars(digits.begin(), digits.end(), code, 16);
		const bool is_number = digits.size() == 4 && end == digits.end() && error == std::errc{};
		if (!is_number || code == 0 || (code >= 0xd800 && code <= 0xdfff))
			return false;
	}
	return true;
}

std::string unquoted(const char *value, int length)
{
	std::string text(static_cast<size_t>(length) + 1, '\0');
	spa_json_parse_stringn(value, length, text.data(), length + 1);
	text.resize(std::strlen(text.c_str()));
	return text;
}

/** Reads one text into `text`. */
bool read_text(rules_reader &reader, const spa_json &in, const char *value, int length, std::string *text)
{
	if (!is_decodable({value, static_cast<size_t>(length)}))
		return fail(reader, in, "a text has a NUL character or an unknown escape in it");
	*text = unquoted(value, length);
	return true;
}

/** Reads the keys granted to `name`: one pattern, or an array of patterns. */
bool read_keys(rules_reader &reader, spa_json &in, bool is_group, const std::string &name)
{
	const char *value;
	int length = spa_json_next(&in, &value);
	if (length <= 0 || spa_json_is_object(value, length))
		return fail(reader, in, "\"" + name + "\" is not followed by a key or an array of keys");
	std::string key;
	if (!spa_json_is_array(value, length)) {
		if (!read_text(reader, in, value, length, &key))
			return false;
		reader.rules.push_back({is_group, name, key});
		return true;
	}

	spa_json keys;
	spa_json_enter(&in, &keys);
	while ((length = spa_json_next(&keys, &value)) > 0) {
		if (spa_json_is_container(value, length))
			return fail(reader, keys, "the keys of \"" + name + "\" are not plain texts");
		if (!read_text(reader, keys, value, length, &key))
			return false;
		reader.rules.push_back({is_group, name, key});
	}
	if (length < 0 || !is_closed(keys, ']'))
		return fail(reader, keys, "the keys of \"" + name + "\" do not end with a ]");
	return true;
}

/** Reads one of the two objects that map names to keys. */
bool read_section(rules_reader &reader, spa_json &in, const std::string &title)
{
	if (title != "users" && title != "groups")
		return fail(reader, in, "\"" + title + "\" is neither \"users\" nor \"groups\"");

	spa_json section;
	if (spa_json_enter_object(&in, &section) <= 0)
		return fail(reader, in, "\"" + title + "\" is not followed by an object");

	const char *value;
	int length;
	while ((length = spa_json_next(&section, &value)) > 0) {
		if (spa_json_is_container(value, length))
			return fail(reader, section, "a name was expected in \"" + title + "\"");
		std::string name;
		if (!read_text(reader, section, value, length, &name) ||
		    !read_keys(reader, section, title == "groups", name))
			return false;
	}
	if (length < 0 || !is_closed(section, '}'))
		return fail(reader, section, "\"" + title + "\" does not end with a }");
	return true;
}

/** Reads the members of the file, which stand bare or between braces. */
bool read_rules(rules_reader &reader)
{
	spa_json file;
	spa_json body;
	spa_json_init(&file, reader.text.data(), reader.text.size());
	const bool has_braces = spa_json_enter_object(&file, &body) > 0;
	if (!has_braces)
		spa_json_init(&body, reader.text.data(), reader.text.size());

	const char *value;
	int length;
	while ((length = spa_json_next(&body, &value)) > 0) {
		if (spa_json_is_container(value, length))
			return fail(reader, body, "\"users\" or \"groups\" was expected");
		std::string title;
		if (!read_text(reader, body, value, length, &title) || !read_section(reader, body, title))
			return false;
	}
	if (length < 0)
		return fail(reader, body, "this is not readable as a text");
	if (has_braces && !is_closed(body, '}'))
		return fail(reader, body, "the file does not end with a }");

	spa_json &rest = has_braces ? file : body;
	if (spa_json_next(&rest, &value) != 0 || rest.cur != rest.end)
		return fail(reader, rest, "there is more after the end");
	return true;
}

/** Reads the whole of a regular file; nothing, with errno set, where that cannot be done. */
std::optional<std::string> read_file(const file_stamp &stamp)
{
	if (stamp.size > largest_file) {
		errno = EFBIG;
		return std::nullopt;
	}
	const file_ptr file{std::fopen(stamp.path.c_str(), "re")};
	if (!file)
		return std::nullopt;

	std::string text(static_cast<size_t>(stamp.size), '\0');
	text.resize(std::fread(text.data(), 1, text.size(), file.get()));
	if (std::ferror(file.get()))
		return std::nullopt;
	return text;
}

/*
 * The store.
 */

void complain(rights_store &fresh, const std::string &complaint)
{
	if (std::find(store->complaints.begin(), store->complaints.end(), complaint) ==
	    store->complaints.end())
		pw_log_error("%s, so the file grants nothing", complaint.c_str());
	fresh.complaints.push_back(complaint);
}

void add_rules(rights_store &fresh, const file_stamp &stamp)
{
	std::optional<std::string> text = read_file(stamp);
	if (!text) {
		complain(fresh, stamp.path + ": " + std::strerror(errno));
		return;
	}

	/* A comment that the end of the text cuts off would be read as a word. */
	rules_reader reader{*text + "\n", {}, {}, 0};
	if (read_rules(reader))
		fresh.rules.insert(fresh.rules.end(), reader.rules.begin(), reader.rules.end());
	else
		complain(fresh, stamp.path + ":" + std::to_string(reader.error_line) + ": " + reader.error);
}

/** Looks at every file of rules, in the order of their names; a folder that is not there has none. */
std::error_code look(std::vector<file_stamp> &stamps)
{
	std::error_code error;
	std::filesystem::directory_iterator entry{VETTO2_RIGHTS_DIR, error};
	for (; !error && entry != std::filesystem::directory_iterator{}; entry.increment(error)) {
		const std::filesystem::path &path = entry->path();
		if (fnmatch("*.conf", path.filename().c_str(), FNM_PERIOD) != 0)
			continue;
		/* A link that leads nowhere stays, with an empty stamp, and fails when it is opened. */
		struct stat status = {};
		if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
			continue;
		stamps.push_back({path, status.st_dev, status.st_ino, status.st_size, to_ns(status.st_ctim)});
	}
	if (error == std::errc::no_such_file_or_directory)
		return {};
	std::sort(stamps.begin(), stamps.end(),
		  [](const file_stamp &a, const file_stamp &b) { return a.path < b.path; });
	return error;
}

/** Whether a file was changed so shortly before it was read that its stamp may hide a later change. */
bool is_settled(const rights_store &rights)
{
	return std::none_of(rights.stamps.begin(), rights.stamps.end(), [&rights](const file_stamp &stamp) {
		return std::abs(rights.read_ns - stamp.status_changed_ns) < stamp_resolution_ns;
	});
}

/** Reads the rules again where they may have changed. False: `error` tells why nothing is granted. */
bool refresh(vetto2_error *error)
{
	rights_store fresh;
	fresh.read_ns = now_ns();
	if (const std::error_code trouble = look(fresh.stamps)) {
		fill(error, unusable_store, VETTO2_RIGHTS_DIR ": " + trouble.message());
		return false;
	}
	if (fresh.stamps == store->stamps && is_settled(*store))
		return true;

	for (const file_stamp &stamp : fresh.stamps)
		add_rules(fresh, stamp);
	store = std::move(fresh);
	return true;
}

/*
 * Asking.
 */

/** All groups of a user, the first one included; none for a user that the system does not know. */
std::vector<gid_t> groups_of(const char *user)
{
	/* The caller's name may stand in the buffer that getpwnam would write to. */
	passwd entry;
	passwd *found = nullptr;
	std::vector<char> buffer(1024);
	while (getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE)
		buffer.resize(buffer.size() * 2);
	if (!found)
		return {};

	std::vector<gid_t> groups(16);
	int count = static_cast<int>(groups.size());
	while (getgrouplist(user, found->pw_gid, groups.data(), &count) < 0) {
		groups.resize(groups.size() * 2);
		count = static_cast<int>(groups.size());
	}
	groups.resize(static_cast<size_t>(count));
	return groups;
}

bool is_one_of(const std::vector<gid_t> &groups, const char *name)
{
	group entry;
	group *found = nullptr;
	std::vector<char> buffer(1024);
	while (getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE)
		buffer.resize(buffer.size() * 2);
	return found && std::find(groups.begin(), groups.end(), found->gr_gid) != groups.end();
}

bool is_granted(const char *user, const char *key)
{
	std::optional<std::vector<gid_t>> groups;
	for (const rule &rule : store->rules) {
		if (fnmatch(rule.keys.c_str(), key, 0) != 0)
			continue;
		if (!rule.is_group) {
			if (rule.name == user)
				return true;
			continue;
		}
		if (!groups)
			groups = groups_of(user);
		if (is_one_of(*groups, rule.name.c_str()))
			return true;
	}
	return false;
}

} // namespace

SPA_EXPORT bool vetto2_init(vetto2_error *error)
{
	PW_LOG_TOPIC_INIT(log_topic);
	store.emplace();
	if (refresh(error))
		return true;
	store.reset();
	return false;
}

SPA_EXPORT bool vetto2_check_username(const char *username, const char *key, vetto2_error *result)
{
	if (!store) {
		fill(result, unusable_store, "The rights store is not open");
		return false;
	}
	if (!username) {
		fill(result, VETTO2_NOT_AUTHORIZED, "Users without a name have no rights");
		return false;
	}
	if (!refresh(result))
		return false;
	if (!is_granted(username, key)) {
		fill(result, VETTO2_NOT_AUTHORIZED, "Not authorized");
		return false;
	}
	return true;
}

SPA_EXPORT void vetto2_release(void)
{
	store.reset();
}
