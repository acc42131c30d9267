// The camera against a private PipeWire, with GStreamer's pipewiresrc as the consumer a streamer's
// programs would be.

#include "Files.h"
#include "PipeWireServer.h"
#include "PluginBundles.h"
#include "Process.h"
#include "base/Worker.h"
#include "base/Log.h"
#include "base/Wakeup.h"
#include "camera/CameraOutput.h"
#include "camera/CameraSteps.h"
#include "capture/Boards.h"
#include "capture/CaptureDevice.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "layouts/CaptureLayout.h"
#include "session/CaptureSession.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include <QRegularExpression>
#include <QTemporaryDir>

#include <signal.h>

#include <thread>
#include <tuple>

namespace zandor {
namespace {

using namespace std::chrono_literals;
using test::PipeWireServer;

// Where a screen lies on a layout's canvas.
struct Placement {
    bool top;
    uint64_t x, y;
};

// The picture a layout makes of `raw`, painted the obvious way: every pixel of the background,
// then each screen's pixels read from the board's column-wise, bottom-up format.
QByteArray picture(const QByteArray& raw, uint64_t width, uint64_t height, std::vector<Placement> screens) {
    QByteArray canvas(qsizetype(width * height * 3), '\0');
    for (qsizetype i = 0; i < canvas.size(); ++i) {
        canvas[i] = char(std::array<uint8_t, 3>{10, 200, 64}[i % 3]);
    }
    for (const Placement& screen : screens) {
        const uint64_t offset = screen.top ? raw::TopOffset : raw::BottomOffset;
        for (uint64_t x = 0; x < (screen.top ? raw::TopWidth : raw::BottomWidth); ++x) {
            for (uint64_t y = 0; y < raw::TopHeight; ++y) {
                for (uint64_t c = 0; c < 3; ++c) {
                    canvas[qsizetype(((screen.y + y) * width + screen.x + x) * 3 + c)] =
                        raw[qsizetype(offset + (x * raw::TopHeight + raw::TopHeight - 1 - y) * 3 + c)];
                }
            }
        }
    }
    return canvas;
}

// How many whole copies of `first`, then of `second`, a consumer's file holds from its start; the
// rest, if any, is a copy cut short when the consumer was ended.
std::pair<int, int> countFrames(const QByteArray& file, const QByteArray& first, const QByteArray& second) {
    std::pair<int, int> counts{0, 0};
    qsizetype at = 0;
    while (counts.second == 0 && file.mid(at, first.size()) == first) {
        ++counts.first, at += first.size();
    }
    while (file.mid(at, second.size()) == second) {
        ++counts.second, at += second.size();
    }
    const QByteArray rest = file.mid(at);
    EXPECT_TRUE(first.startsWith(rest) || second.startsWith(rest))
        << "a frame unlike the layout's at byte " << at;
    return counts;
}

class CameraTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Worker::running(), 0);
        ASSERT_TRUE(m_server.isRunning()) << m_server.error();
        m_raw = QByteArray(qsizetype(raw::FrameBytes), '\0');
        DemoBoard::render(42, reinterpret_cast<uint8_t*>(m_raw.data()));
        // A replay of one frame shows the same picture over and over: any frame a consumer gets
        // must equal it.
        ASSERT_TRUE(test::writeFile(at("frame.raw"), m_raw));
        auto board = createBoard("replay:" + at("frame.raw").toStdString());
        ASSERT_TRUE(board) << board.error().logLine();
        m_device = CaptureDevice::create(std::move(*board));
        m_tall = layout("Stacked", 400, 480,
                        R"(<object type="screen_top" x="0" y="0"/>)"
                        R"(<object type="screen_bottom" x="40" y="240"/>)");
        m_wide = layout("Side by Side", 720, 240,
                        R"(<object type="screen_top" x="0" y="0"/>)"
                        R"(<object type="screen_bottom" x="400" y="0"/>)");
        m_tallPicture = picture(m_raw, 400, 480, {{true, 0, 0}, {false, 40, 240}});
        m_widePicture = picture(m_raw, 720, 240, {{true, 0, 0}, {false, 400, 0}});
    }
    void TearDown() override {
        if (m_consumer > 0) {
            kill(m_consumer, SIGCONT); // a stopped consumer hears the end only once it goes on
        }
        test::endProcess(m_consumer);
        m_camera->stop();
        m_device->stopListening();
        EXPECT_EQ(Worker::running(), 0) << "a thread outlived its stop";
    }

    QString at(const QString& name) const { return m_folder.path() + u'/' + name; }

    LayoutPtr layout(const QString& name, int width, int height, const QString& screens) {
        return CaptureLayout::createWithPlugin(
            test::parsedPlugin(m_folder.path(), name + ".zdplugin",
                               test::layoutDescriptor(name, 1, width, height, screens,
                                                      R"(<background r="10" g="200" b="64"/>)")),
            m_device);
    }

    void share(const LayoutPtr& layout) {
        const Error error = m_camera->start(layout);
        ASSERT_FALSE(error) << error.logLine();
        ASSERT_TRUE(m_device->startListening());
    }

    // A consumer that asks for `format` and writes what it receives as RGB rows into `file`.
    static std::vector<std::string> consumer(const QString& file, int buffers, const std::string& format) {
        return {"gst-launch-1.0",
                "-q",
                "pipewiresrc",
                "target-object=zandor",
                "num-buffers=" + std::to_string(buffers),
                "!",
                "video/x-raw,format=" + format,
                "!",
                "videoconvert",
                "!",
                "video/x-raw,format=RGB",
                "!",
                "filesink",
                "buffer-mode=unbuffered",
                "location=" + file.toStdString()};
    }
    pid_t consume(const QString& file) {
        return test::startProcess(consumer(file, 100000, "RGB"), -1, at("consumer.log").toStdString());
    }

    // Waits until `file` holds `tall` frames of the tall layout and then `wide` of the wide one.
    bool waitForFrames(const QString& file, int tall, int wide) {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        for (;;) {
            const auto counts = countFrames(test::readFile(file), m_tallPicture, m_widePicture);
            if (counts.first >= tall && counts.second >= wide) {
                return true;
            }
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << counts.first << " tall and " << counts.second << " wide frames came\n"
                              << test::readFile(at("consumer.log")).toStdString();
                return false;
            }
            // The pace of the pictures: a consumer gets one every 17 ms.
            std::this_thread::sleep_for(17ms);
        }
    }

    PipeWireServer m_server;
    QTemporaryDir m_folder;
    QByteArray m_raw;
    std::shared_ptr<CaptureDevice> m_device;
    LayoutPtr m_tall, m_wide;
    QByteArray m_tallPicture, m_widePicture;
    CameraOutputPtr m_camera = CameraOutput::create();
    pid_t m_consumer = -1;
};

TEST_F(CameraTest, ConsumersReceiveTheLayoutByteForByteInEitherFormatFromANodeThatGoesWithTheCamera) {
    share(m_tall);
    const QJsonObject node = PipeWireServer::nodeProperties("zandor");
    EXPECT_EQ(node["media.class"], "Video/Source");
    EXPECT_EQ(node["media.role"], "Camera");
    EXPECT_EQ(node["node.description"], "Zandor: Stacked");

    for (const std::string format : {"RGB", "BGRx"}) {
        const QString file = at(QString::fromStdString(format) + ".rgb");
        const test::ProcessResult result = test::runProcess(consumer(file, 3, format), 30s);
        EXPECT_EQ(result.exitCode, 0) << result.err;

        EXPECT_TRUE(test::readFile(file) == m_tallPicture + m_tallPicture + m_tallPicture)
            << format << ": " << test::readFile(file).size() << " bytes unlike three pictures of the layout";
    }
    EXPECT_GE(m_camera->sentFrames(), 6u);

    m_camera->stop();
    EXPECT_TRUE(PipeWireServer::waitForNode("zandor", {})) << "the node outlived sharing";
    EXPECT_FALSE(m_camera->isSharing());
    EXPECT_EQ(m_tall->hasObservers(), false) << "the camera left its subscription behind";
}

// A consumer that converts nothing takes the camera's first format, or the one it can show, and
// gets whole pictures in it: rows padded to 4 bytes as GStreamer lays them out, at a width where
// RGB rows need the padding. Without caps pipewiresrc names no media type, and WirePlumber links
// such a stream to no camera: the first consumer says it wants video, and nothing more.
TEST_F(CameraTest, AConsumerThatConvertsNothingGetsWholePicturesInTheFormatItTakes) {
    share(layout("Odd", 401, 240, R"(<object type="screen_top" x="0" y="0"/>)"));
    const QRegularExpression bufferSize(QStringLiteral(R"(chain .*\((\d+) bytes)"));
    const std::vector<std::tuple<std::vector<std::string>, std::string, int>> consumers = {
        {{"stream-properties=props,media.type=Video"}, "RGB", 1204 * 240},
        {{"!", "video/x-raw,format=BGRx"}, "BGRx", 1604 * 240}};
    for (const auto& [asks, format, bytes] : consumers) {
        std::vector<std::string> command = {"gst-launch-1.0", "-v", "pipewiresrc", "target-object=zandor",
                                            "num-buffers=3"};
        command.insert(command.end(), asks.begin(), asks.end());
        command.insert(command.end(), {"!", "fakesink", "silent=false"});
        const test::ProcessResult result = test::runProcess(command, 30s);
        EXPECT_EQ(result.exitCode, 0) << format << " took no three pictures:\n" << result.out << result.err;
        const QString out = QString::fromStdString(result.out);
        EXPECT_TRUE(out.contains(QString::fromStdString("format=(string)" + format + ", width=(int)401")))
            << result.out;
        int buffers = 0;
        for (auto match = bufferSize.globalMatch(out); match.hasNext(); ++buffers) {
            EXPECT_EQ(match.next().captured(1).toInt(), bytes) << format << " buffer " << buffers;
        }
        EXPECT_GE(buffers, 1) << result.out;
    }
}

// Each buffer's header carries the moment its frame shows in nanoseconds on PipeWire's clock,
// CLOCK_MONOTONIC, as consumers read it (GStreamer counts its running time from it): consecutive
// stamps lie a whole number of frame periods (16.7 ms) apart, and all within the consumer's run,
// give or take the tenth of a second that a frame's slot on the device's grid may lie from it.
// The consumer's own log line gives the raw header values.
TEST_F(CameraTest, BufferTimeStampsAreMonotonicClockNanoseconds) {
    const auto monotonicNs = [] {
        return static_cast<long double>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                            std::chrono::steady_clock::now().time_since_epoch())
                                            .count());
    };
    const long double before = monotonicNs();
    share(m_tall);
    const test::ProcessResult result = test::runProcess(
        {"env", "GST_DEBUG=pipewiresrc:6", "GST_DEBUG_NO_COLOR=1", "gst-launch-1.0", "-q", "pipewiresrc",
         "target-object=zandor", "num-buffers=6", "!", "video/x-raw,format=RGB", "!", "fakesink"},
        30s);
    const long double after = monotonicNs();
    ASSERT_EQ(result.exitCode, 0) << result.err.substr(result.err.size() > 3000 ? result.err.size() - 3000
                                                                                : 0);
    std::vector<long double> stamps;
    const std::string marker = "pts ";
    for (size_t at = result.err.find(marker); at != std::string::npos; at = result.err.find(marker, at + 1)) {
        unsigned long long pts = 0;
        if (std::sscanf(result.err.c_str() + at, "pts %llu, dts_offset", &pts) == 1) {
            stamps.push_back(static_cast<long double>(pts));
        }
    }
    // The consumer logs each buffer's header more than once.
    stamps.erase(std::unique(stamps.begin(), stamps.end()), stamps.end());
    ASSERT_GE(stamps.size(), 3u) << result.err.substr(0, 2000);
    for (size_t n = 0; n < stamps.size(); ++n) {
        EXPECT_TRUE(stamps[n] >= before - 1e8L && stamps[n] <= after + 1e8L)
            << "buffer " << n << " at " << stamps[n] << " ns, outside the run's " << before << " to "
            << after;
        if (n > 0) {
            const long double periods = (stamps[n] - stamps[n - 1]) / 16'666'667.0L;
            EXPECT_GE(periods, 0.9L) << "buffer " << n;
            EXPECT_LT(periods, 600.0L) << "buffer " << n;
        }
    }
}

// Programs list cameras by the registry's properties, which stay as the node was made: an unwatched
// node is made anew with the new name, a watched one keeps its consumer and is made anew after.
TEST_F(CameraTest, ALayoutChangeGivesTheWatchingConsumerFramesOfTheNewSizeAndListsTheNewNameOnceItLeaves) {
    share(m_tall);
    m_consumer = consume(at("frames.rgb"));
    ASSERT_TRUE(waitForFrames(at("frames.rgb"), 2, 0));
    const uint32_t node = m_camera->nodeId();

    m_camera->setLayout(m_wide);
    ASSERT_TRUE(waitForFrames(at("frames.rgb"), 2, 3)) << "the consumer goes on with the wide picture";
    EXPECT_TRUE(PipeWireServer::waitForNode("zandor", "Zandor: Side by Side"));
    EXPECT_EQ(m_camera->nodeId(), node) << "the watched node was replaced under its consumer";
    EXPECT_FALSE(m_tall->hasObservers());

    test::endProcess(m_consumer);
    m_consumer = -1;
    EXPECT_TRUE(PipeWireServer::waitForListing("zandor", "Zandor: Side by Side"));
}

// GStreamer's consumer waits on an ended node for ever; others (OBS, browsers) end their stream.
TEST_F(CameraTest, AConsumerThatCannotTakeTheNewSizeLosesItsNodeRatherThanWaitOnIt) {
    share(m_tall);
    m_consumer = test::startProcess({"gst-launch-1.0", "pipewiresrc", "target-object=zandor", "!",
                                     "video/x-raw,format=RGB,width=400,height=480", "!", "filesink",
                                     "buffer-mode=unbuffered", "location=" + at("frames.rgb").toStdString()},
                                    -1, at("consumer.log").toStdString());
    ASSERT_TRUE(waitForFrames(at("frames.rgb"), 2, 0));
    const uint32_t node = m_camera->nodeId();

    m_camera->setLayout(m_wide);
    EXPECT_TRUE(PipeWireServer::waitForListing("zandor", "Zandor: Side by Side"));
    EXPECT_NE(m_camera->nodeId(), node);
}

TEST_F(CameraTest, AnUnwatchedCameraIsListedByTheNewLayoutsNameAtOnceAndServesItsSize) {
    share(m_tall);
    ASSERT_TRUE(PipeWireServer::waitForListing("zandor", "Zandor: Stacked"));

    m_camera->setLayout(m_wide);
    EXPECT_TRUE(PipeWireServer::waitForListing("zandor", "Zandor: Side by Side"));
    EXPECT_TRUE(m_camera->isSharing());
    EXPECT_FALSE(m_tall->hasObservers());

    const test::ProcessResult result = test::runProcess(consumer(at("wide.rgb"), 2, "RGB"), 30s);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(test::readFile(at("wide.rgb")) == m_widePicture + m_widePicture)
        << test::readFile(at("wide.rgb")).size() << " bytes unlike two wide pictures";
}

// The layout's other subscribers are the picture on screen and a recording.
TEST_F(CameraTest, AConsumerThatStopsReadingCostsDroppedCameraFramesAndNothingElse) {
    share(m_tall);
    m_consumer = consume(at("frames.rgb"));
    ASSERT_TRUE(waitForFrames(at("frames.rgb"), 2, 0));
    ASSERT_EQ(kill(m_consumer, SIGSTOP), 0);

    auto wakeup = std::make_shared<Wakeup>();
    auto picture = m_tall->addObserver(wakeup);
    const uint64_t dropped = m_camera->droppedFrames();
    int frames = 0;
    while (frames < 120 && wakeup->wait(20s)) {
        while (frames < 120 && m_tall->observe(picture)) {
            ++frames;
        }
    }
    m_tall->removeObserver(picture);
    EXPECT_EQ(frames, 120) << "the picture was held up";
    EXPECT_GT(m_camera->droppedFrames(), dropped) << "frames for the stopped consumer were queued somewhere";
    EXPECT_EQ(m_tall->droppedFrames(), 0u) << "a subscriber of the layout fell behind";
}

TEST_F(CameraTest, NoDaemonOrOneThatGoesAwayIsToldByItsStepAndStopsSharing) {
    LogCapture log;
    setenv("XDG_RUNTIME_DIR", qPrintable(at("nowhere")), 1);
    const Error error = m_camera->start(m_tall);
    EXPECT_EQ(error.step(), camera::ConnectStep) << error.logLine();
    EXPECT_NE(error.systemCode(), 0) << error.logLine();
    EXPECT_FALSE(m_camera->isSharing());
    EXPECT_FALSE(m_tall->hasObservers());
    EXPECT_TRUE(log.lines().empty()) << "the session says it, once";
    const QString reason = session::CameraFailed{error}.reason();
    EXPECT_TRUE(reason.startsWith(QStringLiteral("PipeWire is not running (")) && reason.endsWith(u')'))
        << reason.toStdString();

    setenv("XDG_RUNTIME_DIR", m_server.folder().c_str(), 1);
    std::mutex mutex;
    std::condition_variable failed;
    Error failure;
    m_camera->setFailureHandler([&](const Error& why) {
        std::scoped_lock lock(mutex);
        failure = why;
        failed.notify_all();
    });
    share(m_tall);
    m_server.killDaemon();
    std::unique_lock lock(mutex);
    ASSERT_TRUE(failed.wait_for(lock, 20s, [&] { return static_cast<bool>(failure); }));
    EXPECT_FALSE(m_camera->isSharing());
    EXPECT_FALSE(m_tall->hasObservers());
    EXPECT_TRUE(failure.step() == camera::ConnectionStep || failure.step() == camera::RunStep)
        << failure.logLine();
}

TEST_F(CameraTest, ZandorCliSharesForTheGivenSeconds) {
    const std::string board = "--board=replay:" + at("frame.raw").toStdString();
    setenv("XDG_DATA_HOME", qPrintable(at("data")), 1);
    const pid_t cli = test::startProcess({ZANDOR_CLI, "camera", board, "--layout", "Top", "--seconds", "2"},
                                         -1, at("cli.log").toStdString());
    EXPECT_TRUE(PipeWireServer::waitForNode("zandor", "Zandor: Top"));
    EXPECT_TRUE(test::reapWithin(cli, 20s)) << test::readFile(at("cli.log")).toStdString();
    EXPECT_TRUE(PipeWireServer::nodeProperties("zandor").isEmpty()) << "the node outlived the command";
}

} // namespace
} // namespace zandor
