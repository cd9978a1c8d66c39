/*
 * The rights library, compiled with "rights.d" below the working directory as its folder.
 */
#include <vetto2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char *threshold = "com.orvel.HearSense.Settings.Loudness.Threshold";
constexpr const char *enable = "com.orvel.HearSense.Settings.Loudness.Enable";

/** Groups that __wrap_getgrouplist adds to those of every user. */
std::vector<gid_t> more_groups;

/** Seconds that __wrap_clock_gettime is ahead. */
time_t clock_ahead = 0;

/** Files that the library has opened. */
int n_opened = 0;

void write_file(const fs::path &path, const std::string &text)
{
	const std::unique_ptr<FILE, int (*)(FILE *)> file{std::fopen(path.c_str(), "w"), std::fclose};
	ASSERT_TRUE(file) << path;
	ASSERT_EQ(std::fwrite(text.data(), 1, text.size(), file.get()), text.size());
}

class Vetto2 : public testing::Test {
protected:
	void SetUp() override
	{
		std::string name = (fs::temp_directory_path() / "vetto2-XXXXXX").string();
		ASSERT_NE(mkdtemp(name.data()), nullptr);
		folder = name;
		home = fs::current_path();
		fs::current_path(folder);
		fs::create_directory("rights.d");
		more_groups.clear();
		clock_ahead = 0;
	}

	void TearDown() override
	{
		vetto2_release();
		fs::current_path(home);
		fs::remove_all(folder);
	}

	void open()
	{
		result = {};
		ASSERT_TRUE(vetto2_init(&result)) << result.message;
	}

	bool allowed(const char *user, const char *key)
	{
		result = {};
		return vetto2_check_username(user, key, &result);
	}

	/** What the library logs while it answers. */
	std::string log_of_check(const char *user, const char *key)
	{
		testing::internal::CaptureStderr();
		allowed(user, key);
		return testing::internal::GetCapturedStderr();
	}

	fs::path folder;
	fs::path home;
	vetto2_error result{};
};

std::string group_of(const char *user)
{
	return getgrgid(getpwnam(user)->pw_gid)->gr_name;
}

} // namespace

extern "C" int __real_getgrouplist(const char *user, gid_t group, gid_t *groups, int *count);

extern "C" int __wrap_getgrouplist(const char *user, gid_t group, gid_t *groups, int *count)
{
	std::vector<gid_t> all(1024);
	int n = static_cast<int>(all.size());
	if (__real_getgrouplist(user, group, all.data(), &n) < 0)
		return -1;
	all.resize(static_cast<size_t>(n));
	all.insert(all.end(), more_groups.begin(), more_groups.end());

	const bool fits = all.size() <= static_cast<size_t>(*count);
	if (fits)
		std::copy(all.begin(), all.end(), groups);
	*count = static_cast<int>(all.size());
	return fits ? *count : -1;
}

extern "C" int __real_clock_gettime(clockid_t clock, timespec *time);

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *time)
{
	const int result = __real_clock_gettime(clock, time);
	time->tv_sec += clock_ahead;
	return result;
}

extern "C" FILE *__real_fopen64(const char *path, const char *mode);

extern "C" FILE *__wrap_fopen64(const char *path, const char *mode)
{
	n_opened++;
	return __real_fopen64(path, mode);
}

TEST_F(Vetto2, GrantsNothingWithoutAFolder)
{
	fs::remove("rights.d");
	open();
	EXPECT_FALSE(allowed("root", threshold));
	EXPECT_EQ(result.code, VETTO2_NOT_AUTHORIZED);
	EXPECT_STREQ(result.message, "Not authorized");
}

TEST_F(Vetto2, GrantsNothingWithoutAnyRule)
{
	write_file("rights.d/empty.conf", "");
	write_file("rights.d/comment.conf", "# nothing yet");
	open();
	EXPECT_FALSE(allowed("root", threshold));
	EXPECT_EQ(result.code, VETTO2_NOT_AUTHORIZED);
}

TEST_F(Vetto2, GrantsAUserTheKeysThatMatchAPattern)
{
	write_file("rights.d/a.conf", "users = { operator = com.orvel.HearSense.Settings.*.Threshold }");
	open();
	EXPECT_TRUE(allowed("operator", threshold));
	EXPECT_EQ(result.code, 0);
	EXPECT_FALSE(allowed("operator", enable));
	EXPECT_EQ(result.code, VETTO2_NOT_AUTHORIZED);
	EXPECT_FALSE(allowed("Operator", threshold));
	EXPECT_FALSE(allowed("operator2", threshold));
	EXPECT_FALSE(allowed("operato?", threshold));
	EXPECT_FALSE(allowed("", threshold));
}

TEST_F(Vetto2, TakesNamesAsTheyStand)
{
	write_file("rights.d/a.conf", "users = { * = * operato? = * } groups = { * = * }");
	open();
	EXPECT_FALSE(allowed("operator", threshold));
	EXPECT_FALSE(allowed("root", threshold));
}

TEST_F(Vetto2, MatchesTheWholeKey)
{
	write_file("rights.d/a.conf",
		   "users = { operator = [ Settings.Loudness.Threshold \"com.orvel.?\" ] }");
	open();
	EXPECT_FALSE(allowed("operator", threshold));
	EXPECT_TRUE(allowed("operator", "com.orvel.X"));
}

TEST_F(Vetto2, RefusesUsersWithoutAName)
{
	write_file("rights.d/a.conf", "users = { \"\" = * \"*\" = * } groups = { \"*\" = * }");
	open();
	EXPECT_FALSE(allowed(nullptr, threshold));
	EXPECT_EQ(result.code, VETTO2_NOT_AUTHORIZED);
	EXPECT_STRNE(result.message, "");
}

TEST_F(Vetto2, GrantsTheMembersOfAGroup)
{
	write_file("rights.d/a.conf", "groups = { " + group_of("daemon") + " = [ " + threshold + " ] }");
	open();
	EXPECT_TRUE(allowed("daemon", threshold));
	EXPECT_FALSE(allowed("daemon", enable));
	EXPECT_FALSE(allowed("nobody", threshold));
	EXPECT_EQ(result.code, VETTO2_NOT_AUTHORIZED);
}

TEST_F(Vetto2, CountsGroupsBeyondTheFirst)
{
	write_file("rights.d/a.conf", "groups = { audio = * }");
	open();
	EXPECT_FALSE(allowed("nobody", threshold));

	for (gid_t gid = 100'000; gid < 100'050; gid++)
		more_groups.push_back(gid);
	EXPECT_FALSE(allowed("nobody", threshold));
	more_groups.push_back(getgrnam("audio")->gr_gid);
	EXPECT_TRUE(allowed("nobody", threshold));
}

TEST_F(Vetto2, KnowsNoGroupsOfAStranger)
{
	write_file("rights.d/a.conf",
		   "groups = { audio = * no-such-group = * } users = { no-such-user = x }");
	more_groups.push_back(getgrnam("audio")->gr_gid);
	open();
	EXPECT_FALSE(allowed("no-such-user", threshold));
	EXPECT_TRUE(allowed("no-such-user", "x"));
}

TEST_F(Vetto2, LeavesTheCallersPasswordEntryAlone)
{
	write_file("rights.d/a.conf", "groups = { " + group_of("daemon") + " = * }");
	open();
	const passwd *entry = getpwuid(getpwnam("daemon")->pw_uid);
	EXPECT_TRUE(allowed(entry->pw_name, threshold));
	EXPECT_STREQ(entry->pw_name, "daemon");
}

TEST_F(Vetto2, TakesEveryRelaxedForm)
{
	write_file("rights.d/bare.conf", "users { a1 x, a2: [ \"y\", z ] }\ngroups = {}\nusers = { a1 = w }");
	write_file("rights.d/json.conf", "{ \"users\": { \"a3\": [ \"x\", \"y\" ] } }\n# the end");
	write_file("rights.d/quotes.conf", "users = { a4 = \"[xy]\" \"a\\\"5\" = [] }");
	testing::internal::CaptureStderr();
	open();
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
	EXPECT_TRUE(allowed("a1", "x"));
	EXPECT_TRUE(allowed("a1", "w"));
	EXPECT_TRUE(allowed("a2", "y"));
	EXPECT_TRUE(allowed("a2", "z"));
	EXPECT_FALSE(allowed("a2", "x"));
	EXPECT_TRUE(allowed("a3", "x"));
	EXPECT_TRUE(allowed("a3", "y"));
	EXPECT_TRUE(allowed("a4", "y"));
	EXPECT_FALSE(allowed("a4", "[xy]"));
	EXPECT_FALSE(allowed("a\"5", "x"));
}

TEST_F(Vetto2, ReadsConfFilesOnly)
{
	const std::string all = "users = { root = * }";
	write_file("rights.d/root.conf.bak", all);
	write_file("rights.d/.root.conf", all);
	write_file("rights.d/conf", all);
	fs::create_directory("rights.d/folder.conf");
	write_file("rights.d/folder.conf/root.conf", all);
	ASSERT_EQ(mkfifo("rights.d/pipe.conf", 0600), 0);
	testing::internal::CaptureStderr();
	open();
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
	EXPECT_FALSE(allowed("root", threshold));

	write_file("rights.d/x.conf", all);
	EXPECT_TRUE(allowed("root", threshold));
}

struct broken_file {
	const char *text;
	int line;
};

class Vetto2Broken : public Vetto2, public testing::WithParamInterface<broken_file> {};

TEST_P(Vetto2Broken, FileIsLoggedAndGrantsNothing)
{
	write_file("rights.d/a.conf", GetParam().text);
	write_file("rights.d/b.conf", "users = { operator = * }");
	testing::internal::CaptureStderr();
	open();
	const std::string log = testing::internal::GetCapturedStderr();
	EXPECT_NE(log.find("rights.d/a.conf:" + std::to_string(GetParam().line) + ": "), std::string::npos)
		<< log;
	EXPECT_EQ(log.find("b.conf"), std::string::npos) << log;
	EXPECT_FALSE(allowed("root", threshold));
	EXPECT_EQ(result.code, VETTO2_NOT_AUTHORIZED);
	EXPECT_TRUE(allowed("operator", threshold));
}

const broken_file broken_files[] = {
	{"users = { root = *", 2},		       // never closed
	{"users = {\n root = [ *\n}", 3},	       // closed by the other bracket
	{"users = {\n root = [ * ]\n]", 3},	       // the same the other way round
	{"{ users = { root = * }", 2},		       // outer brace never closed
	{"{ users = { root = * } }\n}", 2},	       // a brace too many
	{"{ users = { root = * }\n]", 2},              // the outer brace closed by the other bracket
	{"users = { root = * }\n\n}", 3},	       // the same without outer braces
	{"{ users = { root = * } }\nmore", 2},	       // something after the end
	{"users = { root = * }\nuser = { a = * }", 2}, // misspelt
	{"users = { root = * }\n*", 2},		       // stray word
	{"users = { root = * }\ngroups", 3},	       // nothing follows
	{"users = { root = * }\ngroups = audio", 2},   // no object
	{"users = [ root * ]", 1},		       // an array
	{"users = {\n root = * nobody\n}", 3},	       // a name without a key
	{"users = {\n root = { keys = * }\n}", 2},     // an object of keys
	{"users = {\n root = [ * [ x ] ]\n}", 2},      // an array in an array
	{"users = {\n { root = * }\n}", 2},	       // no name
	{"users = {\n root = \"*\n}", 2},	       // quote never closed
	{"users = {\n root = [ * \"\\x\" ]\n}", 2},    // no such escape
	{"users = {\n root = \"*\\u0000x\"\n}", 2},       // a text that would end early
	{"users = {\n \"ro\\ud800ot\" = *\n}", 2},	       // half a character, which would be left out
	{"users = {\n root = [ \"*\\u00\" ]\n}", 2},     // half an escape
	{"\"us\\u0000ers\" = { root = * }", 1},
	{"[ users ]", 1},
	{"\"\\x\"", 1},
};

TEST_F(Vetto2, GrantsNothingByAFileWithANulByte)
{
	const std::string text{"users = { root = *\0x }", 22};
	write_file("rights.d/a.conf", text);
	testing::internal::CaptureStderr();
	open();
	EXPECT_NE(testing::internal::GetCapturedStderr().find("rights.d/a.conf:1: "), std::string::npos);
	EXPECT_FALSE(allowed("root", threshold));
}

INSTANTIATE_TEST_SUITE_P(Forms, Vetto2Broken, testing::ValuesIn(broken_files));

TEST_F(Vetto2, ComplainsOnceOfABrokenFile)
{
	write_file("rights.d/a.conf", "users = {");
	testing::internal::CaptureStderr();
	open();
	EXPECT_NE(testing::internal::GetCapturedStderr().find("a.conf:2: "), std::string::npos);
	EXPECT_EQ(log_of_check("root", threshold), "");

	write_file("rights.d/b.conf", "users = { operator = * }");
	EXPECT_EQ(log_of_check("root", threshold), "");

	write_file("rights.d/a.conf", "\n\nusers = {");
	EXPECT_NE(log_of_check("root", threshold).find("a.conf:4: "), std::string::npos);

	write_file("rights.d/a.conf", "");
	EXPECT_EQ(log_of_check("root", threshold), "");
	write_file("rights.d/a.conf", "\n\nusers = {");
	EXPECT_NE(log_of_check("root", threshold).find("a.conf:4: "), std::string::npos);
}

TEST_F(Vetto2, LogsFilesThatCannotBeRead)
{
	fs::create_symlink("nowhere", "rights.d/link.conf");
	write_file("rights.d/big.conf", "users = { root = * } #" + std::string(1024 * 1024, 'x'));
	write_file("rights.d/good.conf", "users = { operator = * }");
	testing::internal::CaptureStderr();
	open();
	const std::string log = testing::internal::GetCapturedStderr();
	EXPECT_NE(log.find("link.conf: No such file or directory"), std::string::npos) << log;
	EXPECT_NE(log.find("big.conf: File too large"), std::string::npos) << log;
	EXPECT_FALSE(allowed("root", threshold));
	EXPECT_TRUE(allowed("operator", threshold));
}

TEST_F(Vetto2, SeesFilesComeAndGo)
{
	open();
	EXPECT_FALSE(allowed("root", threshold));
	write_file("rights.d/a.conf", "users = { root = * }");
	EXPECT_TRUE(allowed("root", threshold));
	fs::remove("rights.d/a.conf");
	EXPECT_FALSE(allowed("root", threshold));

	fs::remove("rights.d");
	EXPECT_FALSE(allowed("root", threshold));
	fs::create_directory("rights.d");
	write_file("rights.d/a.conf", "users = { root = * }");
	EXPECT_TRUE(allowed("root", threshold));
}

TEST_F(Vetto2, SeesAChangeThatKeepsSizeAndTime)
{
	write_file("rights.d/a.conf", "users = { a = * }");
	open();
	for (int i = 0; i < 200; i++) {
		const fs::file_time_type time = fs::last_write_time("rights.d/a.conf");
		write_file("rights.d/a.conf", i % 2 ? "users = { a = * }" : "users = { b = * }");
		fs::last_write_time("rights.d/a.conf", time);
		ASSERT_EQ(allowed("a", threshold), i % 2 == 1) << i;
		ASSERT_EQ(allowed("b", threshold), i % 2 == 0) << i;
	}
}

TEST_F(Vetto2, ReadsAgainOnlyWhatHasChanged)
{
	write_file("rights.d/a.conf", "users = { a = * }");
	clock_ahead = 60;
	open();
	EXPECT_TRUE(allowed("a", threshold));
	n_opened = 0;
	EXPECT_TRUE(allowed("a", threshold));
	EXPECT_EQ(n_opened, 0);

	write_file("rights.d/b.conf", "users = { b = * }");
	EXPECT_TRUE(allowed("b", threshold));
	write_file("rights.d/b.conf", "users = { c = * d = * }");
	EXPECT_FALSE(allowed("b", threshold));
	EXPECT_TRUE(allowed("d", threshold));
	fs::remove("rights.d/a.conf");
	EXPECT_FALSE(allowed("a", threshold));
}

TEST_F(Vetto2, ReadsAgainWhatMayHaveChangedWithinOneTimeStamp)
{
	write_file("rights.d/a.conf", "users = { a = * }");
	open();
	n_opened = 0;
	EXPECT_TRUE(allowed("a", threshold));
	EXPECT_EQ(n_opened, 1);
	clock_ahead = 60;
	EXPECT_TRUE(allowed("a", threshold));
	EXPECT_EQ(n_opened, 2);
	EXPECT_TRUE(allowed("a", threshold));
	EXPECT_EQ(n_opened, 2);
}

TEST_F(Vetto2, SeesAFileReplacedByAnOlderOne)
{
	write_file("old", "users = { b = * }");
	write_file("rights.d/a.conf", "users = { a = * }");
	open();
	EXPECT_TRUE(allowed("a", threshold));
	fs::rename("old", "rights.d/a.conf");
	EXPECT_FALSE(allowed("a", threshold));
	EXPECT_TRUE(allowed("b", threshold));
}

TEST_F(Vetto2, FailsToOpenWhatIsNoFolder)
{
	fs::remove("rights.d");
	write_file("rights.d", "users = { root = * }");
	EXPECT_FALSE(vetto2_init(&result));
	EXPECT_EQ(result.code, 1);
	EXPECT_STREQ(result.message, "rights.d: Not a directory");
	EXPECT_FALSE(allowed("root", threshold));
	EXPECT_EQ(result.code, 1);
}

TEST_F(Vetto2, RefusesWhileTheFolderCannotBeRead)
{
	write_file("rights.d/a.conf", "users = { root = * }");
	open();
	EXPECT_TRUE(allowed("root", threshold));

	fs::rename("rights.d", "away");
	write_file("rights.d", "");
	EXPECT_FALSE(allowed("root", threshold));
	EXPECT_EQ(result.code, 1);
	EXPECT_STREQ(result.message, "rights.d: Not a directory");

	fs::remove("rights.d");
	fs::rename("away", "rights.d");
	EXPECT_TRUE(allowed("root", threshold));
}

TEST_F(Vetto2, RefusesWhileItIsNotOpen)
{
	write_file("rights.d/a.conf", "users = { root = * }");
	vetto2_release();
	EXPECT_FALSE(allowed("root", threshold));
	EXPECT_EQ(result.code, 1);
	open();
	EXPECT_TRUE(allowed("root", threshold));
	vetto2_release();
	EXPECT_FALSE(allowed("root", threshold));
	open();
	EXPECT_TRUE(allowed("root", threshold));
}

TEST_F(Vetto2, ShipsRulesThatGrantRootEverything)
{
	fs::copy_file(VETTO2_SHIPPED_RULES, "rights.d/root.conf");
	testing::internal::CaptureStderr();
	open();
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
	EXPECT_TRUE(allowed("root", threshold));
	EXPECT_TRUE(allowed("root", "com.orvel.HearSense.Events.Loudness.Loudness.EnableEvent"));
	EXPECT_FALSE(allowed("daemon", threshold));
}

TEST(Vetto2Library, ExportsItsThreeFunctionsOnly)
{
	const std::unique_ptr<FILE, int (*)(FILE *)> nm{popen("nm -D --defined-only " VETTO2_LIBRARY, "r"),
							pclose};
	ASSERT_TRUE(nm);
	std::set<std::string> names;
	char kind;
	char name[256];
	while (std::fscanf(nm.get(), "%*s %c %255s", &kind, name) == 2)
		names.insert(name);
	EXPECT_EQ(names, (std::set<std::string>{"vetto2_check_username", "vetto2_init", "vetto2_release"}));
}
