#include "base/CommandLine.h"

#include <gtest/gtest.h>

namespace zandor {
namespace {

TEST(CommandLine, ReadsValuesFlagsAndPositionals) {
    CommandLine line({"board", "frames"}, {"play"});
    std::string error;
    ASSERT_TRUE(line.parse({"--board", "replay:/tmp/a b.raw", "--frames=12", "--play", "x.zdplugin"}, error))
        << error;
    EXPECT_EQ(line.value("board"), "replay:/tmp/a b.raw");
    EXPECT_EQ(line.value("frames"), "12");
    EXPECT_TRUE(line.flag("play"));
    EXPECT_EQ(line.positionals(), std::vector<std::string>{"x.zdplugin"});
    EXPECT_EQ(line.value("out"), std::nullopt);
}

TEST(CommandLine, RejectsUnknownOptionsAndMissingValues) {
    std::string error;
    EXPECT_FALSE(CommandLine({"board"}, {}).parse({"--bored", "demo"}, error));
    EXPECT_EQ(error, "Unknown option --bored");
    EXPECT_FALSE(CommandLine({"board"}, {}).parse({"--board"}, error));
    EXPECT_EQ(error, "Option --board needs a value");
    EXPECT_FALSE(CommandLine({}, {"play"}).parse({"--play=yes"}, error));
    EXPECT_EQ(error, "Option --play takes no value");
}

TEST(CommandLine, CountsAreWholeDecimalNumbersFromTheLeastAllowed) {
    EXPECT_EQ(CommandLine::parseCount("300"), 300u);
    EXPECT_EQ(CommandLine::parseCount("1", 1), 1u);
    EXPECT_EQ(CommandLine::parseCount("0", 1), std::nullopt);
    for (const char* bad : {"", "-1", "+3", "3x", " 3", "1e3", "99999999999999999999999"}) {
        EXPECT_EQ(CommandLine::parseCount(bad), std::nullopt) << bad;
    }
}

} // namespace
} // namespace zandor
