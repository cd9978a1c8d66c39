#include "atomic-file.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failing.hpp"
#include "log-capture.hpp"
#include "temp-dir.hpp"

namespace {

/** "sync file", "rename" and "sync directory" in the order in which they were called. */
std::vector<std::string> steps;

/** The directory that was synced last. */
ino_t synced_directory;

/** What snprintf() tells in place of the length, unless it is 0. */
int told_length;

/** A file that somebody else makes just before one is created. */
std::string intruder;

void intrude(int flags)
{
	if (flags & O_CREAT && !intruder.empty())
		hs_write_text(std::exchange(intruder, ""), "somebody else's long text");
}

} // namespace

extern "C" {
int __real_close(int fd);
int __real_fclose(FILE *stream);
FILE *__real_fdopen(int fd, const char *mode);
int __real_fflush(FILE *stream);
int __real_fileno(FILE *stream);
int __real_fsync(int fd);
void *__real_malloc(size_t size);
int __real_open(const char *path, int flags, ...);
int __real_open64(const char *path, int flags, ...);
int __real_rename(const char *from, const char *to);
char *__real_strdup(const char *text);

int __wrap_close(int fd)
{
	/* A close that fails has closed all the same. */
	const int res = __real_close(fd);
	return hs_must_fail("close") ? -1 : res;
}

int __wrap_fclose(FILE *stream)
{
	const int res = __real_fclose(stream);
	return hs_must_fail("fclose") ? EOF : res;
}

FILE *__wrap_fdopen(int fd, const char *mode)
{
	return hs_must_fail("fdopen") ? nullptr : __real_fdopen(fd, mode);
}

int __wrap_fflush(FILE *stream)
{
	return hs_must_fail("fflush") ? EOF : __real_fflush(stream);
}

int __wrap_fileno(FILE *stream)
{
	return hs_must_fail("fileno") ? -1 : __real_fileno(stream);
}

int __wrap_fsync(int fd)
{
	struct stat status = {};
	fstat(fd, &status);
	steps.push_back(S_ISDIR(status.st_mode) ? "sync directory" : "sync file");
	if (S_ISDIR(status.st_mode))
		synced_directory = status.st_ino;
	return hs_must_fail("fsync") ? -1 : __real_fsync(fd);
}

void *__wrap_malloc(size_t size)
{
	return hs_must_fail("malloc") ? nullptr : __real_malloc(size);
}

int __wrap_open(const char *path, int flags, ...)
{
	va_list arguments;
	va_start(arguments, flags);
	const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
	va_end(arguments);
	intrude(flags);
	return hs_must_fail("open") ? -1 : __real_open(path, flags, mode);
}

int __wrap_open64(const char *path, int flags, ...)
{
	va_list arguments;
	va_start(arguments, flags);
	const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
	va_end(arguments);
	intrude(flags);
	return hs_must_fail("open") ? -1 : __real_open64(path, flags, mode);
}

int __wrap_rename(const char *from, const char *to)
{
	steps.push_back("rename");
	return hs_must_fail("rename") ? -1 : __real_rename(from, to);
}

int __wrap_snprintf(char *buffer, size_t size, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	const int length = hs_must_fail("snprintf") ? -1 : std::vsnprintf(buffer, size, format, arguments);
	va_end(arguments);
	return told_length != 0 ? told_length : length;
}

/* What snprintf() is called with _FORTIFY_SOURCE. */
int __wrap___snprintf_chk(char *buffer, size_t size, int, size_t, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	const int length = hs_must_fail("snprintf") ? -1 : std::vsnprintf(buffer, size, format, arguments);
	va_end(arguments);
	return told_length != 0 ? told_length : length;
}

char *__wrap_strdup(const char *text)
{
	return hs_must_fail("strdup") ? nullptr : __real_strdup(text);
}
}

namespace {

int write_text(FILE *stream, void *data)
{
	return std::fputs(static_cast<const char *>(data), stream) < 0 ? -1 : 0;
}

int write_nothing_and_succeed_with_7(FILE *, void *)
{
	return 7;
}

int write_some_and_fail_with_minus_23(FILE *stream, void *)
{
	std::fputs("half", stream);
	return -23;
}

size_t count_open_files()
{
	return static_cast<size_t>(std::distance(std::filesystem::directory_iterator{"/proc/self/fd"}, {}));
}

class AtomicFile : public testing::Test
{
protected:
	AtomicFile()
	{
		hs_write_text(path, "old");
		steps.clear();
		files = count_open_files();
		mask = umask(022);
	}

	~AtomicFile() override
	{
		umask(mask);
		EXPECT_FALSE(hs_failure_is_due());
		EXPECT_EQ(count_open_files(), files);
	}

	int write(const char *text)
	{
		return hs_atomic_file_write(path.c_str(), write_text, const_cast<char *>(text));
	}

	void expect_failure_with_old_content(int result, const std::string &warning, int expected = -1)
	{
		EXPECT_EQ(result, expected);
		EXPECT_EQ(hs_read_text(path), "old");
		expect_one_warning(warning);
	}

	void expect_one_warning(const std::string &warning)
	{
		EXPECT_EQ(log.complaints(), 1u) << log.text();
		EXPECT_EQ(log.count(SPA_LOG_LEVEL_WARN, warning), 1u) << log.text();
	}

	hs_temp_dir directory;
	std::string path = directory / "file";
	std::string tmp = directory / "file.tmp";
	hs_log_capture log;
	size_t files;
	mode_t mask;
};

} // namespace

TEST_F(AtomicFile, ReplacesTheContentAndLeavesNothingBeside)
{
	EXPECT_EQ(write("new"), 0);
	EXPECT_EQ(hs_read_text(path), "new");
	EXPECT_FALSE(std::filesystem::exists(tmp));
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(AtomicFile, CreatesAFileThatWasNotThere)
{
	std::filesystem::remove(path);
	EXPECT_EQ(write("new"), 0);
	EXPECT_EQ(hs_read_text(path), "new");
}

TEST_F(AtomicFile, CreatesFilesWithMode0644)
{
	umask(0);
	EXPECT_EQ(write("new"), 0);
	struct stat status;
	ASSERT_EQ(stat(path.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(AtomicFile, WritesWhereStandardInputIsClosed)
{
	const int input = dup(STDIN_FILENO);
	ASSERT_GE(input, 0);
	::close(STDIN_FILENO);
	EXPECT_EQ(write("new"), 0);
	dup2(input, STDIN_FILENO);
	::close(input);
	EXPECT_EQ(hs_read_text(path), "new");
	EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(AtomicFile, ANullPathIsWarnedOf)
{
	EXPECT_EQ(hs_atomic_file_write(nullptr, write_text, nullptr), -1);
	expect_one_warning("Failed to write file, path is null");
}

TEST_F(AtomicFile, ANullCallbackIsWarnedOf)
{
	expect_failure_with_old_content(hs_atomic_file_write(path.c_str(), nullptr, nullptr),
					"Failed to write file, write callback is null");
}

TEST_F(AtomicFile, TheCallbackGetsAnEmptyWritableStreamBesideTheTargetAndItsData)
{
	struct seen {
		std::string tmp;
		bool called;
	} seen = {tmp, false};

	const auto look = [](FILE *stream, void *data) {
		auto *s = static_cast<struct seen *>(data);
		s->called = true;
		EXPECT_EQ(std::ftell(stream), 0);
		EXPECT_EQ(std::filesystem::file_size(s->tmp), 0u);
		std::fputs("text", stream);
		std::fflush(stream);
		EXPECT_EQ(hs_read_text(s->tmp), "text");
		EXPECT_EQ(fcntl(fileno(stream), F_GETFL) & O_ACCMODE, O_WRONLY);
		return 0;
	};
	EXPECT_EQ(hs_atomic_file_write(path.c_str(), look, &seen), 0);
	EXPECT_TRUE(seen.called);
}

TEST_F(AtomicFile, AReaderSeesTheOldContentUntilAllIsWritten)
{
	const auto look = [](FILE *stream, void *data) {
		const auto *target = static_cast<const std::string *>(data);
		for (int i = 0; i < 100; i++) {
			std::fputs("a line that is long enough to fill the stream's buffer now and then\n",
				   stream);
			EXPECT_EQ(hs_read_text(*target), "old");
		}
		std::fflush(stream);
		EXPECT_EQ(hs_read_text(*target), "old");
		return 0;
	};
	EXPECT_EQ(hs_atomic_file_write(path.c_str(), look, &path), 0);
	EXPECT_EQ(hs_read_text(path).size(), 100u * 68);
}

TEST_F(AtomicFile, SyncsTheFileBeforeTheRenameAndTheDirectoryAfterIt)
{
	EXPECT_EQ(write("new"), 0);
	EXPECT_EQ(steps, (std::vector<std::string>{"sync file", "rename", "sync directory"}));
}

TEST_F(AtomicFile, SyncsTheDirectoryThatTheFileIsIn)
{
	const std::string below = directory / "below";
	std::filesystem::create_directory(below);
	for (const std::string &folder : {directory.path(), below}) {
		synced_directory = 0;
		EXPECT_EQ(hs_atomic_file_write((folder + "/file").c_str(), write_text, const_cast<char *>("new")), 0);
		struct stat status;
		ASSERT_EQ(stat(folder.c_str(), &status), 0);
		EXPECT_EQ(synced_directory, status.st_ino);
	}
}

TEST_F(AtomicFile, ARelativePathSyncsTheWorkingDirectory)
{
	const std::filesystem::path before = std::filesystem::current_path();
	std::filesystem::current_path(directory.path());
	const int res = hs_atomic_file_write("relative", write_text, const_cast<char *>("new"));
	std::filesystem::current_path(before);

	EXPECT_EQ(res, 0);
	EXPECT_EQ(hs_read_text(directory / "relative"), "new");
	EXPECT_EQ(steps.back(), "sync directory");
	struct stat status;
	ASSERT_EQ(stat(directory.path().c_str(), &status), 0);
	EXPECT_EQ(synced_directory, status.st_ino);
}

TEST_F(AtomicFile, APositiveResultOfTheCallbackIsSuccess)
{
	EXPECT_EQ(hs_atomic_file_write(path.c_str(), write_nothing_and_succeed_with_7, nullptr), 0);
	EXPECT_EQ(hs_read_text(path), "");
}

TEST_F(AtomicFile, AFailingCallbackLeavesTheOldContentAndItsResultIsReturned)
{
	expect_failure_with_old_content(hs_atomic_file_write(path.c_str(), write_some_and_fail_with_minus_23, nullptr),
					"Write callback failed", -23);
}

TEST_F(AtomicFile, AStaleTemporaryFileIsRemovedFirst)
{
	hs_write_text(tmp, "a much longer text from a crash");
	EXPECT_EQ(chmod(tmp.c_str(), 0600), 0);
	EXPECT_EQ(write("new"), 0);
	EXPECT_EQ(hs_read_text(path), "new");
	struct stat status;
	ASSERT_EQ(stat(path.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(AtomicFile, ATemporaryFileOfSomebodyElseIsNotMixedIn)
{
	intruder = tmp;
	expect_failure_with_old_content(write("new"), "Failed to open tmp file " + tmp + ": File exists");
}

TEST_F(AtomicFile, AStaleSymbolicLinkIsNotFollowed)
{
	const std::string other = directory / "other";
	hs_write_text(other, "precious");
	std::filesystem::create_symlink(other, tmp);
	EXPECT_EQ(write("new"), 0);
	EXPECT_EQ(hs_read_text(path), "new");
	EXPECT_EQ(hs_read_text(other), "precious");
	EXPECT_FALSE(std::filesystem::is_symlink(path));
}

TEST_F(AtomicFile, ATemporaryFileThatCannotBeRemovedIsWarnedOf)
{
	std::filesystem::create_directory(tmp);
	expect_failure_with_old_content(write("new"), "Failed to remove previous tmp file " + tmp + ": ");
	EXPECT_TRUE(log.contains(SPA_LOG_LEVEL_WARN, "Is a directory")) << log.text();
}

TEST_F(AtomicFile, ADirectoryThatDoesNotExistFailsToOpen)
{
	const std::string nowhere = directory / "nowhere/file";
	EXPECT_EQ(hs_atomic_file_write(nowhere.c_str(), write_text, const_cast<char *>("new")), -1);
	expect_one_warning("Failed to open tmp file " + nowhere + ".tmp: No such file or directory");
}

TEST_F(AtomicFile, AFailedAllocationOfTheTemporaryPathIsWarnedOf)
{
	hs_fail_call("malloc", 1, ENOMEM);
	expect_failure_with_old_content(write("new"),
					"Failed to allocate tmp file path: Cannot allocate memory");
}

TEST_F(AtomicFile, ATemporaryPathThatCannotBeFormattedIsWarnedOf)
{
	hs_fail_call("snprintf", 1, EOVERFLOW);
	expect_failure_with_old_content(write("new"), "Failed to create tmp file path: ");
}

TEST_F(AtomicFile, ATemporaryPathThatIsCutIsWarnedOf)
{
	/* The buffer takes four characters more than the path, and the terminator. */
	told_length = static_cast<int>(path.size()) + 5;
	const int res = write("new");
	told_length = 0;
	expect_failure_with_old_content(res, "Failed to create tmp file path: ");
	EXPECT_TRUE(steps.empty());
}

TEST_F(AtomicFile, AFailedFdopenIsWarnedOfAndClosesTheFile)
{
	hs_fail_call("fdopen", 1, ENOMEM);
	expect_failure_with_old_content(write("new"), "Failed to fdopen tmp file: Cannot allocate memory");
}

TEST_F(AtomicFile, AFailedFlushIsWarnedOf)
{
	hs_fail_call("fflush", 1, ENOSPC);
	expect_failure_with_old_content(write("new"), "Failed to flush tmp file: No space left on device");
	EXPECT_TRUE(steps.empty());
}

TEST_F(AtomicFile, AWriteErrorThatTheCallbackOverlooksIsNotForgotten)
{
	rlimit before;
	ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
	const auto handler = signal(SIGXFSZ, SIG_IGN);

	/* The stream's first buffer does not fit; afterwards there is room again. */
	const auto overlook = [](FILE *stream, void *data) {
		rlimit small = *static_cast<rlimit *>(data);
		small.rlim_cur = 100;
		setrlimit(RLIMIT_FSIZE, &small);
		const std::string text(100000, 'x');
		std::fwrite(text.data(), 1, text.size(), stream);
		setrlimit(RLIMIT_FSIZE, static_cast<rlimit *>(data));
		return 0;
	};
	const int res = hs_atomic_file_write(path.c_str(), overlook, &before);
	signal(SIGXFSZ, handler);

	expect_failure_with_old_content(res, "Failed to flush tmp file: ");
}

TEST_F(AtomicFile, AStreamWithoutDescriptorIsWarnedOf)
{
	hs_fail_call("fileno", 1, EBADF);
	expect_failure_with_old_content(write("new"),
					"Failed to get tmp file descriptor: Bad file descriptor");
}

TEST_F(AtomicFile, AFailedSyncIsWarnedOfAndTheTargetStays)
{
	hs_fail_call("fsync", 1, EIO);
	expect_failure_with_old_content(write("new"), "Failed to sync tmp file: Input/output error");
	EXPECT_EQ(steps, std::vector<std::string>{"sync file"});
}

TEST_F(AtomicFile, AFailedCloseIsWarnedOfAndTheTargetStays)
{
	hs_fail_call("fclose", 1, EIO);
	expect_failure_with_old_content(write("new"), "Failed to close tmp file: Input/output error");
}

TEST_F(AtomicFile, AFailedRenameIsWarnedOfAndTheTemporaryFileStays)
{
	std::filesystem::remove(path);
	std::filesystem::create_directory(path);
	EXPECT_EQ(write("new"), -1);
	expect_one_warning("Failed to rename tmp file: Is a directory");
	EXPECT_EQ(hs_read_text(tmp), "new");
	EXPECT_EQ(steps, (std::vector<std::string>{"sync file", "rename"}));
}

TEST_F(AtomicFile, AFailureLeavesATemporaryFileThatTheNextWriteReplaces)
{
	hs_fail_call("fsync", 1, EIO);
	EXPECT_EQ(write("first"), -1);
	EXPECT_TRUE(std::filesystem::exists(tmp));
	EXPECT_EQ(write("second"), 0);
	EXPECT_EQ(hs_read_text(path), "second");
	EXPECT_FALSE(std::filesystem::exists(tmp));
}

TEST_F(AtomicFile, AFailedCopyOfThePathIsReportedAlthoughTheContentIsInPlace)
{
	hs_fail_call("strdup", 1, ENOMEM);
	EXPECT_EQ(write("new"), -1);
	expect_one_warning("Failed to allocate copy of path: Cannot allocate memory");
	EXPECT_EQ(hs_read_text(path), "new");
}

TEST_F(AtomicFile, ADirectoryThatCannotBeOpenedIsReportedAlthoughTheContentIsInPlace)
{
	hs_fail_call("open", 2, EMFILE);
	EXPECT_EQ(write("new"), -1);
	expect_one_warning("Failed to open directory: Too many open files");
	EXPECT_EQ(hs_read_text(path), "new");
}

TEST_F(AtomicFile, ADirectoryThatCannotBeSyncedIsReportedAlthoughTheContentIsInPlace)
{
	hs_fail_call("fsync", 2, EIO);
	EXPECT_EQ(write("new"), -1);
	expect_one_warning("Failed to sync directory: Input/output error");
	EXPECT_EQ(hs_read_text(path), "new");
}

TEST_F(AtomicFile, ADirectoryThatCannotBeClosedIsWarnedOfOnly)
{
	hs_fail_call("close", 1, EIO);
	EXPECT_EQ(write("new"), 0);
	expect_one_warning("Failed to close file descriptor: Input/output error");
	EXPECT_EQ(hs_read_text(path), "new");
}
