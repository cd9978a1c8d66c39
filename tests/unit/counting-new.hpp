/*
 * Tells how often `new` has taken memory in a program linked with counting-new.cpp.
 */
#pragma once

#include <cstddef>

size_t hs_count_allocations();
