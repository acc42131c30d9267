// The demo board's 3D picture: both eyes in the 3D firmware's column order, the sound after them,
// and the switch between two frames.

#include "DemoCount.h"
#include "capture/CaptureData.h"
#include "capture/CaptureScreen.h"
#include "capture/ClassicBoard.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <vector>

namespace zandor {
namespace {

using Status = Board::FrameStatus;

std::vector<uint8_t> cutOut(const uint8_t* picture, ColumnOrder order, ScreenId id) {
    std::vector<uint8_t> rows(screenColumns(id) * ColumnBytes);
    CaptureScreen::cut(picture, order, id, rows.data());
    return rows;
}

uint64_t differingPixels(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    uint64_t count = 0;
    for (size_t i = 0; i + 2 < a.size(); i += 3) {
        count += a[i] != b[i] || a[i + 1] != b[i + 1] || a[i + 2] != b[i + 2];
    }
    return count;
}

TEST(DemoBoard3D, EyesAndSoundFollowTheChoiceFromTheNextFrameOn) {
    ClassicBoard board(std::make_unique<DemoBoard>(), "Demo board");
    EXPECT_TRUE(board.can3D());
    EXPECT_TRUE(board.info().can3D);
    // Asked before the opening, as the device does: the first frame already has both eyes.
    ASSERT_FALSE(board.set3D(true));
    ASSERT_FALSE(board.open({}));
    auto frame = CaptureData::create(raw::MaxBlockBytes);
    std::vector<uint8_t> flat(raw::FrameBytes);

    for (uint64_t n = 0; n < 3; ++n) {
        ASSERT_EQ(board.readFrame(*frame), Status::Complete) << "frame " << n;
        ASSERT_EQ(frame->columnOrder(), ColumnOrder::Ft601ThreeD);
        // The sound right after both eyes: a frame's share, not picture bytes read as sound.
        ASSERT_EQ(frame->sound().size(), 2 * DemoBoard::samples(n));
        EXPECT_EQ(reinterpret_cast<const uint8_t*>(frame->sound().data()),
                  frame->data() + pictureBytes(ColumnOrder::Ft601ThreeD));

        DemoBoard::render(n, flat.data());
        const auto left = cutOut(frame->data(), ColumnOrder::Ft601ThreeD, ScreenId::Top);
        const auto right = cutOut(frame->data(), ColumnOrder::Ft601ThreeD, ScreenId::TopRight);
        EXPECT_EQ(left, cutOut(flat.data(), ColumnOrder::Classic, ScreenId::Top)) << "frame " << n;
        EXPECT_EQ(cutOut(frame->data(), ColumnOrder::Ft601ThreeD, ScreenId::Bottom),
                  cutOut(flat.data(), ColumnOrder::Classic, ScreenId::Bottom))
            << "frame " << n;
        // The right eye is another picture of the same moment: its label and marker differ, its
        // frame count (every column of the strip in its place) reads the same.
        EXPECT_GT(differingPixels(left, right), 500u) << "frame " << n;
        EXPECT_EQ(test::demoCount(right.data(), raw::TopWidth, DemoBoard::CountX, DemoBoard::CountY), n);
    }

    // Off again: the next frame is flat, its sound right after the flat picture.
    ASSERT_FALSE(board.set3D(false));
    EXPECT_FALSE(board.is3D());
    ASSERT_EQ(board.readFrame(*frame), Status::Complete);
    EXPECT_EQ(frame->columnOrder(), ColumnOrder::Classic);
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(frame->sound().data()), frame->data() + raw::FrameBytes);
    ASSERT_EQ(frame->sound().size(), 2 * DemoBoard::samples(3));
    DemoBoard::render(3, flat.data());
    EXPECT_TRUE(std::equal(flat.begin(), flat.end(), frame->data()));

    // A block sized for flat frames cannot take both eyes: the frame is skipped, nothing overruns.
    ASSERT_FALSE(board.set3D(true));
    auto small = CaptureData::create(raw::BlockBytes);
    EXPECT_EQ(board.readFrame(*small), Status::Skipped);
    board.close();
}

} // namespace
} // namespace zandor
