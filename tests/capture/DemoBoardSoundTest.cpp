// The demo board's sound: a frame's worth of samples at the board's rate, and beeps that start
// with the picture's flashes.

#include "capture/CaptureData.h"
#include "capture/ClassicBoard.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numbers>

namespace zandor {
namespace {

using Status = Board::FrameStatus;

TEST(DemoBoardSound, FramesCarryTheBoardsRateExactlyOverAnyStretch) {
    // 100 seconds of frames hold 100 seconds of samples, to the sample, from wherever they start.
    for (const uint64_t start : {uint64_t{0}, uint64_t{59}, uint64_t{1'000'003}}) {
        uint64_t samples = 0;
        for (uint64_t n = start; n < start + 6000; ++n) {
            ASSERT_TRUE(DemoBoard::samples(n) == 545 || DemoBoard::samples(n) == 546) << "frame " << n;
            samples += DemoBoard::samples(n);
        }
        EXPECT_NEAR(static_cast<double>(samples), 100 * raw::SoundRate, 1.0) << "from frame " << start;
    }
}

bool isWhite(const CaptureData& frame) {
    return std::all_of(frame.data(), frame.data() + raw::FrameBytes,
                       [](uint8_t byte) { return byte == 255; });
}

bool isSilent(std::span<const int16_t> sound) {
    return std::all_of(sound.begin(), sound.end(), [](int16_t value) { return value == 0; });
}

TEST(DemoBoardSound, ABeepStartsWithEachFlashAndLastsAFewFrames) {
    auto model = std::make_unique<DemoBoard>();
    model->setFlashes(true);
    ClassicBoard board(std::move(model), "Demo board");
    ASSERT_FALSE(board.open({}));
    auto frame = CaptureData::create(raw::BlockBytes);
    // Frames as fast as they come, until a flash (one comes every second of the wall clock) and
    // the frames after its beep.
    int64_t flash = -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (uint64_t n = 0; flash < 0 || static_cast<int64_t>(n) <= flash + DemoBoard::BeepFrames; ++n) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "no flash came";
        ASSERT_EQ(board.readFrame(*frame), Status::Complete);
        const auto sound = frame->sound();
        ASSERT_EQ(sound.size(), 2 * DemoBoard::samples(n));
        if (flash < 0 && isWhite(*frame)) {
            flash = static_cast<int64_t>(n);
        }
        const bool beeping = flash >= 0 && static_cast<int64_t>(n) < flash + DemoBoard::BeepFrames;
        if (!beeping) {
            EXPECT_TRUE(isSilent(sound)) << "frame " << n << " beeps without a flash";
            continue;
        }
        // A 1 kHz sine, the same on both channels, in phase with the board's sample count.
        for (size_t i = 0; i < sound.size(); i += 2) {
            const double t = static_cast<double>(DemoBoard::firstSample(n) + i / 2) / raw::SoundRate;
            ASSERT_NEAR(sound[i], DemoBoard::Amplitude * std::sin(2 * std::numbers::pi * 1000 * t), 1.0)
                << "frame " << n << " sample " << i / 2;
            ASSERT_EQ(sound[i + 1], sound[i]);
        }
    }
}

} // namespace
} // namespace zandor
