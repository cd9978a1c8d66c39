/*
 * Checks for programming errors.
 *
 * A check that fails prints the expression, file, line and function to standard error and aborts, in
 * every build type. Use them in named functions only: a lambda has no name worth printing.
 */
#pragma once

[[noreturn]] void hs_assert_failed(const char *text, const char *file, unsigned int line, const char *function);
[[noreturn]] void hs_unreachable(const char *file, unsigned int line, const char *function);

/** Aborts unless `condition` holds, and says `text` failed. */
#define HS_ASSERT_TEXT(condition, text)                                                                                \
	do {                                                                                                           \
		if (!(condition))                                                                                      \
			hs_assert_failed(text, __FILE__, __LINE__, __func__);                                          \
	} while (false)

/** Aborts unless `condition` holds. */
#define HS_ASSERT(condition) HS_ASSERT_TEXT(condition, #condition)

/** Aborts: a branch that no input may reach was reached. */
#define HS_UNREACHABLE() hs_unreachable(__FILE__, __LINE__, __func__)
