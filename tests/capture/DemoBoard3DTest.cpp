// The demo board's 3D frames as its driver reads them: the sound right after both eyes, the switch
// between two frames, and a block too small for both eyes.

#include "capture/CaptureData.h"
#include "capture/ClassicBoard.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

namespace zandor {
namespace {

using Status = Board::FrameStatus;

TEST(DemoBoard3D, TheSoundFollowsThePictureOfEachFrameAsItsChoiceFell) {
    ClassicBoard board(std::make_unique<DemoBoard>(), "Demo board");
    EXPECT_TRUE(board.info().can3D);
    // Asked before the opening, as the device does: the first frame already has both eyes.
    ASSERT_FALSE(board.set3D(true));
    ASSERT_FALSE(board.open({}));
    auto frame = CaptureData::create(raw::MaxBlockBytes);
    for (uint64_t n = 0; n < 4; ++n) {
        if (n == 2) {
            ASSERT_FALSE(board.set3D(false));
        }
        const ColumnOrder order = n < 2 ? ColumnOrder::Ft601ThreeD : ColumnOrder::Classic;
        ASSERT_EQ(board.readFrame(*frame), Status::Complete) << "frame " << n;
        EXPECT_EQ(frame->columnOrder(), order);
        // A frame's share of sound, from right after its picture: not picture bytes taken for sound.
        ASSERT_EQ(frame->sound().size(), 2 * DemoBoard::samples(n));
        EXPECT_EQ(reinterpret_cast<const uint8_t*>(frame->sound().data()),
                  frame->data() + pictureBytes(order));
    }
    // A block sized for flat frames cannot take both eyes: the frame is skipped, nothing overruns.
    ASSERT_FALSE(board.set3D(true));
    auto small = CaptureData::create(raw::BlockBytes);
    EXPECT_EQ(board.readFrame(*small), Status::Skipped);
    board.close();
}

} // namespace
} // namespace zandor
