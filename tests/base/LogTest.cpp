#include "base/Log.h"

#include <gtest/gtest.h>

#include <string>

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

} // namespace
} // namespace zandor
