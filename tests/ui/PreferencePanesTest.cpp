#include "ui/CapturePreferencesView.h"
#include "ui/Icons.h"
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
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMenu>
#include <QSettings>
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

QStringList titles(const QComboBox* popup) {
    QStringList result;
    for (int i = 0; i < popup->count(); ++i) {
        const bool separator = popup->itemData(i, Qt::AccessibleDescriptionRole).toString() == "separator";
        result << (separator ? QStringLiteral("---") : popup->itemText(i));
    }
    return result;
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
    store(PreferenceFullscreenScreen, "DELL U2720Q");
    store(PreferenceFullscreenHudEnabled, false);
    store(PreferenceFullscreenMaxScale, qint64(4));
    QFile::remove(PreferencesController::preferencesFile());
    ViewPreferencesView pane({"DELL U2720Q", "Built-in Display", "DELL U2720Q"});
    EXPECT_FALSE(QFile::exists(PreferencesController::preferencesFile())) << "filling the controls wrote";
    auto* screens = control<QComboBox>(pane, "screenPopup");
    auto* hud = control<QCheckBox>(pane, "fullscreenhudEnableButton");
    auto* scale = control<QComboBox>(pane, "fullscreenMaxScale");
    EXPECT_EQ(titles(screens), (QStringList{"DELL U2720Q", "Built-in Display", "DELL U2720Q"}));
    EXPECT_EQ(screens->currentIndex(), 2) << "the last item of that name";
    EXPECT_FALSE(hud->isChecked());
    EXPECT_EQ(scale->currentData(), qint64(4));

    choose(screens, 1);
    EXPECT_EQ(stored("PreferenceFullscreenScreen"), R"("Built-in Display")");
    choose(screens, 0);
    EXPECT_EQ(stored("PreferenceFullscreenScreen"), R"("DELL U2720Q")") << "either twin stores the name";
    hud->click();
    EXPECT_EQ(stored("PreferenceFullscreenHudEnabled"), R"(true)");
    for (const qint64 scaleValue : {3, 0}) {
        choose(scale, scale->findData(scaleValue));
        EXPECT_EQ(stored("PreferenceFullscreenMaxScale"),
                  R"({"integer":)" + std::to_string(scaleValue) + "}");
    }
    EXPECT_EQ(scale->currentText(), "No limit");

    // Values no item has leave the interface's choices and stay stored.
    store(PreferenceFullscreenScreen, "Unplugged");
    store(PreferenceFullscreenMaxScale, qint64(9));
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
    store(PreferenceCaptureStorageFolder, home + "/Videos/Handheld");
    store(PreferenceCaptureLayout, "Twin");
    store(PreferenceCaptureVideoQuality, "Low");
    store(PreferenceCaptureVideoFPS, "50");
    store(PreferenceCaptureImageFormat, "JPEG");
    QFile::remove(PreferencesController::preferencesFile());
    CapturePreferencesView pane;
    pane.resize(900, 500);
    pane.show();
    EXPECT_FALSE(QFile::exists(PreferencesController::preferencesFile())) << "filling the controls wrote";

    auto* layouts = control<QComboBox>(pane, "layoutPopup");
    QStringList expected{"Active Layout", "---", "None", "---"};
    for (const LayoutMenuItem& item : catalogue.menuItems()) {
        expected << (item.separator ? QStringLiteral("---") : item.title);
    }
    EXPECT_EQ(titles(layouts), expected);
    EXPECT_EQ(layouts->currentIndex(), expected.lastIndexOf("Twin")) << "the last item of that title";
    EXPECT_EQ(control<QComboBox>(pane, "qualityPopup")->currentText(), "Low");
    EXPECT_EQ(control<QComboBox>(pane, "fpsPopup")->currentText(), "50");
    EXPECT_EQ(control<QComboBox>(pane, "imageFormatPopup")->currentText(), "PNG") << "not set from the store";

    for (const auto& [popup, title, key] :
         {std::tuple{"layoutPopup", "None", "PreferenceCaptureLayout"},
          {"layoutPopup", "Active Layout", "PreferenceCaptureLayout"},
          {"qualityPopup", "High", "PreferenceCaptureVideoQuality"},
          {"fpsPopup", "30", "PreferenceCaptureVideoFPS"},
          {"imageFormatPopup", "JPEG", "PreferenceCaptureImageFormat"},
          {"audioNarratorPopup", "None", "PreferenceCaptureNarratorAudioInput"},
          {"audioGamePopup", "None", "PreferenceCaptureGameAudioInput"}}) {
        choose(control<QComboBox>(pane, popup), control<QComboBox>(pane, popup)->findText(title));
        EXPECT_EQ(stored(key), '"' + std::string(title) + '"') << popup;
    }
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

    // Values no item has leave the choices; without audio inputs both pop-ups offer only None.
    store(PreferenceCaptureLayout, "Removed");
    store(PreferenceCaptureVideoFPS, "7");
    CapturePreferencesView later;
    EXPECT_EQ(control<QComboBox>(later, "layoutPopup")->currentIndex(), -1);
    EXPECT_EQ(control<QComboBox>(later, "fpsPopup")->currentText(), "Original");
    for (const char* name : {"audioGamePopup", "audioNarratorPopup"}) {
        EXPECT_EQ(titles(control<QComboBox>(later, name)), (QStringList{"None", "---"})) << name;
        EXPECT_EQ(control<QComboBox>(later, name)->currentData(), "None") << name;
    }
}

TEST(PathControlTest, LeadingComponentsFoldIntoAMenuThatStillChoosesThem) {
    PathControl path;
    QStringList clicked;
    QObject::connect(&path, &PathControl::folderClicked, [&](const QString& folder) { clicked << folder; });
    path.setPath("/srv/captures/2024/a-long-folder-name-for-the-handheld/session-with-a-long-name");
    path.resize(path.minimumSizeHint());
    path.show();

    auto* fold = path.findChild<QToolButton*>(QString(), Qt::FindDirectChildrenOnly);
    ASSERT_TRUE(fold && fold->isVisible() && fold->menu());
    const auto actions = fold->menu()->actions();
    ASSERT_FALSE(actions.isEmpty());
    EXPECT_EQ(actions.first()->text(), "/");
    actions.first()->trigger();
    EXPECT_EQ(clicked, QStringList{"/"});
    EXPECT_EQ(path.path(), "/srv/captures/2024/a-long-folder-name-for-the-handheld/session-with-a-long-name")
        << "the owner decides what to show";

    path.resize(2000, path.height());
    EXPECT_FALSE(fold->isVisible()) << "everything fits again";
}

TEST_F(PreferencePanesTest, WindowShowsOnePaneAtATimeAndRemembersItsPaneAndPlace) {
    QSettings(QStringLiteral("Zandor"), QStringLiteral("Zandor")).clear();
    auto* view = new ViewPreferencesView({"Built-in Display"});
    auto* capture = new CapturePreferencesView;
    {
        PreferencesWindow window({view, capture}, "Preferences");
        window.showWindow();
        EXPECT_EQ(window.windowTitle(), "Preferences");
        EXPECT_EQ(window.currentIdentifier(), "View");
        EXPECT_TRUE(view->isVisible() && !capture->isVisible());

        auto* toolbarCapture = window.findChild<QAction*>("Capture");
        ASSERT_NE(toolbarCapture, nullptr);
        toolbarCapture->trigger();
        EXPECT_EQ(window.currentIdentifier(), "Capture");
        EXPECT_TRUE(capture->isVisible() && !view->isVisible());
        EXPECT_TRUE(toolbarCapture->isChecked() && !window.findChild<QAction*>("View")->isChecked());

        window.selectPane("General");
        EXPECT_EQ(window.currentIdentifier(), "Capture") << "not one of this window's panes";
        window.move(140, 90);
        window.close();
    }
    PreferencesWindow again({new ViewPreferencesView(QStringList()), new CapturePreferencesView},
                            "Preferences");
    again.showWindow();
    EXPECT_EQ(again.currentIdentifier(), "Capture");
    EXPECT_EQ(again.pos(), QPoint(140, 90));
}

TEST(IconsTest, ImagesRenderAtAnySizeAndGlyphsFollowThePalette) {
    for (const char* name : {"toolbar_play", "toolbar_pause", "toolbar_record", "toolbar_stop",
                             "toolbar_stop_alt", "toolbar_view", "toolbar_preferences", "zandor"}) {
        for (int side : {16, 128}) {
            const QImage image = icon(name).pixmap(side).toImage().convertToFormat(QImage::Format_Alpha8);
            ASSERT_EQ(image.size(), QSize(side, side)) << name;
            const auto* alpha = image.constBits();
            const auto opaque =
                std::count_if(alpha, alpha + image.sizeInBytes(), [](uchar a) { return a > 200; });
            EXPECT_GT(opaque, side * side / 10) << name << " is all but empty at " << side;
        }
    }
    EXPECT_TRUE(icon("no_such_image").isNull());

    const QPalette original = QApplication::palette();
    for (const QColor& text : {QColor(Qt::red), QColor(Qt::blue)}) {
        QPalette palette = original;
        palette.setColor(QPalette::WindowText, text);
        QApplication::setPalette(palette);
        EXPECT_EQ(icon("toolbar_stop").pixmap(32).toImage().pixelColor(16, 16), text);
    }
    QApplication::setPalette(original);
}

} // namespace
} // namespace zandor
