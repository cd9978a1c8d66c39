#include "assert.hpp"

#include <cstdio>
#include <cstdlib>

void hs_assert_failed(const char *text, const char *file, unsigned int line, const char *function)
{
	std::fprintf(stderr, "'%s' failed at %s:%u %s()\n", text, file, line, function);
	std::abort();
}

void hs_unreachable(const char *file, unsigned int line, const char *function)
{
	std::fprintf(stderr, "Code should not be reached at %s:%u %s()\n", file, line, function);
	std::abort();
}
