// Until the application window exists, `zandor` runs the capture pipeline headless for a few
// seconds and reports the frame rate that reached each screen.

#include "base/CommandLine.h"
#include "base/DetachedThread.h"
#include "base/Wakeup.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/UsbBoard.h"

#include <chrono>
#include <cstdio>

using namespace zandor;

int main(int argc, char** argv) {
    CommandLine options({"board", "seconds"}, {});
    std::string error;
    if (!options.parse({argv + 1, argv + argc}, error)) {
        std::fprintf(stderr, "zandor: %s\n", error.c_str());
        return 2;
    }
    auto seconds = CommandLine::parseCount(options.value("seconds").value_or("5"), 1);
    if (!seconds) {
        std::fprintf(stderr, "zandor: --seconds needs a whole number of at least 1\n");
        return 2;
    }
    std::string boardName = options.value("board").value_or("usb");
    auto board = createBoard(boardName, error);
    if (!board) {
        std::fprintf(stderr, "zandor: %s\n", error.c_str());
        return 2;
    }

    auto device = CaptureDevice::create(std::move(board));
    auto wakeup = std::make_shared<Wakeup>();
    ObserverPtr observers[2] = {device->screen(0)->addObserver(wakeup), device->screen(1)->addObserver(wakeup)};
    if (!device->startListening()) {
        return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::seconds(*seconds);
    uint64_t counts[2] = {0, 0};
    while (std::chrono::steady_clock::now() < end) {
        bool any = false;
        for (int i = 0; i < 2; ++i) {
            while (device->screen(i)->observe(observers[i])) {
                ++counts[i];
                any = true;
            }
        }
        if (!any) {
            wakeup->wait(end - std::chrono::steady_clock::now());
        }
    }
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    device->stopListening();
    for (int i = 0; i < 2; ++i) {
        device->screen(i)->removeObserver(observers[i]);
    }
    DetachedThread::waitForAll(std::chrono::seconds(2));
    std::printf("%s board, %.1f s: top screen %.1f frames per second, bottom screen %.1f frames per second\n",
                boardName.c_str(), elapsed, counts[0] / elapsed, counts[1] / elapsed);
    return 0;
}
