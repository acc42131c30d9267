#pragma once

#include "ColumnOrder.h"

#include <cstdint>
#include <span>

namespace zandor {

// The instructions a cut works with: plain C++ everywhere; on x86-64 also 128-bit shuffles and
// blends (SSSE3 and SSE4.1), 256-bit ones (AVX2), or AVX-512's byte permutations of two 512-bit
// registers (VBMI), where the processor has them.
enum class CutLevel : uint8_t { Scalar, Sse41, Avx2, Avx512Vbmi };

// Turns a board's columns (240 pixels of 3 bytes, from the bottom row up) into a screen's rows (top
// to bottom, 3 bytes a pixel). The work goes in tiles of 8 pixels by 8 columns (16 with AVX-512),
// a tile column from the bottom row up, so that the columns' and the rows' cache lines are used
// while they are in the first-level cache.
class ScreenCut {
public:
    // The levels this processor runs, plainest first. Every level gives the same bytes.
    static std::span<const CutLevel> levels();
    // The last of levels(): what cuts use unless told otherwise.
    static CutLevel fastest();
    static const char* name(CutLevel level);

    // Cuts screen `id` out of a raw frame's picture whose columns lie in `order`. `level` must be
    // one of levels().
    static void cut(const uint8_t* picture, ColumnOrder order, ScreenId id, uint8_t* rows,
                    CutLevel level = fastest());
    // Cuts an area of `width` columns, left first, each of `height` pixels from the bottom row up,
    // into `rows`, top to bottom.
    static void cut(const uint8_t* area, uint8_t* rows, uint64_t width, uint64_t height,
                    CutLevel level = fastest());
};

} // namespace zandor
