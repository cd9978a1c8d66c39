#include "node-pattern.hpp"

#include <string>

#include <gtest/gtest.h>

#include "log-capture.hpp"

TEST(NodePattern, MatchesAnywhereInTheName)
{
	EXPECT_TRUE(hs_node_pattern_matches("b+c", "abbcd"));
	EXPECT_FALSE(hs_node_pattern_matches("^b", "abc"));
	EXPECT_TRUE(hs_node_pattern_matches("^(mic|ear)[0-9]$", "ear3"));
	EXPECT_TRUE(hs_node_pattern_matches("", "anything"));
}

TEST(NodePattern, ThatDoesNotCompileMatchesNothing)
{
	const hs_log_capture capture;
	EXPECT_FALSE(hs_node_pattern_matches("(", "("));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not compile pattern"), 1u) << capture.text();
}

TEST(NodePattern, OfMoreThan1023CharactersDoesNotCompile)
{
	const hs_log_capture capture;
	EXPECT_TRUE(hs_node_pattern_matches(std::string(1023, '.').c_str(), std::string(1023, 'x').c_str()));
	EXPECT_EQ(capture.complaints(), 0u) << capture.text();
	EXPECT_FALSE(hs_node_pattern_matches(std::string(1024, '.').c_str(), std::string(1024, 'x').c_str()));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not compile pattern"), 1u) << capture.text();
}

TEST(NodePattern, WhoseRepetitionsWouldFillTheMemoryDoesNotCompile)
{
	const hs_log_capture capture;
	const std::string xs(250, 'x');
	EXPECT_FALSE(hs_node_pattern_matches(("x" + std::string(40, '+')).c_str(), xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("(((x{1,255}){255}){,255}){255}", xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("x{99999999999999999999}", xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("(a[)]b(x{100})){100}", xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("x?{1,255}+", xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches(("()" + std::string(40, '+')).c_str(), xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("x{257}", xs.c_str()));
	EXPECT_FALSE(
		hs_node_pattern_matches((std::string(1019, '.') + "x{9}").c_str(), std::string(1028, 'x').c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("[a:]x{300}", xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("[[ab]x{300}", xs.c_str()));
	EXPECT_FALSE(hs_node_pattern_matches("[a[", xs.c_str()));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not compile pattern"), 11u) << capture.text();
	EXPECT_TRUE(hs_node_pattern_matches("^(x{2,25}){10}$", xs.c_str()));
	EXPECT_TRUE(hs_node_pattern_matches("^x+x+x+x+x+x+x+x+x+x+x+x+$", xs.c_str()));
	EXPECT_TRUE(hs_node_pattern_matches("^[x+]{100}[[:alpha:]+{}]{100}\\(?x", xs.c_str()));
	EXPECT_TRUE(hs_node_pattern_matches("x{256}", std::string(256, 'x').c_str()));
	EXPECT_TRUE(hs_node_pattern_matches("^[]x{99}{99}]$", "x"));
	EXPECT_TRUE(hs_node_pattern_matches("^[^]{99}{99}]$", "x"));
}

TEST(NodePattern, WhoseRepetitionsOfWhatMayBeLeftOutWouldTakeSecondsDoesNotCompile)
{
	hs_log_capture capture;
	const std::string row(33, '?');
	const std::string patterns[] = {
		"0++0+++" + row + "5???????,?????????++++-",
		"x???????????????++++",
		"(x?){17}",
		"(x*y){9}+",
		"(x|){17}",
		"(|x){17}",
		"(x||y){17}",
		"(x{0,3}){17}",
		"(x{,3}){17}",
		"(|x|)+++++",
		"($)+++++++",
		"(^){17}",
		"(\\b){17}",
		"(\\`){17}",
		"()++++",
		":$e*******D$z|",
		"^(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*(e*)*$",
	};
	for (const std::string &pattern : patterns) {
		capture.clear();
		EXPECT_FALSE(hs_node_pattern_matches(pattern.c_str(), "x")) << pattern;
		EXPECT_TRUE(capture.contains(SPA_LOG_LEVEL_WARN, "Could not compile pattern")) << pattern;
	}
	const std::string name(64, 'x');
	for (const char *pattern : {"(x?){16}", "(x|){16}", "(x{0,3}){8}", "(x|y|z){50}", "^(x?y*z{0,99}|)+$", "()+++",
				    "|x", "(^){16}", "(x[$x]){30}"})
		EXPECT_TRUE(hs_node_pattern_matches(pattern, name.c_str())) << pattern;
	for (const char *repeated : {"x?", "x*", "(x|)", "(x|)?"}) {
		std::string many;
		while (many.size() < 1000)
			many += repeated;
		EXPECT_TRUE(hs_node_pattern_matches(many.c_str(), "x")) << many;
		EXPECT_TRUE(hs_node_pattern_matches(("|" + many).c_str(), "x")) << many;
	}
}

/* The C library would try every way in which the group can have matched. */
TEST(NodePattern, ThatRefersBackToAGroupDoesNotCompile)
{
	const hs_log_capture capture;
	EXPECT_FALSE(hs_node_pattern_matches("(x)\\1", "xx"));
	EXPECT_FALSE(hs_node_pattern_matches("()++++\\1++++++", "x"));
	EXPECT_EQ(capture.count(SPA_LOG_LEVEL_WARN, "Could not compile pattern"), 2u) << capture.text();
	EXPECT_TRUE(hs_node_pattern_matches("(x)[\\1]", "x1"));
	EXPECT_TRUE(hs_node_pattern_matches("(x)\\\\1\\.", "x\\1."));
}

TEST(NodePattern, FaultSaysWhyNothingIsMatched)
{
	const hs_log_capture capture;
	EXPECT_EQ(hs_node_pattern_fault("^(mic|ear)+$"), "");
	EXPECT_EQ(hs_node_pattern_fault("(mic"), "Unmatched ( or \\(");
	for (const std::string &pattern : {std::string(1024, '.'), std::string{"(x?){17}"}})
		EXPECT_EQ(hs_node_pattern_fault(pattern.c_str()), "it is too long, or its repetitions are");
	EXPECT_EQ(hs_node_pattern_fault("(x)\\1"), "it refers back to a group");
	EXPECT_TRUE(capture.lines().empty()) << capture.text();
}
