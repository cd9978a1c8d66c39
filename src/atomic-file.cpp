#include "atomic-file.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.hpp"
#include "owned.hpp"

namespace {

hs_malloc_ptr<char> make_tmp_path(const char *path)
{
	const size_t size = std::strlen(path) + sizeof(".tmp");

	hs_malloc_ptr<char> tmp{static_cast<char *>(std::malloc(size))};
	if (!tmp) {
		pw_log_warn("Failed to allocate tmp file path: %m");
		return nullptr;
	}
	const int length = std::snprintf(tmp.get(), size, "%s.tmp", path);
	if (length < 0 || static_cast<size_t>(length) >= size) {
		pw_log_warn("Failed to create tmp file path: %m");
		return nullptr;
	}
	return tmp;
}

/** Opens the temporary file, which must not be there yet, into `stream`. */
int open_tmp(const char *tmp, hs_file_ptr *stream)
{
	const int res = unlink(tmp);
	if (res < 0 && errno != ENOENT) {
		pw_log_warn("Failed to remove previous tmp file %s: %m", tmp);
		return res;
	}

	hs_fd fd(open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
	if (fd.get() < 0) {
		pw_log_warn("Failed to open tmp file %s: %m", tmp);
		return fd.get();
	}

	stream->reset(fdopen(fd.get(), "w"));
	if (!*stream) {
		pw_log_warn("Failed to fdopen tmp file: %m");
		return -1;
	}
	fd.release();
	return 0;
}

/** Brings what was written onto the disk and closes the stream. */
int finish_tmp(hs_file_ptr stream)
{
	/* A write that failed in the callback has dropped its data: a flush of the rest may well succeed. */
	if (std::fflush(stream.get()) != 0 || std::ferror(stream.get())) {
		pw_log_warn("Failed to flush tmp file: %m");
		return -1;
	}
	const int fd = fileno(stream.get());
	if (fd < 0) {
		pw_log_warn("Failed to get tmp file descriptor: %m");
		return -1;
	}
	if (fsync(fd) < 0) {
		pw_log_warn("Failed to sync tmp file: %m");
		return -1;
	}
	if (std::fclose(stream.release()) != 0) {
		pw_log_warn("Failed to close tmp file: %m");
		return -1;
	}
	return 0;
}

/** Makes the rename survive a power cut. */
int sync_dir(const char *path)
{
	/* dirname() may write into its argument. */
	const hs_malloc_ptr<char> copy{strdup(path)};
	if (!copy) {
		pw_log_warn("Failed to allocate copy of path: %m");
		return -1;
	}
	const int fd = open(dirname(copy.get()), O_RDONLY | O_CLOEXEC);
	if (fd < 0) {
		pw_log_warn("Failed to open directory: %m");
		return fd;
	}
	const int res = fsync(fd);
	if (res < 0)
		pw_log_warn("Failed to sync directory: %m");
	if (close(fd) < 0)
		pw_log_warn("Failed to close file descriptor: %m");
	return res;
}

} // namespace

int hs_atomic_file_write(const char *path, hs_atomic_file_write_cb write, void *data)
{
	if (!path) {
		pw_log_warn("Failed to write file, path is null");
		return -1;
	}
	if (!write) {
		pw_log_warn("Failed to write file, write callback is null");
		return -1;
	}

	const hs_malloc_ptr<char> tmp = make_tmp_path(path);
	if (!tmp)
		return -1;

	hs_file_ptr stream;
	int res = open_tmp(tmp.get(), &stream);
	if (res < 0)
		return res;

	res = write(stream.get(), data);
	if (res < 0) {
		pw_log_warn("Write callback failed");
		return res;
	}
	res = finish_tmp(std::move(stream));
	if (res < 0)
		return res;

	res = std::rename(tmp.get(), path);
	if (res < 0) {
		pw_log_warn("Failed to rename tmp file: %m");
		return res;
	}
	return sync_dir(path);
}
