#pragma once

#include <cstdint>

namespace zandor {

// The screens a raw frame holds. With the console's 3D picture the top screen is the left eye and
// TopRight the right one; without it TopRight shows the top screen.
enum class ScreenId : uint8_t { Top = 0, Bottom = 1, TopRight = 2 };
constexpr unsigned ScreenCount = 3;

// How a board stores the screens' columns in its raw frame (each column 240 pixels of 3 bytes,
// from the bottom row up):
// - Classic: the 400 top columns, then the 320 bottom ones (the 16d0:06a3 board);
// - Ft601: the first 80 top columns, then 320 pairs of a bottom column and the next top column;
// - Ft601ThreeD: 80 pairs of left-eye and right-eye top columns, then 320 triples of left-eye top,
//   right-eye top and bottom, except the last, which is left-eye top, bottom, right-eye top.
enum class ColumnOrder : uint8_t { Classic, Ft601, Ft601ThreeD };

constexpr uint64_t ColumnPixels = 240;
constexpr uint64_t ColumnBytes = 3 * ColumnPixels;

// The screen's width in columns (400 or 320).
uint64_t screenColumns(ScreenId screen);
// The bytes of a frame's picture in this order: 518400, or 806400 with both eyes.
uint64_t pictureBytes(ColumnOrder order);
// The raw column of a frame in `order` that holds column `x` (from the left) of `screen`.
uint64_t rawColumn(ColumnOrder order, ScreenId screen, uint64_t x);

} // namespace zandor
