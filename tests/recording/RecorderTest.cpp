#include "Files.h"
#include "Frames.h"
#include "GatedBoard.h"
#include "Media.h"
#include "UserFolders.h"
#include "base/DetachedThread.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "layouts/CaptureLayout.h"
#include "recording/ImageRecorder.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <atomic>

namespace zandor {
namespace {

using namespace std::chrono_literals;

// Counts the hooks; finished with a layout after `framesPerLayout` frames of it (0: never).
class CountingRecorder final : public Recorder {
public:
    CountingRecorder(std::vector<LayoutPtr> layouts, int framesPerLayout)
        : Recorder(std::move(layouts)), m_framesPerLayout(framesPerLayout) {}

    std::atomic<int> captured{0};
    // Frames handed over per layout; read once the recorder has finished.
    const std::map<QString, int>& seen() const { return m_seen; }

protected:
    bool capture(const LayoutPtr& layout, const ObserverPtr& observer) override {
        Recorder::capture(layout, observer);
        return m_framesPerLayout > 0 && ++m_seen[layout->name()] >= m_framesPerLayout;
    }
    void capturedLayouts() override { ++captured; }

private:
    int m_framesPerLayout;
    std::map<QString, int> m_seen; // the recorder's thread only
};

class RecorderTest : public test::GatedDeviceTest {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        GatedDeviceTest::SetUp();
        m_settings.storageFolder = m_folder.path();
    }

    QStringList files() const { return QDir(m_folder.path()).entryList(QDir::Files, QDir::Name); }

    QTemporaryDir m_folder;
    CaptureSettings m_settings;
    LayoutPtr m_top = CaptureLayout::createWithScreen(m_device->screen(0), "Top");
    LayoutPtr m_bottom = CaptureLayout::createWithScreen(m_device->screen(1), "Bottom");
};

TEST_F(RecorderTest, HandsOneFramePerLayoutAndFinishesOnceHoweverManyWait) {
    auto recorder = std::make_shared<CountingRecorder>(std::vector<LayoutPtr>{m_top, m_bottom}, 1);
    auto watch = m_top->addObserver(m_wakeup);
    ASSERT_TRUE(recorder->start());
    EXPECT_TRUE(recorder->start()) << "a second start changes nothing";
    ASSERT_TRUE(m_device->startListening());
    // Many more frames pass than the recorder takes.
    ASSERT_EQ(test::takeFrames(*m_top, watch, *m_wakeup, 12).size(), 12u);
    EXPECT_EQ(recorder->captured, 1);
    EXPECT_TRUE(recorder->isRecording()) << "the base does not stop by itself";
    recorder->stop();
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    EXPECT_EQ(recorder->captured, 1) << "the thread's final check finds the run finished";
    EXPECT_EQ(recorder->seen(), (std::map<QString, int>{{"Bottom", 1}, {"Top", 1}}));
    m_top->removeObserver(watch);
    m_top->stopListening();
}

TEST_F(RecorderTest, ARecorderThatNeverFinishesIsFinishedByStop) {
    auto recorder = std::make_shared<CountingRecorder>(std::vector<LayoutPtr>{m_top}, 0);
    EXPECT_TRUE(recorder->stop()) << "stopping before starting is harmless";
    ASSERT_TRUE(recorder->start());
    ASSERT_TRUE(m_device->startListening());
    EXPECT_FALSE(recorder->waitUntilFinished(100ms));
    recorder->stop();
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    EXPECT_EQ(recorder->captured, 1);
    EXPECT_FALSE(m_top->isListening()) << "the layout stops once its last consumer left";
}

TEST(RecorderNames, DateStampsAreDayMonthYearAndTime) {
    EXPECT_EQ(Recorder::stringWithDate(QDateTime(QDate(2014, 3, 5), QTime(18, 7, 9))), "05_03_2014 18_07_09");
}

TEST_F(RecorderTest, AScreenshotIsTheLayoutsFrameByteForByte) {
    auto watch = m_bottom->addObserver(m_wakeup);
    auto recorder = std::make_shared<ImageRecorder>(std::vector<LayoutPtr>{m_bottom}, m_settings);
    recorder->start();
    ASSERT_TRUE(m_device->startListening());
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    EXPECT_FALSE(recorder->isRecording()) << "a screenshot recorder stops itself";
    auto frames = test::takeFrames(*m_bottom, watch, *m_wakeup, 1);
    ASSERT_EQ(frames.size(), 1u);

    ASSERT_EQ(files().size(), 1);
    const QString name = files().first();
    EXPECT_TRUE(QRegularExpression("^Screenshot \\d\\d_\\d\\d_\\d{4} \\d\\d_\\d\\d_\\d\\d\\.png$")
                    .match(name)
                    .hasMatch())
        << name.toStdString();
    EXPECT_EQ(recorder->savedFiles(), QStringList{m_folder.path() + "/" + name});
    // Decoded by ffmpeg rather than by the library that wrote it.
    const std::string pixels =
        test::runProcess({"ffmpeg", "-v", "error", "-i", (m_folder.path() + "/" + name).toStdString(), "-f",
                          "rawvideo", "-pix_fmt", "rgb24", "-"})
            .out;
    ASSERT_EQ(pixels.size(), frames[0]->size());
    EXPECT_EQ(std::memcmp(pixels.data(), frames[0]->data(), pixels.size()), 0);
    m_bottom->removeObserver(watch);
    m_bottom->stopListening();
}

TEST_F(RecorderTest, TwoLayoutsAreToldApartByNameAndOtherFormatsGiveJpeg) {
    m_settings.imageFormat = "JPEG2000";
    auto recorder = std::make_shared<ImageRecorder>(std::vector<LayoutPtr>{m_top, m_bottom}, m_settings);
    recorder->start();
    ASSERT_TRUE(m_device->startListening());
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    // The two may fall in different seconds: told apart by what follows the stamp.
    QStringList kinds = files().replaceInStrings(QRegularExpression("^Screenshot [0-9_ ]+ "), "");
    kinds.sort();
    ASSERT_EQ(kinds, (QStringList{"Bottom.jpg", "Top.jpg"})) << files().join(", ").toStdString();
    const auto probed =
        test::probe((m_folder.path() + "/" + files().filter(" Top.jpg").first()).toStdString(),
                    {"-show_entries", "stream=codec_name,width"});
    EXPECT_EQ(probed["streams"][0][u"codec_name"], "mjpeg");
    EXPECT_EQ(probed["streams"][0][u"width"], 400);
}

TEST_F(RecorderTest, AScreenshotInTheSameSecondReplacesTheFirst) {
    ASSERT_TRUE(m_device->startListening());
    QStringList saved;
    for (int attempt = 0; attempt < 3; ++attempt) {
        saved.clear();
        for (int shot = 0; shot < 2; ++shot) {
            auto recorder = std::make_shared<ImageRecorder>(std::vector<LayoutPtr>{m_top}, m_settings);
            recorder->start();
            ASSERT_TRUE(recorder->waitUntilFinished(20s));
            saved += recorder->savedFiles();
        }
        if (saved.size() == 2 && saved[0] == saved[1]) {
            break; // both in one second, as wanted
        }
        for (const QString& file : files()) {
            QFile::remove(m_folder.path() + "/" + file);
        }
    }
    ASSERT_EQ(saved.size(), 2);
    ASSERT_EQ(saved[0], saved[1]) << "three tries all crossed a second boundary";
    EXPECT_EQ(files().size(), 1);
    EXPECT_TRUE(QDir(m_folder.path()).entryList(QDir::Hidden | QDir::Files).size() == 1)
        << "no temporary file left";
}

TEST_F(RecorderTest, AScreenshotMakesAMissingFolderAndAnUnwritableOneStillFinishes) {
    ASSERT_TRUE(m_device->startListening());
    // A storage folder that is not there yet (a fresh desktop has no ~/Desktop) is made.
    m_settings.storageFolder = m_folder.path() + "/Desktop/shots";
    auto recorder = std::make_shared<ImageRecorder>(std::vector<LayoutPtr>{m_top}, m_settings);
    recorder->start();
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    ASSERT_EQ(recorder->savedFiles().size(), 1);
    EXPECT_TRUE(QFileInfo(recorder->savedFiles()[0]).isFile());

    // A file where the folder should be: nothing is saved, and the recorder still ends.
    m_settings.storageFolder = m_folder.path() + "/blocker";
    ASSERT_TRUE(test::writeFile(m_settings.storageFolder));
    recorder = std::make_shared<ImageRecorder>(std::vector<LayoutPtr>{m_top}, m_settings);
    recorder->start();
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    EXPECT_TRUE(recorder->savedFiles().isEmpty());
    EXPECT_FALSE(recorder->isRecording());
}

} // namespace
} // namespace zandor
