#include "conf.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failing.hpp"
#include "log-capture.hpp"
#include "owned.hpp"
#include "temp-dir.hpp"

namespace {

int scans;

/** Paths that were asked for, and with what mode. */
std::vector<std::pair<std::string, int>> accesses;

} // namespace

extern "C" {
using dirent_filter = int (*)(const dirent *);
using dirent_compare = int (*)(const dirent **, const dirent **);

int __real_access(const char *path, int mode);
int __real_fstat(int fd, struct stat *status);
int __real_fstat64(int fd, struct stat *status);
int __real_scandir(const char *path, dirent ***entries, dirent_filter filter, dirent_compare compare);
int __real_scandir64(const char *path, dirent ***entries, dirent_filter filter, dirent_compare compare);

int __wrap_access(const char *path, int mode)
{
	accesses.emplace_back(path, mode);
	return hs_must_fail("access") ? -1 : __real_access(path, mode);
}

int __wrap_fstat(int fd, struct stat *status)
{
	return hs_must_fail("fstat") ? -1 : __real_fstat(fd, status);
}

int __wrap_fstat64(int fd, struct stat *status)
{
	return hs_must_fail("fstat") ? -1 : __real_fstat64(fd, status);
}

int __wrap_scandir(const char *path, dirent ***entries, dirent_filter filter, dirent_compare compare)
{
	scans++;
	return hs_must_fail("scandir") ? -1 : __real_scandir(path, entries, filter, compare);
}

int __wrap_scandir64(const char *path, dirent ***entries, dirent_filter filter, dirent_compare compare)
{
	scans++;
	return hs_must_fail("scandir") ? -1 : __real_scandir64(path, entries, filter, compare);
}
}

namespace {

size_t count_open_files()
{
	return static_cast<size_t>(std::distance(std::filesystem::directory_iterator{"/proc/self/fd"}, {}));
}

class Conf : public testing::Test
{
protected:
	Conf()
	{
		std::filesystem::create_directory(shipped);
		std::filesystem::create_directory(own);
		scans = 0;
		accesses.clear();
		files = count_open_files();
	}

	~Conf() override
	{
		EXPECT_FALSE(hs_failure_is_due());
		EXPECT_EQ(count_open_files(), files);
	}

	void ship(std::string_view name)
	{
		hs_write_text(shipped + "/" + std::string{name}, "{}");
	}

	void override_with(std::string_view name)
	{
		hs_write_text(own + "/" + std::string{name}, "{}");
	}

	bool list(bool with_override = true)
	{
		return hs_conf_get_configs(shipped.c_str(), with_override ? own.c_str() : nullptr,
					   table.get());
	}

	/** "key=value" of all entries, in the table's order, the directory's path cut off. */
	std::string listed() const
	{
		std::string all;
		const spa_dict_item *item;
		spa_dict_for_each(item, &table->dict)
		{
			const std::string value = item->value;
			EXPECT_EQ(value.substr(0, directory.path().size() + 1), directory.path() + "/");
			all += std::string{item->key} + "=" + value.substr(directory.path().size() + 1) + " ";
		}
		return all;
	}

	bool load(std::string_view text)
	{
		hs_write_text(file, text);
		return hs_conf_load_conf(file.c_str(), table.get());
	}

	std::string pointer() const
	{
		char text[32];
		std::snprintf(text, sizeof(text), "%p: ", static_cast<void *>(table.get()));
		return text;
	}

	const char *get(const char *key) const
	{
		return pw_properties_get(table.get(), key);
	}

	hs_temp_dir directory;
	std::string shipped = directory / "shipped";
	std::string own = directory / "own";
	std::string file = directory / "file.conf";
	hs_properties_ptr table{pw_properties_new(nullptr, nullptr)};
	hs_log_capture log;
	size_t files;
};

using ConfGetConfigs = Conf;
using ConfGetConfigsDeathTest = Conf;
using ConfLoadConf = Conf;
using SettingsWrite = Conf;

} // namespace

TEST_F(ConfGetConfigs, ListsConfigurationFilesByNumberInAlphabeticalOrder)
{
	ship("b.conf");
	ship("a2.conf");
	ship("a10.conf");
	ship("notes.txt");
	EXPECT_TRUE(list(false));
	EXPECT_EQ(listed(), "config.name.0=shipped/a10.conf config.name.1=shipped/a2.conf "
			    "config.name.2=shipped/b.conf ");
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(ConfGetConfigs, CountsBeyondOneDigitWithoutGaps)
{
	for (char c = 'a'; c < 'a' + 12; c++)
		ship(std::string{c} + ".conf");
	EXPECT_TRUE(list(false));
	EXPECT_EQ(table->dict.n_items, 12u);
	EXPECT_EQ(std::string{get("config.name.11")}, shipped + "/l.conf");
}

TEST_F(ConfGetConfigs, OnlyTheEndOfTheNameCounts)
{
	ship(".conf");
	ship("conf");
	ship("xconf");
	ship("a.conf.bak");
	ship("a.CONF");
	ship("a.confx");
	std::filesystem::create_directory(shipped + "/z.conf");
	EXPECT_TRUE(list(false));
	EXPECT_EQ(listed(), "config.name.0=shipped/.conf config.name.1=shipped/z.conf ");
}

TEST_F(ConfGetConfigs, AFileOfTheSameNameInTheOverrideDirectoryWinsAndOthersThereAreIgnored)
{
	ship("a.conf");
	ship("b.conf");
	override_with("a.conf");
	override_with("z.conf");
	EXPECT_TRUE(list());
	EXPECT_EQ(listed(), "config.name.0=own/a.conf config.name.1=shipped/b.conf ");
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(ConfGetConfigs, TheOverrideDirectoryIsScannedOncePerFile)
{
	ship("a.conf");
	ship("b.conf");
	ship("c.conf");
	EXPECT_TRUE(list());
	EXPECT_EQ(scans, 4);
}

TEST_F(ConfGetConfigs, WithoutOverrideDirectoryNothingIsLookedUp)
{
	ship("a.conf");
	override_with("a.conf");
	EXPECT_TRUE(list(false));
	EXPECT_EQ(listed(), "config.name.0=shipped/a.conf ");
	EXPECT_EQ(scans, 1);
}

TEST_F(ConfGetConfigs, AGivenPathIsTheOnlyDirectory)
{
	ship("a.conf");
	EXPECT_TRUE(hs_conf_load_config_list(shipped.c_str(), table.get()));
	EXPECT_EQ(listed(), "config.name.0=shipped/a.conf ");
	EXPECT_EQ(scans, 1);
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(ConfGetConfigs, AGivenPathIsCutAt4095Bytes)
{
	ship("a.conf");
	/* Slashes more or less make no other path, and one byte more makes none at all. */
	const std::string longest = shipped + std::string(4095 - shipped.size(), '/');
	EXPECT_TRUE(hs_conf_load_config_list((longest + "x").c_str(), table.get()));
	EXPECT_EQ(std::string{get("config.name.0") ? get("config.name.0") : ""}, longest + "/a.conf");
}

TEST_F(ConfGetConfigs, AnEmptyDirectoryIsASuccess)
{
	EXPECT_TRUE(list());
	EXPECT_EQ(table->dict.n_items, 0u);
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(ConfGetConfigs, AMissingDirectoryIsASuccessWithoutEntries)
{
	EXPECT_TRUE(hs_conf_get_configs((directory / "nowhere").c_str(), own.c_str(), table.get()));
	EXPECT_EQ(table->dict.n_items, 0u);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_INFO, "No plugin configurations installed."), 1u) << log.text();
	EXPECT_EQ(log.complaints(), 0u);
}

TEST_F(ConfGetConfigs, AFileInPlaceOfTheDirectoryIsASuccessWithoutEntries)
{
	hs_write_text(file, "");
	EXPECT_TRUE(hs_conf_get_configs(file.c_str(), nullptr, table.get()));
	EXPECT_EQ(table->dict.n_items, 0u);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_INFO, "No plugin configurations installed."), 1u) << log.text();
}

TEST_F(ConfGetConfigs, TheDirectoriesNeedToBeReadableAndNoMore)
{
	ship("a.conf");
	EXPECT_TRUE(list());
	const std::vector<std::pair<std::string, int>> expected{{shipped, R_OK}, {own, R_OK}};
	EXPECT_EQ(accesses, expected);
}

TEST_F(ConfGetConfigs, AnUnreadableDirectoryIsAFailure)
{
	ship("a.conf");
	hs_fail_call("access", 1, EACCES);
	EXPECT_FALSE(list());
	EXPECT_EQ(table->dict.n_items, 0u);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "access " + shipped + " failed: Permission denied"), 1u)
		<< log.text();
	EXPECT_EQ(scans, 0);
}

TEST_F(ConfGetConfigs, ADirectoryThatOnlyRootMayReadIsAFailureForOthers)
{
	ship("a.conf");
	/* Root may read everything, so the look is taken as nobody. */
	std::filesystem::permissions(directory.path(), std::filesystem::perms{0755});
	std::filesystem::permissions(shipped, std::filesystem::perms{0});
	EXPECT_EXIT(
		{
			if (geteuid() == 0 && setuid(65534) < 0)
				_exit(3);
			_exit(!list() && log.contains(SPA_LOG_LEVEL_WARN, "access " + shipped + " failed: ")
				      ? 0
				      : 1);
		},
		testing::ExitedWithCode(0), "");
	std::filesystem::permissions(shipped, std::filesystem::perms{0755});
}

TEST_F(ConfGetConfigs, AFailedScanIsAFailure)
{
	ship("a.conf");
	hs_fail_call("scandir", 1, EMFILE);
	EXPECT_FALSE(list());
	EXPECT_EQ(table->dict.n_items, 0u);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "scandir " + shipped + " failed: Too many open files"), 1u)
		<< log.text();
}

TEST_F(ConfGetConfigs, AMissingOverrideDirectoryIsWarnedOfOncePerFile)
{
	ship("a.conf");
	ship("b.conf");
	std::filesystem::remove(own);
	EXPECT_TRUE(list());
	EXPECT_EQ(listed(), "config.name.0=shipped/a.conf config.name.1=shipped/b.conf ");
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "access " + own + " failed: No such file or directory"), 2u)
		<< log.text();
}

TEST_F(ConfGetConfigs, AnUnreadableOverrideDirectoryFallsBackToTheShippedFile)
{
	ship("a.conf");
	ship("b.conf");
	override_with("a.conf");
	override_with("b.conf");
	/* The first is the look at the shipped directory, the second that for a.conf. */
	hs_fail_call("access", 2, EACCES);
	EXPECT_TRUE(list());
	EXPECT_EQ(listed(), "config.name.0=shipped/a.conf config.name.1=own/b.conf ");
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "access " + own + " failed: Permission denied"), 1u)
		<< log.text();
}

TEST_F(ConfGetConfigs, AFailedScanOfTheOverrideDirectoryFallsBackToTheShippedFile)
{
	ship("a.conf");
	override_with("a.conf");
	hs_fail_call("scandir", 2, EMFILE);
	EXPECT_TRUE(list());
	EXPECT_EQ(listed(), "config.name.0=shipped/a.conf ");
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "scandir " + own + " failed: Too many open files"), 1u)
		<< log.text();
}

TEST_F(ConfGetConfigsDeathTest, ANullDirectoryOrTableAborts)
{
	EXPECT_EXIT(hs_conf_get_configs(nullptr, own.c_str(), table.get()), testing::KilledBySignal(SIGABRT),
		    "'path' failed at .*conf\\.cpp:[0-9]+ hs_conf_get_configs\\(\\)");
	EXPECT_EXIT(hs_conf_get_configs(shipped.c_str(), own.c_str(), nullptr),
		    testing::KilledBySignal(SIGABRT),
		    "'config_names' failed at .*conf\\.cpp:[0-9]+ hs_conf_get_configs\\(\\)");
}

TEST_F(ConfLoadConf, MembersBecomeEntriesAndStructuresKeepTheirText)
{
	EXPECT_TRUE(load(
		"{ \"a\": \"text\", \"b\": 5, \"object\": { \"x\": [ 1, 2 ] }, \"array\": [ 1, { } ] }"));
	EXPECT_STREQ(get("a"), "text");
	EXPECT_STREQ(get("b"), "5");
	EXPECT_STREQ(get("object"), "{ \"x\": [ 1, 2 ] }");
	EXPECT_STREQ(get("array"), "[ 1, { } ]");
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_INFO, pointer() + "Loaded config '" + file + "' with 4 items"), 1u)
		<< log.text();
	EXPECT_EQ(log.complaints(), 0u);
}

TEST_F(ConfLoadConf, TheSyntaxIsRelaxed)
{
	EXPECT_TRUE(load("# a comment\na = 1\n\"b\" : two, c = { x = y } # another\nd \"e f\"\n"));
	EXPECT_STREQ(get("a"), "1");
	EXPECT_STREQ(get("b"), "two");
	EXPECT_STREQ(get("c"), "{ x = y }");
	EXPECT_STREQ(get("d"), "e f");
	EXPECT_EQ(table->dict.n_items, 4u);
}

TEST_F(ConfLoadConf, AnEmptyFileHasNoItems)
{
	EXPECT_TRUE(load(""));
	EXPECT_EQ(table->dict.n_items, 0u);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_INFO, pointer() + "Loaded config '" + file + "' with 0 items"), 1u)
		<< log.text();
}

TEST_F(ConfLoadConf, EveryChangeIsAnItem)
{
	EXPECT_TRUE(load("{ a = 1 a = 2 }"));
	EXPECT_STREQ(get("a"), "2");
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_INFO, "with 2 items")) << log.text();
}

TEST_F(ConfLoadConf, EntriesOfTheTableAreReplacedRemovedOrKept)
{
	pw_properties_set(table.get(), "replaced", "old");
	pw_properties_set(table.get(), "removed", "old");
	pw_properties_set(table.get(), "kept", "old");
	EXPECT_TRUE(load("{ replaced = new, removed = null, omitted = null }"));
	EXPECT_STREQ(get("replaced"), "new");
	EXPECT_EQ(get("removed"), nullptr);
	EXPECT_EQ(get("omitted"), nullptr);
	EXPECT_STREQ(get("kept"), "old");
}

TEST_F(ConfLoadConf, OfAMalformedTextWhatParsesIsTaken)
{
	EXPECT_TRUE(load("{ a = 1, b = 2, \"c\xff = 3, d = 4"));
	EXPECT_STREQ(get("a"), "1");
	EXPECT_STREQ(get("b"), "2");
	EXPECT_EQ(get("d"), nullptr);
	EXPECT_EQ(log.complaints(), 0u) << log.text();
}

TEST_F(ConfLoadConf, ATextThatEndsInsideAnObjectAtTheEndOfAPageIsRead)
{
	const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
	for (const std::string_view end : {"b = { x", "b = [ 1 [", "b = \"text\\", "b = \"\\u00"}) {
		std::string text = "{ a = 1 ";
		text += std::string(page - text.size() - end.size(), ' ');
		text += end;
		ASSERT_EQ(text.size(), page);
		EXPECT_TRUE(load(text));
		EXPECT_STREQ(get("a"), "1");
	}
}

TEST_F(ConfLoadConf, AFileIsClosedWhoseDescriptorIsThatOfStandardInput)
{
	hs_write_text(file, "{ a = 1 }");
	const int input = dup(STDIN_FILENO);
	ASSERT_GE(input, 0);
	close(STDIN_FILENO);
	const bool is_loaded = hs_conf_load_conf(file.c_str(), table.get());
	const bool is_closed = fcntl(STDIN_FILENO, F_GETFD) < 0;
	dup2(input, STDIN_FILENO);
	close(input);
	EXPECT_TRUE(is_loaded);
	EXPECT_TRUE(is_closed);
}

TEST_F(ConfLoadConf, AMissingFileIsWarnedOf)
{
	const std::string missing = directory / "missing.conf";
	EXPECT_FALSE(hs_conf_load_conf(missing.c_str(), table.get()));
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN,
			    pointer() + "Failed to load config '" + missing + "': No such file or directory"),
		  1u)
		<< log.text();
	EXPECT_EQ(log.complaints(), 1u);
}

TEST_F(ConfLoadConf, ADirectoryIsWarnedOf)
{
	std::filesystem::create_directory(file);
	hs_write_text(file + "/x", "");
	EXPECT_FALSE(hs_conf_load_conf(file.c_str(), table.get()));
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, pointer() + "Failed to load config '" + file + "': "), 1u)
		<< log.text();
}

TEST_F(ConfLoadConf, AFifoIsEmptyAndNotWaitedFor)
{
	ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
	EXPECT_TRUE(hs_conf_load_conf(file.c_str(), table.get()));
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_INFO, "with 0 items")) << log.text();
}

TEST_F(ConfLoadConf, AFileThatClaimsToBeHugeIsWarnedOf)
{
	hs_write_text(file, "{ a = 1 }");
	std::filesystem::resize_file(file, uintmax_t{1} << 40);
	EXPECT_FALSE(hs_conf_load_conf(file.c_str(), table.get()));
	EXPECT_EQ(table->dict.n_items, 0u);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to load config '" + file + "': File too large"), 1u)
		<< log.text();
}

TEST_F(ConfLoadConf, AFileThatCannotBeExaminedIsWarnedOf)
{
	hs_fail_call("fstat", 1, EIO);
	EXPECT_FALSE(load("{ a = 1 }"));
	EXPECT_EQ(get("a"), nullptr);
	EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, "Failed to load config '" + file + "': Input/output error"),
		  1u)
		<< log.text();
}

TEST_F(SettingsWrite, WritesTheSchemaAndTheValueOfEverySetting)
{
	pw_properties_set(table.get(), "$schema", "/usr/share/schema.json");
	pw_properties_set(table.get(), "path", file.c_str());
	pw_properties_set(table.get(), "enable",
			  "{ name = enable title = Enable value = false defaultValue = true }");
	pw_properties_set(table.get(), "gain", "{ name = gain title = Gain value = \"1.5\" }");
	pw_properties_set(table.get(), "label", "{ name = label title = Label value = \"a \\\"b\\\" c\" }");
	hs_settings_write(table.get());

	EXPECT_EQ(hs_read_text(file), "{\n \"$schema\": \"/usr/share/schema.json\",\n \"enable\": false,\n"
				      " \"gain\": 1.5,\n \"label\": \"a \\\"b\\\" c\"\n}");
	EXPECT_FALSE(std::filesystem::exists(file + ".tmp"));
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(SettingsWrite, AnEntryThatIsNoObjectIsNoSetting)
{
	/* Read as a list of keys and values it would be one. */
	pw_properties_set(table.get(), "$schema", "name gain value 5");
	pw_properties_set(table.get(), "path", file.c_str());
	hs_settings_write(table.get());
	EXPECT_EQ(hs_read_text(file), "{\n \"$schema\": \"name gain value 5\"\n}");
}

TEST_F(SettingsWrite, WhatIsWrittenIsReadBackByTheLoader)
{
	pw_properties_set(table.get(), "$schema", "s");
	pw_properties_set(table.get(), "path", file.c_str());
	pw_properties_set(table.get(), "enable", "{ name = enable value = true }");
	pw_properties_set(table.get(), "label", "{ name = label value = \"two words\" }");
	hs_settings_write(table.get());

	const hs_properties_ptr stored{pw_properties_new(nullptr, nullptr)};
	EXPECT_TRUE(hs_conf_load_conf(file.c_str(), stored.get()));
	EXPECT_STREQ(pw_properties_get(stored.get(), "$schema"), "s");
	EXPECT_STREQ(pw_properties_get(stored.get(), "enable"), "true");
	EXPECT_STREQ(pw_properties_get(stored.get(), "label"), "two words");
	EXPECT_EQ(stored->dict.n_items, 3u);
}

TEST_F(SettingsWrite, WithoutSchemaAndSettingsTheObjectIsEmpty)
{
	pw_properties_set(table.get(), "path", file.c_str());
	hs_settings_write(table.get());
	EXPECT_EQ(hs_read_text(file), "{ }");
}

TEST_F(SettingsWrite, ANullTableOrOneWithoutPathDoesNothing)
{
	hs_settings_write(nullptr);
	pw_properties_set(table.get(), "enable", "{ name = enable value = true }");
	hs_settings_write(table.get());
	EXPECT_FALSE(std::filesystem::exists(file));
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(SettingsWrite, AnOldFileIsReplacedAtomically)
{
	pw_properties_set(table.get(), "path", file.c_str());
	hs_write_text(file, "{ old = 1 }");
	std::filesystem::create_hard_link(file, directory / "link");
	hs_settings_write(table.get());
	EXPECT_EQ(hs_read_text(file), "{ }");
	EXPECT_EQ(hs_read_text(directory / "link"), "{ old = 1 }");
}

TEST_F(SettingsWrite, ADirectoryThatDoesNotExistIsWarnedOf)
{
	const std::string nowhere = directory / "nowhere/file.conf";
	pw_properties_set(table.get(), "path", nowhere.c_str());
	hs_settings_write(table.get());
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_WARN, "Failed to open tmp file " + nowhere + ".tmp: "))
		<< log.text();
}

TEST(Settings, ValueThatReadsBackAsItselfSurvivesTheFile)
{
	for (const char *value : {"", "attic", "a \"quoted\" word", "back\\slash", "5", "1.50", "true", "[ 1, 2 ]", "a, b"})
		EXPECT_TRUE(hs_settings_value_survives(value)) << value;
}

TEST(Settings, ValueThatTheFileWouldReadAsSomethingElseDoesNotSurvive)
{
	for (const char *value : {"null", "{", "[", "{ a = b", "[ 1, 2"})
		EXPECT_FALSE(hs_settings_value_survives(value)) << value;
}
