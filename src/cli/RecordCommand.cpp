#include "RecordCommand.h"

#include "layouts/CanvasBudget.h"

#include "CliSession.h"
#include "base/CommandLine.h"
#include "base/Log.h"
#include "recording/VideoRecorder.h"

#include <QStringList>

#include <cstdio>

namespace zandor {

int RecordCommand::run(const CommandLine& options) {
    auto seconds = CommandLine::parseCount(options.value("seconds").value_or(""), 1);
    if (!seconds) {
        return CommandLine::usageError("zandor-cli record",
                                       "Option --seconds needs a whole number of at least 1");
    }
    auto opened = openSession(options);
    if (!opened) {
        std::fprintf(stderr, "zandor-cli record: %s\n", openFailure(opened.error()).c_str());
        return 2;
    }
    std::unique_ptr<CaptureSession> session = std::move(*opened);
    SessionEvents events(*session);
    if (!session->start()) {
        return 1; // the device has logged why
    }
    if (const Error failed = session->record()) {
        if (failed.systemCode() == ENOMEM) {
            std::fprintf(stderr,
                         "zandor-cli record: Could not start recording video: the layouts to record would "
                         "take their pictures beyond the %llu MB that the pictures of all layouts may take "
                         "together.\n",
                         static_cast<unsigned long long>(CanvasBudget::instance().limit() >> 20));
        } else {
            std::fprintf(stderr, "zandor-cli record: Could not start recording video.\n");
        }
        logs::recording.error("Could not start recording video: %s", failed.logLine().c_str());
        return 1;
    }
    // The recording runs on the recorder's and the device's threads; this one only keeps time,
    // unless the recording ends on its own first (a full disk). The movie is to hold that much
    // picture, and its first frame comes a moment after the start (later on a busy machine): the
    // wait goes on by what is still missing, for as long as frames keep coming.
    const auto isDone = [](const session::Event& event) {
        return std::holds_alternative<session::RecordingDone>(event);
    };
    const std::chrono::nanoseconds wanted = std::chrono::seconds(*seconds);
    std::chrono::nanoseconds missing = wanted;
    std::chrono::nanoseconds recorded{0};
    while (!events.waitFor(isDone, std::chrono::ceil<std::chrono::milliseconds>(missing))) {
        const std::chrono::nanoseconds now = session->recorder()->pictureLength();
        if (now >= wanted || (now == recorded && missing >= FrameTimeout)) {
            session->stopRecording();
            break;
        }
        // No new frame in a while: waited for once more, at most FrameTimeout.
        missing = now == recorded ? FrameTimeout : wanted - now;
        recorded = now;
    }
    // Finalising runs the merging and converting tools; a long recording takes a while.
    session->shutdown();

    const QStringList made = session->recorder()->madeFiles();
    for (const QString& file : made) {
        std::printf("%s\n", qUtf8Printable(file));
    }
    bool failed = false;
    for (const session::Event& event : events.all()) {
        if (const auto* notice = std::get_if<session::RecordingNotice>(&event)) {
            std::fprintf(stderr, "zandor-cli record: %s\n", qUtf8Printable(notice->message()));
        }
    }
    for (const session::Event& event : events.all()) {
        if (const auto* problem = std::get_if<session::RecordingError>(&event)) {
            std::fprintf(stderr, "zandor-cli record: %s\n", qUtf8Printable(problem->message()));
            failed = true;
        }
    }
    if (!failed && made.isEmpty()) {
        std::fprintf(stderr, "zandor-cli record: nothing was recorded (see the lines above)\n");
        return 1;
    }
    return failed ? 1 : 0;
}

} // namespace zandor
