#include "BoardInfoCommand.h"

#include "base/CommandLine.h"
#include "base/Wakeup.h"
#include "capture/Board.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "session/CaptureSession.h"

#include <chrono>
#include <cstdio>

namespace zandor {

namespace {

// How long frames are read to tell whether the board sends sound; without frames it stays unknown.
constexpr std::chrono::seconds FrameTimeout{5};

} // namespace

int BoardInfoCommand::run(const CommandLine& options) {
    auto board = createBoard(options.value("board").value_or("usb"));
    if (!board) {
        std::fprintf(stderr, "zandor-cli board-info: %s\n",
                     session::boardChoiceMessage(board.error()).c_str());
        return 2;
    }
    // Whether the board sends sound shows with its first frame.
    const auto device = CaptureDevice::create(std::move(*board));
    auto wakeup = std::make_shared<Wakeup>();
    auto observer = device->addObserver(wakeup);
    if (!device->startListening()) {
        // The device has logged why ("Could not connect to capture device", ...).
        return 1;
    }
    const auto deadline = std::chrono::steady_clock::now() + FrameTimeout;
    while (!device->observe(observer) && std::chrono::steady_clock::now() < deadline) {
        wakeup->wait(std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                           std::chrono::steady_clock::now()));
    }
    device->removeObserver(observer);
    const BoardInfo info = device->board().info();
    device->stopListening();

    std::printf("Name: %s\nVendor:product: %s\nSerial: %s\nFirmware version: %d\nSound: %s\n",
                info.name.c_str(), info.vendorProduct().c_str(),
                info.serial.empty() ? "(none)" : info.serial.c_str(), info.firmwareVersion,
                !info.sendsSound   ? "unknown"
                : *info.sendsSound ? "yes"
                                   : "no");
    if (!info.usbSpeed.empty()) {
        std::printf("Connection: %s\n", info.usbSpeed.c_str());
    }
    std::printf("3D picture: %s\n", info.can3D ? "yes" : "no");
    return 0;
}

} // namespace zandor
