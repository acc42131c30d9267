#pragma once

#include <cstdint>
#include <vector>

namespace zandor::test {

// The obvious cut of one screen out of a raw frame, pixel by pixel, straight from the board's
// storage order: column x, row y (0 at the top) lies at pixel x * height + (height - 1 - y).
std::vector<uint8_t> referenceScreen(const uint8_t* raw, uint64_t offset, uint64_t width, uint64_t height);

} // namespace zandor::test
