#include "Files.h"
#include "GatedBoard.h"
#include "Media.h"
#include "PipeWireServer.h"
#include "PluginBundles.h"
#include "Process.h"
#include "PulseServer.h"
#include "UserFolders.h"
#include "settings/Settings.h"
#include "app/CaptureLayoutView.h"
#include "app/MainController.h"
#include "app/MainWindow.h"
#include "app/WindowGeometry.h"
#include "app/ZDAppDelegate.h"
#include "base/Log.h"
#include "base/Worker.h"
#include "capture/CaptureDevice.h"
#include "capture/ClassicBoard.h"
#include "capture/DemoBoard.h"
#include "layouts/CanvasBudget.h"
#include "layouts/LayoutController.h"
#include "recording/ImageRecorder.h"
#include "recording/ReplayBuffer.h"
#include "recording/ShellCommand.h"
#include "recording/VideoRecorder.h"
#include "settings/PreferencesController.h"
#include "ui/PreferencesWindow.h"

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QCheckBox>
#include <QLabel>
#include <QRegularExpression>
#include <QSpinBox>
#include <QStatusBar>
#include <QDir>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QComboBox>
#include <QTest>
#include <QTimer>
#include <QPointer>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {
namespace {

using namespace std::chrono_literals;

TEST(WindowSizing, KeepsProportionsAndNeverShrinksBelowNaturalSize) {
    const QSize decoration(0, 60), natural(720, 240);
    // Dragged to 1000 wide: content 1000 by 333.33, plus the decoration, rounded.
    EXPECT_EQ(WindowGeometry::sizeForResize({1000, 500}, decoration, natural, true), QSize(1000, 393));
    EXPECT_EQ(WindowGeometry::sizeForResize({1000, 100}, decoration, natural, true), QSize(1000, 393))
        << "the height follows the width";
    EXPECT_EQ(WindowGeometry::sizeForResize({500, 900}, decoration, natural, true), QSize(720, 300))
        << "below natural size it snaps back";
    EXPECT_EQ(WindowGeometry::sizeForResize({1000, 500}, decoration, natural, false), QSize(720, 300))
        << "a fixed layout keeps its size";
}

TEST(WindowSizing, PlacesTheViewFittedCentredAndCappedInFullScreen) {
    const QSize screen(1920, 1080), natural(400, 480);
    EXPECT_EQ(WindowGeometry::layoutViewFrame(screen, natural, true, true, 0, {}), QRect(510, 0, 900, 1080));
    EXPECT_EQ(WindowGeometry::layoutViewFrame(screen, natural, true, true, 2, {}), QRect(560, 60, 800, 960));
    EXPECT_EQ(WindowGeometry::layoutViewFrame(screen, natural, true, true, 3, {}), QRect(510, 0, 900, 1080))
        << "a cap above the fitted scale changes nothing";
    EXPECT_EQ(WindowGeometry::layoutViewFrame(screen, natural, true, false, 2, {}), QRect(510, 0, 900, 1080))
        << "no cap in a window";
    EXPECT_EQ(WindowGeometry::layoutViewFrame({1000, 2000}, {720, 240}, true, false, 0, {}),
              QRect(0, 834, 1000, 333))
        << "833.5 rounds away from zero";
    EXPECT_EQ(WindowGeometry::layoutViewFrame(screen, natural, false, true, 0, {7, 9}), QRect(7, 9, 400, 480))
        << "a fixed layout keeps its place and size";
}

class MainControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        ASSERT_TRUE(QTest::qWaitFor([] { return Worker::running() == 0; }, 20000))
            << "an earlier test's threads";
        auto& preferences = PreferencesController::instance();
        preferences.setReadOnly(false);
        preferences.setPreference(settings::storageFolder.key, m_storage.path());
        preferences.setPreference(settings::captureLayout.key, "Active Layout");
        preferences.setPreference(settings::gameAudioInput.key, "None");
        preferences.setPreference(settings::narratorAudioInput.key, "None");
        preferences.setPreference(settings::replayBuffer.key, false);
        preferences.setPreference(settings::capture3D.key, false);
        preferences.setPreference(settings::notifyOnSave.key, true);
    }
    void TearDown() override {
        stop();
        ShellCommand::setToolFolder({});
        EXPECT_TRUE(QTest::qWaitFor([] { return Worker::running() == 0; }, 20000)) << "threads left behind";
    }

    ::Ui::MainWindow& start(std::unique_ptr<UsbBoard> board = std::make_unique<DemoBoard>()) {
        m_controller = std::make_unique<MainController>(std::make_unique<ClassicBoard>(std::move(board)));
        m_controller->awakeFromNib();
        m_controller->mainWindow()->show();
        return m_controller->mainWindow()->ui;
    }
    void stop() {
        if (m_controller) {
            m_controller->shutdown();
            m_controller.reset();
        }
    }

    // Recordings at 30 frames a second, finalised by stand-in tools, the converter after
    // `converterFirst`; the application plays.
    ::Ui::MainWindow& startRecordingWith(const QByteArray& converterFirst) {
        EXPECT_TRUE(test::writeStandInTools(m_tools.path(), converterFirst));
        ShellCommand::setToolFolder(m_tools.path());
        PreferencesController::instance().setPreference(settings::videoFramesPerSecond.key, "30");
        auto& ui = start();
        ui.playPauseItem->trigger();
        m_frames = std::make_unique<QSignalSpy>(ui.layoutView, &CaptureLayoutView::frameReceived);
        return ui;
    }
    // Waits until the view has received `count` more frames.
    void framesLater(int count) {
        for (int seen = m_frames->count(); m_frames->count() < seen + count;) {
            ASSERT_TRUE(m_frames->wait(20000));
        }
    }
    // Starts a recording and stops it ten frames later; the recorder.
    std::shared_ptr<VideoRecorder> recordTenFrames(::Ui::MainWindow& ui) {
        ui.recordItem->trigger();
        framesLater(10);
        auto recorder = m_controller->session().recorder();
        ui.recordItem->trigger();
        return recorder;
    }

    // Whether the picture shows its line of text, in the view's light grey, across its middle.
    bool showsText() const {
        const QImage picture =
            m_controller->mainWindow()->ui.layoutView->grab().toImage().convertToFormat(QImage::Format_RGB32);
        for (int x = 0; x < picture.width(); ++x) {
            if ((picture.pixel(x, picture.height() / 2) & 0xffffff) == 0xe0e0e0) {
                return true;
            }
        }
        return false;
    }

    // The message boxes on the main window: text, informative text and any details.
    QStringList alerts() const {
        QStringList texts;
        for (auto* box : m_controller->mainWindow()->findChildren<QMessageBox*>()) {
            if (box->objectName() != "aboutWindow") {
                const QString details = box->detailedText();
                texts << box->text() + " | " + box->informativeText() +
                             (details.isEmpty() ? "" : " | " + details);
            }
        }
        return texts;
    }

    QTemporaryDir m_storage;
    QTemporaryDir m_tools;
    std::unique_ptr<MainController> m_controller;
    std::unique_ptr<QSignalSpy> m_frames;
};

TEST_F(MainControllerTest, PlayWithoutABoardSaysSoAndStaysStopped) {
    const QString alert =
        "Could not connect to device. | It was not possible to connect to the capture device. "
        "Please insert the cable or check whether it is inserted correctly.";
    auto missing = std::make_unique<DemoBoard>();
    missing->unplug();
    auto& ui = start(std::move(missing));
    EXPECT_FALSE(ui.screenshotItem->isEnabled());
    ui.playPauseItem->trigger();
    EXPECT_EQ(alerts(), QStringList{alert}) << "no details for a missing board";
    EXPECT_EQ(ui.playPauseItem->text(), "Play");
    EXPECT_FALSE(ui.recordItem->isEnabled());
    EXPECT_FALSE(ui.capture3DItem->isEnabled());
    EXPECT_EQ(ui.capture3DItem->toolTip(), "No capture board is connected");

    // A board we may not open: the same alert, with the rule to install behind its details.
    stop();
    auto locked = std::make_unique<test::GatedBoard>();
    locked->lockOut(true);
    start(std::move(locked)).playPauseItem->trigger();
    EXPECT_EQ(alerts(),
              QStringList{alert + " | Zandor may not open the capture board's USB device. Install the "
                                  "udev rule 70-zandor-capture.rules, then plug the board in again:\n"
                                  "sudo cp resources/udev/70-zandor-capture.rules /etc/udev/rules.d/\n"
                                  "sudo udevadm control --reload-rules"});
}

TEST_F(MainControllerTest, WhileTheBoardIsAwayThePictureSaysSoUntilItIsBackOrPaused) {
    auto owned = std::make_unique<DemoBoard>();
    DemoBoard* board = owned.get();
    board->injectFault(30, BoardFault::Vanish);
    auto& ui = start(std::move(owned));
    ui.playPauseItem->trigger();
    ASSERT_TRUE(QTest::qWaitFor([&] { return ui.layoutView->showsNoSignal(); }, 20000));
    EXPECT_TRUE(showsText()) << "the line over the black picture";

    board->replug();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !ui.layoutView->showsNoSignal(); }, 20000));
    QSignalSpy frames(ui.layoutView, &CaptureLayoutView::frameReceived);
    ASSERT_TRUE(frames.wait(20000));
    EXPECT_FALSE(showsText());

    board->unplug();
    ASSERT_TRUE(QTest::qWaitFor([&] { return ui.layoutView->showsNoSignal(); }, 20000));
    ui.playPauseItem->trigger();
    EXPECT_FALSE(ui.layoutView->showsNoSignal()) << "a paused picture says nothing of the board";
}

TEST_F(MainControllerTest, PlayingShowsTheMovingPictureAndAScreenshotCanBeTakenUntilPaused) {
    auto& ui = start();
    EXPECT_TRUE(ui.layoutView->showsIdle());
    EXPECT_TRUE(showsText()) << "before Play the black view says how to start";
    ui.playPauseItem->trigger();
    EXPECT_FALSE(ui.layoutView->showsIdle());
    EXPECT_EQ(ui.playPauseItem->text(), "Pause");
    QSignalSpy frames(ui.layoutView, &CaptureLayoutView::frameReceived);
    ASSERT_TRUE(frames.wait(20000));
    const QImage first = ui.layoutView->grab().toImage();
    ASSERT_TRUE(frames.wait(20000));
    EXPECT_NE(first, ui.layoutView->grab().toImage()) << "the picture moves";
    EXPECT_EQ(first.size(), QSize(400, 480));

    ui.screenshotItem->trigger();
    ASSERT_TRUE(m_controller->session().lastScreenshot()->waitUntilFinished(20s));
    const QStringList shots = QDir(m_storage.path()).entryList({"Screenshot *.png"}, QDir::Files);
    ASSERT_EQ(shots.size(), 1);
    // No notification service on the test's bus: the status bar names the file instead.
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            return m_controller->mainWindow()->statusBar()->currentMessage() ==
                   "Screenshot saved: " + shots[0];
        },
        20000))
        << m_controller->mainWindow()->statusBar()->currentMessage().toStdString();

    ui.playPauseItem->trigger();
    EXPECT_EQ(ui.playPauseItem->text(), "Play");
    EXPECT_TRUE(ui.layoutView->showsIdle());
    EXPECT_FALSE(m_controller->session().device()->isListening());
    EXPECT_FALSE(ui.screenshotItem->isEnabled() || ui.recordItem->isEnabled());
}

TEST_F(MainControllerTest, TheReplayBufferFollowsThePictureAndTheSettingAndSavesOnRequest) {
    PreferencesController::instance().setPreference(settings::replayBuffer.key, true);
    auto& ui = start();
    EXPECT_FALSE(ui.saveReplayItem->isEnabled());
    ui.playPauseItem->trigger();
    ASSERT_TRUE(m_controller->session().replayBuffer());
    EXPECT_TRUE(ui.saveReplayItem->isEnabled());
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return m_controller->session().replayBuffer()->heldSeconds() > 0.5; }, 20000));
    ui.saveReplayItem->trigger();
    const auto replays = [this] { return QDir(m_storage.path()).entryList({"Replay *.mp4"}, QDir::Files); };
    EXPECT_TRUE(QTest::qWaitFor([&] { return replays().size() == 1; }, 20000));
    EXPECT_TRUE(alerts().isEmpty()) << alerts().join("; ").toStdString();

    const auto first = m_controller->session().replayBuffer();
    m_controller->setActiveLayout(LayoutController::instance().layoutNamed("Side by Side"));
    ASSERT_TRUE(m_controller->session().replayBuffer());
    EXPECT_EQ(m_controller->session().replayBuffer()->layouts().front()->name(), "Side by Side");
    EXPECT_FALSE(first->isListening());

    auto* pane = m_controller->preferencesWindow()->findChild<QCheckBox*>("replayBufferCheckBox");
    ASSERT_TRUE(pane);
    pane->click();
    EXPECT_FALSE(m_controller->session().replayBuffer()) << "turned off in the preferences";
    pane->click();
    const auto kept = m_controller->session().replayBuffer();
    ASSERT_TRUE(kept);
    ASSERT_TRUE(QTest::qWaitFor([&] { return kept->heldSeconds() > 0.5; }, 20000));
    auto* offset = m_controller->preferencesWindow()->findChild<QSpinBox*>("gameOffsetField");
    ASSERT_TRUE(offset);
    offset->setValue(300);
    emit offset->editingFinished();
    EXPECT_EQ(m_controller->session().replayBuffer(), kept)
        << "another offset applies to what the buffer holds";

    // Paused, the buffer keeps what it holds; the save goes to the folder chosen now.
    ui.playPauseItem->trigger();
    EXPECT_EQ(m_controller->session().replayBuffer(), kept);
    EXPECT_FALSE(kept->isListening());
    EXPECT_TRUE(ui.saveReplayItem->isEnabled());
    QTemporaryDir chosenLater;
    PreferencesController::instance().setPreference(settings::storageFolder.key, chosenLater.path());
    ui.saveReplayItem->trigger();
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return QDir(chosenLater.path()).entryList({"Replay *.mp4"}, QDir::Files).size() == 1; },
        20000));
    EXPECT_TRUE(alerts().isEmpty()) << alerts().join("; ").toStdString();
    // A folder that cannot be made is said as a recording or a screenshot says it.
    ASSERT_TRUE(test::writeFile(chosenLater.path() + "/file"));
    PreferencesController::instance().setPreference(settings::storageFolder.key,
                                                    chosenLater.path() + "/file/in");
    ui.saveReplayItem->trigger();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !alerts().isEmpty(); }, 20000));
    EXPECT_EQ(alerts(), QStringList{"Could not save the replay. | Zandor cannot write to \"" +
                                    chosenLater.path() + "/file/in\". A file is in the way of the folder."});
    ui.playPauseItem->trigger();
    EXPECT_NE(m_controller->session().replayBuffer(), kept) << "Play starts the buffer afresh";
}

// Which of Zandor's streams the sound server has open, by name, sorted: the inputs it records
// from ("Zandor: Game", "Zandor: Narrator") and its play-through ("Zandor: Listening").
QStringList streamsOpen() {
    QStringList names;
    for (const char* kind : {"source-outputs", "sink-inputs"}) {
        for (const std::string& line : test::splitLines(test::runProcess({"pactl", "list", kind}).out)) {
            const std::string key = "media.name = \"Zandor: ";
            if (const size_t at = line.find(key); at != std::string::npos) {
                names << QString::fromStdString(line.substr(at + key.size())).chopped(1);
            }
        }
    }
    names.sort();
    return names;
}

// A desktop's "microphone in use" light follows the open inputs.
class MainControllerSoundTest : public MainControllerTest {
protected:
    // The sound server comes first: Qt connects to one once, when the preferences first look for
    // the inputs.
    void SetUp() override {
        test::isolateUserFolders();
        m_pulse = std::make_unique<test::PulseServer>();
        ASSERT_TRUE(m_pulse->isRunning()) << m_pulse->error();
        MainControllerTest::SetUp();
    }

    std::unique_ptr<test::PulseServer> m_pulse;
};

TEST_F(MainControllerSoundTest, TheInputsAreOpenOnlyWhileSomethingRecordsBuffersOrListensFromThem) {
    auto& preferences = PreferencesController::instance();
    preferences.setPreference(settings::gameAudioInput.key, "GameIn");
    preferences.setPreference(settings::narratorAudioInput.key, "NarratorIn");
    const auto closeAll = [] { return QTest::qWaitFor([] { return streamsOpen().isEmpty(); }, 10000); };
    auto& ui = startRecordingWith({});
    EXPECT_TRUE(closeAll()) << "playing alone opens nothing";

    ui.recordItem->trigger();
    ASSERT_TRUE(m_controller->session().recorder());
    EXPECT_EQ(streamsOpen(), (QStringList{"Game", "Listening", "Narrator"}));
    ui.recordItem->trigger();
    ASSERT_TRUE(QTest::qWaitFor([&] { return m_controller->session().recorder()->isDone(); }, 60000));
    EXPECT_TRUE(closeAll()) << "after the recording: " << streamsOpen().join(", ").toStdString();

    ui.listenItem->setChecked(true);
    EXPECT_EQ(streamsOpen(), (QStringList{"Game", "Listening"}));
    ui.listenItem->setChecked(false);
    EXPECT_TRUE(closeAll()) << "after listening: " << streamsOpen().join(", ").toStdString();

    auto* buffer = m_controller->preferencesWindow()->findChild<QCheckBox*>("replayBufferCheckBox");
    ASSERT_TRUE(buffer);
    buffer->click();
    ASSERT_TRUE(m_controller->session().replayBuffer());
    EXPECT_EQ(streamsOpen(), QStringList{"Game"});
    // Pause comes back with the record button's next blink after the recording.
    ASSERT_TRUE(QTest::qWaitFor([&] { return ui.playPauseItem->isEnabled(); }, 10000));
    ui.playPauseItem->trigger();
    EXPECT_TRUE(closeAll()) << "paused: " << streamsOpen().join(", ").toStdString();
    ui.playPauseItem->trigger();
    EXPECT_EQ(streamsOpen(), QStringList{"Game"});
    buffer->click();
    EXPECT_TRUE(closeAll()) << "after the replay buffer: " << streamsOpen().join(", ").toStdString();

    // The input unplugged while listened to unticks the item, and plugged in again brings it back;
    // the preference stays as the user left it. The open Preferences list it as it comes and goes.
    ui.listenItem->setChecked(true);
    ASSERT_EQ(streamsOpen(), (QStringList{"Game", "Listening"}));
    PreferencesWindow& window = *m_controller->preferencesWindow();
    window.showWindow();
    window.selectPane("Capture");
    auto* inputs = window.findChild<QComboBox*>("audioGamePopup");
    ASSERT_TRUE(inputs && inputs->findText("Game Input") >= 0);
    ASSERT_TRUE(test::PulseServer::unplug("GameIn"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !ui.listenItem->isChecked(); }, 10000));
    EXPECT_TRUE(closeAll()) << "unplugged: " << streamsOpen().join(", ").toStdString();
    EXPECT_TRUE(settings::listenToGameAudio.read(preferences));
    EXPECT_TRUE(QTest::qWaitFor([&] { return inputs->findText("Game Input") < 0; }, 10000));
    ASSERT_TRUE(test::PulseServer::plug("GameIn"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return ui.listenItem->isChecked(); }, 10000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return inputs->findText("Game Input") >= 0; }, 10000));
    EXPECT_TRUE(QTest::qWaitFor(
        [] {
            return streamsOpen() == QStringList{"Game", "Listening"};
        },
        10000))
        << "plugged in again: " << streamsOpen().join(", ").toStdString();
}

TEST_F(MainControllerTest, ShareAsCameraSharesWhileThePicturePlaysOrSaysOnceWhyItCannot) {
    test::PipeWireServer server;
    ASSERT_TRUE(server.isRunning()) << server.error();
    auto& ui = start();
    ui.shareAsCameraItem->trigger();
    EXPECT_FALSE(m_controller->session().camera()->isSharing()) << "no node while paused";
    ui.playPauseItem->trigger();
    EXPECT_TRUE(test::PipeWireServer::waitForNode("zandor", "Zandor: Top over Bottom"));
    m_controller->setActiveLayout(LayoutController::instance().layoutNamed("Side by Side"));
    EXPECT_TRUE(test::PipeWireServer::waitForNode("zandor", "Zandor: Side by Side"));
    ui.playPauseItem->trigger();
    EXPECT_TRUE(test::PipeWireServer::waitForNode("zandor", {}));

    LogCapture log;
    setenv("XDG_RUNTIME_DIR", qPrintable(m_storage.path()), 1); // no daemon there
    ui.playPauseItem->trigger();
    const auto turnedOff = [&] {
        return QTest::qWaitFor([&] { return !ui.shareAsCameraItem->isChecked(); }, 10000);
    };
    EXPECT_TRUE(turnedOff());
    ui.shareAsCameraItem->trigger();
    EXPECT_TRUE(turnedOff());
    EXPECT_TRUE(m_controller->session().device()->isListening()) << "the picture plays on";
    EXPECT_EQ(PreferencesController::instance().preference(settings::shareAsCamera.key), QVariant(false));
    EXPECT_EQ(alerts().filter("Could not share the picture as a camera.").size(), 1);
    EXPECT_EQ(log.countPrefix(std::string(session::CameraFailed::LogPrefix) + "PipeWire is not running ("),
              2u)
        << "one line each time sharing is asked for";
}

// A board that could capture 3D but sits on a USB 2 port: it says so and offers the flat picture only.
class Usb2Board final : public Board {
public:
    Error open(const std::string& serial) override { return m_board.open(serial); }
    FrameStatus readFrame(CaptureData& frame) override { return m_board.readFrame(frame); }
    void close() override { m_board.close(); }
    BoardInfo info() const override {
        BoardInfo info = m_board.info();
        info.usbSpeed = "USB 2";
        return info;
    }

private:
    ClassicBoard m_board{std::make_unique<test::GatedBoard>()};
};

TEST_F(MainControllerTest, View3DIsTheBoardsChoiceOrSaysWhyItCannotBe) {
    auto& ui = start();
    EXPECT_TRUE(ui.capture3DItem->isEnabled()) << "chosen before the first Play, taken at the opening";
    ui.capture3DItem->trigger();
    EXPECT_TRUE(m_controller->session().device()->wants3D());
    ui.playPauseItem->trigger();
    EXPECT_TRUE(ui.capture3DItem->isEnabled() && ui.capture3DItem->isChecked());
    // About this board says so too.
    ui.aboutBoardItem->trigger();
    auto* about = m_controller->mainWindow()->findChild<QMessageBox*>("aboutBoardWindow");
    ASSERT_NE(about, nullptr);
    EXPECT_TRUE(about->informativeText().contains("Serial number: ZD0000000001"));
    EXPECT_TRUE(about->informativeText().endsWith("3D picture: yes"))
        << about->informativeText().toStdString();
    about->close();

    // A board without 3D: the item is off and says why once the board is open.
    stop();
    PreferencesController::instance().setPreference(settings::capture3D.key, true);
    auto& flat = start(std::make_unique<test::GatedBoard>());
    flat.playPauseItem->trigger();
    EXPECT_FALSE(flat.capture3DItem->isEnabled());
    EXPECT_FALSE(flat.capture3DItem->isChecked());
    EXPECT_EQ(flat.capture3DItem->toolTip(), "This capture board cannot capture 3D");
    EXPECT_EQ(PreferencesController::instance().preference(settings::capture3D.key), QVariant(true))
        << "the choice is kept for a board that can";

    stop();
    m_controller = std::make_unique<MainController>(std::make_unique<Usb2Board>());
    m_controller->awakeFromNib();
    m_controller->mainWindow()->ui.playPauseItem->trigger();
    EXPECT_FALSE(m_controller->mainWindow()->ui.capture3DItem->isEnabled());
    EXPECT_TRUE(m_controller->mainWindow()->ui.capture3DItem->toolTip().startsWith("USB 3 needed: "));
    // No board at all: MainControllerTest.PlayWithoutABoardSaysSoAndStaysStopped.
}

TEST_F(MainControllerTest, ARecordingGoesOnAcrossBothSwitchesOf3DInOneMovie) {
    auto& ui = startRecordingWith({});
    m_controller->setActiveLayout(LayoutController::instance().layoutNamed("3D Side by Side"));
    framesLater(1);
    ui.recordItem->trigger();
    framesLater(40);
    ui.capture3DItem->trigger();
    framesLater(60);
    ui.capture3DItem->trigger();
    framesLater(60);
    const auto recorder = m_controller->session().recorder();
    ui.recordItem->trigger();
    ASSERT_TRUE(recorder->waitUntilFinished(60s));
    ASSERT_EQ(recorder->madeFiles().size(), 1);
    const std::string movie = recorder->madeFiles()[0].toStdString();

    // Every frame of the picture's time is there: the switches lost none.
    const QJsonObject video =
        test::probe(movie, {"-count_frames", "-select_streams", "v:0", "-show_streams"})["streams"][0]
            .toObject();
    EXPECT_EQ(video["width"].toInt(), 800);
    EXPECT_EQ(video["height"].toInt(), 480);
    const double frames = video["nb_read_frames"].toString().toDouble();
    const double seconds = video["duration"].toString().toDouble();
    EXPECT_GT(seconds, 2.0);
    EXPECT_NEAR(frames, seconds * 60, seconds * 60 * 0.05);

    // Flat, then both eyes, then flat again.
    std::vector<bool> both;
    for (const std::string& picture : test::decodePictures(movie, 800 * 480 * 3, {}, {"-vf", "fps=20"})) {
        both.push_back(test::eyesDiffer(picture, 800) > 100);
    }
    ASSERT_GT(both.size(), 20u);
    const auto firstBoth = std::find(both.begin(), both.end(), true);
    const auto lastBoth = std::find(both.rbegin(), both.rend(), true).base();
    EXPECT_FALSE(both.front());
    EXPECT_FALSE(both.back());
    ASSERT_NE(firstBoth, both.end()) << "the right eye never showed";
    EXPECT_TRUE(std::all_of(firstBoth, lastBoth, [](bool b) { return b; })) << "3D came and went once";
}

TEST_F(MainControllerTest, CaptureFollowsTheChosenLayoutOrBothScreens) {
    start();
    EXPECT_EQ(m_controller->session().captureLayouts(), std::vector<LayoutPtr>{m_controller->activeLayout()});
    PreferencesController::instance().setPreference(settings::captureLayout.key, "Side by Side");
    EXPECT_EQ(m_controller->session().captureLayouts().front()->name(), "Side by Side");
    PreferencesController::instance().setPreference(settings::captureLayout.key, "None");
    const auto layouts = m_controller->session().captureLayouts();
    ASSERT_EQ(layouts.size(), 2u);
    EXPECT_EQ(layouts[0]->name() + layouts[1]->name(), "TopBottom");
}

// The test's screen is 800 by 800 pixels, all of it available.
TEST_F(MainControllerTest, ALayoutChangeOrASizeStepResizesTheWindowAlsoFromFullScreen) {
    auto& ui = start();
    auto* window = m_controller->mainWindow();
    const QRect screen = window->screen()->availableGeometry();
    ASSERT_EQ(screen.size(), QSize(800, 800));
    window->move(40, 60);
    const QRect before = window->geometry();
    const QSize decoration = window->size() - ui.mainView->size();
    EXPECT_EQ(ui.mainView->size(), QSize(400, 480));
    m_controller->setActiveLayout(LayoutController::instance().layoutNamed("Side by Side"));
    EXPECT_EQ(ui.mainView->size(), QSize(720, 240));
    EXPECT_EQ(window->geometry().bottomLeft(), before.bottomLeft());

    m_controller->setActiveLayout(LayoutController::instance().layoutNamed("Top over Bottom"));
    m_controller->toggleFullScreen();
    ASSERT_TRUE(m_controller->isFullScreen());
    EXPECT_NE(ui.mainView->window(), window) << "the picture has a window of its own";
    m_controller->setActiveLayout(LayoutController::instance().layoutNamed("Side by Side"));
    EXPECT_EQ(window->size(), QSize(720, 240) + decoration);
    // Twice 720 by 240 is wider than the screen: the largest of those proportions that fits.
    // The window manager's frame takes its part of the screen's width.
    const int width = 800 - (window->frameGeometry().width() - window->width());
    ui.sizeDoubleItem->trigger();
    EXPECT_EQ(window->size(), QSize(width, width / 3) + decoration);
    QTest::keyClick(ui.mainView, Qt::Key_Escape);
    EXPECT_FALSE(m_controller->isFullScreen());
    EXPECT_EQ(ui.mainView->size(), QSize(width, width / 3)) << "not the old layout's window, letterboxed";
    EXPECT_TRUE(screen.contains(window->frameGeometry()));
    EXPECT_FALSE(ui.sizeDoubleItem->isChecked() || ui.sizeOriginalItem->isChecked());

    // A layout larger than the screen at its natural size fits it too, in its proportions, and so
    // does a resize beyond the screen.
    m_controller->setActiveLayout(LayoutController::instance().layoutNamed("Stream 720p"));
    const QSize fitted(width, width * 720 / 1280);
    EXPECT_EQ(ui.mainView->size(), fitted);
    EXPECT_TRUE(screen.contains(window->frameGeometry())) << window->frameGeometry().x();
    EXPECT_EQ(m_controller->windowWillResize({1600, 1000}), fitted + decoration);
    EXPECT_EQ(m_controller->windowWillResize({200, 100}), fitted + decoration) << "no smaller either";
}

TEST_F(MainControllerTest, TheRecordButtonFollowsTheRecordingStartedWhileAnotherFinalises) {
    // A conversion that waits until the test lets it go.
    const QString gate = m_tools.path() + "/gate";
    ASSERT_EQ(mkfifo(gate.toLocal8Bit().constData(), 0600), 0);
    auto& ui =
        startRecordingWith("echo converting > \"$(dirname \"$0\")/converting\"\n"
                           "[ -f \"$(dirname \"$0\")/open\" ] || read line < \"$(dirname \"$0\")/gate\"");
    const auto first = recordTenFrames(ui);
    ASSERT_TRUE(QTest::qWaitFor([&] { return QFile::exists(m_tools.path() + "/converting"); }, 60000));
    ui.recordItem->trigger();
    ASSERT_NE(m_controller->session().recorder(), first);
    EXPECT_EQ(ui.recordItem->text(), "Stop");
    EXPECT_FALSE(m_controller->attemptExit()) << "no quitting while recording";
    EXPECT_TRUE(alerts().last().startsWith("Please stop recording first."));

    // The first recording ends while the second runs; the button keeps blinking for the second.
    // The gate is opened for reading and writing, which never waits for a reader: the conversion
    // may have found "open" before it came to the gate, and then never reads it.
    ASSERT_TRUE(test::writeFile(m_tools.path() + "/open"));
    const int letGo = ::open(gate.toLocal8Bit().constData(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(letGo, 0);
    ASSERT_EQ(::write(letGo, "go\n", 3), 3);
    const bool finished = first->waitUntilFinished(60s);
    ::close(letGo);
    ASSERT_TRUE(finished);
    QSignalSpy blinks(ui.recordItem, &QAction::changed);
    ASSERT_TRUE(QTest::qWaitFor([&] { return blinks.count() >= 2; }, 20000));
    EXPECT_EQ(ui.recordItem->text(), "Stop");
    EXPECT_FALSE(ui.playPauseItem->isEnabled()) << "no pausing in the middle of the second recording";

    ui.recordItem->trigger();
    ASSERT_TRUE(m_controller->session().recorder()->waitUntilFinished(60s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return ui.recordItem->text() == "Record"; }, 20000));
    EXPECT_TRUE(ui.playPauseItem->isEnabled());
    EXPECT_TRUE(m_controller->attemptExit());
    EXPECT_EQ(QDir(m_storage.path()).entryList({"Capture *.mp4"}, QDir::Files).size(), 2);
}

TEST_F(MainControllerTest, WhileRecordingTheStatusBarAndTheTitleShowTheTimeRecorded) {
    auto& ui = startRecordingWith("");
    auto* window = m_controller->mainWindow();
    auto* clock = window->findChild<QLabel*>("recordingClock");
    ASSERT_NE(clock, nullptr);
    EXPECT_FALSE(clock->isVisible());
    EXPECT_EQ(window->windowTitle(), "Zandor");

    ui.recordItem->trigger();
    EXPECT_TRUE(clock->isVisible());
    EXPECT_EQ(clock->text(), "00:00");
    EXPECT_EQ(window->windowTitle(), "Zandor - Recording 00:00");
    // The clock goes on by itself; both say the same time.
    ASSERT_TRUE(QTest::qWaitFor([&] { return clock->text() != "00:00"; }, 20000));
    EXPECT_TRUE(QRegularExpression("^00:[0-5][0-9]$").match(clock->text()).hasMatch())
        << clock->text().toStdString();
    EXPECT_EQ(window->windowTitle(), "Zandor - Recording " + clock->text());

    const auto recorder = m_controller->session().recorder();
    ui.recordItem->trigger();
    EXPECT_FALSE(clock->isVisible()) << "gone when the recording stops, not when it is finalised";
    EXPECT_EQ(window->windowTitle(), "Zandor");
    ASSERT_TRUE(recorder->waitUntilFinished(60s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return ui.recordItem->text() == "Record"; }, 20000));
    EXPECT_EQ(window->windowTitle(), "Zandor");
}

TEST_F(MainControllerTest, ARecordingThatCannotWriteIsRefusedAndSaidSo) {
    ASSERT_TRUE(test::writeFile(m_storage.path() + "/file"));
    PreferencesController::instance().setPreference(settings::storageFolder.key,
                                                    m_storage.path() + "/file/recordings");
    auto& ui = start();
    ui.playPauseItem->trigger();
    LogCapture log;
    ui.recordItem->trigger();
    EXPECT_EQ(m_controller->session().recorder(), nullptr);
    EXPECT_EQ(ui.recordItem->text(), "Record");
    EXPECT_TRUE(ui.playPauseItem->isEnabled());
    // The same cause in the same words for a recording and a screenshot, in the alert and the log.
    const QString why = "Zandor cannot write to \"" + m_storage.path() +
                        "/file/recordings\". A file is in "
                        "the way of the folder.";
    ASSERT_EQ(alerts().size(), 1);
    EXPECT_EQ(alerts()[0], "Could not start recording video. | " + why);
    ui.screenshotItem->trigger();
    ASSERT_TRUE(QTest::qWaitFor([&] { return alerts().size() == 2; }, 20000));
    EXPECT_EQ(alerts()[1], "Could not save the screenshot. | " + why);
    for (const QString& alert : alerts()) {
        EXPECT_EQ(log.countPrefix(QString(alert).replace(" | ", " ").toStdString()), 1u)
            << alert.toStdString();
    }

    // Into a folder that can be written, but of a layout whose canvas, with the one on show, would
    // take more than all canvases may take together: refused before it starts, naming the budget.
    PreferencesController::instance().setPreference(settings::storageFolder.key, m_storage.path());
    PreferencesController::instance().setPreference(settings::captureLayout.key, "Stream 720p");
    const uint64_t limit = CanvasBudget::instance().limit();
    CanvasBudget::instance().setLimit(uint64_t{2} << 20);
    ui.recordItem->trigger();
    CanvasBudget::instance().setLimit(limit);
    EXPECT_EQ(m_controller->session().recorder(), nullptr);
    ASSERT_EQ(alerts().size(), 3);
    EXPECT_TRUE(alerts()[2].startsWith("Could not start recording video. | The layouts to record would take "
                                       "their pictures beyond the 2 MB "))
        << alerts()[2].toStdString();
}

// The first conversion takes longer than the pipeline's threads are given, and goes on only once the
// test lets it, so that a slow second one cannot outlast it.
TEST_F(MainControllerTest, QuittingWaitsForEveryRecordingStillFinalising) {
    auto& ui =
        startRecordingWith("here=\"$(dirname \"$0\")\"\nif mkdir \"$here/first\" 2>/dev/null; then\n"
                           "for i in $(seq 1200); do [ -e \"$here/release\" ] && break; sleep 0.05; done\n"
                           "sleep 6\nfi");
    std::vector<std::shared_ptr<VideoRecorder>> recorders;
    for (int recording = 0; recording < 2; ++recording) {
        recorders.push_back(recordTenFrames(ui));
        m_controller->hideStatus(); // the user dismisses the sheet
    }
    ASSERT_TRUE(recorders[1]->waitUntilFinished(60s));
    EXPECT_FALSE(recorders[0]->isDone()) << "the first still converts";
    ASSERT_TRUE(test::writeFile(m_tools.path() + "/release"));
    stop();
    EXPECT_TRUE(recorders[0]->isDone());
    EXPECT_EQ(QDir(m_storage.path()).entryList({"*.mp4"}, QDir::Files).size(), 2);
}

TEST_F(MainControllerTest, TheGeneralPaneTurnsNotificationsOffAndSaysWhenTheDesktopBindsNoShortcuts) {
    start();
    auto* window = m_controller->preferencesWindow();
    auto* notify = window->findChild<QCheckBox*>("notifyCheckBox");
    ASSERT_NE(notify, nullptr);
    EXPECT_TRUE(notify->isChecked()) << "on by default";
    notify->click();
    EXPECT_FALSE(settings::notifyOnSave.read(PreferencesController::instance()));
    // No portal on the test's bus: the window's own keys are all there is, and the pane says so.
    auto* note = window->findChild<QLabel*>("globalShortcutsNote");
    ASSERT_NE(note, nullptr);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !note->text().isEmpty(); }, 20000));
    EXPECT_TRUE(note->text().startsWith("The desktop offers no global shortcuts"))
        << note->text().toStdString();
    notify->click();
}

TEST_F(MainControllerTest, TheFirstRunShowsTheAboutWindowOnce) {
    PreferencesController::instance().setPreference(settings::firstRun.key, true);
    start();
    // Once the window is on screen, over it.
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return m_controller->mainWindow()->findChild<QMessageBox*>("aboutWindow") != nullptr; },
        20000));
    const auto* about = m_controller->mainWindow()->findChild<QMessageBox*>("aboutWindow");
    EXPECT_TRUE(about->isVisible());
    EXPECT_TRUE(about->informativeText().startsWith("Version " ZANDOR_VERSION "\n"));
    EXPECT_EQ(QApplication::activeModalWidget(), nullptr) << "the main window stays usable";
    EXPECT_FALSE(PreferencesController::instance().preference(settings::firstRun.key).toBool());
    stop();
    start();
    EXPECT_EQ(m_controller->mainWindow()->findChild<QMessageBox*>("aboutWindow"), nullptr);
}

TEST_F(MainControllerTest, APluginHandedOverByASecondStartBecomesTheActiveLayoutAndARefusalIsShown) {
    auto& ui = start();
    ZDAppDelegate delegate(*m_controller);
    const int layouts = ui.activeLayoutMenu->actions().size();
    QTemporaryDir downloads;
    EXPECT_FALSE(delegate.openFile(
        test::writeBundle(downloads.path(), "other.zdplugin", "<plugin><name>Other</name></plugin>")));
    EXPECT_TRUE(alerts().last().startsWith("Could not install the plugin."))
        << alerts().join("\n").toStdString();
    EXPECT_EQ(ui.activeLayoutMenu->actions().size(), layouts);

    ASSERT_TRUE(delegate.listen());
    const QString bundle = test::writeBundle(
        downloads.path(), "handed.zdplugin",
        test::layoutDescriptor("Handed Over", 1, 400, 240, R"(<object type="screen_top" x="0" y="0"/>)"));
    ASSERT_TRUE(ZDAppDelegate::sendToRunning({bundle}));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return m_controller->activeLayout()->name() == "Handed Over"; }, 20000));

    // The instance listens for its own display only: a start on another display of the same user
    // finds none there and becomes that display's own.
    const QByteArray display = qgetenv("DISPLAY");
    qputenv("DISPLAY", display + "9");
    EXPECT_FALSE(ZDAppDelegate::sendToRunning({bundle}));
    qputenv("DISPLAY", display);
}

// Recovery: bundles as a killed run leaves them, offered by the application's next start.
class RecoveryDialogTest : public MainControllerTest {
protected:
    void SetUp() override {
        MainControllerTest::SetUp();
        ASSERT_TRUE(test::writeStandInTools(m_tools.path()));
        ShellCommand::setToolFolder(m_tools.path());
    }

    QString bundlePath(const QString& stamp) const {
        return m_storage.path() + "/Capture " + stamp + ".zdrecord";
    }
    // A fragmented movie of two seconds and the choices, as a killed recording leaves them.
    QString interrupted(const QString& stamp) const {
        const QString bundle = bundlePath(stamp);
        EXPECT_TRUE(QDir().mkpath(bundle));
        EXPECT_EQ(test::runProcess({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                                    "testsrc=size=400x240:rate=60", "-t", "2", "-c:v", "libx264", "-movflags",
                                    "frag_keyframe+empty_moov", (bundle + "/VideoTop.mov").toStdString()})
                      .exitCode,
                  0);
        test::writeFile(bundle + "/Recording.plist",
                        R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>
                        <key>Layouts</key><array><string>Top</string></array>
                        <key>FramesPerSecond</key><string>Original</string></dict></plist>)");
        return bundle;
    }
    // A bundle whose movie is `movie` alone.
    QString garbled(const QString& stamp, const QByteArray& movie) const {
        const QString bundle = bundlePath(stamp);
        EXPECT_TRUE(QDir().mkpath(bundle) && test::writeFile(bundle + "/VideoTop.mov", movie));
        return bundle;
    }

    // Starts the application again; the dialog it opens by itself, or null once it showed none.
    QDialog* restart() {
        stop();
        start();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(m_controller->mainWindow()));
        // The offer is made once the window is exposed: a call queued after that comes after it.
        bool queued = false;
        QTimer::singleShot(0, m_controller.get(), [&queued] { queued = true; });
        EXPECT_TRUE(QTest::qWaitFor([&] { return queued; }));
        return m_controller->mainWindow()->findChild<QDialog*>("recoveryWindow");
    }
    static QAbstractButton* button(QWidget* in, const QString& text) {
        for (QAbstractButton* button : in->findChildren<QAbstractButton*>()) {
            if (button->text() == text) {
                return button;
            }
        }
        ADD_FAILURE() << "no button " << text.toStdString();
        return nullptr;
    }
    static QString listed(QDialog* dialog, const char* list) {
        const auto* label = dialog->findChild<QLabel*>(list);
        return label ? label->text() : QString();
    }
    // The question Delete in `section` asks.
    static QMessageBox* askDelete(QDialog* dialog, const char* section) {
        button(dialog->findChild<QWidget*>(section), "Delete")->click();
        QMessageBox* question = nullptr;
        EXPECT_TRUE(QTest::qWaitFor([&] {
            question = dialog->findChild<QMessageBox*>("deleteConfirmation");
            return question && question->isVisible();
        }));
        return question;
    }
};

TEST_F(RecoveryDialogTest, OffersWhatAKilledRunLeftOverTheWindowAndDeletesOnlyOnceConfirmed) {
    const QString abandoned = interrupted("01_02_2026 10_00_00");
    QDialog* dialog = restart();
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->windowModality(), Qt::WindowModal);
    EXPECT_TRUE(m_controller->mainWindow()->frameGeometry().contains(dialog->frameGeometry().center()))
        << "over the main window";
    EXPECT_EQ(listed(dialog, "recoverableList"), "Capture 01_02_2026 10_00_00: 0:02");
    // One is one recording; Cancel changes nothing, and the offer stands.
    QMessageBox* question = askDelete(dialog, "recoverableSection");
    ASSERT_NE(question, nullptr);
    EXPECT_TRUE(
        QRegularExpression(R"(^Delete 1 unfinished recording \(\d+\.\d kB\)\? This cannot be undone\.$)")
            .match(question->text())
            .hasMatch())
        << question->text().toStdString();
    EXPECT_EQ(question->defaultButton()->text(), "Cancel");
    button(question, "Cancel")->click();
    EXPECT_TRUE(QTest::qWaitFor([&] { return !dialog->findChild<QMessageBox*>("deleteConfirmation"); }));
    ASSERT_TRUE(dialog->isVisible());
    button(dialog, "Recover")->click();
    const QString said =
        "The recordings were recovered. | 2 seconds were saved: Capture 01_02_2026 10_00_00.mp4";
    EXPECT_TRUE(QTest::qWaitFor([&] { return alerts().contains(said); }, 60000))
        << alerts().join("\n").toStdString();
    EXPECT_FALSE(QFileInfo::exists(abandoned));

    // Three of 400 kB each: counted and added up; confirmed, they go, and the dialog with them.
    QStringList three;
    for (const char* stamp : {"02_02_2026 10_00_00", "02_02_2026 11_00_00", "02_02_2026 12_00_00"}) {
        three << garbled(stamp, QByteArray(400000, 'x'));
    }
    QPointer<QDialog> closing = dialog = restart();
    ASSERT_NE(dialog, nullptr);
    question = askDelete(dialog, "recoverableSection");
    ASSERT_NE(question, nullptr);
    EXPECT_EQ(question->text(), "Delete 3 unfinished recordings (1.2 MB)? This cannot be undone.");
    button(question, "Delete")->click();
    for (const QString& bundle : three) {
        EXPECT_FALSE(QFileInfo::exists(bundle)) << bundle.toStdString();
    }
    EXPECT_TRUE(QTest::qWaitFor([&] { return !closing || !closing->isVisible(); }));
    EXPECT_TRUE(QFileInfo::exists(m_storage.path() + "/Capture 01_02_2026 10_00_00.mp4"));
}

TEST_F(RecoveryDialogTest, ABundleWithNothingPlayableIsOfferedOnceThenListedApartUntilDeleted) {
    // Cut off before its first fragment: a header alone.
    const QString header = interrupted("01_02_2026 14_00_00");
    QFile movie(header + "/VideoTop.mov");
    ASSERT_TRUE(movie.open(QIODevice::ReadWrite));
    const qint64 firstFragment = movie.readAll().indexOf("moof") - 4;
    ASSERT_GT(firstFragment, 0);
    ASSERT_TRUE(movie.resize(firstFragment));
    movie.close();
    const QString empty = bundlePath("01_02_2026 15_00_00");
    ASSERT_TRUE(QDir().mkpath(empty));
    const QString garbage = garbled("01_02_2026 16_00_00", QByteArray(4096, 'x'));

    QDialog* dialog = restart();
    ASSERT_NE(dialog, nullptr) << "offered once";
    EXPECT_EQ(listed(dialog, "recoverableList"), "Capture 01_02_2026 14_00_00: nothing readable\n"
                                                 "Capture 01_02_2026 15_00_00: nothing readable\n"
                                                 "Capture 01_02_2026 16_00_00: nothing readable");
    LogCapture log;
    button(dialog, "Recover")->click();
    const QString failed =
        "Could not recover every recording. | "
        "Capture 01_02_2026 14_00_00.zdrecord: It holds no recording that can be played.\n"
        "Capture 01_02_2026 15_00_00.zdrecord: It holds no recording that can be played.\n"
        "Capture 01_02_2026 16_00_00.zdrecord: It holds no recording that can be played.\n\n"
        "The recordings that hold nothing playable stay listed in Capture > Unfinished "
        "Recordings…, as \"Cannot be recovered\", until you delete them.";
    EXPECT_TRUE(QTest::qWaitFor([&] { return alerts().contains(failed); }, 60000))
        << alerts().join("\n").toStdString();
    EXPECT_EQ(log.countPrefix("Could not recover " + garbage.toStdString() + ": "), 1u);

    EXPECT_EQ(restart(), nullptr) << "what cannot be recovered opens no dialog by itself";
    m_controller->mainWindow()->ui.recoveryItem->trigger();
    dialog = m_controller->mainWindow()->findChild<QDialog*>("recoveryWindow");
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->findChild<QWidget*>("recoverableSection"), nullptr);
    EXPECT_EQ(listed(dialog, "unrecoverableList"),
              "Capture 01_02_2026 14_00_00\nCapture 01_02_2026 15_00_00\nCapture 01_02_2026 16_00_00");
    QStringList buttons;
    for (QAbstractButton* button : dialog->findChildren<QAbstractButton*>()) {
        buttons << button->text();
    }
    EXPECT_EQ(buttons, (QStringList{"Delete", "Show in Folder"}));

    QMessageBox* question = askDelete(dialog, "unrecoverableSection");
    ASSERT_NE(question, nullptr);
    EXPECT_TRUE(question->text().startsWith("Delete 3 unfinished recordings ("))
        << question->text().toStdString();
    button(question, "Delete")->click();
    for (const QString& bundle : {header, empty, garbage}) {
        EXPECT_FALSE(QFileInfo::exists(bundle)) << bundle.toStdString();
    }
}

} // namespace
} // namespace zandor
