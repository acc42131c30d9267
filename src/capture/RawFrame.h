#pragma once

#include <cstdint>

namespace zandor::raw {

// The board's raw frame: both screens one after the other, each stored column by column, left
// column first, every column from the bottom row up; 3 bytes a pixel.
constexpr uint64_t FrameBytes = 518400;
// The frame block has 512 spare bytes that only the rounding of the last bulk read may fill.
constexpr uint64_t BlockBytes = 518912;
constexpr int BulkBlockBytes = 512;

constexpr uint64_t TopWidth = 400;
constexpr uint64_t TopHeight = 240;
constexpr uint64_t TopOffset = 0;
constexpr uint64_t BottomWidth = 320;
constexpr uint64_t BottomHeight = 240;
constexpr uint64_t BottomOffset = 288000;

// USB identity and transfers of the board.
constexpr uint16_t VendorId = 0x16D0;
constexpr uint16_t ProductId = 0x06A3;
constexpr int Configuration = 1;
constexpr int Interface = 0;
constexpr uint8_t FrameRequestType = 0x40; // host to device, vendor, device recipient
constexpr uint8_t FrameRequest = 0x40;
constexpr unsigned ControlTimeoutMs = 30;
constexpr uint8_t BulkEndpoint = 0x82;
constexpr unsigned BulkTimeoutMs = 50;

} // namespace zandor::raw
