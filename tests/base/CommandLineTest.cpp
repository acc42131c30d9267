#include "base/CommandLine.h"

#include <gtest/gtest.h>

namespace zandor {
namespace {

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
