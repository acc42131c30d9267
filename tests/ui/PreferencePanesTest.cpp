#include "settings/Settings.h"
#include "ui/CapturePreferencesView.h"
#include "ui/PathControl.h"
#include "settings/PreferencesController.h"
#include "ui/PreferencesWindow.h"
#include "ui/ViewPreferencesView.h"

#include "GatedBoard.h"
#include "PluginBundles.h"
#include "Plist.h"
#include "UserFolders.h"
#include "capture/CaptureDevice.h"
#include "layouts/LayoutController.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSlider>
#include <QSpinBox>
#include <QTest>
#include <QToolButton>

#include <gtest/gtest.h>

namespace zandor {
namespace {

// Before anything reads them: temporary user folders (the preferences file, the window state) and a
// sound server that does not exist, so that no audio input is listed.
const QString home = test::isolateUserFolders();

// The value of `key` in the preferences file as Python's plistlib reads it, as JSON text ("null"
// when absent), integers tagged as {"integer":n} so that they cannot pass for booleans or strings.
std::string stored(const QString& key) {
    const QJsonArray value{test::plistEntry(PreferencesController::preferencesFile(), key)};
    const std::string text = QJsonDocument(value).toJson(QJsonDocument::Compact).toStdString();
    return text.substr(1, text.size() - 2);
}

// What the pop-up does when the user picks an item.
void choose(QComboBox* popup, int index) {
    ASSERT_GE(index, 0);
    popup->setCurrentIndex(index);
    emit popup->activated(index);
}

template <typename T> T* control(QWidget& pane, const char* name) {
    T* found = pane.findChild<T*>(QString::fromLatin1(name));
    EXPECT_NE(found, nullptr) << name;
    return found;
}

class PreferencePanesTest : public testing::Test {
protected:
    void SetUp() override {
        QDir().mkpath(QFileInfo(PreferencesController::preferencesFile()).path());
        QFile::remove(PreferencesController::preferencesFile());
        PreferencesController::instance().defaults();
    }
    static void store(const QString& key, const QVariant& value) {
        PreferencesController::instance().setPreference(key, value);
    }
};

TEST_F(PreferencePanesTest, ViewPaneShowsTheStoredChoicesAndWritesEveryChoiceAtOnce) {
    store(settings::fullscreenScreen.key, "DELL U2720Q");
    store(settings::fullscreenHudEnabled.key, false);
    store(settings::fullscreenMaxScale.key, qint64(4));
    QFile::remove(PreferencesController::preferencesFile());
    ViewPreferencesView pane({"DELL U2720Q", "Built-in Display", "DELL U2720Q"});
    EXPECT_FALSE(QFile::exists(PreferencesController::preferencesFile())) << "filling the controls wrote";
    auto* screens = control<QComboBox>(pane, "screenPopup");
    auto* hud = control<QCheckBox>(pane, "fullscreenhudEnableButton");
    auto* scale = control<QComboBox>(pane, "fullscreenMaxScale");
    EXPECT_EQ(screens->currentIndex(), 2) << "the last item of that name";
    EXPECT_FALSE(hud->isChecked());
    EXPECT_EQ(scale->currentData(), qint64(4));

    choose(screens, 1);
    EXPECT_EQ(stored("PreferenceFullscreenScreen"), R"("Built-in Display")");
    hud->click();
    EXPECT_EQ(stored("PreferenceFullscreenHudEnabled"), R"(true)");
    choose(scale, scale->findData(0));
    EXPECT_EQ(stored("PreferenceFullscreenMaxScale"), R"({"integer":0})");
    EXPECT_EQ(scale->currentText(), "No limit");

    // Values no item has leave the interface's choices and stay stored.
    store(settings::fullscreenScreen.key, "Unplugged");
    store(settings::fullscreenMaxScale.key, qint64(9));
    ViewPreferencesView later({"DELL U2720Q"});
    EXPECT_EQ(control<QComboBox>(later, "screenPopup")->currentIndex(), -1);
    EXPECT_EQ(control<QComboBox>(later, "fullscreenMaxScale")->currentText(), "No limit");
    EXPECT_EQ(stored("PreferenceFullscreenScreen"), R"("Unplugged")");
}

TEST_F(PreferencePanesTest, CapturePaneShowsTheStoredChoicesAndWritesEveryChoiceAtOnce) {
    QTemporaryDir bundles;
    auto& catalogue = LayoutController::instance();
    catalogue.setDevice(CaptureDevice::create(std::make_unique<test::GatedBoard>()));
    for (const char* bundle : {"one.zdplugin", "two.zdplugin"}) {
        catalogue.addPlugin(test::parsedPlugin(bundles.path(), bundle,
                                               test::layoutDescriptor("Twin", 1, 400, 240), {}, true));
    }
    QDir().mkpath(home + "/Videos/Handheld");
    store(settings::storageFolder.key, home + "/Videos/Handheld");
    store(settings::captureLayout.key, "Twin");
    store(settings::videoQuality.key, "Low");
    store(settings::videoFramesPerSecond.key, "50");
    store(settings::imageFormat.key, "JPEG");
    store(settings::captureBoard.key, "ZD-UNPLUGGED");
    QFile::remove(PreferencesController::preferencesFile());
    CapturePreferencesView pane;
    pane.resize(900, 500);
    pane.show();
    EXPECT_FALSE(QFile::exists(PreferencesController::preferencesFile())) << "filling the controls wrote";

    auto* layouts = control<QComboBox>(pane, "layoutPopup");
    EXPECT_EQ(layouts->currentText(), "Twin");
    EXPECT_EQ(layouts->currentIndex(), layouts->count() - 1) << "the last item of that title";
    EXPECT_EQ(control<QComboBox>(pane, "qualityPopup")->currentText(), "Low");
    EXPECT_EQ(control<QComboBox>(pane, "fpsPopup")->currentText(), "50");
    // The boards: first found, then by serial those plugged in and the one chosen before.
    auto* boards = control<QComboBox>(pane, "boardPopup");
    EXPECT_EQ(boards->itemText(0), "First found");
    EXPECT_EQ(boards->currentText(), "ZD-UNPLUGGED");
    EXPECT_GE(boards->findText("ZD0000000001"), 0) << "the board plugged in";
    // The game sound is the board's own unless chosen otherwise, first in its list; a board that
    // sends none is said beside it, for as long as the board is the game input.
    auto* game = control<QComboBox>(pane, "audioGamePopup");
    EXPECT_EQ(game->itemText(0), "Capture board");
    EXPECT_EQ(game->currentIndex(), 0);
    auto* note = control<QLabel>(pane, "boardSoundNote");
    EXPECT_FALSE(note->isVisible());
    pane.setBoardSendsNoSound(true);
    EXPECT_TRUE(note->isVisible());

    for (const auto& [popup, title, key] :
         {std::tuple{"layoutPopup", "None", "PreferenceCaptureLayout"},
          {"layoutPopup", "Active Layout", "PreferenceCaptureLayout"},
          {"qualityPopup", "High", "PreferenceCaptureVideoQuality"},
          {"fpsPopup", "30", "PreferenceCaptureVideoFPS"},
          {"imageFormatPopup", "JPEG", "PreferenceCaptureImageFormat"},
          {"audioNarratorPopup", "None", "PreferenceCaptureNarratorAudioInput"},
          {"audioGamePopup", "None", "PreferenceCaptureGameAudioInput"},
          {"boardPopup", "ZD0000000001", "PreferenceCaptureBoard"}}) {
        choose(control<QComboBox>(pane, popup), control<QComboBox>(pane, popup)->findText(title));
        EXPECT_EQ(stored(key), '"' + std::string(title) + '"') << popup;
    }
    EXPECT_FALSE(note->isVisible()) << "another game input";
    choose(game, 0);
    EXPECT_EQ(stored("PreferenceCaptureGameAudioInput"), R"("board")");
    EXPECT_TRUE(note->isVisible());
    choose(boards, 0);
    EXPECT_EQ(stored("PreferenceCaptureBoard"), R"("")") << "first found";
    // Clicking a component higher up the path chooses that folder.
    auto* path = control<PathControl>(pane, "capturePathControl");
    EXPECT_EQ(path->path(), home + "/Videos/Handheld");
    const auto buttons = path->findChildren<QToolButton*>();
    const auto videos =
        std::find_if(buttons.begin(), buttons.end(), [](auto* button) { return button->text() == "Videos"; });
    ASSERT_TRUE(videos != buttons.end() && (*videos)->isVisible());
    (*videos)->click();
    EXPECT_EQ(path->path(), home + "/Videos");
    EXPECT_EQ(stored("PreferenceCaptureStorageFolder"), "\"" + (home + "/Videos").toStdString() + "\"");

    // Values no item has leave the choices.
    store(settings::captureLayout.key, "Removed");
    store(settings::videoFramesPerSecond.key, "7");
    CapturePreferencesView later;
    EXPECT_EQ(control<QComboBox>(later, "layoutPopup")->currentIndex(), -1);
    EXPECT_EQ(control<QComboBox>(later, "fpsPopup")->currentText(), "Original");
}

TEST_F(PreferencePanesTest, TheWindowShowsThePaneChosenInItsToolbar) {
    auto* view = new ViewPreferencesView({"Built-in Display"});
    auto* capture = new CapturePreferencesView;
    PreferencesWindow window({view, capture}, "Preferences");
    window.showWindow();
    EXPECT_TRUE(view->isVisible() && !capture->isVisible());
    auto* toolbarCapture = window.findChild<QAction*>("Capture");
    ASSERT_NE(toolbarCapture, nullptr);
    toolbarCapture->trigger();
    EXPECT_TRUE(capture->isVisible() && !view->isVisible());
}

// What a user does with the keyboard: a drop-down closed with Escape leaves the window open, the
// next Escape closes it; numbers count at each step of the arrows and on Return, not at each digit.
TEST_F(PreferencePanesTest, KeysDoWhatTheyDoInAnyWellMadeWindow) {
    auto* capture = new CapturePreferencesView;
    PreferencesWindow window({capture}, "Preferences");
    window.showWindow();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    auto* quality = control<QComboBox>(*capture, "qualityPopup");
    quality->showPopup();
    QWidget* list = QApplication::activePopupWidget();
    ASSERT_NE(list, nullptr);
    QTest::keyClick(list, Qt::Key_Escape);
    EXPECT_EQ(QApplication::activePopupWidget(), nullptr);
    EXPECT_TRUE(window.isVisible()) << "Escape in the drop-down closed the window";

    auto* offset = control<QSpinBox>(*capture, "gameOffsetField");
    offset->setFocus();
    QTest::keyClick(offset, Qt::Key_Up);
    EXPECT_EQ(stored("PreferenceGameAudioOffsetMs"), R"({"integer":10})") << "a step of the arrows";
    offset->selectAll();
    QTest::keyClicks(offset, "120");
    EXPECT_EQ(stored("PreferenceGameAudioOffsetMs"), R"({"integer":10})") << "a digit typed";
    QTest::keyClick(offset, Qt::Key_Return);
    EXPECT_EQ(stored("PreferenceGameAudioOffsetMs"), R"({"integer":120})") << "Return";
    EXPECT_TRUE(window.isVisible());

    auto* volume = control<QSlider>(*capture, "gameVolumeSlider");
    volume->setValue(35);
    EXPECT_EQ(control<QLabel>(*capture, "gameVolumeValue")->text(), "35 %");
    EXPECT_EQ(stored("PreferenceGameAudioVolume"), R"({"integer":35})");

    QTest::keyClick(offset, Qt::Key_Escape);
    EXPECT_FALSE(window.isVisible());
}

} // namespace
} // namespace zandor
