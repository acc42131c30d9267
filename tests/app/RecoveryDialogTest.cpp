// At start the application offers the recordings an earlier run left unfinished: only those nobody
// holds, with their length; "Recover" finishes them and says what was saved, "Delete" removes them.

#include "Files.h"
#include "Process.h"
#include "UserFolders.h"
#include "app/MainController.h"
#include "app/MainWindow.h"
#include "base/DetachedThread.h"
#include "capture/DemoBoard.h"
#include "recording/ShellCommand.h"
#include "settings/PreferencesController.h"

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QCoreApplication>
#include <QDir>
#include <QMessageBox>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace zandor {
namespace {

using namespace std::chrono_literals;

class RecoveryDialogTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        ShellCommand::setToolFolder(QCoreApplication::applicationDirPath() + "/../libexec/zandor");
        auto& preferences = PreferencesController::instance();
        preferences.setPreference(PreferenceFirstRun, false);
        preferences.setPreference(PreferenceCaptureStorageFolder, m_storage.path());
    }
    void TearDown() override {
        if (m_controller) {
            m_controller->shutdown();
        }
        ShellCommand::setToolFolder({});
        EXPECT_TRUE(DetachedThread::waitForAll(20s));
    }

    // A bundle as a killed recording leaves it: a fragmented movie of two seconds and its choices.
    QString interrupted(const QString& stamp) {
        const QString bundle = m_storage.path() + "/Capture " + stamp + ".zdrecord";
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

    // Starts the application and gives the recovery dialog it offers.
    QMessageBox* start() {
        if (m_controller) {
            m_controller->shutdown();
        }
        m_controller = std::make_unique<MainController>(std::make_unique<DemoBoard>());
        m_controller->awakeFromNib();
        m_controller->mainWindow()->show();
        QMessageBox* dialog = nullptr;
        EXPECT_TRUE(QTest::qWaitFor([&] {
            return (dialog = m_controller->mainWindow()->findChild<QMessageBox*>("recoveryWindow")) !=
                   nullptr;
        }));
        return dialog;
    }
    static void press(QMessageBox* dialog, const QString& title) {
        for (QAbstractButton* button : dialog->buttons()) {
            if (button->text() == title) {
                button->click();
                return;
            }
        }
        ADD_FAILURE() << "no button " << title.toStdString();
    }

    QTemporaryDir m_storage;
    std::unique_ptr<MainController> m_controller;
};

TEST_F(RecoveryDialogTest, OffersWhatNobodyHoldsAndRecoversOrDeletesJustThat) {
    const QString abandoned = interrupted("01_02_2026 10_00_00");
    // Held as a running Zandor holds the bundle it records into.
    const QString held = interrupted("01_02_2026 11_00_00");
    const int lock = open(held.toLocal8Bit().constData(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);

    QMessageBox* dialog = start();
    ASSERT_NE(dialog, nullptr);
    EXPECT_TRUE(dialog->informativeText().endsWith("\n\nCapture 01_02_2026 10_00_00: 0:02"))
        << dialog->informativeText().toStdString();
    EXPECT_EQ(dialog->defaultButton()->text(), "Recover");
    press(dialog, "Recover");
    QMessageBox* said = nullptr;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            for (auto* box : m_controller->mainWindow()->findChildren<QMessageBox*>()) {
                if (box->text() == "The recordings were recovered.") {
                    said = box;
                }
            }
            return said != nullptr;
        },
        60000));
    EXPECT_EQ(said->informativeText(), "2 seconds were saved: Capture 01_02_2026 10_00_00.mp4");
    EXPECT_FALSE(QFileInfo::exists(abandoned));
    EXPECT_TRUE(QFileInfo::exists(m_storage.path() + "/Capture 01_02_2026 10_00_00.mp4"));

    // The next start offers a newly abandoned one; "Delete" removes it, and only it.
    const QString another = interrupted("01_02_2026 12_00_00");
    dialog = start();
    ASSERT_NE(dialog, nullptr);
    press(dialog, "Delete");
    EXPECT_FALSE(QFileInfo::exists(another));
    EXPECT_TRUE(QFileInfo::exists(held + "/VideoTop.mov")) << "a held bundle is never touched";
    close(lock);
}

} // namespace
} // namespace zandor
