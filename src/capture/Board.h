#pragma once

#include "base/Error.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zandor {

class CaptureData;

// What a board's frames hold: the picture's bytes, then up to maxSoundValues sound values
// (signed 16-bit, `soundChannels` interleaved) at `soundRate` samples a second per channel.
struct FrameFormat {
    uint64_t pictureBytes = 0;
    uint64_t maxSoundValues = 0;
    int soundChannels = 0;
    double soundRate = 0;
};

// What a board is, as far as it tells.
struct BoardInfo {
    std::string name;
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string serial;      // empty when the board has none
    int firmwareVersion = 0; // 0 when the board did not say
    // Unknown until a frame came in: only then does the board show whether it sends sound.
    std::optional<bool> sendsSound;
    FrameFormat format;
    std::string usbSpeed; // "USB 2", "USB 3"; empty when not known
    bool can3D = false;   // whether it can capture the console's 3D picture

    // "16d0:06a3"
    std::string vendorProduct() const;
    // One line for the log and `zandor-cli board-info`.
    std::string describe() const;
};

// A capture board's driver, with one job: open the board, read its frames one at a time, close it.
// The caller paces the reads and decides what to do when the board goes.
class Board {
public:
    enum class FrameStatus {
        Complete, // the whole picture, and the sound that came with it
        Skipped,  // too few bytes or a timeout: the frame is lost, the board is still there
        Gone,     // the board is no longer plugged in
        Failed,   // any other failed transfer
    };

    // The steps an opening may fail at, as the Error's step.
    static constexpr const char* StepInit = "initialize USB library";
    static constexpr const char* StepOpen = "open the capture board";
    static constexpr const char* StepConfigure = "configure the capture board";
    static constexpr const char* StepClaim = "claim the capture interface";

    virtual ~Board() = default;

    // Opens the board with serial number `serial`, or the first one found when it is empty. The
    // Error's domain is Usb with libusb's code; an open that found the board but may not use it
    // has StepOpen, usb::ErrorAccess and the device node as its path.
    virtual Error open(const std::string& serial) = 0;
    // Reads one frame: the picture from the start of `frame`'s block and the sound values right
    // after it (CaptureData::setSound). A frame that is not Complete has no sound.
    virtual FrameStatus readFrame(CaptureData& frame) = 0;
    // Lets the board go (for a vanished board, a paused run or the end).
    virtual void close() = 0;
    virtual BoardInfo info() const = 0;
    // Whether the open board can capture the console's 3D picture (both eyes).
    virtual bool can3D() const { return false; }
    // Whether its frames now carry both eyes (ColumnOrder::Ft601ThreeD).
    virtual bool is3D() const { return false; }
    // Asks for both eyes or the flat picture: remembered for the next open and, on an open board,
    // switched at once on the reading thread between two frames. A board that cannot refuses on.
    virtual Error set3D(bool on) {
        return on ? Error::other("switch the capture board to 3D", {}, "the board cannot capture 3D")
                  : Error();
    }
    // The serial numbers of the boards of this kind plugged in now.
    virtual std::vector<std::string> serials() { return {}; }

    // Starts watching for a board to be plugged in. False when arrivals are not announced: then
    // the caller tries to open the board at intervals.
    virtual bool watchArrivals() { return false; }
    // Whether a board was announced since the last call; never blocks.
    virtual bool arrived() { return false; }
    virtual void stopWatching() {}
};

} // namespace zandor
