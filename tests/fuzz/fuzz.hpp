/*
 * What the fuzz targets share.
 *
 * A target is a function of bytes: it hands them to one part of the daemon and requires what has to hold
 * whatever they are. libFuzzer invents the bytes; in every other build replay.cpp plays the corpus.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

[[noreturn]] inline void hs_fuzz_fail(const char *what, const char *file, int line)
{
	std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
	std::abort();
}

/** Ends the process where the condition does not hold, whatever NDEBUG says. */
#define HS_REQUIRE(condition)                                                                                          \
	do {                                                                                                           \
		if (!(condition))                                                                                      \
			hs_fuzz_fail(#condition, __FILE__, __LINE__);                                                  \
	} while (0)

/** Takes the input apart; at its end everything is 0 and empty. */
class hs_fuzz_input
{
public:
	hs_fuzz_input(const uint8_t *data, size_t size) : left{reinterpret_cast<const char *>(data), size}
	{
	}

	uint8_t byte()
	{
		uint8_t value = 0;
		if (left.empty())
			return value;
		value = static_cast<uint8_t>(left[0]);
		left.remove_prefix(1);
		return value;
	}

	template <typename T>
	T number()
	{
		T value{};
		const size_t n = left.size() < sizeof(T) ? left.size() : sizeof(T);
		std::memcpy(&value, left.data(), n);
		left.remove_prefix(n);
		return value;
	}

	/** Up to the next terminator. */
	std::string text()
	{
		const size_t end = left.find('\0');
		const std::string value{left.substr(0, end)};
		left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);
		return value;
	}

	std::string_view rest() const
	{
		return left;
	}

	bool at_end() const
	{
		return left.empty();
	}

private:
	std::string_view left;
};

/** A copy of exactly that size, so that a read beyond the end is seen. */
inline std::unique_ptr<char[]> hs_fuzz_copy(std::string_view text)
{
	auto copy = std::make_unique_for_overwrite<char[]>(text.size());
	std::memcpy(copy.get(), text.data(), text.size());
	return copy;
}

/** A file in memory, for what is read from a path. */
class hs_fuzz_file
{
public:
	hs_fuzz_file() : fd{memfd_create("hear-sense-fuzz", MFD_CLOEXEC)}
	{
		HS_REQUIRE(fd >= 0);
		std::snprintf(name, sizeof(name), "/proc/self/fd/%d", fd);
	}

	~hs_fuzz_file()
	{
		close(fd);
	}

	hs_fuzz_file(const hs_fuzz_file &) = delete;
	hs_fuzz_file &operator=(const hs_fuzz_file &) = delete;

	void fill(const void *data, size_t size)
	{
		HS_REQUIRE(ftruncate(fd, 0) == 0);
		HS_REQUIRE(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
	}

	const char *path() const
	{
		return name;
	}

private:
	int fd;
	char name[32];
};
