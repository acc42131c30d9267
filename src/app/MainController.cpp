#include "MainController.h"

#include "CaptureLayoutView.h"
#include "GameInputWatch.h"
#include "MainWindow.h"
#include "MainWindowContentView.h"
#include "NamedScreen.h"
#include "RecordingIndicator.h"
#include "RecoveryOffer.h"
#include "GlobalShortcuts.h"
#include "SaveNotifier.h"
#include "WindowGeometry.h"
#include "base/Log.h"
#include "base/Notifier.h"
#include "base/RunOn.h"
#include "capture/CaptureDevice.h"
#include "capture/Board.h"
#include "layouts/LayoutController.h"
#include "layouts/PluginController.h"
#include "recording/VideoRecorder.h"
#include "ui/CapturePreferencesView.h"
#include "ui/GeneralPreferencesView.h"
#include "ui/Icons.h"
#include "settings/Settings.h"
#include "settings/PreferencesController.h"
#include "ui/PreferencesWindow.h"
#include "ui/ViewPreferencesView.h"

#include <QDialog>
#include <QGuiApplication>
#include <QLayout>
#include <QMenu>
#include <QScreen>
#include <QStatusBar>

#include <algorithm>

namespace zandor {

namespace {

MainController* g_instance = nullptr;

} // namespace

MainController::MainController(std::unique_ptr<Board> board)
    : m_preferences(PreferencesController::instance()), m_layouts(LayoutController::instance()),
      m_session(std::make_unique<CaptureSession>(std::move(board),
                                                 CaptureSettings::fromPreferences(m_preferences))) {
    // The session reports from its threads; the window hears of it on the GUI thread, where it
    // shows the state at that moment (a notice that arrives after a pause is stale).
    m_session->setEventHandler([self = QPointer<MainController>(this)](const session::Event& event) {
        runLater(self, [self, event] { self->sessionEvent(event); });
    });
}

void MainController::sessionEvent(const session::Event& event) {
    if (std::holds_alternative<session::BoardConnection>(event)) {
        layoutView()->setNoSignal(m_session->isPlaying() && m_session->device()->isDisconnected());
        update3DItem();
    } else if (const auto* done = std::get_if<session::RecordingDone>(&event)) {
        hideStatus();
        for (const QString& path : done->made) {
            m_notifier->fileSaved(QStringLiteral("Recording saved"), path);
        }
    } else if (const auto* shot = std::get_if<session::ScreenshotTaken>(&event)) {
        for (const QString& path : shot->made) {
            m_notifier->fileSaved(QStringLiteral("Screenshot saved"), path);
        }
        if (shot->error) {
            saveFailed(QStringLiteral("Could not save the screenshot."), shot->message(), {});
        }
    } else if (const auto* error = std::get_if<session::RecordingError>(&event)) {
        recordError(error->message());
    } else if (const auto* notice = std::get_if<session::RecordingNotice>(&event)) {
        displayMessage(QStringLiteral("The video was recorded."), notice->message(), 1,
                       QStringLiteral("toolbar_record"));
    } else if (const auto* saved = std::get_if<session::ReplaySaved>(&event)) {
        if (saved->path.isEmpty()) {
            saveFailed(QStringLiteral("Could not save the replay."), saved->message(),
                       QStringLiteral("toolbar_replay"));
        } else {
            m_notifier->fileSaved(QStringLiteral("Replay saved"), saved->path);
        }
    } else if (const auto* camera = std::get_if<session::CameraFailed>(&event)) {
        cameraFailed(camera->reason());
    } else if (std::holds_alternative<session::GameSoundLost>(event)) {
        updateSaveReplay(); // the session renewed its replay buffer without the sound
        m_gameInput->lost();
    } else if (const auto* done = std::get_if<session::RecoveryDone>(&event)) {
        recoveryDone(*done);
    }
}

void MainController::saveFailed(const QString& title, const QString& text, const QString& image) {
    logs::app.error("%s %s", qUtf8Printable(title), qUtf8Printable(text));
    displayMessage(title, text, 0, image);
}

void MainController::applySettings() {
    m_session->apply(CaptureSettings::fromPreferences(m_preferences));
    m_notifier->setEnabled(settings::notifyOnSave.read(m_preferences));
    updateSaveReplay();
}

MainController::~MainController() {
    // The window goes before the session: the session must no longer feed it.
    m_session->setLayoutFeed(nullptr);
    if (g_instance == this) {
        g_instance = nullptr;
        m_preferences.setWriteFailureHandler({});
        m_preferences.stopObserving(m_preferencesObserver);
    }
}

MainController* MainController::instance() {
    return g_instance;
}

MainWindowContentView* MainController::mainView() const {
    return m_mainWindow->ui.mainView;
}

CaptureLayoutView* MainController::layoutView() const {
    return m_mainWindow->ui.layoutView;
}

void MainController::awakeFromNib() {
    g_instance = this;
    m_mainWindow = std::make_unique<MainWindow>();

    // Settings that cannot be saved still work for this run; the user is told once.
    m_preferences.setWriteFailureHandler([this](const Error& failure) {
        runLater(this, [this, why = QString::fromStdString(failure.cause())] {
            displayMessage(QStringLiteral("Could not save the preferences."),
                           QStringLiteral("Your changes hold until Zandor quits, but they could not be "
                                          "written to \"%1\": %2")
                               .arg(m_preferences.file(), why),
                           0);
        });
    });
    PluginController::instance();

    QStringList screenNames;
    for (const QScreen* screen : QGuiApplication::screens()) {
        screenNames.append(NamedScreen::name(screen));
    }
    m_generalPreferences = new GeneralPreferencesView;
    m_viewPreferences = new ViewPreferencesView(screenNames);
    m_capturePreferences = new CapturePreferencesView;
    m_preferencesWindow = std::make_unique<PreferencesWindow>(
        QList<PreferencePane*>{m_generalPreferences, m_viewPreferences, m_capturePreferences},
        QStringLiteral("Preferences"));

    // Every file made is told to the desktop, or in the status bar where the desktop cannot say it.
    m_notifier = std::make_unique<SaveNotifier>();
    m_notifier->setEnabled(settings::notifyOnSave.read(m_preferences));
    m_notifier->setFallback(
        [this](const QString& line) { m_mainWindow->statusBar()->showMessage(line, 5000); });
    m_recording = new RecordingIndicator(*m_mainWindow, *m_session);
    startGlobalShortcuts();

    ::Ui::MainWindow& ui = m_mainWindow->ui;
    connect(ui.playPauseItem, &QAction::triggered, this, &MainController::playPauseAction);
    connect(ui.screenshotItem, &QAction::triggered, this, &MainController::recordScreenshotAction);
    connect(ui.recordItem, &QAction::triggered, this, &MainController::recordVideoAction);
    connect(ui.saveReplayItem, &QAction::triggered, this, &MainController::saveReplayAction);
    // Every change of a setting reaches the session at once; what it changes is the session's to decide.
    m_preferencesObserver = m_preferences.observeChanges([this](const QString&) { applySettings(); });
    ui.listenItem->setChecked(m_session->settings().listenToGameAudio);
    m_gameInput = new GameInputWatch(
        *ui.listenItem, *m_session, [this] { applySettings(); }, this);
    connect(ui.listenItem, &QAction::toggled, this, [this](bool listening) {
        m_gameInput->userChoseListening();
        settings::listenToGameAudio.write(m_preferences, listening);
    });
    connect(ui.sizeOriginalItem, &QAction::triggered, this,
            [this] { selectSizeAction(m_mainWindow->ui.sizeOriginalItem); });
    connect(ui.sizeDoubleItem, &QAction::triggered, this,
            [this] { selectSizeAction(m_mainWindow->ui.sizeDoubleItem); });
    connect(ui.fullScreenItem, &QAction::triggered, this, &MainController::toggleFullScreen);
    connect(ui.preferencesItem, &QAction::triggered, this, &MainController::showPreferences);
    connect(ui.recoveryItem, &QAction::triggered, this, [this] { offerRecovery(true); });
    // There while some recording is left unfinished.
    connect(ui.captureMenu, &QMenu::aboutToShow, this, [this] {
        m_mainWindow->ui.recoveryItem->setEnabled(
            !VideoRecorder::abandonedBundles(m_session->settings().storageFolder).isEmpty());
    });
    connect(ui.aboutItem, &QAction::triggered, m_mainWindow.get(), &MainWindow::showAbout);
    connect(ui.aboutBoardItem, &QAction::triggered, this,
            [this] { m_mainWindow->showBoard(m_session->device()->board().info()); });
    connect(ui.shareAsCameraItem, &QAction::triggered, this, &MainController::shareAsCameraAction);
    // Only the user's choice is stored: the item shows it unchecked while the board cannot take it.
    connect(ui.capture3DItem, &QAction::triggered, this,
            [this](bool on) { settings::capture3D.write(m_preferences, on); });
    update3DItem();
    ui.shareAsCameraItem->setChecked(m_session->settings().shareAsCamera);
    connect(ui.quitItem, &QAction::triggered, m_mainWindow.get(), &QWidget::close);

    m_session->setLayoutFeed(layoutView());
    m_mainWindow->shouldClose = [this] { return attemptExit(); };
    m_mainWindow->willResize = [this](QSize proposed) { return windowWillResize(proposed); };
    m_mainWindow->didResize = [this] { updateLayoutViewFrame(); };

    setupView();

    connect(Notifier::instance(), &Notifier::notified, this,
            [this](const QString& name, const QVariant& object, const QVariantMap&) {
                if (name == PluginInstalledNotification) {
                    installedPlugin(object.value<PluginPtr>());
                }
            });
}

void MainController::startGlobalShortcuts() {
    m_globalShortcuts = std::make_unique<GlobalShortcuts>(m_mainWindow->globalShortcuts());
    connect(m_globalShortcuts.get(), &GlobalShortcuts::stateChanged, this,
            [this] { m_generalPreferences->setGlobalShortcutsNote(m_globalShortcuts->note()); });
    connect(m_globalShortcuts.get(), &GlobalShortcuts::activated, m_mainWindow.get(),
            &MainWindow::triggerShortcut);
    m_globalShortcuts->start();
}

void MainController::setupView() {
    const bool firstRun = settings::firstRun.read(m_preferences);
    if (firstRun) {
        settings::firstRun.write(m_preferences, false);
    }
    QPalette palette = m_mainWindow->palette();
    palette.setColor(QPalette::Window, Qt::black);
    mainView()->setPalette(palette);
    setPlayPause(true);
    enableRecorders(false);
    setupMainMenu();
    connect(mainView(), &MainWindowContentView::keyPressed, this, &MainController::keyPressed);
    // Once the window is on screen where the window manager put it, over it: the recovery dialog,
    // then, on a first start, the About panel. The dialog holds the window and its children until
    // it is answered, so About comes after it, not under or over it.
    RecoveryOffer::whenShown(m_mainWindow.get(), [this, firstRun] {
        offerRecovery();
        if (!firstRun) {
            return;
        }
        if (m_recoveryDialog) {
            connect(m_recoveryDialog, &QDialog::finished, m_mainWindow.get(), &MainWindow::showAbout);
        } else {
            m_mainWindow->showAbout();
        }
    });
    const auto& layouts = m_layouts.layouts();
    if (layouts.empty()) {
        // The application's own plugins are missing: show a screen alone rather than nothing.
        logs::app.warning("No layout plugin found in %s",
                          qUtf8Printable(PluginController::appPluginFolder()));
        setActiveLayout(m_layouts.screenLayouts()[0]);
    } else {
        setActiveLayout(layouts.front());
    }
}

void MainController::setupMainMenu() {
    QMenu* menu = m_mainWindow->ui.activeLayoutMenu;
    menu->clear();
    for (const LayoutMenuItem& item : m_layouts.menuItems()) {
        if (item.separator) {
            menu->addSeparator();
            continue;
        }
        QAction* action = menu->addAction(item.title);
        action->setCheckable(true);
        connect(action, &QAction::triggered, this, [this, action] { selectActiveLayoutAction(action); });
    }
}

void MainController::selectActiveLayoutAction(QAction* item) {
    if (auto layout = m_layouts.layoutNamed(item->text())) {
        setActiveLayout(layout);
    } else if (activeLayout()) {
        item->setChecked(item->text() == activeLayout()->name());
    }
}

QSize MainController::decoration() const {
    if (isFullScreen()) {
        return m_windowDecoration; // the content is on the full-screen surface now
    }
    m_mainWindow->ensurePolished();
    if (QLayout* layout = m_mainWindow->layout()) {
        layout->activate();
    }
    // Menu bar and toolbar sit above the content, which spans the whole width, and the status bar
    // below it. Measured from the content's place, which stays put while a resize of the window is
    // still on its way, unlike the two sizes.
    return QSize(0, mainView()->geometry().top() + m_mainWindow->statusBar()->sizeHint().height());
}

void MainController::setActiveLayout(const LayoutPtr& layout) {
    if (!layout) {
        return;
    }
    m_session->setLayout(layout);

    // The window's content takes the layout's natural size, or the largest of its proportions that
    // fits the screen; its lower-left corner stays put.
    const QSize natural(static_cast<int>(layout->width()), static_cast<int>(layout->height()));
    const QSize content =
        layout->isResizable()
            ? WindowGeometry::fitContent(natural, natural, decoration(), m_mainWindow->usableArea().size())
            : natural;
    const QSize frameSize = content + decoration();
    const QRect frame = m_mainWindow->keepLowerLeft(frameSize);

    updateBackground();
    for (QAction* item : m_mainWindow->ui.activeLayoutMenu->actions()) {
        item->setChecked(!item->isSeparator() && item->text() == layout->name());
    }
    if (layout->isResizable()) {
        m_mainWindow->setMinimumSize(frameSize);
        m_mainWindow->setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
        m_mainWindow->setAspect(natural, decoration());
    } else {
        m_mainWindow->setFixedSize(frameSize);
    }
    // Also in full screen: the window waits at the new size for the picture's return.
    m_mainWindow->place(frame);
    updateLayoutViewFrame();
    updateSaveReplay();
}

void MainController::updateBackground() {
    if (activeLayout()) {
        mainView()->setBackground(activeLayout()->background());
    }
}

void MainController::playPauseAction() {
    if (m_session->isPlaying()) {
        m_session->stop();
        layoutView()->setNoSignal(false); // a paused picture says nothing of the board
        setPlayPause(true);
        enableRecorders(false);
        updateSaveReplay();
        return;
    }
    if (!m_session->start()) {
        // A board that is there but not ours to open needs the udev rule, not a cable.
        const QString details =
            session::boardNeedsPermission(m_session->device()->failure())
                ? QStringLiteral("Zandor may not open the capture board's USB device. Install the udev rule "
                                 "70-zandor-capture.rules, then plug the board in again:\n"
                                 "sudo cp resources/udev/70-zandor-capture.rules /etc/udev/rules.d/\n"
                                 "sudo udevadm control --reload-rules")
                : QString();
        displayMessage(
            QStringLiteral("Could not connect to device."),
            QStringLiteral("It was not possible to connect to the capture device. Please insert the cable "
                           "or check whether it is inserted correctly."),
            0, {}, details);
        update3DItem();
        return;
    }
    update3DItem();
    setPlayPause(false);
    enableRecorders(true);
    updateSaveReplay();
}

void MainController::update3DItem() {
    const bool playing = m_session->isPlaying();
    const QString why = session::why3DUnavailable(*m_session->device(), playing);
    if (why.isEmpty() && !playing && m_3DItemShown) {
        // Paused: the board was known while it played, and is asked again at the next Play.
        return;
    }
    m_3DItemShown = true;
    QAction* item = m_mainWindow->ui.capture3DItem;
    item->setEnabled(why.isEmpty());
    item->setToolTip(why.isEmpty() ? QStringLiteral("Capture the console's 3D picture: the top screen shows "
                                                    "the left eye, and layouts such as \"3D Side by Side\" "
                                                    "show both eyes")
                                   : why);
    item->setChecked(why.isEmpty() && settings::capture3D.read(m_preferences));
}

void MainController::shareAsCameraAction(bool checked) {
    settings::shareAsCamera.write(m_preferences, checked);
}

void MainController::cameraFailed(const QString& reason) {
    m_mainWindow->ui.shareAsCameraItem->setChecked(false);
    settings::shareAsCamera.write(m_preferences, false);
    if (!m_cameraFailureShown) {
        m_cameraFailureShown = true;
        displayMessage(
            QStringLiteral("Could not share the picture as a camera."),
            QStringLiteral("%1. The picture, screenshots and recordings go on; choose Share as Camera "
                           "again once PipeWire runs.")
                .arg(reason),
            0);
    }
}

void MainController::setPlayPause(bool showPlay) {
    layoutView()->setIdle(showPlay);
    QAction* item = m_mainWindow->ui.playPauseItem;
    item->setIcon(icon(showPlay ? QStringLiteral("toolbar_play") : QStringLiteral("toolbar_pause")));
    item->setText(showPlay ? QStringLiteral("Play") : QStringLiteral("Pause"));
}

void MainController::enableRecorders(bool enabled) {
    m_mainWindow->ui.recordItem->setEnabled(enabled);
    m_mainWindow->ui.screenshotItem->setEnabled(enabled);
}

void MainController::recordScreenshotAction() {
    m_session->screenshot();
}

void MainController::recordVideoAction() {
    if (m_session->isRecording()) {
        displayStatus(QStringLiteral("Finalizing video..."));
        m_session->stopRecording();
        m_recording->update();
        return;
    }
    if (const Error failed = m_session->record()) {
        logs::app.error("Could not start recording video: %s", failed.logLine().c_str());
        const QString title = QStringLiteral("Could not start recording video.");
        const QString text = session::recordingNotStarted(failed, m_session->settings().storageFolder);
        if (session::isFolderProblem(failed)) {
            saveFailed(title, text, QStringLiteral("toolbar_record"));
        } else {
            displayMessage(title, text, 2, QStringLiteral("toolbar_record"));
        }
        return;
    }
    m_recording->started();
}

void MainController::updateSaveReplay() {
    m_mainWindow->ui.saveReplayItem->setEnabled(m_session->canSaveReplay());
}

void MainController::saveReplayAction() {
    // Into the storage folder chosen now, whichever was chosen when the buffer started.
    m_session->saveReplay(m_session->settings().storageFolder);
}

void MainController::recordError(const QString& message) {
    hideStatus();
    displayMessage(QStringLiteral("Could not finalize the video."),
                   QStringLiteral("It was not possible to record the video. %1").arg(message), 2,
                   QStringLiteral("toolbar_record"));
}

void MainController::displayStatus(const QString& text) {
    m_mainWindow->showStatus(text);
}

void MainController::hideStatus() {
    m_mainWindow->hideStatus();
}

void MainController::displayMessage(const QString& title, const QString& text, int style,
                                    const QString& image, const QString& details) {
    m_mainWindow->alert(title, text, style, image, details);
}

void MainController::recoverBundles(const QStringList& bundles) {
    displayStatus(QStringLiteral("Recovering video..."));
    // Finalising runs the tools in the background; the window stays responsive meanwhile.
    m_session->recover(bundles);
}

void MainController::offerRecovery(bool asked) {
    if (m_recoveryDialog) {
        m_recoveryDialog->raise();
        m_recoveryDialog->activateWindow();
        return;
    }
    const QStringList bundles = VideoRecorder::abandonedBundles(m_session->settings().storageFolder);
    // What cannot be recovered is not worth a dialog at every start: it waits in the menu.
    if (asked ? bundles.isEmpty() : !RecoveryOffer::anyRecoverable(bundles)) {
        return;
    }
    m_recoveryDialog =
        RecoveryOffer::open(m_mainWindow.get(), bundles,
                            {[this](const QStringList& recoverable) { recoverBundles(recoverable); },
                             [this](const QString& bundle) { m_notifier->showInFolder(bundle); }});
}

void MainController::recoveryDone(const session::RecoveryDone& done) {
    hideStatus();
    for (const QString& path : done.madePaths) {
        m_notifier->fileSaved(QStringLiteral("Recording recovered"), path);
    }
    for (const QString& line : done.failed) {
        logs::app.error("Could not recover %s", qUtf8Printable(line));
    }
    const RecoveryOffer::Outcome outcome = RecoveryOffer::outcome(done);
    displayMessage(outcome.title, outcome.text, outcome.failed ? 2 : 1, QStringLiteral("toolbar_record"));
}

void MainController::showPreferences() {
    m_capturePreferences->setBoardSendsNoSound(m_session->device()->board().info().sendsSound == false);
    m_preferencesWindow->showWindow();
}

void MainController::installedPlugin(const PluginPtr& plugin) {
    if (!plugin || plugin->type() != Plugin::LayoutType) {
        return;
    }
    auto layout = m_layouts.addPlugin(std::static_pointer_cast<LayoutPlugin>(plugin));
    setupMainMenu();
    setActiveLayout(layout);
}

void MainController::keyPressed(const QKeyEvent& event) {
    if (event.key() == Qt::Key_Escape && isFullScreen()) {
        toggleFullScreen();
    }
}

bool MainController::attemptExit() {
    if (m_session->isRecording()) {
        displayMessage(
            QStringLiteral("Please stop recording first."),
            QStringLiteral("You are currently recording a video. Please stop the recording first before "
                           "attempting to close the application."),
            0);
        return false;
    }
    return true;
}

QSize MainController::windowWillResize(QSize proposed) {
    if (!activeLayout() || isFullScreen()) {
        return proposed;
    }
    const QSize natural(static_cast<int>(activeLayout()->width()),
                        static_cast<int>(activeLayout()->height()));
    const QSize decor = decoration();
    // Our windows have no side borders: the proposed width is the content's width.
    return WindowGeometry::sizeForResize(QSize(proposed.width() - decor.width(), proposed.height()), decor,
                                         natural, activeLayout()->isResizable(),
                                         m_mainWindow->usableArea().size());
}

void MainController::updateLayoutViewFrame() {
    if (!activeLayout()) {
        return;
    }
    const QSize natural(static_cast<int>(activeLayout()->width()),
                        static_cast<int>(activeLayout()->height()));
    const bool resizable = activeLayout()->isResizable();
    const int maxScale = static_cast<int>(settings::fullscreenMaxScale.read(m_preferences));
    const QRect frame = WindowGeometry::layoutViewFrame(mainView()->size(), natural, resizable,
                                                        isFullScreen(), maxScale, layoutView()->pos());
    layoutView()->setGeometry(frame);

    ::Ui::MainWindow& ui = m_mainWindow->ui;
    ui.sizeOriginalItem->setEnabled(resizable);
    ui.sizeDoubleItem->setEnabled(resizable);
    ui.sizeOriginalItem->setChecked(frame.size() == natural);
    ui.sizeDoubleItem->setChecked(frame.size() != natural && frame.size() == natural * 2);
}

void MainController::selectSizeAction(QAction* item) {
    if (!activeLayout() || !activeLayout()->isResizable()) {
        updateLayoutViewFrame();
        return;
    }
    const int scale = item->data().toInt();
    const QSize natural(static_cast<int>(activeLayout()->width()),
                        static_cast<int>(activeLayout()->height()));
    const QSize content =
        WindowGeometry::fitContent(natural * scale, natural, decoration(), m_mainWindow->usableArea().size());
    m_mainWindow->place(m_mainWindow->keepLowerLeft(content + decoration()));
    updateLayoutViewFrame();
}

void MainController::toggleFullScreen() {
    if (isFullScreen()) {
        m_mainWindow->returnContent(std::move(m_fullScreenWindow));
        updateLayoutViewFrame();
        return;
    }
    // The display chosen by name, else the first one; only that display is taken over.
    QScreen* screen = NamedScreen::find(settings::fullscreenScreen.read(m_preferences));
    m_windowDecoration = decoration();
    m_fullScreenWindow = m_mainWindow->takeContentFullScreen(screen);
    updateLayoutViewFrame();
}

void MainController::shutdown() {
    m_session->shutdown();
}

} // namespace zandor
