// A layout that places the right eye, fed by the demo board through the whole pipeline while 3D is
// switched on and off.

#include "DemoCount.h"
#include "Frames.h"
#include "PluginBundles.h"
#include "base/Wakeup.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/ClassicBoard.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "layouts/CaptureLayout.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <vector>

namespace zandor {
namespace {

constexpr uint64_t CanvasWidth = 1120;

// The rows of a `width`-pixel screen placed at column `x` of the canvas.
std::vector<uint8_t> placed(const CaptureData& canvas, uint64_t x, uint64_t width) {
    std::vector<uint8_t> rows;
    for (uint64_t y = 0; y < raw::TopHeight; ++y) {
        const uint8_t* row = canvas.data() + (y * CanvasWidth + x) * 3;
        rows.insert(rows.end(), row, row + width * 3);
    }
    return rows;
}

std::vector<uint8_t> flatScreen(const std::vector<uint8_t>& flat, ScreenId id) {
    std::vector<uint8_t> rows(screenColumns(id) * ColumnBytes);
    CaptureScreen::cut(flat.data(), ColumnOrder::Classic, id, rows.data());
    return rows;
}

enum class Shown { Flat, ThreeD, Wrong };

// What a composite shows, checked against the demo board's own pictures of the board frame it
// reads from the left eye: its top screen twice, or its two eyes; both with its bottom screen.
Shown shown(const CaptureData& composite) {
    const uint64_t n = test::demoCount(composite.data(), CanvasWidth, DemoBoard::CountX, DemoBoard::CountY);
    std::vector<uint8_t> flat(raw::FrameBytes), rightEye(raw::BottomOffset);
    DemoBoard::render(n, flat.data());
    DemoBoard::renderRightEye(n, rightEye.data());
    std::vector<uint8_t> right(raw::TopWidth * ColumnBytes);
    CaptureScreen::cut(rightEye.data(), right.data(), raw::TopWidth, raw::TopHeight);
    const auto top = flatScreen(flat, ScreenId::Top);
    if (placed(composite, 0, 400) != top ||
        placed(composite, 800, 320) != flatScreen(flat, ScreenId::Bottom)) {
        return Shown::Wrong;
    }
    const auto second = placed(composite, 400, 400);
    return second == top ? Shown::Flat : second == right ? Shown::ThreeD : Shown::Wrong;
}

TEST(ThreeDLayout, TheRightEyeShowsTheTopScreenWithout3DAndTheRightEyeWithItWhileTheRunGoesOn) {
    QTemporaryDir folder;
    auto plugin = test::parsedPlugin(
        folder.path(), QStringLiteral("eyes.zdplugin"),
        test::layoutDescriptor(QStringLiteral("Eyes"), 1, CanvasWidth, 240,
                               QStringLiteral("<object type=\"screen_top\" x=\"0\" y=\"0\"/>"
                                              "<object type=\"screen_top_right\" x=\"400\" y=\"0\"/>"
                                              "<object type=\"screen_bottom\" x=\"800\" y=\"0\"/>")));

    auto device =
        CaptureDevice::create(std::make_unique<ClassicBoard>(std::make_unique<DemoBoard>(), "Demo board"));
    auto layout = CaptureLayout::createWithPlugin(plugin, device);
    const auto wakeup = std::make_shared<Wakeup>();
    auto observer = layout->addObserver(wakeup);
    ASSERT_TRUE(layout->startListening());
    ASSERT_TRUE(device->startListening());

    // Each switch is taken between two frames: the composites show one picture, then the other,
    // never a mix, and their numbers go on growing.
    uint64_t lastNumber = 0;
    for (const bool threeD : {false, true, false, true}) {
        device->set3D(threeD);
        const Shown wanted = threeD ? Shown::ThreeD : Shown::Flat;
        int seen = 0;
        for (int taken = 0; seen < 3; ++taken) {
            ASSERT_LT(taken, 600) << "3D " << threeD << " never showed";
            const auto frames = test::takeFrames(*layout, observer, *wakeup, 1);
            ASSERT_EQ(frames.size(), 1u);
            const Shown now = shown(*frames[0]);
            ASSERT_NE(now, Shown::Wrong) << "composite " << frames[0]->number();
            EXPECT_TRUE(now == wanted || seen == 0) << "the old picture came back after the new one";
            seen += now == wanted;
            EXPECT_GT(frames[0]->number(), lastNumber);
            lastNumber = frames[0]->number();
        }
    }
    layout->removeObserver(observer);
    layout->stopListening();
    device->stopListening();
}

} // namespace
} // namespace zandor
