#pragma once

#include "layouts/CaptureLayout.h"
#include "layouts/Plugin.h"
#include "session/CaptureSession.h"

#include <QObject>
#include <QPointer>
#include <QRect>
#include <QSize>

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

class GameInputWatch;
class RecordingIndicator;

class CaptureLayoutView;
class LayoutController;
class PreferencesController;
class CapturePreferencesView;
class GeneralPreferencesView;
class GlobalShortcuts;
class SaveNotifier;
class MainWindow;
class MainWindowContentView;
class PreferencesWindow;
class Board;
class ViewPreferencesView;

// Joins the capture session, the layout catalogue and the preferences to the main window, its
// toolbar and menus; sizes the window to the active layout, takes the picture to full screen and
// says what the session reports. Exists once; everything runs on the GUI thread, where the
// session's events are handed.
class MainController : public QObject {
    Q_OBJECT
public:
    explicit MainController(std::unique_ptr<Board> board);
    ~MainController() override;

    static MainController* instance();

    // Builds everything, in start-up order, and shows nothing yet.
    void awakeFromNib();

    MainWindow* mainWindow() const { return m_mainWindow.get(); }
    CaptureSession& session() const { return *m_session; }
    const LayoutPtr& activeLayout() const { return m_session->layout(); }
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
    void shareAsCameraAction(bool checked);

    void setActiveLayout(const LayoutPtr& layout);
    void setPlayPause(bool showPlay);
    void enableRecorders(bool enabled);

    SaveNotifier& notifier() const { return *m_notifier; }
    GlobalShortcuts& globalShortcuts() const { return *m_globalShortcuts; }

    // Whether the application may quit now; says why not.
    bool attemptExit();

    void displayStatus(const QString& text);
    void hideStatus();
    // A window-modal alert that does not wait: style 0 warning, 1 information, 2 critical; the
    // image is a toolbar image's name, or empty for the standard one.
    // `details`, when given, are shown behind the alert's details button.
    void displayMessage(const QString& title, const QString& text, int style, const QString& image = {},
                        const QString& details = {});

    void installedPlugin(const PluginPtr& plugin);
    void keyPressed(const QKeyEvent& event);

    // Window sizing.
    QSize windowWillResize(QSize proposed);
    void updateLayoutViewFrame();
    bool isFullScreen() const { return m_fullScreenWindow != nullptr; }

    // Offers to recover, in one window-modal dialog, the recordings of the storage folder that an
    // earlier run left unfinished: "Recover" finishes them in the background and says how much was
    // saved, "Later" leaves them, "Delete" removes the listed bundles once confirmed; those that
    // hold nothing playable are listed apart. At start (`asked` false) it opens only when some may
    // be recovered; Capture > Unfinished Recordings opens it whenever any are left.
    void offerRecovery(bool asked = false);

    // Stops the picture and waits, bounded, for the pipeline's threads; waits for a recording
    // that is being finalised, so that no finished file is lost at quit.
    void shutdown();

private:
    // What the session reports, on the GUI thread.
    void sessionEvent(const session::Event& event);
    void recordError(const QString& message);
    // A file could not be saved: the alert, and the same line in the log.
    void saveFailed(const QString& title, const QString& text, const QString& image);
    void recoveryDone(const session::RecoveryDone& done);
    // The session takes the preferences as they are now.
    void applySettings();
    void setupView();
    void setupMainMenu();
    void updateBackground();
    // Asks the desktop to bind Save Replay, Record and Screenshot as global shortcuts.
    void startGlobalShortcuts();
    void recoverBundles(const QStringList& bundles);
    // Save Replay is there while the session has a replay to save.
    void updateSaveReplay();
    // Enables View > 3D as far as the board can capture 3D, with a tooltip saying why not.
    void update3DItem();
    // The camera could not share: the item goes off, and the first time the user is told why.
    void cameraFailed(const QString& reason);
    QSize decoration() const;
    MainWindowContentView* mainView() const;
    CaptureLayoutView* layoutView() const;

    PreferencesController& m_preferences;
    LayoutController& m_layouts;
    std::unique_ptr<CaptureSession> m_session;
    std::unique_ptr<MainWindow> m_mainWindow;
    std::unique_ptr<PreferencesWindow> m_preferencesWindow;
    GeneralPreferencesView* m_generalPreferences = nullptr; // owned by the preferences window
    ViewPreferencesView* m_viewPreferences = nullptr;       // owned by the preferences window
    CapturePreferencesView* m_capturePreferences = nullptr; // owned by the preferences window
    std::unique_ptr<QWidget> m_fullScreenWindow;
    std::unique_ptr<SaveNotifier> m_notifier;
    QPointer<QDialog> m_recoveryDialog;
    std::unique_ptr<GlobalShortcuts> m_globalShortcuts;
    RecordingIndicator* m_recording = nullptr; // a child of the window
    GameInputWatch* m_gameInput = nullptr;     // a child of this
    bool m_cameraFailureShown = false;
    int m_preferencesObserver = 0;
    bool m_3DItemShown = false; // whether update3DItem() has set up View > 3D yet
    QSize m_windowDecoration;   // measured when the content went to full screen
};

} // namespace zandor
