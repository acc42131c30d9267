#pragma once

#include "base/Error.h"
#include "base/Guarded.h"
#include "base/Worker.h"
#include "camera/CameraOutput.h"
#include "layouts/CaptureLayout.h"
#include "recording/RecorderDelegate.h"
#include "settings/CaptureSettings.h"

#include <QObject>
#include <QStringList>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

namespace zandor {

class CaptureDevice;
class GameAudio;
class ImageRecorder;
class ReplayBuffer;
class Board;
class VideoRecorder;

// A consumer of the active layout that subscribes before the layout starts and follows every change
// of layout: the window's picture.
class LayoutFeed {
public:
    virtual ~LayoutFeed() = default;
    virtual void setLayout(const LayoutPtr& layout) = 0;
    virtual bool startListening() = 0;
    virtual void stopListening() = 0;
};

// What a capture session tells its owner, from whichever thread it happened on.
namespace session {
// The board went away (false) or came back (true) while the picture played.
struct BoardConnection {
    bool connected;
};
// The current or a finalising recording ended: its files are made (or not, with errors sent first).
struct RecordingDone {
    QStringList made; // the movies made, full paths
};
struct RecordingError {
    RecordingProblem problem;

    // What failed, and where the recording is kept when it is, in sentences for the user.
    QString message() const;
};
// A screenshot ended: the images written, and why one could not be written into `folder`.
struct ScreenshotTaken {
    QStringList made;
    Error error;
    QString folder;

    // Why, in words for the user: the folder and the reason.
    QString message() const;
};
// The game sound's input went away `gameSoundLostAt` into a recording that was made.
struct RecordingNotice {
    std::chrono::milliseconds gameSoundLostAt;

    QString message() const;
};
// A recording's problem in sentences for the user, as RecordingError says it.
QString recordingMessage(const RecordingProblem& problem);
// A replay save ended: the movie's path, or empty with why nothing was written to `folder`.
struct ReplaySaved {
    QString path;
    Error error;
    QString folder;

    // Why nothing was written, in one sentence for the user.
    QString message() const;
};
// Sharing as a camera ended or could not begin; the session stopped asking for it. The session
// has logged it.
struct CameraFailed {
    Error error;

    // The start of the line logged; the reason follows.
    static constexpr const char* LogPrefix = "Could not share the picture as a camera: ";
    // Why, in a few words for the user: "PipeWire is not running (Connection refused)".
    QString reason() const;
};
// The game sound input could not be opened, or went away while open.
struct GameSoundLost {
    QString input;
};
// Recovering unfinished recordings ended: the files made, one line per bundle that failed, and the
// seconds saved.
struct RecoveryDone {
    QStringList made; // file names
    QStringList madePaths;
    QStringList failed;
    // The bundles (file names) found to hold nothing playable, among those that failed.
    QStringList unrecoverable;
    double seconds = 0;
};
// Why the board named on a command line cannot be used (see createBoard), in one sentence.
std::string boardChoiceMessage(const Error& error);
// Whether the board could not be opened as its device node is not ours: the udev rule is missing.
bool boardNeedsPermission(const Error& error);
// Why the console's 3D picture cannot be chosen now, in a few words: no board, a board that cannot
// capture it, or one on USB 2; empty when it can, or while paused when the board is not known.
QString why3DUnavailable(CaptureDevice& device, bool playing);

// Why a file or folder could not be written, in one sentence for the user, by the cause kept in
// `error`: one wording for one cause, whatever was being saved ("The disk is full.").
QString reasonInWords(const Error& error);
// "Zandor cannot write to \"/path\". The disk is full.": what every save that fails says, and the
// line it logs.
QString cannotWrite(const QString& place, const Error& error);
// Whether `error` of CaptureSession::record is the storage folder's: then it is said as every save
// that fails says it (cannotWrite).
bool isFolderProblem(const Error& error);
// Why a recording into `folder` could not start, for the alert: the folder, the layouts' memory
// budget, or the general words.
QString recordingNotStarted(const Error& error, const QString& folder);

using Event = std::variant<BoardConnection, RecordingDone, RecordingError, RecordingNotice, ReplaySaved,
                           CameraFailed, GameSoundLost, RecoveryDone, ScreenshotTaken>;
} // namespace session

// One capture session: the device and its board, the layout on show, the game sound, the replay
// buffer, the camera, and the current and finalising recordings. It alone decides what runs and in
// which order things start and stop, for the window and for every command of zandor-cli alike.
// Called on one thread (its owner's); the events come from any thread.
class CaptureSession : public QObject {
public:
    // The step of a storage folder that cannot be written to.
    static constexpr const char* FolderStep = "cannot write to the folder";

    CaptureSession(std::unique_ptr<Board> board, CaptureSettings settings);
    ~CaptureSession() override;
    CaptureSession(const CaptureSession&) = delete;
    CaptureSession& operator=(const CaptureSession&) = delete;

    // Set before start; called on any thread.
    void setEventHandler(std::function<void(const session::Event&)> handler);
    // The window's picture, fed with the layout on show; null for none.
    void setLayoutFeed(LayoutFeed* feed);

    // Plays: the device first, then the feed and the layout, the game sound, the replay buffer and
    // the camera. False when the board cannot be opened (the device says why).
    bool start();
    // Pauses: the sound, the device, the feed and the layout stop; the replay buffer keeps what it
    // holds until the next start, so that it can still be saved.
    void stop();
    bool isPlaying() const;

    // The layout on show (null: both screens alone, as `zandor-cli --layout None`).
    void setLayout(const LayoutPtr& layout);
    const LayoutPtr& layout() const { return m_layout; }
    // The layouts a screenshot or a recording captures, by the settings' capture layout.
    std::vector<LayoutPtr> captureLayouts() const;
    // Whether the canvases of `layouts`, with those of the layouts running, fit their budget.
    bool canvasesFit(const std::vector<LayoutPtr>& layouts) const;

    // Takes new settings: the game sound, the replay buffer, its offset and the camera follow at
    // once; recordings and screenshots take them when they start.
    void apply(const CaptureSettings& settings);
    const CaptureSettings& settings() const { return m_settings; }

    // A screenshot of the capture layouts, or null while one is still being taken.
    std::shared_ptr<ImageRecorder> screenshot();
    const std::shared_ptr<ImageRecorder>& lastScreenshot() const { return m_screenshot; }
    // Starts a recording of the capture layouts into the storage folder.
    // ENOMEM when the layouts to record would take the canvases beyond their budget (see
    // CanvasBudget): refused before anything starts.
    Error record();
    // Stops the current recording; it finalises on its own thread and says when it is done.
    void stopRecording();
    bool isRecording() const;
    // The current recording, finalising or done; null before the first.
    const std::shared_ptr<VideoRecorder>& recorder() const { return m_recorder; }

    // Writes what the replay buffer holds into `folder`, in the background; false when there is no
    // buffer. Ends with a ReplaySaved event.
    bool saveReplay(const QString& folder);
    // Whether the buffer holds something to save (also while paused).
    bool canSaveReplay() const;
    const std::shared_ptr<ReplayBuffer>& replayBuffer() const { return m_replayBuffer; }

    // Finishes recordings an earlier run left unfinished, in the background; ends with RecoveryDone.
    void recover(const QStringList& bundles);

    const std::shared_ptr<CaptureDevice>& device() const { return m_device; }
    GameAudio& gameAudio() const { return *m_gameAudio; }
    const CameraOutputPtr& camera() const { return m_camera; }

    // Waits for the recordings being finalised and the replays being saved, then stops everything
    // and joins the background work. The session can start again afterwards.
    void shutdown();

private:
    void emitEvent(const session::Event& event);
    void startFeed();
    // Keeps the game input open while the picture plays and it is listened to or kept by the replay
    // buffer. Returns whether the input changed: a replay buffer then needs renewing.
    bool updateGameSound();
    // A new, empty replay buffer of the layout on show while the picture plays and one is wanted;
    // while paused the old one is kept to be saved.
    void updateReplayBuffer();
    void stopReplayBuffer();
    void updateCamera();
    // Logs the camera's failure and sends it; on any thread.
    void cameraFailed(const Error& error);
    void gameSoundLost();
    // Runs `job` on the session's background thread, after the jobs before it.
    void runInBackground(std::function<void()> job);

    std::shared_ptr<CaptureDevice> m_device;
    CaptureSettings m_settings;
    std::unique_ptr<GameAudio> m_gameAudio;
    const CameraOutputPtr m_camera = CameraOutput::create();
    LayoutFeed* m_feed = nullptr;
    LayoutPtr m_layout;
    std::shared_ptr<ImageRecorder> m_screenshot;
    std::shared_ptr<VideoRecorder> m_recorder;
    // Earlier recorders still finalising when another recording started.
    std::vector<std::shared_ptr<VideoRecorder>> m_finalising;
    std::shared_ptr<ReplayBuffer> m_replayBuffer;

    std::mutex m_handlerLock;
    std::function<void(const session::Event&)> m_handler; // guarded by m_handlerLock

    // The background thread: replay saves and recovery, one after the other.
    Guarded<std::deque<std::function<void()>>> m_jobs;
    Worker m_jobWorker{"zandor-session"};
};

} // namespace zandor
