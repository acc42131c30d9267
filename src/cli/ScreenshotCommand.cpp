#include "ScreenshotCommand.h"

#include "CliSession.h"
#include "recording/ImageRecorder.h"

#include <cstdio>

namespace zandor {

namespace {

// Once a frame has come, saving a large canvas may take a while longer.
constexpr std::chrono::minutes SaveTimeout{10};

} // namespace

int ScreenshotCommand::run(const CommandLine& options) {
    auto opened = openSession(options);
    if (!opened) {
        std::fprintf(stderr, "zandor-cli screenshot: %s\n", openFailure(opened.error()).c_str());
        return 2;
    }
    std::unique_ptr<CaptureSession> session = std::move(*opened);
    if (!session->start()) {
        return 1; // the device has logged why
    }
    const qsizetype wanted = static_cast<qsizetype>(session->captureLayouts().size());
    auto recorder = session->screenshot();
    bool finished = recorder->waitUntilFinished(FrameTimeout);
    if (!finished && recorder->hasFrame()) {
        finished = recorder->waitUntilFinished(SaveTimeout);
    }
    session->shutdown();

    const QStringList files = recorder->savedFiles();
    for (const QString& file : files) {
        std::printf("%s\n", qUtf8Printable(file));
    }
    if (!finished && !recorder->hasFrame()) {
        std::fprintf(stderr, "zandor-cli screenshot: no frame came from the board for %lld seconds\n",
                     static_cast<long long>(FrameTimeout.count()));
        return 1;
    }
    if (files.size() < wanted) {
        std::fprintf(
            stderr, "zandor-cli screenshot: %s\n",
            qUtf8Printable(session::cannotWrite(session->settings().storageFolder, recorder->failure())));
        return 1;
    }
    return 0;
}

} // namespace zandor
