#include "DumpCommand.h"

#include "base/AtomicFile.h"
#include "base/CommandLine.h"
#include "base/Wakeup.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "capture/RawFrame.h"
#include "capture/ReplayBoard.h"
#include "capture/Board.h"
#include "session/CaptureSession.h"

#include <chrono>
#include <cstdio>

namespace zandor {

namespace {

// A board that sends nothing for this long is given up on.
constexpr std::chrono::seconds FrameTimeout{5};

// One frame's record of a dump with sound (see ReplayBoard): the picture, the number of sound
// values, and the values in room for the most a frame may have.
Error writeRecord(AtomicFile& out, const CaptureData& frame) {
    static const uint8_t zeros[2 * raw::MaxSoundValues] = {};
    const auto sound = frame.sound();
    const auto values = static_cast<uint32_t>(sound.size());
    const uint8_t count[ReplayBoard::SoundCountBytes] = {
        static_cast<uint8_t>(values), static_cast<uint8_t>(values >> 8), static_cast<uint8_t>(values >> 16),
        static_cast<uint8_t>(values >> 24)};
    const uint64_t soundBytes = 2 * sound.size();
    if (Error failed = out.write(frame.data(), raw::FrameBytes)) {
        return failed;
    }
    if (Error failed = out.write(count, sizeof count)) {
        return failed;
    }
    if (Error failed = out.write(reinterpret_cast<const uint8_t*>(sound.data()), soundBytes)) {
        return failed;
    }
    return out.write(zeros, sizeof zeros - soundBytes);
}

} // namespace

int DumpCommand::run(const CommandLine& options) {
    std::string error;
    auto frames = CommandLine::parseCount(options.value("frames").value_or(""), 1);
    if (!frames) {
        return CommandLine::usageError("zandor-cli dump",
                                       "Option --frames needs a whole number of at least 1");
    }
    auto outPath = options.value("out");
    if (!outPath || outPath->empty()) {
        return CommandLine::usageError("zandor-cli dump", "Option --out needs the file to write");
    }
    auto board = createBoard(options.value("board").value_or("usb"));
    if (!board) {
        std::fprintf(stderr, "zandor-cli dump: %s\n", session::boardChoiceMessage(board.error()).c_str());
        return 2;
    }
    AtomicFile out(*outPath);
    if (const Error created = out.create()) {
        std::fprintf(stderr, "zandor-cli dump: %s\n", created.logLine().c_str());
        return 1;
    }
    uint8_t header[ReplayBoard::HeaderBytes];
    ReplayBoard::header(header);
    bool ok = true;
    if (const Error failed = out.write(header, sizeof header)) {
        error = failed.logLine();
        ok = false;
    }

    CaptureSession session(std::move(*board), CaptureSettings{});
    const auto& device = session.device();
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);
    if (!session.start()) {
        // The device has logged why ("Could not connect to capture device", ...).
        return 1;
    }

    uint64_t written = 0;
    while (ok && written < *frames) {
        auto frame = device->observe(observer);
        if (!frame) {
            if (!wakeup->wait(FrameTimeout) && !device->observable(observer)) {
                error =
                    "No frame came from the board for " + std::to_string(FrameTimeout.count()) + " seconds";
                ok = false;
            }
            continue;
        }
        if (const Error failed = writeRecord(out, *frame)) {
            error = failed.logLine();
            ok = false;
        }
        written += ok ? 1 : 0;
    }
    device->removeObserver(observer);
    session.shutdown();

    if (const Error failed = ok ? out.commit() : Error()) {
        error = failed.logLine();
        ok = false;
    }
    if (!ok) {
        std::fprintf(stderr, "zandor-cli dump: %s\n", error.c_str());
        return 1;
    }
    std::printf(
        "Wrote %llu frames (%llu bytes) to %s\n", static_cast<unsigned long long>(written),
        static_cast<unsigned long long>(ReplayBoard::HeaderBytes + written * ReplayBoard::RecordBytes),
        outPath->c_str());
    return 0;
}

} // namespace zandor
