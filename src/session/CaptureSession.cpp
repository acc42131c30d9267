#include "CaptureSession.h"

#include "audio/AudioInput.h"
#include "audio/GameAudio.h"
#include "base/Log.h"
#include "base/RunOn.h"
#include "camera/CameraSteps.h"
#include "capture/CaptureDevice.h"
#include "capture/Board.h"
#include "capture/Boards.h"
#include "capture/ReplayBoard.h"
#include "layouts/CanvasBudget.h"
#include "layouts/LayoutController.h"
#include "recording/ImageRecorder.h"
#include "recording/ReplayBuffer.h"
#include "recording/VideoRecorder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace zandor {

namespace {

// A recording's reports become the session's events, on the recorder's thread.
class RecorderEvents final : public RecorderDelegate {
public:
    explicit RecorderEvents(std::function<void(const session::Event&)> send) : m_send(std::move(send)) {}
    // The recorder whose movies recordDone names; the recorder owns this delegate.
    void setRecorder(const std::shared_ptr<VideoRecorder>& recorder) { m_recorder = recorder; }
    void recordDone() override {
        const auto recorder = m_recorder.lock();
        m_send(session::RecordingDone{recorder ? recorder->madeFiles() : QStringList()});
    }
    void recordError(const RecordingProblem& problem) override { m_send(session::RecordingError{problem}); }
    void recordGameSoundLost(std::chrono::milliseconds at) override { m_send(session::RecordingNotice{at}); }

private:
    const std::function<void(const session::Event&)> m_send;
    std::weak_ptr<VideoRecorder> m_recorder;
};

// Collects the steps of one recovery that failed, as a recording's finalising reports them.
class RecoveryErrors final : public RecorderDelegate {
public:
    void recordDone() override {}
    void recordError(const RecordingProblem& problem) override {
        messages << session::recordingMessage(problem);
    }
    QStringList messages;
};

} // namespace

QString session::recordingMessage(const RecordingProblem& problem) {
    using Step = RecordingProblem::Step;
    QString text;
    switch (problem.step) {
    case Step::FinishVideo:
        text = problem.error.isDiskFull()
                   ? QStringLiteral("The recording of the video could not be finalized. The disk is full.")
                   : QStringLiteral("The recording of the video could not be finalized.");
        break;
    case Step::FinishAudio:
        text = QStringLiteral("The recording of the audio could not be finalized.");
        break;
    case Step::MergeAudio:
        text = QStringLiteral("It was not possible to merge audio.");
        break;
    case Step::MergeVideo:
        text = QStringLiteral("It was not possible to merge video.");
        break;
    case Step::Convert:
        text = QStringLiteral("It was not possible to convert the merged video.");
        break;
    case Step::MoveForConversion:
        text = QStringLiteral("It was not possible to move the merged video to the convertion path.");
        break;
    case Step::MoveOut:
        text = QStringLiteral("Could not move file outside recording bundle.");
        break;
    case Step::RemoveBundle:
        text = QStringLiteral("It was not possible to remove recording bundle.");
        break;
    case Step::HeldElsewhere:
        text = QStringLiteral("The recording is being recorded or finalised by another Zandor.");
        break;
    }
    // Then why, in words, when the system said (a full disk at the video's finish the step says
    // itself), then where the recording stays.
    const bool said = problem.step == Step::FinishVideo && problem.error.isDiskFull();
    if (problem.error.systemCode() != 0 && !said) {
        text += u' ' + reasonInWords(problem.error);
    }
    if (!problem.keptIn.isEmpty()) {
        text = QStringLiteral("%1 The recording is kept in \"%2\".").arg(text, problem.keptIn);
    }
    return text;
}

QString session::reasonInWords(const Error& error) {
    switch (error.systemCode()) {
    case EACCES:
    case EPERM:
        return QStringLiteral("You do not have permission to write there.");
    case ENOSPC:
    case EDQUOT:
        return QStringLiteral("The disk is full.");
    case EROFS:
        return QStringLiteral("The disk can only be read, not written.");
    case ENOENT:
        return QStringLiteral("The folder does not exist.");
    case ENOTDIR:
    case EEXIST:
        return QStringLiteral("A file is in the way of the folder.");
    case EISDIR:
        return QStringLiteral("A folder is in the way of the file.");
    case EIO:
        return QStringLiteral("The disk could not be written: it may have gone away or be damaged.");
    case EFBIG:
        // A FAT-formatted stick takes no file of 4 GB or more.
        return QStringLiteral("The file is too large for this disk.");
    default:
        return QStringLiteral("The file could not be written.");
    }
}

QString session::cannotWrite(const QString& place, const Error& error) {
    return QStringLiteral("Zandor cannot write to \"%1\". %2").arg(place, reasonInWords(error));
}

QString session::ScreenshotTaken::message() const {
    return cannotWrite(folder, error);
}

QString session::RecordingError::message() const {
    return recordingMessage(problem);
}

QString session::RecordingNotice::message() const {
    const long long seconds = gameSoundLostAt.count() / 1000;
    return QString::asprintf("The game sound stopped at %02lld:%02lld: its input went away, and the rest "
                             "of the movie is silent.",
                             seconds / 60, seconds % 60);
}

QString session::ReplaySaved::message() const {
    if (error.step() == ReplayBuffer::EmptyStep) {
        return QStringLiteral(
            "The replay buffer is empty: no picture has been shown since it was turned on.");
    }
    if (error.domain() == Error::Domain::System && error.code() == ENOMEM) {
        return QStringLiteral("There is not enough memory to save the replay.");
    }
    return cannotWrite(folder, error);
}

QString session::CameraFailed::reason() const {
    const std::string& step = error.step();
    const char* why = std::strerror(error.systemCode());
    if (step == camera::StartStep) {
        return QStringLiteral("PipeWire could not start: %1").arg(why);
    }
    if (step == camera::ConnectStep) {
        return QStringLiteral("PipeWire is not running (%1)").arg(why);
    }
    if (step == camera::StreamStep) {
        return QStringLiteral("PipeWire refused the camera stream: %1")
            .arg(QString::fromStdString(error.cause()));
    }
    if (step == camera::AnswerStep) {
        return QStringLiteral("PipeWire did not answer");
    }
    if (step == camera::ConnectionStep) {
        return QStringLiteral("PipeWire ended the connection: %1 (%2)")
            .arg(QString::fromStdString(error.detail()), QString::fromUtf8(std::strerror(-error.code())));
    }
    if (step == camera::RunStep && !error.detail().empty()) {
        return QString::fromStdString(error.detail());
    }
    return QStringLiteral("the camera stream failed");
}

std::string session::boardChoiceMessage(const Error& error) {
    if (error.step() == StepChoose) {
        return error.code() == static_cast<int>(BoardNameProblem::ReplayWithoutFile)
                   ? "The replay board needs a file: replay:FILE"
                   : "Unknown board '" + error.path() + "': use usb, usb:SERIAL, demo or replay:FILE";
    }
    if (error.step() == ReplayBoard::StepOpen) {
        switch (error.code()) {
        case ReplayBoard::Unreadable:
            return "Could not open replay file '" + error.path() + "': " + error.detail();
        case ReplayBoard::NotRegular:
        case ReplayBoard::NotFrames:
            return "Replay file '" + error.path() + "' " + error.detail();
        default:
            break;
        }
    }
    return error.logLine();
}

bool session::boardNeedsPermission(const Error& error) {
    return error.domain() == Error::Domain::Usb && error.step() == Board::StepOpen &&
           error.code() == usb::ErrorAccess;
}

bool session::isFolderProblem(const Error& error) {
    return error.step() == ImageRecorder::FolderStep || error.step() == CaptureSession::FolderStep;
}

QString session::recordingNotStarted(const Error& error, const QString& folder) {
    if (isFolderProblem(error)) {
        return cannotWrite(folder, error);
    }
    if (error.systemCode() == ENOMEM) {
        return QStringLiteral("The layouts to record would take their pictures beyond the %1 MB that the "
                              "pictures of all layouts may take together. Record fewer or smaller layouts.")
            .arg(CanvasBudget::instance().limit() >> 20);
    }
    return QStringLiteral("It was somehow not possible to start recording video. You may want to try again "
                          "or verify whether the application has writing rights in the specified output "
                          "folder.");
}

QString session::why3DUnavailable(CaptureDevice& device, bool playing) {
    if (playing ? device.isDisconnected() : static_cast<bool>(device.failure())) {
        return QStringLiteral("No capture board is connected");
    }
    if (playing && !device.board().can3D()) {
        return device.board().info().usbSpeed == "USB 2"
                   ? QStringLiteral("USB 3 needed: the capture board is connected by USB 2, too slow for "
                                    "both eyes of the 3D picture")
                   : QStringLiteral("This capture board cannot capture 3D");
    }
    return {};
}

CaptureSession::CaptureSession(std::unique_ptr<Board> board, CaptureSettings settings)
    : m_device(CaptureDevice::create(std::move(board))), m_settings(std::move(settings)),
      m_gameAudio(std::make_unique<GameAudio>()) {
    LayoutController::instance().setDevice(m_device);
    m_gameAudio->setBoard(m_device);
    m_device->setSerial(m_settings.captureBoard.toStdString());
    m_device->set3D(m_settings.capture3D);
    m_device->setConnectionObserver(
        [this](bool connected) { emitEvent(session::BoardConnection{connected}); });
    m_camera->setFailureHandler([this](const Error& failure) { cameraFailed(failure); });
    // The input went away: said in the log; the picture goes on without the sound.
    m_gameAudio->setLostHandler(
        [self = QPointer<CaptureSession>(this)] { runLater(self, [self] { self->gameSoundLost(); }); });
}

CaptureSession::~CaptureSession() {
    shutdown();
    m_device->setConnectionObserver(nullptr);
    m_camera->setFailureHandler(nullptr);
    m_gameAudio->setLostHandler(nullptr);
}

void CaptureSession::setEventHandler(std::function<void(const session::Event&)> handler) {
    std::scoped_lock lock(m_handlerLock);
    m_handler = std::move(handler);
}

void CaptureSession::emitEvent(const session::Event& event) {
    std::scoped_lock lock(m_handlerLock);
    if (m_handler) {
        m_handler(event);
    }
}

void CaptureSession::setLayoutFeed(LayoutFeed* feed) {
    m_feed = feed;
    if (m_feed) {
        m_feed->setLayout(m_layout);
    }
}

bool CaptureSession::isPlaying() const {
    return m_device->isListening();
}

bool CaptureSession::start() {
    if (isPlaying()) {
        return true;
    }
    if (!m_device->startListening()) {
        return false;
    }
    startFeed();
    updateGameSound();
    updateReplayBuffer();
    updateCamera();
    return true;
}

void CaptureSession::startFeed() {
    // The feed subscribes first, so that the layout finds its consumer when its thread starts.
    // Without a feed the layout runs for the consumers that start it: recorders, the replay buffer
    // and the camera.
    if (m_feed && m_layout) {
        m_feed->startListening();
        m_layout->startListening();
    }
}

void CaptureSession::stop() {
    if (!isPlaying()) {
        return;
    }
    // The replay buffer keeps what it holds, so that a highlight can still be saved, until Play.
    if (m_replayBuffer) {
        m_replayBuffer->stop();
    }
    m_gameAudio->stop();
    m_device->stopListening();
    if (m_feed) {
        m_feed->stopListening();
    }
    if (m_layout) {
        m_layout->stopListening();
    }
    updateCamera();
}

void CaptureSession::setLayout(const LayoutPtr& layout) {
    const bool playing = isPlaying();
    stopReplayBuffer(); // it holds the old layout running
    if (m_feed) {
        m_feed->stopListening();
    }
    if (m_layout) {
        m_layout->stopListening();
    }
    m_layout = layout;
    if (m_feed) {
        m_feed->setLayout(layout);
    }
    if (playing) {
        startFeed();
    }
    updateCamera();
    updateReplayBuffer();
}

std::vector<LayoutPtr> CaptureSession::captureLayouts() const {
    LayoutPtr candidate = m_layout;
    if (m_settings.captureLayout != QLatin1String("Active Layout")) {
        candidate = LayoutController::instance().layoutNamed(m_settings.captureLayout);
    }
    if (candidate) {
        return {candidate};
    }
    const auto& screens = LayoutController::instance().screenLayouts();
    return {screens.begin(), screens.end()};
}

void CaptureSession::apply(const CaptureSettings& settings) {
    const CaptureSettings before = std::exchange(m_settings, settings);
    // Another board is opened at the next Play: the running picture, and any recording of it, go on.
    m_device->setSerial(settings.captureBoard.toStdString());
    // The device switches between two frames: the picture, a recording and the replay buffer go on,
    // their layouts now showing the other picture.
    m_device->set3D(settings.capture3D);
    const bool renewBuffer = before.replayBuffer != settings.replayBuffer ||
                             before.replaySeconds != settings.replaySeconds ||
                             before.videoQuality != settings.videoQuality;
    // Another input gives a new replay buffer; another volume keeps it.
    if (updateGameSound() || renewBuffer) {
        updateReplayBuffer();
    }
    // The buffer places what it holds by the offset of the moment it saves.
    if (m_replayBuffer && before.gameAudioOffsetMs != settings.gameAudioOffsetMs) {
        m_replayBuffer->setGameAudioOffset(std::chrono::milliseconds(settings.gameAudioOffsetMs));
    }
    if (before.shareAsCamera != settings.shareAsCamera) {
        updateCamera();
    }
}

bool CaptureSession::updateGameSound() {
    const auto before = m_gameAudio->input();
    m_gameAudio->setVolume(m_settings.gameAudioVolume);
    m_gameAudio->setListening(m_settings.listenToGameAudio);
    // The board's own sound runs whenever the picture does: it costs little, and a recording that
    // starts takes it up from its first frame.
    const bool board = m_settings.gameAudioInput == AudioInput::BoardId;
    if (isPlaying() && (m_settings.listenToGameAudio || m_settings.replayBuffer || board)) {
        // A failure is logged; the picture goes on.
        if (!m_gameAudio->start(m_settings.gameAudioInput)) {
            emitEvent(session::GameSoundLost{m_settings.gameAudioInput});
        }
    } else {
        m_gameAudio->stop();
    }
    return m_gameAudio->input() != before;
}

void CaptureSession::gameSoundLost() {
    emitEvent(session::GameSoundLost{m_settings.gameAudioInput});
    m_gameAudio->stop();
    updateReplayBuffer();
}

void CaptureSession::updateReplayBuffer() {
    if (m_settings.replayBuffer && !isPlaying()) {
        return; // paused: what the buffer holds stays to be saved until the picture plays again
    }
    stopReplayBuffer();
    if (m_settings.replayBuffer && m_layout && isPlaying()) {
        auto buffer = std::make_shared<ReplayBuffer>(m_layout, m_settings, m_settings.replaySeconds);
        buffer->shareGameInput(m_gameAudio->input());
        if (buffer->start()) {
            m_replayBuffer = std::move(buffer);
        }
    }
}

void CaptureSession::stopReplayBuffer() {
    if (m_replayBuffer) {
        m_replayBuffer->stop();
        m_replayBuffer.reset();
    }
}

bool CaptureSession::canSaveReplay() const {
    return m_replayBuffer && (isPlaying() || m_replayBuffer->heldBytes() > 0);
}

void CaptureSession::updateCamera() {
    if (!m_settings.shareAsCamera || !isPlaying() || !m_layout) {
        m_camera->stop();
    } else if (m_camera->isSharing()) {
        m_camera->setLayout(m_layout);
    } else if (Error error = m_camera->start(m_layout)) {
        m_settings.shareAsCamera = false;
        cameraFailed(error);
    }
}

void CaptureSession::cameraFailed(const Error& error) {
    session::CameraFailed failed{error};
    logs::camera.error("%s%s", session::CameraFailed::LogPrefix, qUtf8Printable(failed.reason()));
    emitEvent(failed);
}

std::shared_ptr<ImageRecorder> CaptureSession::screenshot() {
    if (m_screenshot && m_screenshot->isRecording()) {
        return nullptr;
    }
    auto screenshot = std::make_shared<ImageRecorder>(captureLayouts(), m_settings);
    // The recorder owns the handler: it must not own the recorder back.
    screenshot->setFinishedHandler(
        [this, weak = std::weak_ptr<ImageRecorder>(screenshot), folder = m_settings.storageFolder] {
            if (const auto taken = weak.lock()) {
                emitEvent(session::ScreenshotTaken{taken->savedFiles(), taken->failure(), folder});
            }
        });
    m_screenshot = std::move(screenshot);
    m_screenshot->start();
    return m_screenshot;
}

bool CaptureSession::canvasesFit(const std::vector<LayoutPtr>& layouts) const {
    // The canvases of layouts that run stay; those of the layouts to record come on top.
    uint64_t bytes = 0;
    for (const LayoutPtr& layout : LayoutController::instance().layouts()) {
        if (layout->type() == CaptureLayout::PluginLayout && layout->isListening()) {
            bytes += layout->size();
        }
    }
    for (const LayoutPtr& layout : layouts) {
        if (layout->type() == CaptureLayout::PluginLayout && !layout->isListening()) {
            bytes += layout->size();
        }
    }
    return bytes <= CanvasBudget::instance().limit();
}

Error CaptureSession::record() {
    const std::string folder = QFile::encodeName(m_settings.storageFolder).toStdString();
    if (isRecording()) {
        return Error::system("cannot start another recording in", folder, EBUSY);
    }
    // The recorder reports a bundle it cannot make as a start, so the folder is checked first: a
    // recording that cannot write must not look like one that runs.
    std::error_code made;
    std::filesystem::create_directories(folder, made);
    if (made) {
        return Error::system(ImageRecorder::FolderStep, folder, made.value());
    }
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
        return Error::system(FolderStep, folder);
    }
    const std::vector<LayoutPtr> layouts = captureLayouts();
    if (!canvasesFit(layouts)) {
        return Error::system("find room for the canvases of the layouts to record", {}, ENOMEM);
    }
    if (m_recorder && !m_recorder->isDone()) {
        m_finalising.push_back(m_recorder);
    }
    std::erase_if(m_finalising, [](const auto& recorder) { return recorder->isDone(); });
    m_recorder = std::make_shared<VideoRecorder>(layouts, m_settings);
    auto events = std::make_shared<RecorderEvents>([this](const session::Event& event) { emitEvent(event); });
    events->setRecorder(m_recorder);
    m_recorder->setDelegate(std::move(events));
    m_recorder->shareGameInput(m_gameAudio->input());
    return m_recorder->begin();
}

void CaptureSession::stopRecording() {
    if (isRecording()) {
        m_recorder->stop();
    }
}

bool CaptureSession::isRecording() const {
    return m_recorder && m_recorder->isRecording();
}

bool CaptureSession::saveReplay(const QString& folder) {
    if (!m_replayBuffer) {
        return false;
    }
    runInBackground([this, buffer = m_replayBuffer, folder] {
        const Result<QString> saved = buffer->save(folder);
        emitEvent(session::ReplaySaved{saved ? *saved : QString(), saved.error(), folder});
    });
    return true;
}

void CaptureSession::recover(const QStringList& bundles) {
    runInBackground([this, bundles] {
        session::RecoveryDone done;
        for (const QString& bundle : bundles) {
            const auto found = VideoRecorder::forBundle(bundle);
            auto errors = std::make_shared<RecoveryErrors>();
            if (found) {
                const auto& recorder = *found;
                recorder->setDelegate(errors);
                if (recorder->recover()) {
                    done.seconds += recorder->recordedSeconds();
                }
                for (const QString& file : recorder->madeFiles()) {
                    done.made << QFileInfo(file).fileName();
                    done.madePaths << file;
                }
            } else {
                // The library's own words go to the log; the user reads what it means.
                logs::session.error("Could not recover %s: %s", qUtf8Printable(bundle),
                                    found.error().logLine().c_str());
                // Nothing to play will not become something: it is listed apart from now on. A
                // bundle that could not be read now is offered again, as is one that a recording
                // just begun holds.
                bool held = false;
                if (VideoRecorder::holdsNothingPlayable(found.error())) {
                    const Error marked = RecordingBundle::markUnrecoverable(bundle);
                    held = marked.systemCode() == EWOULDBLOCK;
                    if (!marked) {
                        done.unrecoverable << QFileInfo(bundle).fileName();
                    } else if (!held) {
                        logs::session.error("Could not mark %s as not recoverable: %s",
                                            qUtf8Printable(bundle), marked.logLine().c_str());
                    }
                }
                errors->messages << (held ? session::recordingMessage(
                                                {RecordingProblem::Step::HeldElsewhere, {}, {}})
                                     : found.error().systemCode() != 0
                                         ? session::reasonInWords(found.error())
                                         : QStringLiteral("It holds no recording that can be played."));
            }
            if (!errors->messages.isEmpty()) {
                done.failed << QStringLiteral("%1: %2").arg(QFileInfo(bundle).fileName(),
                                                            errors->messages.join(u' '));
            }
        }
        emitEvent(done);
    });
}

void CaptureSession::runInBackground(std::function<void()> job) {
    m_jobs.lock()->push_back(std::move(job));
    if (m_jobWorker.isActive()) {
        m_jobWorker.wakeup()->signal();
        return;
    }
    m_jobWorker.start([this](const Worker::Run& run) {
        // Every job handed over is done, also those that come after a stop: a save or a recovery
        // asked for leaves its file.
        for (;;) {
            std::function<void()> next;
            if (auto jobs = m_jobs.lock(); !jobs->empty()) {
                next = std::move(jobs->front());
                jobs->pop_front();
            }
            if (next) {
                next();
            } else if (!run.wait()) {
                if (m_jobs.lock()->empty()) {
                    return;
                }
            }
        }
    });
}

void CaptureSession::shutdown() {
    stopRecording();
    // Recordings being finalised, the current one and any earlier one: their files are finished
    // before the session goes.
    if (m_recorder) {
        m_finalising.push_back(m_recorder);
    }
    for (const auto& recorder : m_finalising) {
        if (!recorder->isDone() && !recorder->waitUntilFinished(std::chrono::minutes(30))) {
            logs::session.warning("A recording was still being finalised after 30 minutes");
        }
    }
    m_finalising.clear();
    if (m_screenshot) {
        m_screenshot->stop();
    }
    stop();
    stopReplayBuffer(); // a save under way holds the buffer until it is written
    m_camera->stop();
    // Replays being saved and recoveries are finished, or they would leave no file at all.
    m_jobWorker.stop();
    if (!m_jobWorker.join(std::chrono::minutes(30))) {
        logs::session.warning("A replay save or a recovery was still running after 30 minutes");
    }
}

} // namespace zandor
