#include "capture/DropReport.h"

#include <gtest/gtest.h>

namespace zandor {
namespace {

using namespace std::chrono_literals;

// While frames keep dropping, a line at the first drop and then at most one a second; every drop
// is counted, and a new run is told of its first drop again.
TEST(DropReport, FirstDropThenOneLineASecondAndTheRunsCount) {
    DropReport report;
    const auto start = std::chrono::steady_clock::time_point{} + 1h;
    int lines = 0;
    for (int frame = 0; frame < 150; ++frame) { // two and a half seconds of drops at 60 a second
        lines += report.dropped(start + frame * 16667us) ? 1 : 0;
    }
    EXPECT_EQ(lines, 3); // at 0 s, 1 s and 2 s
    EXPECT_EQ(report.endRun(), 150u);
    EXPECT_EQ(report.endRun(), 0u) << "the count belongs to one run";
    EXPECT_TRUE(report.dropped(start + 2500ms)) << "the next run's first drop is logged at once";
}

} // namespace
} // namespace zandor
