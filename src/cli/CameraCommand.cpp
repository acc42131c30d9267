#include "CameraCommand.h"

#include "CliSession.h"
#include "base/CommandLine.h"
#include "camera/CameraOutput.h"
#include "layouts/LayoutController.h"

#include <chrono>
#include <cstdio>

namespace zandor {

int CameraCommand::run(const CommandLine& options) {
    auto seconds = CommandLine::parseCount(options.value("seconds").value_or(""), 1);
    if (!seconds) {
        return CommandLine::usageError("zandor-cli camera",
                                       "Option --seconds needs a whole number of at least 1");
    }
    auto opened = openSession(options);
    if (!opened) {
        std::fprintf(stderr, "zandor-cli camera: %s\n", openFailure(opened.error()).c_str());
        return 2;
    }
    std::unique_ptr<CaptureSession> session = std::move(*opened);
    // With --layout None both screens are on show; the camera shares the first.
    if (!session->layout()) {
        session->setLayout(LayoutController::instance().screenLayouts()[0]);
    }
    CaptureSettings settings = session->settings();
    settings.shareAsCamera = true;
    session->apply(settings);
    SessionEvents events(*session);
    if (!session->start()) {
        return 1; // the device has logged why
    }
    const auto failed = [](const session::Event& event) {
        return std::holds_alternative<session::CameraFailed>(event);
    };
    if (events.waitFor(failed, std::chrono::milliseconds(0))) {
        session->shutdown();
        return 1; // the camera has logged why
    }
    const CameraOutputPtr& camera = session->camera();
    std::printf("Sharing %s as the camera \"%s\" (node %u) for %llu seconds\n",
                qUtf8Printable(session->layout()->name()),
                CameraOutput::description(*session->layout()).c_str(), camera->nodeId(),
                static_cast<unsigned long long>(*seconds));
    std::fflush(stdout);
    const bool failure = events.waitFor(failed, std::chrono::seconds(*seconds)).has_value();
    session->shutdown();
    std::printf("%llu frames sent, %llu dropped\n", static_cast<unsigned long long>(camera->sentFrames()),
                static_cast<unsigned long long>(camera->droppedFrames()));
    return failure ? 1 : 0;
}

} // namespace zandor
