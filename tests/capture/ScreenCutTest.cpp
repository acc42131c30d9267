// The screens' cut, at every instruction level this machine has, against an obvious pixel by pixel
// cut: whole raw frames in each board's column order (the columns' places written out here from what
// the boards send, independently of the cut's own tables), and areas of every shape up to 37 x 37
// (partial tiles, single rows and columns, odd widths).

#include "capture/CaptureScreen.h"
#include "capture/ScreenCut.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace zandor {
namespace {

constexpr uint64_t Pixels = 240;
constexpr uint64_t Guard = 64;
constexpr uint8_t GuardByte = 0xA5;

std::vector<uint8_t> randomBytes(std::mt19937_64& random, uint64_t size) {
    std::vector<uint8_t> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    return bytes;
}

// Cuts into a buffer with guard bytes on both sides, which must stay untouched, and compares with
// `expected`. `what` names the case in a failure.
template <class Cut>
::testing::AssertionResult cutsAsExpected(const std::string& what, const std::vector<uint8_t>& expected,
                                          uint64_t width, Cut cut) {
    const uint64_t bytes = expected.size();
    std::vector<uint8_t> out(bytes + 2 * Guard, GuardByte);
    cut(out.data() + Guard);
    for (uint64_t i = 0; i < bytes; ++i) {
        if (out[Guard + i] != expected[i]) {
            const uint64_t pixel = i / 3;
            return ::testing::AssertionFailure()
                   << what << ": pixel (" << pixel % width << ", " << pixel / width << ") differs";
        }
    }
    for (uint64_t i = 0; i < Guard; ++i) {
        if (out[i] != GuardByte || out[Guard + bytes + i] != GuardByte) {
            return ::testing::AssertionFailure() << what << ": written outside the screen";
        }
    }
    return ::testing::AssertionSuccess();
}

struct Place {
    ScreenId screen;
    uint64_t x;
};

// What each raw column of a frame is, in the order the board sends them.
std::vector<Place> columnsSent(ColumnOrder order) {
    std::vector<Place> sent;
    auto send = [&](ScreenId screen, uint64_t x) { sent.push_back({screen, x}); };
    switch (order) {
    case ColumnOrder::Classic:
        for (uint64_t x = 0; x < 400; ++x) {
            send(ScreenId::Top, x);
        }
        for (uint64_t x = 0; x < 320; ++x) {
            send(ScreenId::Bottom, x);
        }
        break;
    case ColumnOrder::Ft601:
        for (uint64_t x = 0; x < 80; ++x) {
            send(ScreenId::Top, x);
        }
        for (uint64_t k = 0; k < 320; ++k) {
            send(ScreenId::Bottom, k);
            send(ScreenId::Top, 80 + k);
        }
        break;
    case ColumnOrder::Ft601ThreeD:
        for (uint64_t k = 0; k < 80; ++k) {
            send(ScreenId::Top, k);
            send(ScreenId::TopRight, k);
        }
        for (uint64_t k = 0; k < 319; ++k) {
            send(ScreenId::Top, 80 + k);
            send(ScreenId::TopRight, 80 + k);
            send(ScreenId::Bottom, k);
        }
        send(ScreenId::Top, 399);
        send(ScreenId::Bottom, 319);
        send(ScreenId::TopRight, 399);
        break;
    }
    return sent;
}

// Screen `id` of `picture`, pixel by pixel: raw pixel j of a column is the screen's row 239 - j.
// Without the right eye in the frame, the right screen shows the top one.
std::vector<uint8_t> slowScreen(const std::vector<uint8_t>& picture, ColumnOrder order, ScreenId id) {
    const uint64_t width = id == ScreenId::Bottom ? 320 : 400;
    const std::vector<Place> sent = columnsSent(order);
    const bool rightEyeSent = order == ColumnOrder::Ft601ThreeD;
    const ScreenId wanted = id == ScreenId::TopRight && !rightEyeSent ? ScreenId::Top : id;
    std::vector<uint8_t> rows(width * Pixels * 3);
    for (uint64_t column = 0; column < sent.size(); ++column) {
        if (sent[column].screen != wanted) {
            continue;
        }
        for (uint64_t j = 0; j < Pixels; ++j) {
            for (uint64_t c = 0; c < 3; ++c) {
                rows[3 * ((Pixels - 1 - j) * width + sent[column].x) + c] =
                    picture[3 * (column * Pixels + j) + c];
            }
        }
    }
    return rows;
}

TEST(ScreenCut, EveryBoardsFrameCutsLikeThePixelByPixelCutAtEveryLevel) {
    std::mt19937_64 random(20261126);
    for (const ColumnOrder order : {ColumnOrder::Classic, ColumnOrder::Ft601, ColumnOrder::Ft601ThreeD}) {
        // Exactly the picture, so that a read past it shows under the sanitizers.
        const std::vector<uint8_t> picture = randomBytes(random, pictureBytes(order));
        ASSERT_EQ(columnsSent(order).size() * 3 * Pixels, picture.size());
        for (const ScreenId id : {ScreenId::Top, ScreenId::Bottom, ScreenId::TopRight}) {
            const std::vector<uint8_t> expected = slowScreen(picture, order, id);
            for (const CutLevel level : ScreenCut::levels()) {
                const std::string what = "order " + std::to_string(static_cast<int>(order)) + ", screen " +
                                         std::to_string(static_cast<int>(id)) + ", " + ScreenCut::name(level);
                EXPECT_TRUE(cutsAsExpected(what, expected, screenColumns(id), [&](uint8_t* rows) {
                    ScreenCut::cut(picture.data(), order, id, rows, level);
                }));
            }
        }
    }
}

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

::testing::AssertionResult areaCutsLikeTheObviousCut(std::mt19937_64& random, uint64_t width, uint64_t height,
                                                     CutLevel level) {
    // Exactly width * height pixels, so that a read past the area shows under the sanitizers.
    const std::vector<uint8_t> area = randomBytes(random, width * height * 3);
    const std::string what =
        std::to_string(width) + " x " + std::to_string(height) + ", " + ScreenCut::name(level);
    return cutsAsExpected(what, slowCut(area, width, height), width,
                          [&](uint8_t* rows) { ScreenCut::cut(area.data(), rows, width, height, level); });
}

TEST(ScreenCut, EveryShapeCutsLikeThePixelByPixelCutAtEveryLevel) {
    std::mt19937_64 random(20240611);
    for (const CutLevel level : ScreenCut::levels()) {
        for (uint64_t width = 1; width <= 37; ++width) {
            for (uint64_t height = 1; height <= 37; ++height) {
                ASSERT_TRUE(areaCutsLikeTheObviousCut(random, width, height, level));
            }
        }
        EXPECT_TRUE(areaCutsLikeTheObviousCut(random, 401, 241, level));
        EXPECT_TRUE(areaCutsLikeTheObviousCut(random, 400, Pixels, level));
        EXPECT_TRUE(areaCutsLikeTheObviousCut(random, 320, Pixels, level));
    }
}

TEST(ScreenCut, ScreensCutTheirFramesTheSameWay) {
    // The screens' own entry point, at the level it picks, and the plain level is always there.
    ASSERT_FALSE(ScreenCut::levels().empty());
    EXPECT_EQ(CutLevel::Scalar, ScreenCut::levels().front());
    std::mt19937_64 random(5);
    const std::vector<uint8_t> picture = randomBytes(random, pictureBytes(ColumnOrder::Ft601));
    EXPECT_TRUE(cutsAsExpected(
        "screen", slowScreen(picture, ColumnOrder::Ft601, ScreenId::Bottom), 320, [&](uint8_t* rows) {
            CaptureScreen::cut(picture.data(), ColumnOrder::Ft601, ScreenId::Bottom, rows);
        }));
}

} // namespace
} // namespace zandor
