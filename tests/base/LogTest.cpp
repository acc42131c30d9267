#include "base/Log.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace zandor {
namespace {

TEST(Log, FormatsLikePrintfIncludingLongLines) {
    LogCapture capture;
    log("Skipped frame of observer %i", 255);
    log("Frame was skipped as the buffer for screen with offset '%ld' became too large", 288000L);
    std::string longText(2000, 'x');
    log("%s!", longText.c_str());
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "Skipped frame of observer 255");
    EXPECT_EQ(lines[1], "Frame was skipped as the buffer for screen with offset '288000' became too large");
    EXPECT_EQ(lines[2], longText + "!");
}

TEST(Log, TheNewestCaptureGetsTheLinesUntilItEnds) {
    LogCapture outer;
    {
        LogCapture inner;
        log("one");
        EXPECT_EQ(inner.count("one"), 1u);
    }
    log("two");
    EXPECT_EQ(outer.lines(), std::vector<std::string>{"two"});
}

TEST(Log, LinesFromManyThreadsStayWhole) {
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                log("thread %d line %d", t, i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(capture.lines().size(), 800u);
    EXPECT_EQ(capture.countPrefix("thread 3 line "), 200u);
}

} // namespace
} // namespace zandor
