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
