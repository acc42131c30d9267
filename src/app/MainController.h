#pragma once

#include "camera/CameraOutput.h"
#include "layouts/CaptureLayout.h"
#include "layouts/Plugin.h"

#include <QObject>
#include <QPointer>
#include <QRect>
#include <QSize>
#include <QTimer>

#include <atomic>
#include <memory>
#include <vector>

class QAction;
class QDialog;
class QKeyEvent;
class QWidget;
namespace Ui {
class StatusSheet;
}

namespace zandor {

class CaptureDevice;
class CaptureLayoutView;
class CapturePreferencesView;
class ImageRecorder;
class MainWindow;
class MainWindowContentView;
class PreferencesWindow;
class GameAudio;
class ReplayBuffer;
class UsbBoard;
class VideoRecorder;
class ViewPreferencesView;

// Joins the capture device, the layout catalogue, the recorders and the preferences to the main
// window, its toolbar and menus; sizes the window to the active layout and takes the picture to
// full screen. Exists once; everything runs on the GUI thread but the recorders' reports, which
// are handed to it.
class MainController : public QObject {
    Q_OBJECT
public:
    explicit MainController(std::unique_ptr<UsbBoard> board);
    ~MainController() override;

    static MainController* instance();

    // Builds everything, in start-up order, and shows nothing yet.
    void awakeFromNib();

    MainWindow* mainWindow() const { return m_mainWindow.get(); }
    const std::shared_ptr<CaptureDevice>& device() const { return m_device; }
    const LayoutPtr& activeLayout() const { return m_activeLayout; }
    const std::shared_ptr<ImageRecorder>& imageRecorder() const { return m_imageRecorder; }
    const std::shared_ptr<VideoRecorder>& videoRecorder() const { return m_videoRecorder; }
    const std::shared_ptr<ReplayBuffer>& replayBuffer() const { return m_replayBuffer; }
    GameAudio* gameAudio() const { return m_gameAudio.get(); }
    const CameraOutputPtr& camera() const { return m_camera; }
    PreferencesWindow* preferencesWindow() const { return m_preferencesWindow.get(); }

    // Actions of the menus and the toolbar.
    void playPauseAction();
    void recordScreenshotAction();
    void recordVideoAction();
    // Writes the replay buffer's last seconds to a movie, off the GUI thread; says why when it cannot.
    void saveReplayAction();
    void selectActiveLayoutAction(QAction* item);
    void showPreferences();
    void selectSizeAction(QAction* item);
    void toggleFullScreen();
    void showAbout();
    void shareAsCameraAction(bool checked);

    void setActiveLayout(const LayoutPtr& layout);
    void setPlayPause(bool showPlay);
    void setVideoRecording(bool recording);
    void enableRecorders(bool enabled);

    // The layouts a screenshot or a recording captures.
    std::vector<LayoutPtr> captureLayouts();
    // Whether the application may quit now; says why not.
    bool attemptExit();

    void displayStatus(const QString& text);
    void hideStatus();
    // A window-modal alert that does not wait: style 0 warning, 1 information, 2 critical; the
    // image is a toolbar image's name, or empty for the standard one.
    // `details`, when given, are shown behind the alert's details button.
    void displayMessage(const QString& title, const QString& text, int style, const QString& image = {},
                        const QString& details = {});

    // The video recorder's reports, on the GUI thread.
    void recordDone();
    void recordError(const QString& message);
    void recordNotice(const QString& message);

    void installedPlugin(const PluginPtr& plugin);
    void keyPressed(const QKeyEvent& event);

    // Window sizing.
    QSize windowWillResize(QSize proposed);
    void updateLayoutViewFrame();
    bool isFullScreen() const { return m_fullScreenWindow != nullptr; }
    // The window size for a proposed one: natural size plus decoration for a fixed layout; else
    // the proposed width as content width with the layout's proportions, never below natural.
    static QSize sizeForResize(QSize proposed, QSize decoration, QSize natural, bool resizable);
    // Where the layout view goes in a content area: fitted, centred, capped in full screen.
    static QRect layoutViewFrame(QSize content, QSize natural, bool resizable, bool fullScreen, int maxScale,
                                 QPoint currentOrigin);

    // Offers to recover, in one window-modal dialog, the recordings of the storage folder that an
    // earlier run left unfinished: "Recover" finishes them in the background and says how much was
    // saved, "Later" leaves them, "Delete" removes the listed bundles.
    void offerRecovery();

    // Stops the picture and waits, bounded, for the pipeline's threads; waits for a recording
    // that is being finalised, so that no finished file is lost at quit.
    void shutdown();

private:
    void observeConnection();
    void setupView();
    void setupMainMenu();
    void updateBackground();
    // One step of the record button's blinking while the current video recorder is not done; puts
    // the items back once it is.
    void blinkRecording();
    void recoverBundles(const QStringList& bundles);
    // Keeps a replay buffer of the active layout while the picture plays and the user wants one; a
    // new one (empty) after any change of layout or setting.
    void updateReplayBuffer();
    // Keeps the game input open while the picture plays and it is listened to or kept by the replay
    // buffer, with the chosen volume. Returns whether the input changed: a replay buffer then needs
    // renewing, to take its sound from the new one.
    bool updateGameSound();
    void stopReplayBuffer();
    // Shares the active layout as a camera while the preference is on and the picture plays, and
    // only then.
    void updateCamera();
    // The camera could not share: the item goes off, and the first time the user is told why.
    void cameraFailed(const QString& reason);
    QSize decoration() const;
    // A window frame of the given size whose lower-left corner stays where the window's is.
    QRect keepLowerLeft(QSize size) const;
    MainWindowContentView* mainView() const;
    CaptureLayoutView* layoutView() const;

    std::shared_ptr<CaptureDevice> m_device;
    std::unique_ptr<MainWindow> m_mainWindow;
    std::unique_ptr<QDialog> m_statusWindow;
    std::unique_ptr<::Ui::StatusSheet> m_statusUi;
    std::unique_ptr<PreferencesWindow> m_preferencesWindow;
    ViewPreferencesView* m_viewPreferences = nullptr;       // owned by the preferences window
    CapturePreferencesView* m_capturePreferences = nullptr; // owned by the preferences window
    std::unique_ptr<QWidget> m_fullScreenWindow;
    LayoutPtr m_activeLayout;
    std::shared_ptr<ImageRecorder> m_imageRecorder;
    std::shared_ptr<VideoRecorder> m_videoRecorder;
    // Earlier recorders that were still finalising when another recording started; shutdown waits
    // for them too.
    std::vector<std::shared_ptr<VideoRecorder>> m_finalisingRecorders;
    std::unique_ptr<GameAudio> m_gameAudio;
    std::shared_ptr<ReplayBuffer> m_replayBuffer;
    std::atomic<int> m_replaySaves{0}; // saves still writing, which quitting waits for
    const CameraOutputPtr m_camera = CameraOutput::create();
    bool m_cameraFailureShown = false;
    QTimer m_blinkTimer;
    bool m_blinkPhase = false;
    QSize m_windowDecoration; // measured when the content went to full screen
};

} // namespace zandor
