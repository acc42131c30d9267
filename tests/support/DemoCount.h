#pragma once

#include "capture/DemoBoard.h"

#include <cstdint>

namespace zandor::test {

// The frame count the demo board draws as blocks into a screen, read from a picture of rows of
// red, green and blue bytes `width` pixels wide whose strip of blocks starts at (x, y): the screen's
// top-left corner plus (DemoBoard::CountX, DemoBoard::CountY). A block counts by the mean brightness
// of its middle, so that a compressed picture reads the same.
inline uint64_t demoCount(const uint8_t* picture, uint64_t width, uint64_t x, uint64_t y) {
    constexpr uint64_t Block = DemoBoard::CountBlock, Middle = Block / 2;
    uint64_t count = 0;
    for (uint64_t bit = 0; bit < DemoBoard::CountBits; ++bit) {
        const uint64_t left = x + bit * Block + Block / 4, top = y + Block / 4;
        uint64_t sum = 0;
        for (uint64_t row = top; row < top + Middle; ++row) {
            for (uint64_t column = left; column < left + Middle; ++column) {
                const uint8_t* pixel = picture + (row * width + column) * 3;
                sum += uint64_t{pixel[0]} + pixel[1] + pixel[2];
            }
        }
        count = count << 1 | (sum > 128 * 3 * Middle * Middle ? 1 : 0);
    }
    return count;
}

} // namespace zandor::test
