/*
 * Lets `new (std::nothrow)` fail on purpose: hs_fail_call("new", 1, ENOMEM). Include it in one source only.
 */
#pragma once

#include <cstddef>
#include <new>

#include "failing.hpp"

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
	return hs_must_fail("new") ? nullptr : ::operator new(size);
}
