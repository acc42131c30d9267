#include "ScreenCut.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace zandor {

namespace {

// Pixels of a tile, and its columns where the level does not say otherwise.
constexpr uint64_t Tile = 8;
constexpr uint64_t MaxTileColumns = 16;

// Pixels [first, last) of `count` columns, one at a time: the edges of an area whose sides are not
// multiples of a tile, and the whole cut where no vector instructions are at hand. `bottomRow`
// points at the first column's pixel in the screen's last row.
void cutPixels(const uint8_t* const* columns, uint64_t count, uint8_t* bottomRow, uint64_t rowBytes,
               uint64_t first, uint64_t last) {
    for (uint64_t c = 0; c < count; ++c) {
        for (uint64_t j = first; j < last; ++j) {
            std::memcpy(bottomRow + 3 * c - j * rowBytes, columns[c] + 3 * j, 3);
        }
    }
}

// Cuts the whole tiles of a tile column of `count` columns, at most the level's tile width: pixels
// [0, height rounded down to 8). Each row's bytes are written with stores that may go further, into
// the next tile column's part of the row, unless `exactRight`: that tile column, cut later,
// overwrites them.
using TileColumn = void (*)(const uint8_t* const* columns, uint64_t count, uint8_t* bottomRow,
                            uint64_t rowBytes, uint64_t height, bool exactRight);

void cutTileColumnScalar(const uint8_t* const* columns, uint64_t count, uint8_t* bottomRow, uint64_t rowBytes,
                         uint64_t height, bool) {
    cutPixels(columns, count, bottomRow, rowBytes, 0, height & ~(Tile - 1));
}

#if defined(__x86_64__)

// A tile is cut as two halves of 4 columns, each in 16-byte lanes of 4 pixels a column. A lane's
// pixels are spread to 4 bytes each (one shuffle a column), the columns' lanes then blended into
// rows without further shuffles, and each row packed back to 12 bytes (one shuffle a row). For the
// blends to find every row in place, column c of a half holds its pixel (p + c) % 4 at position p:
// row r then takes position p from column (r - p) % 4.
constexpr uint8_t Zeroed = 0x80;
using Lane = std::array<uint8_t, 16>;

// Spreads column `c`'s 4 pixels that start at byte `offset` of its lane.
constexpr Lane spreadLane(unsigned c, unsigned offset) {
    Lane mask{};
    for (unsigned p = 0; p < 4; ++p) {
        for (unsigned k = 0; k < 4; ++k) {
            mask[4 * p + k] = k < 3 ? static_cast<uint8_t>(offset + 3 * ((p + c) % 4) + k) : Zeroed;
        }
    }
    return mask;
}

// Packs row `r` into its first 12 bytes, columns in order.
constexpr Lane packLane(unsigned r) {
    Lane mask{};
    mask.fill(Zeroed);
    for (unsigned c = 0; c < 4; ++c) {
        for (unsigned k = 0; k < 3; ++k) {
            mask[3 * c + k] = static_cast<uint8_t>(4 * ((r + 4 - c) % 4) + k);
        }
    }
    return mask;
}

template <size_t Lanes> struct Masks { std::array<uint8_t, 16 * Lanes> bytes; };

constexpr Masks<2> twoLanes(const Lane& low, const Lane& high) {
    Masks<2> masks{};
    std::copy(low.begin(), low.end(), masks.bytes.begin());
    std::copy(high.begin(), high.end(), masks.bytes.begin() + 16);
    return masks;
}

// Blends of 4 positions: rows r and r + 2 (r is 0 or 1) come from two blends of column pairs, each
// serving both rows, and one blend each.
constexpr int pairBlend(unsigned r) {
    int mask = 0;
    for (unsigned p = 0; p < 4; ++p) {
        mask |= static_cast<int>((r + p) % 2) << p;
    }
    return mask;
}
constexpr int rowBlend(unsigned r) {
    int mask = 0;
    for (unsigned p = 0; p < 4; ++p) {
        mask |= static_cast<int>(((r + 4 - p) % 4) / 2) << p;
    }
    return mask;
}
// The same for 16-bit blends.
constexpr int wordBlend(int mask) {
    int words = 0;
    for (unsigned p = 0; p < 4; ++p) {
        if (mask & (1 << p)) {
            words |= 3 << (2 * p);
        }
    }
    return words;
}

__attribute__((target("sse4.1"))) inline void storePiece(uint8_t* at, __m128i piece, bool exact) {
    if (exact) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(at), piece);
        const auto last = static_cast<uint32_t>(_mm_extract_epi32(piece, 2));
        std::memcpy(at + 8, &last, sizeof last);
    } else {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(at), piece);
    }
}

__attribute__((target("sse4.1"))) inline void blendRows(const __m128i* spread, __m128i* rows) {
    const __m128i pairs01[2] = {_mm_blend_epi16(spread[0], spread[1], wordBlend(pairBlend(0))),
                                _mm_blend_epi16(spread[0], spread[1], wordBlend(pairBlend(1)))};
    const __m128i pairs23[2] = {_mm_blend_epi16(spread[2], spread[3], wordBlend(pairBlend(0))),
                                _mm_blend_epi16(spread[2], spread[3], wordBlend(pairBlend(1)))};
    rows[0] = _mm_blend_epi16(pairs01[0], pairs23[0], wordBlend(rowBlend(0)));
    rows[2] = _mm_blend_epi16(pairs01[0], pairs23[0], wordBlend(rowBlend(0) ^ 0xF));
    rows[1] = _mm_blend_epi16(pairs01[1], pairs23[1], wordBlend(rowBlend(1)));
    rows[3] = _mm_blend_epi16(pairs01[1], pairs23[1], wordBlend(rowBlend(1) ^ 0xF));
}

constexpr std::array<Lane, 4> LowSpread = {spreadLane(0, 0), spreadLane(1, 0), spreadLane(2, 0),
                                           spreadLane(3, 0)};
constexpr std::array<Lane, 4> HighSpread = {spreadLane(0, 4), spreadLane(1, 4), spreadLane(2, 4),
                                            spreadLane(3, 4)};
constexpr std::array<Lane, 4> Pack = {packLane(0), packLane(1), packLane(2), packLane(3)};

__attribute__((target("ssse3,sse4.1"))) void cutTileColumnSse41(const uint8_t* const* columns, uint64_t count,
                                                                uint8_t* bottomRow, uint64_t rowBytes,
                                                                uint64_t height, bool exactRight) {
    if (count < Tile) {
        cutTileColumnScalar(columns, count, bottomRow, rowBytes, height, exactRight);
        return;
    }
    auto load = [](const void* at) { return _mm_loadu_si128(static_cast<const __m128i*>(at)); };
    const __m128i spreads[2][4] = {{load(LowSpread[0].data()), load(LowSpread[1].data()),
                                    load(LowSpread[2].data()), load(LowSpread[3].data())},
                                   {load(HighSpread[0].data()), load(HighSpread[1].data()),
                                    load(HighSpread[2].data()), load(HighSpread[3].data())}};
    const __m128i packs[4] = {load(Pack[0].data()), load(Pack[1].data()), load(Pack[2].data()),
                              load(Pack[3].data())};
    // Pixels j to j + 3 come from the column's first 12 bytes of the tile, j + 4 to j + 7 from bytes
    // 12 to 23, read as 8 to 23 so as not to read past the tile.
    const uint64_t tiled = height & ~(Tile - 1);
    for (uint64_t j = 0; j < tiled; j += Tile) {
#pragma GCC unroll 2
        for (unsigned half = 0; half < 2; ++half) {
#pragma GCC unroll 2
            for (unsigned part = 0; part < 2; ++part) {
                __m128i spread[4], rows[4];
#pragma GCC unroll 4
                for (unsigned c = 0; c < 4; ++c) {
                    spread[c] =
                        _mm_shuffle_epi8(load(columns[4 * half + c] + 3 * j + 8 * part), spreads[part][c]);
                }
                blendRows(spread, rows);
                uint8_t* out = bottomRow - (j + 4 * part) * rowBytes + 12 * half;
#pragma GCC unroll 4
                for (unsigned r = 0; r < 4; ++r) {
                    storePiece(out - r * rowBytes, _mm_shuffle_epi8(rows[r], packs[r]),
                               half == 1 && exactRight);
                }
            }
        }
    }
}

__attribute__((target("avx2"))) inline void blendRows(const __m256i* spread, __m256i* rows) {
    // The same blend in both lanes.
    const __m256i pairs01[2] = {_mm256_blend_epi32(spread[0], spread[1], pairBlend(0) * 0x11),
                                _mm256_blend_epi32(spread[0], spread[1], pairBlend(1) * 0x11)};
    const __m256i pairs23[2] = {_mm256_blend_epi32(spread[2], spread[3], pairBlend(0) * 0x11),
                                _mm256_blend_epi32(spread[2], spread[3], pairBlend(1) * 0x11)};
    rows[0] = _mm256_blend_epi32(pairs01[0], pairs23[0], rowBlend(0) * 0x11);
    rows[2] = _mm256_blend_epi32(pairs01[0], pairs23[0], (rowBlend(0) ^ 0xF) * 0x11);
    rows[1] = _mm256_blend_epi32(pairs01[1], pairs23[1], rowBlend(1) * 0x11);
    rows[3] = _mm256_blend_epi32(pairs01[1], pairs23[1], (rowBlend(1) ^ 0xF) * 0x11);
}

// Both lanes of a register hold the same 4 pixels: of one of the left 4 columns in the low lane,
// of the column 4 to its right in the high one, each read with a 16-byte load that stays inside the
// tile's 24 bytes of its column (bytes 0 to 15 for pixels 0 to 3, bytes 8 to 23 for pixels 4 to 7).
constexpr std::array<Masks<2>, 4> LowPixelsSpread = {
    twoLanes(spreadLane(0, 0), spreadLane(0, 0)), twoLanes(spreadLane(1, 0), spreadLane(1, 0)),
    twoLanes(spreadLane(2, 0), spreadLane(2, 0)), twoLanes(spreadLane(3, 0), spreadLane(3, 0))};
constexpr std::array<Masks<2>, 4> HighPixelsSpread = {
    twoLanes(spreadLane(0, 4), spreadLane(0, 4)), twoLanes(spreadLane(1, 4), spreadLane(1, 4)),
    twoLanes(spreadLane(2, 4), spreadLane(2, 4)), twoLanes(spreadLane(3, 4), spreadLane(3, 4))};
constexpr std::array<Masks<2>, 4> WidePack = {twoLanes(Pack[0], Pack[0]), twoLanes(Pack[1], Pack[1]),
                                              twoLanes(Pack[2], Pack[2]), twoLanes(Pack[3], Pack[3])};

// Four rows of the tile, from the 4 pixels at byte `offset` of each column: the left 4 columns in the
// low lanes, the right 4 in the high ones.
__attribute__((target("avx2"), always_inline)) inline void
spreadRows(const uint8_t* const* columns, uint64_t offset, const __m256i* spreads, __m256i* rows) {
    __m256i spread[4];
#pragma GCC unroll 4
    for (unsigned c = 0; c < 4; ++c) {
        // Broadcasts are plain loads; the blend needs no shuffle unit.
        const __m256i left = _mm256_broadcastsi128_si256(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(columns[c] + offset)));
        const __m256i right = _mm256_broadcastsi128_si256(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(columns[c + 4] + offset)));
        spread[c] = _mm256_shuffle_epi8(_mm256_blend_epi32(left, right, 0xF0), spreads[c]);
    }
    blendRows(spread, rows);
}

// Writes a row's 24 bytes, with 8 more that spill into the next tile unless `Exact`.
template <bool Exact>
__attribute__((target("avx2"), always_inline)) inline void storeRow(uint8_t* at, __m256i row) {
    if (Exact) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(at), _mm256_castsi256_si128(row));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(at + 16), _mm256_extracti128_si256(row, 1));
    } else {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(at), row);
    }
}

template <bool Exact>
__attribute__((target("avx2"), always_inline)) inline void
cutTileAvx2(const uint8_t* const* columns, uint64_t j, uint8_t* bottomRow, uint64_t rowBytes,
            const __m256i* lowSpreads, const __m256i* highSpreads, const __m256i* packs) {
    __m256i rows[8];
    spreadRows(columns, 3 * j, lowSpreads, rows);
    spreadRows(columns, 3 * j + 8, highSpreads, rows + 4);
    // Packing leaves the left half of a row in bytes 0 to 11, the right half in 16 to 27.
    const __m256i joined = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7);
    uint8_t* out = bottomRow - j * rowBytes;
#pragma GCC unroll 8
    for (unsigned r = 0; r < 8; ++r) {
        const __m256i packed = _mm256_shuffle_epi8(rows[r], packs[r % 4]);
        storeRow<Exact>(out - r * rowBytes, _mm256_permutevar8x32_epi32(packed, joined));
    }
}

__attribute__((target("avx2"))) inline __m256i load(const Masks<2>& masks) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(masks.bytes.data()));
}

template <bool Exact>
__attribute__((target("avx2"))) void cutTileColumnAvx2(const uint8_t* const* columns, uint8_t* bottomRow,
                                                       uint64_t rowBytes, uint64_t height) {
    const __m256i lowSpreads[4] = {load(LowPixelsSpread[0]), load(LowPixelsSpread[1]),
                                   load(LowPixelsSpread[2]), load(LowPixelsSpread[3])};
    const __m256i highSpreads[4] = {load(HighPixelsSpread[0]), load(HighPixelsSpread[1]),
                                    load(HighPixelsSpread[2]), load(HighPixelsSpread[3])};
    const __m256i packs[4] = {load(WidePack[0]), load(WidePack[1]), load(WidePack[2]), load(WidePack[3])};
    const uint64_t tiled = height & ~(Tile - 1);
    for (uint64_t j = 0; j < tiled; j += Tile) {
        cutTileAvx2<Exact>(columns, j, bottomRow, rowBytes, lowSpreads, highSpreads, packs);
    }
}

void cutTileColumnAvx2(const uint8_t* const* columns, uint64_t count, uint8_t* bottomRow, uint64_t rowBytes,
                       uint64_t height, bool exactRight) {
    if (count < Tile) {
        cutTileColumnScalar(columns, count, bottomRow, rowBytes, height, exactRight);
    } else if (exactRight) {
        cutTileColumnAvx2<true>(columns, bottomRow, rowBytes, height);
    } else {
        cutTileColumnAvx2<false>(columns, bottomRow, rowBytes, height);
    }
}

// With AVX-512's byte permutations of two registers (VBMI), a tile is 16 columns by 8 pixels. A
// register holds two columns' 8 pixels, one in each 32-byte half; three rounds of permutations, each
// picking bytes from two registers, make 4 rows of 4 columns, then pairs of rows of 8 columns, then
// rows of all 16 columns (48 bytes), each written with one store. Stores to rows far apart cost more
// than permutations: one store a row of 16 columns beats two of 8 columns, though it needs a third
// round of permutations.
constexpr uint64_t WideTile = 16;
using Table = std::array<uint8_t, 64>;

// A round's table: `rows` rows of `columns` columns, row r at byte 3 * columns * r, column c at 3c,
// each pixel's 3 bytes taken from the byte `source(r, c)` of the two registers (0 to 127) onwards.
template <class Source> constexpr Table roundTable(unsigned rows, unsigned columns, Source source) {
    Table table{};
    for (unsigned r = 0; r < rows; ++r) {
        for (unsigned c = 0; c < columns; ++c) {
            for (unsigned k = 0; k < 3; ++k) {
                table[3 * (columns * r + c) + k] = static_cast<uint8_t>(source(r, c) + k);
            }
        }
    }
    return table;
}

// Rows 4s to 4s + 3 of columns 0 to 3, from the registers of columns 0 and 1 and of columns 2 and 3
// (a column's 8 pixels in each 32-byte half).
constexpr Table quadRows(unsigned s) {
    return roundTable(4, 4,
                      [s](unsigned p, unsigned c) { return 64 * (c / 2) + 32 * (c % 2) + 3 * (4 * s + p); });
}

// Rows 2q and 2q + 1 of columns 0 to 7, from the quads of columns 0 to 3 and 4 to 7.
constexpr Table pairRows(unsigned q) {
    return roundTable(2, 8,
                      [q](unsigned h, unsigned c) { return 64 * (c / 4) + 12 * (2 * q + h) + 3 * (c % 4); });
}

// Row h of a pair, all 16 columns, from the pairs of columns 0 to 7 and 8 to 15.
constexpr Table wideRow(unsigned h) {
    return roundTable(1, 16, [h](unsigned, unsigned c) { return 64 * (c / 8) + 24 * h + 3 * (c % 8); });
}

constexpr std::array<Table, 6> TileTables = {quadRows(0), quadRows(1), pairRows(0),
                                             pairRows(1), wideRow(0),  wideRow(1)};

constexpr __mmask32 TileColumnBytes = (__mmask32{1} << 24) - 1;

#define ZANDOR_VBMI "avx2,avx512f,avx512bw,avx512vl,avx512vbmi"

// Columns a and b's 8 pixels: 32-byte loads, whose last 8 bytes lie past the tile. They must lie
// inside the area, or the load is masked.
template <bool Masked>
__attribute__((target(ZANDOR_VBMI), always_inline)) inline __m512i twoColumns(const uint8_t* a,
                                                                              const uint8_t* b) {
    const __m256i low = Masked ? _mm256_maskz_loadu_epi8(TileColumnBytes, a)
                               : _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a));
    const __m256i high = Masked ? _mm256_maskz_loadu_epi8(TileColumnBytes, b)
                                : _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
    // The zero-masked insertion keeping every element is the plain one, without its undefined
    // pass-through operand.
    return _mm512_maskz_inserti64x4(0xFF, _mm512_castsi256_si512(low), high, 1);
}

// The 4 pairs of rows of 8 columns, from byte `offset` of each.
template <bool Masked>
__attribute__((target(ZANDOR_VBMI), always_inline)) inline void
rowPairs(const uint8_t* const* columns, uint64_t offset, const __m512i* tables, __m512i* pairs) {
    const __m512i c01 = twoColumns<Masked>(columns[0] + offset, columns[1] + offset);
    const __m512i c23 = twoColumns<Masked>(columns[2] + offset, columns[3] + offset);
    const __m512i c45 = twoColumns<Masked>(columns[4] + offset, columns[5] + offset);
    const __m512i c67 = twoColumns<Masked>(columns[6] + offset, columns[7] + offset);
    const __m512i left[2] = {_mm512_permutex2var_epi8(c01, tables[0], c23),
                             _mm512_permutex2var_epi8(c01, tables[1], c23)};
    const __m512i right[2] = {_mm512_permutex2var_epi8(c45, tables[0], c67),
                              _mm512_permutex2var_epi8(c45, tables[1], c67)};
#pragma GCC unroll 4
    for (unsigned q = 0; q < 4; ++q) {
        pairs[q] = _mm512_permutex2var_epi8(left[q / 2], tables[2 + q % 2], right[q / 2]);
    }
}

// Stores all of a row's 64 bytes, the last 16 in the next tile column's part of the row, unless
// `Exact`: then only the bytes `rowMask` keeps.
template <bool Masked, bool Exact>
__attribute__((target(ZANDOR_VBMI), always_inline)) inline void
cutTileVbmi(const uint8_t* const* columns, uint64_t j, uint8_t* bottomRow, uint64_t rowBytes,
            const __m512i* tables, __mmask64 rowMask) {
    __m512i left[4], right[4];
    rowPairs<Masked>(columns, 3 * j, tables, left);
    rowPairs<Masked>(columns + 8, 3 * j, tables, right);
    uint8_t* out = bottomRow - j * rowBytes;
#pragma GCC unroll 8
    for (unsigned r = 0; r < 8; ++r) {
        const __m512i row = _mm512_permutex2var_epi8(left[r / 2], tables[4 + r % 2], right[r / 2]);
        if (Exact) {
            _mm512_mask_storeu_epi8(out - r * rowBytes, rowMask, row);
        } else {
            _mm512_storeu_si512(out - r * rowBytes, row);
        }
    }
}

template <bool Exact>
__attribute__((target(ZANDOR_VBMI))) void cutWideTileColumn(const uint8_t* const* columns, uint8_t* bottomRow,
                                                            uint64_t rowBytes, uint64_t height,
                                                            __mmask64 rowMask) {
    __m512i tables[TileTables.size()];
    for (size_t i = 0; i < TileTables.size(); ++i) {
        tables[i] = _mm512_loadu_si512(TileTables[i].data());
    }
    const uint64_t tiled = height & ~(Tile - 1);
    // Two tiles a turn give the processor two independent chains of permutations to overlap; the
    // second's loads reach 8 bytes past it, into the column's next 3 pixels.
    uint64_t j = 0;
    for (; j + 2 * Tile + 3 <= height; j += 2 * Tile) {
        cutTileVbmi<false, Exact>(columns, j, bottomRow, rowBytes, tables, rowMask);
        cutTileVbmi<false, Exact>(columns, j + Tile, bottomRow, rowBytes, tables, rowMask);
    }
    for (; j < tiled; j += Tile) {
        if (j + 11 <= height) {
            cutTileVbmi<false, Exact>(columns, j, bottomRow, rowBytes, tables, rowMask);
        } else {
            cutTileVbmi<true, Exact>(columns, j, bottomRow, rowBytes, tables, rowMask);
        }
    }
}

#undef ZANDOR_VBMI

// Up to 16 columns: where there are fewer, the first column stands in for the missing ones, whose
// bytes are not stored.
void cutTileColumnVbmi(const uint8_t* const* columns, uint64_t count, uint8_t* bottomRow, uint64_t rowBytes,
                       uint64_t height, bool exactRight) {
    const uint8_t* wide[WideTile];
    for (uint64_t c = 0; c < WideTile; ++c) {
        wide[c] = columns[c < count ? c : 0];
    }
    const __mmask64 rowMask = (__mmask64{1} << (3 * count)) - 1;
    if (exactRight || count < WideTile) {
        cutWideTileColumn<true>(wide, bottomRow, rowBytes, height, rowMask);
    } else {
        cutWideTileColumn<false>(wide, bottomRow, rowBytes, height, rowMask);
    }
}

#endif

struct TileKernel {
    TileColumn cut = cutTileColumnScalar;
    uint64_t columns = Tile;
};

TileKernel tileKernel(CutLevel level) {
    switch (level) {
    case CutLevel::Scalar:
        break;
#if defined(__x86_64__)
    case CutLevel::Sse41:
        return {cutTileColumnSse41, Tile};
    case CutLevel::Avx2:
        return {cutTileColumnAvx2, Tile};
    case CutLevel::Avx512Vbmi:
        return {cutTileColumnVbmi, WideTile};
#else
    default:
        break;
#endif
    }
    return {};
}

template <class ColumnAt>
void cutColumns(ColumnAt columnAt, uint8_t* rows, uint64_t width, uint64_t height, CutLevel level) {
    if (width == 0 || height == 0) {
        return;
    }
    const TileKernel kernel = tileKernel(level);
    const uint64_t rowBytes = 3 * width;
    uint8_t* bottomRow = rows + (height - 1) * rowBytes;
    const uint64_t tiledHeight = height & ~(Tile - 1);
    const uint8_t* columns[MaxTileColumns];
    // Left to right: a tile column's stores may spill into the next one's bytes.
    for (uint64_t x = 0; x < width; x += kernel.columns) {
        const uint64_t count = std::min(kernel.columns, width - x);
        for (uint64_t c = 0; c < count; ++c) {
            columns[c] = columnAt(x + c);
        }
        uint8_t* out = bottomRow + 3 * x;
        kernel.cut(columns, count, out, rowBytes, height, x + 2 * kernel.columns > width);
        cutPixels(columns, count, out, rowBytes, tiledHeight, height);
    }
}

constexpr uint64_t MaxScreenColumns = 400;
using ColumnTable = std::array<uint16_t, MaxScreenColumns>;

// The raw column of every screen column, by order and screen.
const ColumnTable& columnTable(ColumnOrder order, ScreenId id) {
    static const auto tables = [] {
        constexpr unsigned Orders = 3;
        std::array<ColumnTable, Orders * ScreenCount> all{};
        for (unsigned o = 0; o < Orders; ++o) {
            for (unsigned s = 0; s < ScreenCount; ++s) {
                const auto order = static_cast<ColumnOrder>(o);
                const auto screen = static_cast<ScreenId>(s);
                for (uint64_t x = 0; x < screenColumns(screen); ++x) {
                    all[o * ScreenCount + s][x] = static_cast<uint16_t>(rawColumn(order, screen, x));
                }
            }
        }
        return all;
    }();
    return tables[static_cast<unsigned>(order) * ScreenCount + static_cast<unsigned>(id)];
}

struct Levels {
    std::array<CutLevel, 4> levels{CutLevel::Scalar};
    size_t count = 1;

    Levels() {
#if defined(__x86_64__)
        // Reads the processor's features, in case this runs before the run-time's own constructors.
        __builtin_cpu_init();
        if (__builtin_cpu_supports("ssse3") && __builtin_cpu_supports("sse4.1")) {
            levels[count++] = CutLevel::Sse41;
        }
        if (__builtin_cpu_supports("avx2")) {
            levels[count++] = CutLevel::Avx2;
        }
        if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
            __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi")) {
            levels[count++] = CutLevel::Avx512Vbmi;
        }
#endif
    }
};

const Levels& machineLevels() {
    static const Levels levels;
    return levels;
}

} // namespace

std::span<const CutLevel> ScreenCut::levels() {
    const Levels& levels = machineLevels();
    return {levels.levels.data(), levels.count};
}

CutLevel ScreenCut::fastest() {
    return levels().back();
}

const char* ScreenCut::name(CutLevel level) {
    switch (level) {
    case CutLevel::Scalar:
        return "scalar";
    case CutLevel::Sse41:
        return "sse4.1";
    case CutLevel::Avx2:
        return "avx2";
    case CutLevel::Avx512Vbmi:
        return "avx512vbmi";
    }
    return "";
}

void ScreenCut::cut(const uint8_t* picture, ColumnOrder order, ScreenId id, uint8_t* rows, CutLevel level) {
    const ColumnTable& table = columnTable(order, id);
    cutColumns([&](uint64_t x) { return picture + table[x] * ColumnBytes; }, rows, screenColumns(id),
               ColumnPixels, level);
}

void ScreenCut::cut(const uint8_t* area, uint8_t* rows, uint64_t width, uint64_t height, CutLevel level) {
    const uint64_t columnBytes = 3 * height;
    cutColumns([&](uint64_t x) { return area + x * columnBytes; }, rows, width, height, level);
}

} // namespace zandor
