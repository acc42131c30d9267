// The screens' fast cut against the obvious one, pixel by pixel, for every shape up to 37 x 37
// (partial blocks of four rows, single rows and columns, odd widths) and for both real screens.

#include "capture/CaptureScreen.h"
#include "capture/RawFrame.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace zandor {
namespace {

// Screen pixel (x, y) is area pixel x * height + (height - 1 - y).
std::vector<uint8_t> slowCut(const std::vector<uint8_t>& area, uint64_t width, uint64_t height) {
    std::vector<uint8_t> rows(width * height * 3);
    for (uint64_t y = 0; y < height; ++y) {
        for (uint64_t x = 0; x < width; ++x) {
            for (uint64_t c = 0; c < 3; ++c) {
                rows[3 * (y * width + x) + c] = area[3 * (x * height + (height - 1 - y)) + c];
            }
        }
    }
    return rows;
}

// Cuts an area of exactly width * height pixels (so that a read past it shows under the
// sanitizers) into a buffer with guard bytes on both sides, which must stay untouched.
::testing::AssertionResult cutsLikeTheObviousCut(std::mt19937_64& random, uint64_t width, uint64_t height) {
    constexpr uint64_t Guard = 64;
    constexpr uint8_t GuardByte = 0xA5;
    std::vector<uint8_t> area(width * height * 3);
    for (auto& byte : area) {
        byte = static_cast<uint8_t>(random());
    }
    const uint64_t bytes = area.size();
    std::vector<uint8_t> out(bytes + 2 * Guard, GuardByte);
    CaptureScreen::cut(area.data(), out.data() + Guard, width, height);
    const std::vector<uint8_t> cut(out.begin() + Guard, out.begin() + long(Guard + bytes));
    const std::vector<uint8_t> expected = slowCut(area, width, height);
    for (uint64_t i = 0; i < bytes; ++i) {
        if (cut[i] != expected[i]) {
            const uint64_t pixel = i / 3;
            return ::testing::AssertionFailure() << width << " x " << height << ": pixel (" << pixel % width
                                                 << ", " << pixel / width << ") differs";
        }
    }
    for (uint64_t i = 0; i < Guard; ++i) {
        if (out[i] != GuardByte || out[Guard + bytes + i] != GuardByte) {
            return ::testing::AssertionFailure()
                   << width << " x " << height << ": written outside the screen";
        }
    }
    return ::testing::AssertionSuccess();
}

TEST(ScreenCut, EveryShapeCutsLikeThePixelByPixelCut) {
    std::mt19937_64 random(20240611);
    for (uint64_t width = 1; width <= 37; ++width) {
        for (uint64_t height = 1; height <= 37; ++height) {
            ASSERT_TRUE(cutsLikeTheObviousCut(random, width, height));
        }
    }
    EXPECT_TRUE(cutsLikeTheObviousCut(random, 401, 241));
    EXPECT_TRUE(cutsLikeTheObviousCut(random, raw::TopWidth, raw::TopHeight));
    EXPECT_TRUE(cutsLikeTheObviousCut(random, raw::BottomWidth, raw::BottomHeight));
}

} // namespace
} // namespace zandor
