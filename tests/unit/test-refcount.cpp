#include "refcount.hpp"

#include <cstdint>

#include <gtest/gtest.h>

#include <pipewire/properties.h>

#include "owned.hpp"

namespace {

class Refcount : public testing::Test
{
protected:
	hs_properties_ptr counts{pw_properties_new(nullptr, nullptr)};
};

using RefcountDeathTest = Refcount;

} // namespace

TEST_F(Refcount, FirstIncrementStoresOneAsText)
{
	hs_refcount_inc(counts.get(), "/a");
	EXPECT_STREQ(pw_properties_get(counts.get(), "/a"), "1");
	EXPECT_EQ(hs_refcount_get(counts.get(), "/a"), 1u);
}

TEST_F(Refcount, CountsEachKeyByItself)
{
	hs_refcount_inc(counts.get(), "/a");
	hs_refcount_inc(counts.get(), "/a");
	hs_refcount_inc(counts.get(), "/b");
	EXPECT_EQ(hs_refcount_get(counts.get(), "/a"), 2u);
	EXPECT_EQ(hs_refcount_get(counts.get(), "/b"), 1u);
}

TEST_F(Refcount, AnAbsentKeyReadsAsAllBitsSet)
{
	EXPECT_EQ(hs_refcount_get(counts.get(), "/a"), 4294967295u);
	EXPECT_EQ(pw_properties_get(counts.get(), "/a"), nullptr);
}

TEST_F(Refcount, ACountOfZeroStaysInTheTable)
{
	hs_refcount_inc(counts.get(), "/a");
	hs_refcount_dec(counts.get(), "/a");
	EXPECT_STREQ(pw_properties_get(counts.get(), "/a"), "0");
	EXPECT_EQ(hs_refcount_get(counts.get(), "/a"), 0u);
}

TEST_F(Refcount, DecrementingAnAbsentKeyGivesAllBitsSetLessOne)
{
	hs_refcount_dec(counts.get(), "/a");
	EXPECT_STREQ(pw_properties_get(counts.get(), "/a"), "4294967294");
}

TEST_F(RefcountDeathTest, DecrementingZeroAborts)
{
	pw_properties_set(counts.get(), "/a", "0");
	EXPECT_EXIT(hs_refcount_dec(counts.get(), "/a"), testing::KilledBySignal(SIGABRT),
		    "'count > 0' failed at .*refcount\\.cpp:[0-9]+ hs_refcount_dec\\(\\)");
}

TEST_F(RefcountDeathTest, ANullKeyAbortsInAllThree)
{
	const char *failed = "'key != \\(\\(void \\*\\)0\\)' failed at .*refcount\\.cpp:[0-9]+ ";
	EXPECT_EXIT(hs_refcount_inc(counts.get(), nullptr), testing::KilledBySignal(SIGABRT),
		    std::string{failed} + "hs_refcount_inc\\(\\)");
	EXPECT_EXIT(hs_refcount_dec(counts.get(), nullptr), testing::KilledBySignal(SIGABRT),
		    std::string{failed} + "hs_refcount_dec\\(\\)");
	EXPECT_EXIT(hs_refcount_get(counts.get(), nullptr), testing::KilledBySignal(SIGABRT),
		    std::string{failed} + "hs_refcount_get\\(\\)");
}
