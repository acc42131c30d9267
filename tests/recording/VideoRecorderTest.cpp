#include "Files.h"
#include "GatedBoard.h"
#include "Frames.h"
#include "UserFolders.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "layouts/CaptureLayout.h"
#include "recording/ShellCommand.h"
#include "recording/VideoRecorder.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <mutex>

namespace zandor {
namespace {

using namespace std::chrono_literals;

class Delegate final : public RecorderDelegate {
public:
    void recordDone() override {
        std::scoped_lock lock(m_mutex);
        done = true;
    }
    void recordError(const QString& message) override {
        std::scoped_lock lock(m_mutex);
        errors.append(message);
    }
    std::mutex m_mutex;
    bool done = false;
    QStringList errors;
};

// Stand-ins for the two tools that note their arguments and make their output from their input, so
// that finalising can be followed without real media tools.
const char* const FakeSubler = R"(#!/bin/sh
echo "SublerCLI $*" >> "$(dirname "$0")/calls"
[ -f "$4" ] || cp "$2" "$4"
)";
const char* const FakeHandBrake = R"(#!/bin/sh
echo "HandBrakeCLI $*" >> "$(dirname "$0")/calls"
cp "$2" "$4"
)";

class VideoRecorderTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        ASSERT_TRUE(DetachedThread::waitForAll(20s));
        for (const auto& [name, script] :
             {std::pair{"SublerCLI", FakeSubler}, {"HandBrakeCLI", FakeHandBrake}}) {
            ASSERT_TRUE(test::writeFile(m_tools.path() + "/" + name, script, true));
        }
        ShellCommand::setToolFolder(m_tools.path());
        m_settings.storageFolder = m_storage.path() + "/new/folder";
        m_settings.videoQuality = "High";
        m_device = CaptureDevice::create(std::make_unique<test::GatedBoard>());
        ASSERT_TRUE(m_device->startListening());
    }
    void TearDown() override {
        ShellCommand::setToolFolder({});
        m_device->stopListening();
        EXPECT_TRUE(DetachedThread::waitForAll(20s));
    }

    QStringList calls() const { return test::readLines(m_tools.path() + "/calls"); }

    // Records until every layout has given a few frames, then stops and waits for finalising.
    std::shared_ptr<VideoRecorder> record(std::vector<LayoutPtr> layouts,
                                          const std::shared_ptr<Delegate>& delegate) {
        auto recorder = std::make_shared<VideoRecorder>(layouts, m_settings);
        recorder->setDelegate(delegate);
        auto wakeup = std::make_shared<Wakeup>();
        auto watch = layouts.front()->addObserver(wakeup);
        EXPECT_TRUE(recorder->start());
        EXPECT_FALSE(recorder->isDone());
        EXPECT_EQ(test::takeFrames(*layouts.front(), watch, *wakeup, 10).size(), 10u);
        layouts.front()->removeObserver(watch);
        recorder->stop();
        EXPECT_TRUE(recorder->waitUntilFinished(60s));
        return recorder;
    }

    QStringList storage() const {
        return QDir(m_storage.path() + "/new/folder")
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
    }

    QTemporaryDir m_tools;
    QTemporaryDir m_storage;
    CaptureSettings m_settings;
    std::shared_ptr<CaptureDevice> m_device;
};

TEST_F(VideoRecorderTest, OneLayoutAtTheOriginalRateIsMergedAndMovedOut) {
    auto delegate = std::make_shared<Delegate>();
    auto recorder = record({CaptureLayout::createWithScreen(m_device->screen(0), "Single")}, delegate);
    EXPECT_TRUE(delegate->done);
    EXPECT_TRUE(delegate->errors.isEmpty()) << delegate->errors.join(", ").toStdString();
    EXPECT_TRUE(recorder->isDone());
    const QString stamp = QFileInfo(recorder->basePath()).fileName();
    EXPECT_EQ(storage(), QStringList{stamp + ".mp4"}) << "the bundle is gone";
    ASSERT_EQ(calls().size(), 1) << "no game audio: one merge, no conversion";
    EXPECT_EQ(calls()[0], "SublerCLI -source " + recorder->bundlePath() + "/VideoSingle.mov -dest " +
                              recorder->bundlePath() + "/MergedSingle.mp4");
}

// A name that is no file name ("Dou/ble") goes into the files' names made safe.
TEST_F(VideoRecorderTest, TwoLayoutsAtAChosenRateAreConvertedEachUnderItsName) {
    m_settings.framesPerSecond = "30";
    auto delegate = std::make_shared<Delegate>();
    auto recorder = record({CaptureLayout::createWithScreen(m_device->screen(0), "Single"),
                            CaptureLayout::createWithScreen(m_device->screen(1), "Dou/ble")},
                           delegate);
    EXPECT_TRUE(delegate->done);
    EXPECT_TRUE(delegate->errors.isEmpty()) << delegate->errors.join(", ").toStdString();
    const QString base = QFileInfo(recorder->basePath()).fileName();
    EXPECT_EQ(storage(), (QStringList{base + " Dou_ble.mp4", base + " Single.mp4"}));
    QStringList conversions = calls().filter("HandBrakeCLI");
    ASSERT_EQ(conversions.size(), 2);
    EXPECT_TRUE(conversions[0].contains("--rate 30 --vb 3000"))
        << "the chosen rate and the quality's bit rate";
}

// A converter that never ends is ended after twenty times the recording's length (ten seconds at
// least), and the recording is kept.
TEST_F(VideoRecorderTest, AHungToolIsEndedAndTheRecordingKept) {
    ASSERT_TRUE(test::writeFile(m_tools.path() + "/HandBrakeCLI", "#!/bin/sh\nexec sleep 600\n", true));
    m_settings.framesPerSecond = "30";
    auto delegate = std::make_shared<Delegate>();
    auto recorder = record({CaptureLayout::createWithScreen(m_device->screen(0), "Single")}, delegate);
    EXPECT_TRUE(recorder->isDone());
    EXPECT_EQ(delegate->errors,
              QStringList{"It was not possible to convert the merged video. The recording is "
                          "kept in \"" +
                          recorder->bundlePath() + "\"."});
    EXPECT_TRUE(QFileInfo::exists(recorder->bundlePath() + "/VideoSingle.mov"));
}

TEST_F(VideoRecorderTest, ABundleThatCannotBeMadeStartsNothingButSaysYes) {
    ASSERT_TRUE(test::writeFile(m_storage.path() + "/file"));
    m_settings.storageFolder = m_storage.path() + "/file";
    LogCapture log;
    auto recorder = std::make_shared<VideoRecorder>(
        std::vector<LayoutPtr>{CaptureLayout::createWithScreen(m_device->screen(0), "Single")}, m_settings);
    EXPECT_TRUE(recorder->start());
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_FALSE(recorder->isDone());
    EXPECT_EQ(log.count("Could not create bundle for recording"), 1u);
}

} // namespace
} // namespace zandor
