#include "CliSession.h"

#include "base/CommandLine.h"
#include "capture/Boards.h"
#include "capture/ReplayBoard.h"
#include "capture/Board.h"
#include "layouts/LayoutController.h"
#include "settings/Settings.h"
#include "settings/VideoQuality.h"
#include "settings/PreferencesController.h"

#include <QDir>
#include <QFileInfo>

namespace zandor {

namespace {

// "A, B or C".
std::string choiceList(const QStringList& choices) {
    QString list = choices.mid(0, choices.size() - 1).join(QStringLiteral(", "));
    return (list.isEmpty() ? choices.value(0) : list + QStringLiteral(" or ") + choices.last()).toStdString();
}

// The step of a folder given with --out that cannot be written to; the code says why.
constexpr const char* OutStep = "write to the folder";

} // namespace

std::string openFailure(const Error& error) {
    if (error.step() == StepChoose || error.step() == ReplayBoard::StepOpen) {
        return session::boardChoiceMessage(error);
    }
    if (error.step() != OutStep) {
        return error.detail();
    }
    const int code = error.systemCode();
    return "Cannot write to the folder '" + error.path() + "'" +
           (code == ENOTDIR  ? ": it is not a folder"
            : code == ENOENT ? ": it does not exist"
                             : ": permission denied");
}

Result<std::unique_ptr<CaptureSession>> openSession(const CommandLine& options) {
    // The stored settings, overridden by the command line for this run; the store is only read.
    PreferencesController& preferences = PreferencesController::instance();
    preferences.setReadOnly(true);
    CaptureSettings captured = CaptureSettings::fromPreferences(preferences);
    // The layout chosen here is the one on show, and the one captured.
    captured.captureLayout = QStringLiteral("Active Layout");
    // A command turns on what it runs beside the picture; the stored choices of the window do not.
    captured.replayBuffer = false;
    captured.listenToGameAudio = false;
    captured.shareAsCamera = false;

    if (auto out = options.value("out")) {
        QFileInfo folder(QString::fromStdString(*out));
        if (!folder.isDir() || !folder.isWritable()) {
            return Error::system(OutStep, *out,
                                 folder.exists() ? (folder.isDir() ? EACCES : ENOTDIR) : ENOENT);
        }
        captured.storageFolder = folder.absoluteFilePath();
    }
    const auto choose = [&](const char* option, const Setting<QString>& setting, const char* what,
                            QString& value) -> Error {
        const auto given = options.value(option);
        if (!given) {
            return {};
        }
        if (!setting.acceptsValue(QString::fromStdString(*given))) {
            return Error::other("read the options", {},
                                "Unknown " + std::string(what) + " '" + *given + "': use " +
                                    choiceList(setting.choices()));
        }
        value = QString::fromStdString(*given);
        return {};
    };
    if (Error error = choose("format", settings::imageFormat, "image format", captured.imageFormat)) {
        return error;
    }
    if (Error error = choose("fps", settings::videoFramesPerSecond, "frame rate", captured.framesPerSecond)) {
        return error;
    }
    if (Error error = choose("quality", settings::videoQuality, "quality", captured.videoQuality)) {
        return error;
    }
    if (auto input = options.value("game-audio")) {
        captured.gameAudioInput = QString::fromStdString(*input);
    }
    if (auto input = options.value("narrator-audio")) {
        captured.narratorAudioInput = QString::fromStdString(*input);
    }
    // Like the other choices of the window, 3D is the command line's to ask for.
    captured.capture3D = options.flag("3d");

    auto board = createBoard(options.value("board").value_or("usb"));
    if (!board) {
        return board.error();
    }
    auto session = std::make_unique<CaptureSession>(std::move(*board), std::move(captured));
    LayoutController& catalogue = LayoutController::instance();
    const QString name = QString::fromStdString(options.value("layout").value_or(""));
    if (name.isEmpty()) {
        // As the application starts: the first layout of the catalogue is on show.
        session->setLayout(catalogue.layouts().empty() ? nullptr : catalogue.layouts().front());
    } else if (auto layout = catalogue.layoutNamed(name)) {
        session->setLayout(layout);
    } else if (name == QLatin1String("Top") || name == QLatin1String("Bottom")) {
        session->setLayout(catalogue.screenLayouts()[name == QLatin1String("Top") ? 0 : 1]);
    } else if (name != QLatin1String("None")) {
        return Error::other("read the options", {},
                            "Unknown layout '" + name.toStdString() + "': see zandor-cli layouts");
    }
    return session;
}

SessionEvents::SessionEvents(CaptureSession& session) : m_session(session) {
    m_session.setEventHandler([this](const session::Event& event) {
        std::scoped_lock lock(m_lock);
        m_events.push_back(event);
        m_arrived.notify_all();
    });
}

SessionEvents::~SessionEvents() {
    m_session.setEventHandler(nullptr);
}

std::optional<session::Event> SessionEvents::waitFor(const std::function<bool(const session::Event&)>& wanted,
                                                     std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_lock);
    std::optional<session::Event> found;
    m_arrived.wait_for(lock, timeout, [&] {
        for (const auto& event : m_events) {
            if (wanted(event)) {
                found = event;
                return true;
            }
        }
        return false;
    });
    return found;
}

std::vector<session::Event> SessionEvents::all() {
    std::scoped_lock lock(m_lock);
    return m_events;
}

} // namespace zandor
