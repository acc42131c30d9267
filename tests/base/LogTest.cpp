#include "base/Log.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace zandor {
namespace {

TEST(Log, FormatsLikePrintfIncludingLongLinesAndTheNewestCaptureGetsThem) {
    LogCapture outer;
    {
        LogCapture inner;
        logs::capture.info("offset '%ld', observer %i", 288000L, 255);
        EXPECT_EQ(inner.lines(), std::vector<std::string>{"offset '288000', observer 255"});
    }
    const std::string longText(2000, 'x');
    logs::recording.error("%s!", longText.c_str());
    EXPECT_EQ(outer.lines(), std::vector<std::string>{longText + "!"});
}

// On a terminal every line names its part and, unless it is only information, its level, so that
// a user can filter them; the text itself stays as written.
TEST(Log, TheTerminalSeesThePartAndTheLevel) {
    testing::internal::CaptureStderr();
    logs::capture.info("Capture device reconnected");
    logs::capture.warning("Capture device disconnected");
    logs::recording.error("Could not create bundle for recording");
    logs::media.quietly("only in the system log");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "capture: Capture device reconnected\n"
              "capture: warning: Capture device disconnected\n"
              "recording: error: Could not create bundle for recording\n");
}

TEST(Log, LinesFromManyThreadsStayWhole) {
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                logs::layouts.info("thread %d line %d", t, i);
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
