#include "Frames.h"
#include "GatedBoard.h"
#include "base/DetachedThread.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zandor {
namespace {

using namespace std::chrono_literals;

struct ScreenGeometry {
    uint64_t width, height, offset;
};
constexpr ScreenGeometry Top{raw::TopWidth, raw::TopHeight, raw::TopOffset};
constexpr ScreenGeometry Bottom{raw::BottomWidth, raw::BottomHeight, raw::BottomOffset};

// The obvious cut, pixel by pixel, straight from the board's storage order: column x, row y (0 at
// the top) lies at pixel x * height + (height - 1 - y).
std::vector<uint8_t> referenceCut(const uint8_t* raw, ScreenGeometry screen) {
    std::vector<uint8_t> rows(screen.width * screen.height * 3);
    for (uint64_t y = 0; y < screen.height; ++y) {
        for (uint64_t x = 0; x < screen.width; ++x) {
            const uint8_t* from = raw + screen.offset + 3 * (x * screen.height + (screen.height - 1 - y));
            std::copy(from, from + 3, rows.begin() + long(3 * (y * screen.width + x)));
        }
    }
    return rows;
}

TEST(ScreenCut, TakesEachPixelFromTheBoardsColumnOrder) {
    // Every raw pixel holds its own pixel index, so a screen pixel tells where it came from.
    std::vector<uint8_t> rawFrame(raw::BlockBytes);
    for (uint64_t i = 0; i < raw::FrameBytes / 3; ++i) {
        rawFrame[3 * i] = static_cast<uint8_t>(i >> 16);
        rawFrame[3 * i + 1] = static_cast<uint8_t>(i >> 8);
        rawFrame[3 * i + 2] = static_cast<uint8_t>(i);
    }
    std::vector<uint8_t> top(400 * 240 * 3), bottom(320 * 240 * 3);
    CaptureScreen::cut(rawFrame.data() + raw::TopOffset, top.data(), 400, 240);
    CaptureScreen::cut(rawFrame.data() + raw::BottomOffset, bottom.data(), 320, 240);
    const auto pixelAt = [](const std::vector<uint8_t>& rows, uint64_t width, uint64_t x, uint64_t y) {
        const uint8_t* p = rows.data() + 3 * (y * width + x);
        return p[0] << 16 | p[1] << 8 | p[2];
    };
    EXPECT_EQ(pixelAt(top, 400, 0, 0), 239);        // raw bytes 717 to 719
    EXPECT_EQ(pixelAt(top, 400, 1, 0), 240 + 239);  // the next column up
    EXPECT_EQ(pixelAt(top, 400, 0, 1), 238);        // the row below sits one pixel earlier
    EXPECT_EQ(pixelAt(bottom, 320, 0, 239), 96000); // raw bytes 288000 to 288002
}

using CaptureScreenPipeline = test::GatedDeviceTest;

// The screens' fast cut, compared with the obvious one over frames whose every byte differs.
TEST_F(CaptureScreenPipeline, ScreensPublishTheCutOfEachRawFrameWithItsTimeStamp) {
    auto rawObserver = m_device->addObserver(m_wakeup);
    auto topObserver = m_device->screen(0)->addObserver(m_wakeup);
    auto bottomObserver = m_device->screen(1)->addObserver(m_wakeup);
    ASSERT_TRUE(m_device->startListening());
    auto raws = test::takeFrames(*m_device, rawObserver, *m_wakeup, 6);
    auto tops = test::takeFrames(*m_device->screen(0), topObserver, *m_wakeup, 6);
    auto bottoms = test::takeFrames(*m_device->screen(1), bottomObserver, *m_wakeup, 6);
    m_device->stopListening();
    ASSERT_EQ(raws.size() + tops.size() + bottoms.size(), 18u);
    for (size_t n = 0; n < 6; ++n) {
        for (const auto& [cut, screen] : {std::pair{tops[n], Top}, std::pair{bottoms[n], Bottom}}) {
            EXPECT_EQ(cut->timestamp(), raws[n]->timestamp());
            EXPECT_EQ(std::vector<uint8_t>(cut->data(), cut->data() + cut->size()),
                      referenceCut(raws[n]->data(), screen))
                << "frame " << n << ", screen at offset " << screen.offset;
        }
    }
}

TEST_F(CaptureScreenPipeline, AStoppedScreenPublishesNothingMoreButKeepsItsObservers) {
    auto top = m_device->screen(0)->addObserver(m_wakeup);
    m_board->holdAt(3);
    ASSERT_TRUE(m_device->startListening());
    ASSERT_TRUE(m_board->waitUntilHeld(3));
    m_device->stopListening();
    m_board->release();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));

    EXPECT_LE(test::drain(*m_device->screen(0), top), 3u);
    EXPECT_TRUE(m_device->screen(0)->hasObservers());
    EXPECT_FALSE(m_device->hasObservers()) << "the device lets go of the screens' queues";

    // Listening again, the same observer receives frames again.
    ASSERT_TRUE(m_device->startListening());
    EXPECT_EQ(test::takeFrames(*m_device->screen(0), top, *m_wakeup, 1).size(), 1u);
}

} // namespace
} // namespace zandor
