#include "ScreenReference.h"

namespace zandor::test {

std::vector<uint8_t> referenceScreen(const uint8_t* raw, uint64_t offset, uint64_t width, uint64_t height) {
    std::vector<uint8_t> rows(width * height * 3);
    for (uint64_t y = 0; y < height; ++y) {
        for (uint64_t x = 0; x < width; ++x) {
            uint64_t from = offset + 3 * (x * height + (height - 1 - y));
            uint64_t to = 3 * (y * width + x);
            for (int c = 0; c < 3; ++c) {
                rows[to + c] = raw[from + c];
            }
        }
    }
    return rows;
}

} // namespace zandor::test
