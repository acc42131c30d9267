#pragma once

#include <cstdint>

namespace zandor::raw {

// The board's raw frame: both screens one after the other, each stored column by column, left
// column first, every column from the bottom row up; 3 bytes a pixel.
constexpr uint64_t FrameBytes = 518400;
// After the picture the board sends the sound it captured during the frame: signed 16-bit
// little-endian values, two channels interleaved (left first), at most MaxSoundValues of them.
constexpr uint64_t MaxSoundValues = 17536;
constexpr uint64_t ReadBytes = FrameBytes + 2 * MaxSoundValues;
constexpr int SoundChannels = 2;
// Samples a second per channel: the console's sound clock, 67027964 Hz, over 2048.
constexpr double SoundRate = 67027964.0 / 2048.0;
// The frame block has 512 spare bytes that only the rounding of the last bulk read may fill.
constexpr int BulkBlockBytes = 512;
constexpr uint64_t BlockBytes = ReadBytes + BulkBlockBytes;
// The largest read of any board (the FT601 board's in 3D: both eyes and the sound); the device's
// frame blocks hold it.
constexpr uint64_t MaxReadBytes = 842752;
constexpr uint64_t MaxBlockBytes = MaxReadBytes + BulkBlockBytes;

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
