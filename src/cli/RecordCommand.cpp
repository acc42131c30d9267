#include "RecordCommand.h"

#include "CaptureSession.h"
#include "base/CommandLine.h"
#include "recording/VideoRecorder.h"

#include <QFileInfo>
#include <QAudioDevice>
#include <QMediaDevices>
#include <QStringList>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

namespace zandor {

namespace {

// Collects what the recorder reports from its thread.
class Outcome final : public RecorderDelegate {
public:
    void recordDone() override {
        std::scoped_lock lock(m_mutex);
        m_done = true;
    }
    void recordError(const QString& message) override {
        std::scoped_lock lock(m_mutex);
        m_errors.append(message);
    }
    void recordNotice(const QString& message) override {
        std::scoped_lock lock(m_mutex);
        m_notices.append(message);
    }
    QStringList errors() {
        std::scoped_lock lock(m_mutex);
        return m_errors;
    }
    QStringList notices() {
        std::scoped_lock lock(m_mutex);
        return m_notices;
    }

private:
    std::mutex m_mutex;
    bool m_done = false;
    QStringList m_errors;
    QStringList m_notices;
};

} // namespace

int RecordCommand::run(const CommandLine& options) {
    auto seconds = CommandLine::parseCount(options.value("seconds").value_or(""), 1);
    if (!seconds) {
        std::fprintf(stderr, "zandor-cli record: --seconds needs a whole number of at least 1\n");
        return 2;
    }
    CaptureSession session;
    std::string error;
    if (!session.open(options, error)) {
        std::fprintf(stderr, "zandor-cli record: %s\n", error.c_str());
        return 2;
    }
    if (!session.start()) {
        return 1; // the device has logged why
    }
    auto recorder = std::make_shared<VideoRecorder>(session.layouts(), session.settings());
    auto outcome = std::make_shared<Outcome>();
    recorder->setDelegate(outcome);
    if (!recorder->start()) {
        session.stop();
        std::fprintf(stderr, "zandor-cli record: Could not start recording video.\n");
        return 1;
    }
    // The recording runs on the recorder's and the device's threads; this one only keeps time.
    std::this_thread::sleep_for(std::chrono::seconds(*seconds));
    recorder->stop();
    // Finalising runs the merging and converting tools; a long recording takes a while.
    recorder->waitUntilFinished(std::chrono::hours(24));
    session.stop();

    const QStringList made = recorder->madeFiles();
    for (const QString& file : made) {
        std::printf("%s\n", qUtf8Printable(file));
    }
    const QStringList errors = outcome->errors();
    for (const QString& message : outcome->notices() + errors) {
        std::fprintf(stderr, "zandor-cli record: %s\n", qUtf8Printable(message));
    }
    if (errors.isEmpty() && made.isEmpty()) {
        std::fprintf(stderr, "zandor-cli record: nothing was recorded (see the lines above)\n");
        return 1;
    }
    return errors.isEmpty() ? 0 : 1;
}

} // namespace zandor
