#include "CameraCommand.h"

#include "CaptureSession.h"
#include "base/CommandLine.h"
#include "camera/CameraOutput.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

namespace zandor {

int CameraCommand::run(const CommandLine& options) {
    auto seconds = CommandLine::parseCount(options.value("seconds").value_or(""), 1);
    if (!seconds) {
        std::fprintf(stderr, "zandor-cli camera: --seconds needs a whole number of at least 1\n");
        return 2;
    }
    CaptureSession session;
    std::string error;
    if (!session.open(options, error)) {
        std::fprintf(stderr, "zandor-cli camera: %s\n", error.c_str());
        return 2;
    }
    // With --layout None both screens are on show; the camera shares the first.
    const LayoutPtr layout = session.layouts().front();
    auto camera = CameraOutput::create();
    std::mutex mutex;
    std::condition_variable failed;
    bool failure = false;
    camera->setFailureHandler([&](const std::string&) {
        std::scoped_lock lock(mutex);
        failure = true;
        failed.notify_all();
    });
    if (!camera->start(layout)) {
        return 1; // the camera has logged why
    }
    if (!session.start()) {
        camera->stop();
        return 1; // the device has logged why
    }
    std::printf("Sharing %s as the camera \"%s\" (node %u) for %llu seconds\n",
                qUtf8Printable(layout->name()), CameraOutput::description(*layout).c_str(), camera->nodeId(),
                static_cast<unsigned long long>(*seconds));
    std::fflush(stdout);
    {
        std::unique_lock lock(mutex);
        failed.wait_for(lock, std::chrono::seconds(*seconds), [&] { return failure; });
    }
    camera->stop();
    session.stop();
    std::printf("%llu frames sent, %llu dropped\n", static_cast<unsigned long long>(camera->sentFrames()),
                static_cast<unsigned long long>(camera->droppedFrames()));
    std::scoped_lock lock(mutex);
    return failure ? 1 : 0;
}

} // namespace zandor
