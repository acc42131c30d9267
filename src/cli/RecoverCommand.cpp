#include "RecoverCommand.h"

#include "base/CommandLine.h"
#include "recording/VideoRecorder.h"
#include "session/CaptureSession.h"
#include "settings/CaptureSettings.h"
#include "settings/PreferencesController.h"

#include <QFileInfo>
#include <QStringList>

#include <cerrno>
#include <cstdio>

namespace zandor {

namespace {

// Says each failed step as it happens.
class Report final : public RecorderDelegate {
public:
    explicit Report(QString bundle) : m_bundle(std::move(bundle)) {}
    void recordDone() override {}
    void recordError(const RecordingProblem& problem) override {
        std::fprintf(stderr, "zandor-cli recover: %s: %s\n", qUtf8Printable(m_bundle),
                     qUtf8Printable(session::recordingMessage(problem)));
    }

private:
    const QString m_bundle;
};

} // namespace

int RecoverCommand::run(const CommandLine& options) {
    PreferencesController& preferences = PreferencesController::instance();
    preferences.setReadOnly(true);
    QString folder = CaptureSettings::fromPreferences(preferences).storageFolder;
    const auto out = options.value("out");
    if (out) {
        if (!QFileInfo(QString::fromStdString(*out)).isDir()) {
            return CommandLine::usageError("zandor-cli recover",
                                           "Option --out needs a folder: '" + *out + "' is not one");
        }
        folder = QFileInfo(QString::fromStdString(*out)).absoluteFilePath();
    }
    QStringList bundles;
    for (const std::string& bundle : options.positionals()) {
        bundles.append(QString::fromStdString(bundle));
    }
    if (bundles.isEmpty()) {
        bundles = VideoRecorder::abandonedBundles(folder);
    }
    int status = 0;
    // Said as the window lists it; as no recovery can make a movie of it, it fails nothing.
    const auto unrecoverable = [](const QString& bundle) {
        std::fprintf(
            stderr, "zandor-cli recover: Cannot be recovered: %s: it holds no recording that can be played\n",
            qUtf8Printable(bundle));
    };
    for (const QString& bundle : bundles) {
        if (RecordingBundle::isUnrecoverable(bundle)) {
            unrecoverable(bundle);
            continue;
        }
        auto found = VideoRecorder::forBundle(bundle);
        if (!found && VideoRecorder::holdsNothingPlayable(found.error())) {
            const Error marked = RecordingBundle::markUnrecoverable(bundle);
            if (marked.systemCode() == EWOULDBLOCK) {
                // A recording that has just begun: not ours to judge.
                std::fprintf(stderr, "zandor-cli recover: %s: %s\n", qUtf8Printable(bundle),
                             qUtf8Printable(
                                 session::recordingMessage({RecordingProblem::Step::HeldElsewhere, {}, {}})));
                status = 1;
                continue;
            }
            if (marked) {
                std::fprintf(stderr, "zandor-cli recover: Could not mark %s as not recoverable: %s\n",
                             qUtf8Printable(bundle), marked.logLine().c_str());
            }
            unrecoverable(bundle);
            continue;
        }
        if (!found) {
            // A folder it may not read says the system's reason.
            const Error error = found.error();
            std::fprintf(stderr, "zandor-cli recover: Could not recover %s: %s\n", qUtf8Printable(bundle),
                         error.detail().empty() ? error.cause().c_str() : error.detail().c_str());
            status = 1;
            continue;
        }
        const auto& recorder = *found;
        recorder->setDelegate(std::make_shared<Report>(bundle));
        if (out) {
            recorder->setResultFolder(folder);
        }
        if (!recorder->recover()) {
            status = 1;
        }
        for (const QString& file : recorder->madeFiles()) {
            std::printf("%s\n", qUtf8Printable(file));
        }
    }
    return status;
}

} // namespace zandor
