/*
 * Which descriptors the test has open, and how many more it may open.
 */
#pragma once

#include <cstddef>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

inline bool hs_descriptor_is_open(int fd)
{
	return fcntl(fd, F_GETFD) >= 0;
}

/** The descriptor that the next open gets. */
inline int hs_next_descriptor()
{
	const int fd = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
	close(fd);
	return fd;
}

inline size_t hs_count_descriptors()
{
	constexpr int most = 4096;
	size_t n = 0;
	for (int fd = 0; fd < most; ++fd)
		n += hs_descriptor_is_open(fd);
	return n;
}

/** The hs_descriptor_limit under which that many more can be opened. */
inline int hs_descriptor_limit_for(int room)
{
	int limit = 0;
	while (hs_descriptor_is_open(limit) || room-- > 0)
		++limit;
	return limit;
}

/** No more descriptors than those below `limit`, while the object lives. */
class hs_descriptor_limit
{
public:
	explicit hs_descriptor_limit(int limit)
	{
		getrlimit(RLIMIT_NOFILE, &previous);
		rlimit other = previous;
		other.rlim_cur = static_cast<rlim_t>(limit);
		setrlimit(RLIMIT_NOFILE, &other);
	}

	~hs_descriptor_limit()
	{
		setrlimit(RLIMIT_NOFILE, &previous);
	}

	hs_descriptor_limit(const hs_descriptor_limit &) = delete;
	hs_descriptor_limit &operator=(const hs_descriptor_limit &) = delete;

private:
	rlimit previous;
};
