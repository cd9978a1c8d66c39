#include "source-name.hpp"

#include <string>

#include <gtest/gtest.h>

TEST(SourceName, PathHasSlashesForDots)
{
	EXPECT_EQ(hs_source_name_to_path("AudioDevice0Input0.Unprocessed"), "AudioDevice0Input0/Unprocessed");
	EXPECT_EQ(hs_source_name_to_path("a.b.c"), "a/b/c");
}

TEST(SourceName, PathOfANameWithoutDotEndsInProcessed)
{
	EXPECT_EQ(hs_source_name_to_path("AudioDevice0Input0"), "AudioDevice0Input0/Processed");
	EXPECT_EQ(hs_source_name_to_path(""), "/Processed");
}

TEST(SourceName, PathHasUnderscoresForHyphens)
{
	EXPECT_EQ(hs_source_name_to_path("Mic-1-x.Raw-2"), "Mic_1_x/Raw_2");
	EXPECT_EQ(hs_source_name_to_path("Mic-1"), "Mic_1/Processed");
}

TEST(SourceName, PathIsCutAt255Bytes)
{
	EXPECT_EQ(hs_source_name_to_path(std::string(255, 'x') + ".y"), std::string(255, 'x'));
	EXPECT_EQ(hs_source_name_to_path(std::string(253, 'x') + ".yz"), std::string(253, 'x') + "/y");
	EXPECT_EQ(hs_source_name_to_path(std::string(250, 'x')), std::string(250, 'x') + "/Proc");
}

TEST(SourceName, DeviceIsWhatStandsBeforeTheFirstDot)
{
	EXPECT_EQ(hs_source_name_to_device("AudioDevice0Input0.Unprocessed.raw"), "AudioDevice0Input0");
	EXPECT_EQ(hs_source_name_to_device("AudioDevice0Input0"), "AudioDevice0Input0");
	EXPECT_EQ(hs_source_name_to_device(".x"), "");
	EXPECT_EQ(hs_source_name_to_device(""), "");
}

TEST(SourceName, DeviceKeepsItsHyphens)
{
	EXPECT_EQ(hs_source_name_to_device("Mic-1.Raw"), "Mic-1");
}

TEST(SourceName, DisplayHasABlankBeforeUpperCaseLettersAndNumbers)
{
	EXPECT_EQ(hs_source_name_to_display("AudioDevice0Input0"), "Audio Device 0 Input 0");
	EXPECT_EQ(hs_source_name_to_display("AudioDevice12Input345"), "Audio Device 12 Input 345");
	EXPECT_EQ(hs_source_name_to_display("micFront"), "mic Front");
	EXPECT_EQ(hs_source_name_to_display("ABC"), "A B C");
	EXPECT_EQ(hs_source_name_to_display("midZoneA"), "mid Zone A");
	EXPECT_EQ(hs_source_name_to_display(""), "");
}

TEST(SourceName, DisplayHasNoBlankInFront)
{
	EXPECT_EQ(hs_source_name_to_display("Mic"), "Mic");
	EXPECT_EQ(hs_source_name_to_display("12Mic"), "12 Mic");
	EXPECT_EQ(hs_source_name_to_display("9"), "9");
}

TEST(SourceName, UpperCaseLetterDoesNotEndARunOfDigits)
{
	EXPECT_EQ(hs_source_name_to_display("A1B2"), "A 1 B2");
	EXPECT_EQ(hs_source_name_to_display("Mic12A3"), "Mic 12 A3");
	EXPECT_EQ(hs_source_name_to_display("Mic1a2"), "Mic 1a 2");
	EXPECT_EQ(hs_source_name_to_display("Mic1_2"), "Mic 1_ 2");
	EXPECT_EQ(hs_source_name_to_display("1A2"), "1 A2");
}

TEST(SourceName, DirectionIsWhatTheNodeNameContainsInputFirst)
{
	EXPECT_EQ(hs_source_name_to_direction("AudioDevice0Input0.Unprocessed"), "Input");
	EXPECT_EQ(hs_source_name_to_direction("AudioDevice0Output0"), "Output");
	EXPECT_EQ(hs_source_name_to_direction("Output.Input"), "Input");
	EXPECT_EQ(hs_source_name_to_direction("mic.Input"), "Input");
	EXPECT_EQ(hs_source_name_to_direction("input"), "");
	EXPECT_EQ(hs_source_name_to_direction(""), "");
}

TEST(SourceName, CutKeepsWhatABufferOfThatSizeWouldHold)
{
	EXPECT_EQ(hs_source_name_cut("abcd", 5), "abcd");
	EXPECT_EQ(hs_source_name_cut("abcde", 5), "abcd");
	EXPECT_EQ(hs_source_name_cut("abcdefgh", 5), "abcd");
	EXPECT_EQ(hs_source_name_cut("", 1), "");
}
