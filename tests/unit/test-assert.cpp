/* An assertion of ours stays in builds that have none of C's. */
#ifndef NDEBUG
#define NDEBUG
#endif
#include "assert.hpp"

#include <string>

#include <gtest/gtest.h>

namespace {

constexpr int check_line = __LINE__ + 4;

void check(int answer)
{
	HS_ASSERT(answer == 42);
}

constexpr int check_with_text_line = __LINE__ + 4;

void check_with_text(const char *key)
{
	HS_ASSERT_TEXT(key, "key != ((void *)0)");
}

constexpr int unreachable_line = __LINE__ + 4;

void reach_the_unreachable()
{
	HS_UNREACHABLE();
}

int calls;

bool count_call()
{
	calls++;
	return true;
}

} // namespace

TEST(AssertDeathTest, PrintsExpressionFileLineAndFunctionAndAborts)
{
	EXPECT_EXIT(check(41), testing::KilledBySignal(SIGABRT),
		    "^'answer == 42' failed at .*test-assert\\.cpp:" + std::to_string(check_line) +
			    " check\\(\\)\n$");
}

TEST(AssertDeathTest, PrintsTheGivenText)
{
	EXPECT_EXIT(check_with_text(nullptr), testing::KilledBySignal(SIGABRT),
		    "^'key != \\(\\(void \\*\\)0\\)' failed at .*:" + std::to_string(check_with_text_line) +
			    " check_with_text\\(\\)\n$");
}

TEST(AssertDeathTest, ReachingTheUnreachablePrintsWhereAndAborts)
{
	EXPECT_EXIT(reach_the_unreachable(), testing::KilledBySignal(SIGABRT),
		    "^Code should not be reached at .*test-assert\\.cpp:" + std::to_string(unreachable_line) +
			    " reach_the_unreachable\\(\\)\n$");
}

TEST(Assert, LetsWhatHoldsPassAndLooksOnce)
{
	calls = 0;
	HS_ASSERT(count_call());
	HS_ASSERT_TEXT(count_call(), "count_call");
	EXPECT_EQ(calls, 2);
}
