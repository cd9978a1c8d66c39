#include "counting-new.hpp"

#include <cstdlib>
#include <new>

namespace {

size_t n_allocations;

} // namespace

size_t hs_count_allocations()
{
	return n_allocations;
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
	n_allocations++;
	return std::malloc(size > 0 ? size : 1);
}

void *operator new(size_t size)
{
	if (void *memory = operator new(size, std::nothrow))
		return memory;
	throw std::bad_alloc{};
}

void operator delete(void *memory) noexcept
{
	std::free(memory);
}

void operator delete(void *memory, size_t) noexcept
{
	std::free(memory);
}
