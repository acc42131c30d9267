#include "GatedBoard.h"
#include "Frames.h"
#include "ScreenReference.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace zandor {
namespace {

using namespace std::chrono_literals;

struct ScreenGeometry {
    uint64_t width, height, offset;
};
constexpr ScreenGeometry Top{raw::TopWidth, raw::TopHeight, raw::TopOffset};
constexpr ScreenGeometry Bottom{raw::BottomWidth, raw::BottomHeight, raw::BottomOffset};

std::vector<uint8_t> cutScreen(const std::vector<uint8_t>& rawFrame, ScreenGeometry screen) {
    std::vector<uint8_t> rows(screen.width * screen.height * 3);
    CaptureScreen::cut(rawFrame.data() + screen.offset, rows.data(), screen.width, screen.height);
    return rows;
}

// The three bytes of a screen pixel, as one number.
uint32_t pixelAt(const std::vector<uint8_t>& rows, ScreenGeometry screen, uint64_t x, uint64_t y) {
    const uint8_t* p = rows.data() + 3 * (y * screen.width + x);
    return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
}

TEST(ScreenCut, MatchesTheObviousCutOverRandomFrames) {
    std::mt19937 random(12345);
    std::vector<uint8_t> rawFrame(raw::BlockBytes);
    for (int round = 0; round < 8; ++round) {
        for (auto& byte : rawFrame) {
            byte = static_cast<uint8_t>(random());
        }
        for (ScreenGeometry screen : {Top, Bottom}) {
            EXPECT_EQ(cutScreen(rawFrame, screen),
                      test::referenceScreen(rawFrame.data(), screen.offset, screen.width, screen.height))
                << "round " << round << ", screen at offset " << screen.offset;
        }
    }
}

TEST(ScreenCut, MatchesTheObviousCutForOddSizes) {
    std::mt19937 random(7);
    for (uint64_t width : {1u, 15u, 17u, 33u}) {
        for (uint64_t height : {1u, 16u, 31u}) {
            std::vector<uint8_t> area(width * height * 3);
            for (auto& byte : area) {
                byte = static_cast<uint8_t>(random());
            }
            std::vector<uint8_t> rows(area.size());
            CaptureScreen::cut(area.data(), rows.data(), width, height);
            EXPECT_EQ(rows, test::referenceScreen(area.data(), 0, width, height)) << width << "x" << height;
        }
    }
}

TEST(ScreenCut, TakesEachPixelFromTheBoardsColumnOrder) {
    // Every raw pixel holds its own pixel index, so a screen pixel tells where it came from.
    std::vector<uint8_t> rawFrame(raw::BlockBytes);
    for (uint64_t i = 0; i < raw::FrameBytes / 3; ++i) {
        rawFrame[3 * i] = static_cast<uint8_t>(i >> 16);
        rawFrame[3 * i + 1] = static_cast<uint8_t>(i >> 8);
        rawFrame[3 * i + 2] = static_cast<uint8_t>(i);
    }
    auto top = cutScreen(rawFrame, Top);
    EXPECT_EQ(pixelAt(top, Top, 0, 0), 239u);        // raw bytes 717 to 719
    EXPECT_EQ(pixelAt(top, Top, 399, 239), 95760u);  // raw bytes 287280 to 287282
    EXPECT_EQ(pixelAt(top, Top, 1, 0), 240u + 239u); // the next column up
    EXPECT_EQ(pixelAt(top, Top, 0, 1), 238u);        // the row below sits one pixel earlier
    auto bottom = cutScreen(rawFrame, Bottom);
    EXPECT_EQ(pixelAt(bottom, Bottom, 0, 239), 96000u); // raw bytes 288000 to 288002
    EXPECT_EQ(pixelAt(bottom, Bottom, 319, 0), 96000u + 319 * 240 + 239);
}

class CaptureScreenPipeline : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(DetachedThread::waitForAll(20s)); }
    void TearDown() override { EXPECT_TRUE(DetachedThread::waitForAll(20s)); }
};

TEST_F(CaptureScreenPipeline, ScreensPublishTheCutOfEachRawFrameWithItsTimeStamp) {
    auto device = CaptureDevice::create(std::make_unique<test::GatedBoard>());
    auto wakeup = std::make_shared<Wakeup>();
    auto rawObserver = device->addObserver(wakeup);
    auto topObserver = device->screen(0)->addObserver(wakeup);
    auto bottomObserver = device->screen(1)->addObserver(wakeup);
    ASSERT_TRUE(device->startListening());
    auto raws = test::takeFrames(*device, rawObserver, *wakeup, 6);
    auto tops = test::takeFrames(*device->screen(0), topObserver, *wakeup, 6);
    auto bottoms = test::takeFrames(*device->screen(1), bottomObserver, *wakeup, 6);
    device->stopListening();

    ASSERT_EQ(raws.size(), 6u);
    ASSERT_EQ(tops.size(), 6u);
    ASSERT_EQ(bottoms.size(), 6u);
    for (size_t n = 0; n < 6; ++n) {
        std::vector<uint8_t> rawBytes(raws[n]->data(), raws[n]->data() + raw::FrameBytes);
        EXPECT_EQ(tops[n]->timestamp(), raws[n]->timestamp());
        EXPECT_EQ(bottoms[n]->timestamp(), raws[n]->timestamp());
        ASSERT_EQ(tops[n]->size(), 288000u);
        ASSERT_EQ(bottoms[n]->size(), 230400u);
        EXPECT_EQ(std::vector<uint8_t>(tops[n]->data(), tops[n]->data() + tops[n]->size()),
                  test::referenceScreen(rawBytes.data(), Top.offset, Top.width, Top.height));
        EXPECT_EQ(std::vector<uint8_t>(bottoms[n]->data(), bottoms[n]->data() + bottoms[n]->size()),
                  test::referenceScreen(rawBytes.data(), Bottom.offset, Bottom.width, Bottom.height));
    }
}

TEST_F(CaptureScreenPipeline, AStoppedScreenPublishesNothingMoreButKeepsItsObservers) {
    test::GatedBoard* board;
    auto owned = std::make_unique<test::GatedBoard>();
    board = owned.get();
    auto device = CaptureDevice::create(std::move(owned));
    auto wakeup = std::make_shared<Wakeup>();
    auto top = device->screen(0)->addObserver(wakeup);
    board->holdAt(3);
    ASSERT_TRUE(device->startListening());
    ASSERT_TRUE(board->waitUntilHeld(3));
    device->stopListening();
    board->release();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));

    size_t published = 0;
    while (device->screen(0)->observe(top)) {
        ++published;
    }
    EXPECT_LE(published, 3u);
    EXPECT_TRUE(device->screen(0)->hasObservers());
    EXPECT_FALSE(device->hasObservers()) << "the device lets go of the screens' queues";

    // Listening again, the same observer receives frames again.
    ASSERT_TRUE(device->startListening());
    EXPECT_EQ(test::takeFrames(*device->screen(0), top, *wakeup, 1).size(), 1u);
    device->stopListening();
}

TEST_F(CaptureScreenPipeline, AFullScreenQueueLogsTheObserverThenTheScreen) {
    auto owned = std::make_unique<test::GatedBoard>();
    auto* board = owned.get();
    auto device = CaptureDevice::create(std::move(owned));
    auto slow = device->screen(1)->addObserver();
    board->holdAt(21);
    LogCapture log;
    ASSERT_TRUE(device->startListening());
    ASSERT_TRUE(board->waitUntilHeld(21));
    // Frames 0 to 20 went to the device; the bottom screen's 21st cut overflows the queue.
    EXPECT_TRUE(log.waitFor("Frame was skipped as the buffer for screen with offset '288000' became too large", 20s));
    device->stopListening();
    board->release();
    auto lines = log.lines();
    auto skipped = std::find(lines.begin(), lines.end(), "Skipped frame of observer 0");
    ASSERT_NE(skipped, lines.end());
    ASSERT_NE(skipped + 1, lines.end());
    EXPECT_EQ(*(skipped + 1), "Frame was skipped as the buffer for screen with offset '288000' became too large");
}

} // namespace
} // namespace zandor
