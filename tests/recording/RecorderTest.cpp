#include "Files.h"
#include "Frames.h"
#include "GatedBoard.h"
#include "Media.h"
#include "UserFolders.h"
#include "base/Log.h"
#include "capture/CaptureScreen.h"
#include "layouts/CaptureLayout.h"
#include "recording/ImageRecorder.h"
#include "recording/ReplayBuffer.h"
#include "settings/Settings.h"
#include "recording/ShellCommand.h"
#include "recording/VideoRecorder.h"
#include "session/CaptureSession.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>

namespace zandor {
namespace {

using namespace std::chrono_literals;

// Counts the hooks; finished with a layout after `framesPerLayout` frames of it.
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
        return ++m_seen[layout->name()] >= m_framesPerLayout;
    }
    void capturedLayouts() override { ++captured; }

private:
    int m_framesPerLayout;
    std::map<QString, int> m_seen; // the recorder's thread only
};

class Delegate final : public RecorderDelegate {
public:
    void recordDone() override {}
    void recordError(const RecordingProblem& problem) override {
        std::scoped_lock lock(m_mutex);
        errors.append(session::recordingMessage(problem));
    }
    std::mutex m_mutex;
    QStringList errors;
};

class RecorderTest : public test::GatedDeviceTest {
protected:
    void SetUp() override {
        test::isolateUserFolders();
        GatedDeviceTest::SetUp();
        m_settings.storageFolder = m_folder.path();
    }
    void TearDown() override {
        ShellCommand::setToolFolder({});
        // Joins a layout's thread that ended when its last consumer left.
        m_top->stopListening();
        m_bottom->stopListening();
        GatedDeviceTest::TearDown();
    }

    QStringList files() const { return QDir(m_folder.path()).entryList(QDir::Files, QDir::Name); }

    std::shared_ptr<ImageRecorder> screenshot(const std::vector<LayoutPtr>& layouts) {
        auto recorder = std::make_shared<ImageRecorder>(layouts, m_settings);
        recorder->start();
        EXPECT_TRUE(m_device->isListening() || m_device->startListening());
        EXPECT_TRUE(recorder->waitUntilFinished(20s));
        return recorder;
    }

    // A video recorder whose stand-in tools run `converterFirst` before the conversion.
    std::shared_ptr<VideoRecorder> videoRecorder(const std::vector<LayoutPtr>& layouts,
                                                 const std::shared_ptr<Delegate>& delegate,
                                                 const QByteArray& converterFirst = {}) {
        EXPECT_TRUE(test::writeStandInTools(m_tools.path(), converterFirst));
        ShellCommand::setToolFolder(m_tools.path());
        auto recorder = std::make_shared<VideoRecorder>(layouts, m_settings);
        recorder->setDelegate(delegate);
        return recorder;
    }

    // Records until the first layout has given `frames` frames, with `meanwhile` run halfway, then
    // stops and waits for finalising.
    std::shared_ptr<VideoRecorder> recordVideo(
        const std::vector<LayoutPtr>& layouts, const std::shared_ptr<Delegate>& delegate,
        const QByteArray& converterFirst = {}, size_t frames = 10,
        const std::function<void()>& meanwhile = [] {}) {
        auto recorder = videoRecorder(layouts, delegate, converterFirst);
        auto watch = layouts.front()->addObserver(m_wakeup);
        EXPECT_TRUE(recorder->start());
        EXPECT_TRUE(m_device->startListening());
        const size_t half = frames / 2;
        EXPECT_EQ(test::takeFrames(*layouts.front(), watch, *m_wakeup, half).size(), half);
        meanwhile();
        EXPECT_EQ(test::takeFrames(*layouts.front(), watch, *m_wakeup, frames - half).size(), frames - half);
        layouts.front()->removeObserver(watch);
        recorder->stop();
        EXPECT_TRUE(recorder->waitUntilFinished(60s));
        return recorder;
    }

    QTemporaryDir m_folder;
    QTemporaryDir m_tools;
    CaptureSettings m_settings;
    LayoutPtr m_top = CaptureLayout::createWithScreen(m_device->screen(0), "Top");
    LayoutPtr m_bottom = CaptureLayout::createWithScreen(m_device->screen(1), "Bottom");
};

TEST_F(RecorderTest, HandsOneFramePerLayoutAndFinishesOnceWhenStopped) {
    auto recorder = std::make_shared<CountingRecorder>(std::vector<LayoutPtr>{m_top, m_bottom}, 1);
    auto watch = m_top->addObserver(m_wakeup);
    ASSERT_TRUE(recorder->start());
    ASSERT_TRUE(m_device->startListening());
    ASSERT_EQ(test::takeFrames(*m_top, watch, *m_wakeup, 12).size(), 12u);
    EXPECT_EQ(recorder->captured, 1);
    m_top->removeObserver(watch);
    recorder->stop();
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    EXPECT_EQ(recorder->captured, 1) << "the thread's final check finds the run finished";
    EXPECT_EQ(recorder->seen(), (std::map<QString, int>{{"Bottom", 1}, {"Top", 1}}));
    EXPECT_FALSE(m_top->isListening()) << "the layout stops once its last consumer left";
}

// A recorder held up in its first frame, as on a busy machine, and stopped meanwhile: the frames
// that came before the stop are recorded all the same.
TEST_F(RecorderTest, AStopStillTakesTheFramesThatCameBeforeIt) {
    class HeldRecorder final : public Recorder {
    public:
        using Recorder::Recorder;
        std::promise<void> go;
        int taken = 0; // the recorder's thread only; read after it has finished

    protected:
        bool capture(const LayoutPtr& layout, const ObserverPtr& observer) override {
            if (taken++ == 0) {
                go.get_future().wait();
            }
            Recorder::capture(layout, observer);
            return false;
        }
    };
    auto recorder = std::make_shared<HeldRecorder>(std::vector<LayoutPtr>{m_top});
    auto watch = m_top->addObserver(m_wakeup);
    m_board->holdAt(12);
    ASSERT_TRUE(recorder->start());
    ASSERT_TRUE(m_device->startListening());
    ASSERT_EQ(test::takeFrames(*m_top, watch, *m_wakeup, 12).size(), 12u);
    m_top->removeObserver(watch);
    recorder->stop();
    recorder->go.set_value();
    ASSERT_TRUE(recorder->waitUntilFinished(20s));
    EXPECT_EQ(recorder->taken, 12);
}

// The layout's name after the stamp tells the files apart (the two may fall in different seconds).
TEST_F(RecorderTest, AScreenshotIsEachLayoutsFrameByteForByte) {
    std::vector<std::pair<LayoutPtr, ObserverPtr>> watched;
    for (const LayoutPtr& layout : {m_top, m_bottom}) {
        watched.emplace_back(layout, layout->addObserver(m_wakeup));
    }
    auto recorder = screenshot({m_top, m_bottom});
    EXPECT_EQ(recorder->savedFiles().size(), 2);
    for (const auto& [layout, watch] : watched) {
        const auto frames = test::takeFrames(*layout, watch, *m_wakeup, 1);
        layout->removeObserver(watch);
        const QStringList named = files().filter(QRegularExpression(
            "^Screenshot \\d\\d_\\d\\d_\\d{4} \\d\\d_\\d\\d_\\d\\d " + layout->name() + "\\.png$"));
        ASSERT_EQ(named.size(), 1) << files().join(", ").toStdString();
        const std::string pixels =
            test::runProcess({"ffmpeg", "-v", "error", "-i", (m_folder.path() + "/" + named[0]).toStdString(),
                              "-f", "rawvideo", "-pix_fmt", "rgb24", "-"})
                .out;
        ASSERT_EQ(frames.size(), 1u);
        ASSERT_EQ(pixels.size(), frames[0]->size());
        EXPECT_EQ(std::memcmp(pixels.data(), frames[0]->data(), pixels.size()), 0);
    }
}

// A fresh desktop has no ~/Desktop; a format other than PNG gives JPEG.
TEST_F(RecorderTest, AScreenshotMakesAMissingFolderAndAnUnwritableOneStillFinishes) {
    m_settings.storageFolder = m_folder.path() + "/Desktop/shots";
    m_settings.imageFormat = "JPEG2000";
    auto recorder = screenshot({m_top});
    ASSERT_EQ(recorder->savedFiles().size(), 1);
    EXPECT_TRUE(recorder->savedFiles()[0].endsWith(".jpg"));
    EXPECT_EQ(test::probe(recorder->savedFiles()[0].toStdString(),
                          {"-show_entries", "stream=codec_name"})["streams"][0][u"codec_name"],
              "mjpeg");

    // A file where the folder should be: nothing is saved, and the recorder still ends.
    m_settings.storageFolder = m_folder.path() + "/blocker";
    ASSERT_TRUE(test::writeFile(m_settings.storageFolder));
    recorder = screenshot({m_top});
    EXPECT_TRUE(recorder->savedFiles().isEmpty());
    EXPECT_FALSE(recorder->isRecording());
}

// A converter that never ends is ended after twenty times the recording's length (ten seconds at
// least).
TEST_F(RecorderTest, EachLayoutIsConvertedUnderItsNameAndAHungConverterIsEndedKeepingTheRecording) {
    m_settings.storageFolder = m_folder.path() + "/new/folder";
    m_settings.framesPerSecond = "30";
    m_settings.videoQuality = "High";
    auto delegate = std::make_shared<Delegate>();
    auto recorder = recordVideo({m_top, CaptureLayout::createWithScreen(m_device->screen(1), "Dou/ble")},
                                delegate, "case \"$2\" in */MergedDou_ble.mp4) exec sleep 600;; esac");
    EXPECT_EQ(delegate->errors, QStringList{"It was not possible to convert the merged video. The recording "
                                            "is kept in \"" +
                                            recorder->bundlePath() + "\"."});
    const QString base = QFileInfo(recorder->basePath()).fileName();
    EXPECT_EQ(QDir(m_settings.storageFolder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name),
              (QStringList{base + " Top.mp4", base + ".zdrecord"}));
    EXPECT_TRUE(QFileInfo::exists(recorder->bundlePath() + "/VideoDou_ble.mov"));
    EXPECT_EQ(test::readLines(m_tools.path() + "/calls")
                  .filter(QRegularExpression("^HandBrakeCLI .*/MergedDou_ble.mp4 .* --rate 30 --vb 3000 "))
                  .size(),
              1)
        << "the chosen rate and the quality's bit rate";
}

// Named from the choices the bundle keeps or, without them, from its movies; a movie of that name
// already there is kept, and the recovered one numbered.
TEST_F(RecorderTest, ARecoveredRecordingsMoviesCarryTheLayoutNames) {
    const QString longName = "A/B\tC" + QString(120, 'z');
    const QString inFileName = "A_B_C" + QString(95, 'z');
    m_settings.framesPerSecond = "30"; // the converter, which fails, runs
    auto delegate = std::make_shared<Delegate>();
    auto recorder = recordVideo({m_top, CaptureLayout::createWithScreen(m_device->screen(1), longName)},
                                delegate, "exit 1");
    ASSERT_EQ(delegate->errors.size(), 2) << delegate->errors.join("\n").toStdString();
    const QString bundle = recorder->bundlePath(), base = recorder->basePath();
    const QString older = m_folder.path() + "/Capture 01_01_2026 00_00_00";
    ASSERT_EQ(
        test::runProcess({"cp", "-r", bundle.toStdString(), (older + ".zdrecord").toStdString()}).exitCode,
        0);
    ASSERT_TRUE(QFile::remove(older + ".zdrecord/Recording.plist"));
    ASSERT_TRUE(test::writeFile(base + " Top.mp4", "kept"));

    ASSERT_TRUE(test::writeStandInTools(m_tools.path()));
    for (const auto& [path, made] :
         {std::pair{bundle, QStringList{base + " " + inFileName + ".mp4", base + " Top 2.mp4"}},
          std::pair{older + ".zdrecord",
                    QStringList{older + " " + inFileName + ".mp4", older + " Top.mp4"}}}) {
        const auto found = VideoRecorder::forBundle(path);
        ASSERT_TRUE(found) << found.error().logLine();
        const auto& recovering = *found;
        recovering->setDelegate(delegate);
        EXPECT_TRUE(recovering->recover()) << delegate->errors.join("\n").toStdString();
        EXPECT_EQ(recovering->madeFiles(), made);
        EXPECT_FALSE(QFileInfo::exists(path));
    }
    EXPECT_EQ(test::readFile(base + " Top.mp4"), "kept");
}

// Here a file-size limit, as a full disk would.
TEST_F(RecorderTest, AFailedWriteEndsTheRecordingWithoutAStop) {
    m_settings.videoQuality = "Highest";
    auto delegate = std::make_shared<Delegate>();
    auto recorder = videoRecorder({m_top}, delegate);
    test::FileSizeLimit limit(512 * 1024);
    ASSERT_TRUE(limit.isSet());
    LogCapture log;
    const bool started = recorder->start();
    EXPECT_TRUE(started && m_device->startListening());
    const bool ended = started && recorder->waitUntilFinished(60s);
    limit.lift();
    ASSERT_TRUE(ended) << "the recording went on after its movie could not be written";
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(log.countPrefix("The movie " + recorder->bundlePath().toStdString() +
                              "/VideoTop.mov cannot be "
                              "written: the recording stops here"),
              1u);
    EXPECT_EQ(delegate->errors,
              QStringList{"The recording of the video could not be finalized. The file is too large for this "
                          "disk. The recording is kept in \"" +
                          recorder->bundlePath() + "\"."});
    EXPECT_TRUE(QFileInfo(recorder->bundlePath() + "/VideoTop.mov").size() > 0);
}

// The wall-clock time of each of a replay's pictures, from its start in the metadata.
struct ReplayTimes {
    std::vector<double> pictures;
    bool startsOnKeyFrame = false;
    double lastLasts = 0; // how long the last picture shows, in seconds
};

ReplayTimes replayTimes(const QString& file) {
    const auto probed =
        test::probe(file.toStdString(), {"-show_entries", "format_tags=zandor_capture_start", "-show_entries",
                                         "packet=flags,pts_time,duration_time", "-select_streams", "v"});
    const double start = probed["format"]["tags"]["zandor_capture_start"].toString().toDouble();
    ReplayTimes times;
    for (const QJsonValue& packet : probed["packets"].toArray()) {
        times.pictures.push_back(start + packet["pts_time"].toString().toDouble());
        if (times.pictures.back() >= *std::max_element(times.pictures.begin(), times.pictures.end())) {
            times.lastLasts = packet["duration_time"].toString().toDouble();
        }
    }
    std::sort(times.pictures.begin(), times.pictures.end());
    // In decoding order: the decoder would skip pictures before the first key frame.
    times.startsOnKeyFrame = probed["packets"][0]["flags"].toString().startsWith('K');
    return times;
}

// The replay starts on a key frame no more than its seconds and one key interval back, and ends on
// one of the last pictures shown before the save (the encoder holds back a few).
TEST_F(RecorderTest, AReplayHoldsItsLastSecondsUpToThePictureShownAndSavesOverlapAlsoAfterAStop) {
    constexpr int Seconds = 5;
    const QString folder = m_folder.path() + "/replays", chosenLater = m_folder.path() + "/chosen later";
    auto buffer = std::make_shared<ReplayBuffer>(m_top, m_settings, Seconds);
    auto watch = m_top->addObserver(m_wakeup);
    ASSERT_TRUE(buffer->start());
    ASSERT_TRUE(m_device->startListening());
    constexpr uint64_t Shown = (Seconds + 2) * 60;
    m_board->holdAt(Shown);
    // Every frame published until the hold; a slow machine may have dropped some on the way.
    const auto frames = test::takeFrames(*m_top, watch, *m_wakeup, Shown, 5s);
    ASSERT_TRUE(m_board->waitUntilHeld(Shown));
    ASSERT_GT(frames.size(), Shown / 2);
    const Result<QString> first = buffer->save(folder);
    ASSERT_TRUE(first) << first.error().logLine();

    const ReplayTimes times = replayTimes(*first);
    ASSERT_FALSE(times.pictures.empty());
    EXPECT_TRUE(times.startsOnKeyFrame);
    const double length = times.pictures.back() - times.pictures.front();
    EXPECT_GE(length, Seconds - 0.05);
    EXPECT_LE(length, Seconds + 1.0);
    const auto last = std::find_if(frames.rbegin(), frames.rend(), [&](const CaptureDataPtr& frame) {
        return std::abs(test::epochSeconds(frame->wallClock()) - times.pictures.back()) < 0.002;
    });
    ASSERT_NE(last, frames.rend()) << "the last picture is one that was shown";
    EXPECT_LT(last - frames.rbegin(), 60) << "and one of the last second's";
    // Shown for one frame period, as every other, to a millisecond (the movie's time base).
    EXPECT_NEAR(times.lastLasts, 1.0 / 60, 0.001);

    // Two saves in a row while the picture goes on: the second gives the seconds they share again,
    // under a name of its own.
    m_board->release();
    EXPECT_EQ(test::takeFrames(*m_top, watch, *m_wakeup, 30).size(), 30u);
    const Result<QString> second = buffer->save(folder);
    const Result<QString> third = buffer->save(chosenLater);
    ASSERT_TRUE(second && third) << second.error().logLine() << third.error().logLine();
    EXPECT_TRUE(second->startsWith(folder + "/Replay ")) << second->toStdString();
    EXPECT_TRUE(third->startsWith(chosenLater + "/Replay ")) << third->toStdString();
    const ReplayTimes earlier = replayTimes(*second), later = replayTimes(*third);
    ASSERT_FALSE(earlier.pictures.empty() || later.pictures.empty());
    EXPECT_LT(later.pictures.front(), earlier.pictures.back());
    EXPECT_GE(later.pictures.back(), earlier.pictures.back());
    EXPECT_GT(earlier.pictures.back(), times.pictures.back()) << "the picture went on after the hold";

    // Paused at a held frame: what the buffer took up to the stop is kept, and saved after it.
    const uint64_t pausedAt = m_device->count() + 30;
    m_board->holdAt(pausedAt);
    ASSERT_TRUE(m_board->waitUntilHeld(pausedAt));
    const auto shown = test::takeFrames(*m_top, watch, *m_wakeup, 200, 1s);
    ASSERT_FALSE(shown.empty());
    buffer->stop();
    const Result<QString> paused = buffer->save(folder);
    ASSERT_TRUE(paused) << paused.error().logLine();
    const ReplayTimes kept = replayTimes(*paused);
    ASSERT_FALSE(kept.pictures.empty());
    EXPECT_GT(kept.pictures.back(), test::epochSeconds(shown.back()->wallClock()) - 1.0)
        << "up to the last second shown";
    EXPECT_GT(kept.pictures.back(), later.pictures.back()) << "past the last save";
    EXPECT_GE(kept.pictures.back() - kept.pictures.front(), Seconds - 0.05);
    ASSERT_TRUE(buffer->start());
    EXPECT_EQ(buffer->heldBytes(), 0u) << "a start empties the buffer (the board is held)";
    m_top->removeObserver(watch);
    buffer->stop();
}

// By its code, not by a text (a full disk: tests/system/FullDiskTest).
TEST_F(RecorderTest, ASaveThatWritesNothingSaysWhyByItsCause) {
    const auto cause = [](const Result<QString>& saved) {
        EXPECT_FALSE(saved);
        return saved.error().step();
    };
    auto buffer = std::make_shared<ReplayBuffer>(m_top, m_settings, 2);
    EXPECT_EQ(cause(buffer->save(m_folder.path())), ReplayBuffer::EmptyStep);

    auto watch = m_top->addObserver(m_wakeup);
    ASSERT_TRUE(buffer->start());
    ASSERT_TRUE(m_device->startListening());
    // The buffer encodes on its own thread: frames are waited for until it holds some.
    for (int frames = 0; buffer->heldBytes() == 0 && frames < 600; ++frames) {
        ASSERT_EQ(test::takeFrames(*m_top, watch, *m_wakeup, 1).size(), 1u);
    }
    ASSERT_GT(buffer->heldBytes(), 0u);
    // A folder inside a regular file cannot be made, whoever runs the test.
    ASSERT_TRUE(test::writeFile(m_folder.path() + "/file", "not a folder"));
    const Result<QString> saved = buffer->save(m_folder.path() + "/file/replays");
    EXPECT_EQ(cause(saved), ReplayBuffer::FolderStep);
    EXPECT_EQ(saved.error().path(), (m_folder.path() + "/file/replays").toStdString());
    m_top->removeObserver(watch);
    buffer->stop();
}

TEST_F(RecorderTest, ASaveDuringARecordingLeavesBothWhole) {
    auto buffer = std::make_shared<ReplayBuffer>(m_top, m_settings, settings::replaySeconds.range()->first);
    ASSERT_TRUE(buffer->start());
    auto delegate = std::make_shared<Delegate>();
    Result<QString> saved = Error::other("save", {}, "not saved yet");
    auto recorder =
        recordVideo({m_top}, delegate, {}, 120, [&] { saved = buffer->save(m_settings.storageFolder); });
    buffer->stop();
    EXPECT_TRUE(delegate->errors.isEmpty()) << delegate->errors.join(", ").toStdString();
    ASSERT_EQ(recorder->madeFiles().size(), 1);
    ASSERT_TRUE(saved) << saved.error().logLine();
    const auto count = [](const QString& file) {
        return test::probe(file.toStdString(), {"-count_frames", "-show_entries",
                                                "stream=nb_read_frames"})["streams"][0]["nb_read_frames"]
            .toString()
            .toInt();
    };
    EXPECT_GE(count(recorder->madeFiles()[0]), 110) << "the recording went on through the save";
    EXPECT_GE(count(*saved), 30);
}

} // namespace
} // namespace zandor
