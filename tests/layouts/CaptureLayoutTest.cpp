#include "Frames.h"
#include "GatedBoard.h"
#include "PluginBundles.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/RawFrame.h"
#include "layouts/CaptureLayout.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <cmath>
#include <future>
#include <random>

namespace zandor {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t TopBytes = CaptureLayout::TopWidth * CaptureLayout::ScreenHeight * 3,
                   BottomBytes = CaptureLayout::BottomWidth * CaptureLayout::ScreenHeight * 3;

// The obvious compositor: paints the plugin's objects from `first` on, pixel by pixel as the
// layout's rules say, onto a canvas of rows of 3 bytes a pixel. Without screen frames it paints
// the images only.
void paintReference(std::vector<uint8_t>& canvas, const LayoutPlugin& plugin,
                    const QMap<QString, QImage>& images, size_t first, const uint8_t* top = nullptr,
                    const uint8_t* bottom = nullptr) {
    const auto width = uint64_t(plugin.width());
    for (size_t i = first; i < plugin.objects().size(); ++i) {
        const auto& object = plugin.objects()[i];
        const auto [x0, y0] = objectPosition(object);
        const QString type = objectType(object);
        if (type == "image") {
            const QImage& image = images[std::get<ImageObject>(object).resource];
            for (int y = 0; y < image.height(); ++y) {
                for (int x = 0; x < image.width(); ++x) {
                    const uint64_t px = uint64_t(x0 + x), at = (uint64_t(y0 + y) * width + px) * 3;
                    const QColor color = image.pixelColor(x, y);
                    const double alpha = color.alpha() / 255.0;
                    for (int c = 0; px < width && at < canvas.size() && c < 3; ++c) {
                        const int value = c == 0 ? color.red() : c == 1 ? color.green() : color.blue();
                        canvas[at + c] = uint8_t(std::trunc(alpha * value + (1.0 - alpha) * canvas[at + c]));
                    }
                }
            }
        } else if (top && type.startsWith("screen_")) {
            // Screens replace pixels in canvas byte order from their first pixel on: a row that
            // passes the right edge goes on in the next canvas row; nothing goes past the end.
            const uint64_t rowBytes = (type == "screen_top" ? 400 : 320) * 3;
            for (uint64_t at = (uint64_t(y0) * width + uint64_t(x0)) * 3, y = 0; y < 240;
                 ++y, at += width * 3) {
                for (uint64_t x = 0; x < rowBytes && at + x < canvas.size(); ++x) {
                    canvas[at + x] = (type == "screen_top" ? top : bottom)[y * rowBytes + x];
                }
            }
        }
    }
}

QImage randomImage(std::mt19937& random, int width, int height) {
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int choice = int(random() % 4), alpha = choice == 0   ? 0
                                                          : choice == 1 ? 255
                                                                        : int(random() % 256);
            image.setPixelColor(x, y,
                                QColor(int(random() % 256), int(random() % 256), int(random() % 256), alpha));
        }
    }
    return image;
}

class CaptureLayoutTest : public test::GatedDeviceTest {
protected:
    std::shared_ptr<LayoutPlugin> plugin(const QByteArray& descriptor,
                                         const QMap<QString, QImage>& images = {}) {
        return test::parsedPlugin(m_folder.path(), QStringLiteral("l%1.zdplugin").arg(++m_count), descriptor,
                                  images);
    }

    QTemporaryDir m_folder;
    int m_count = 0;
};

struct Composition {
    const char* name;
    int width, height;
    const char* objects;
};

class CompositionTest : public CaptureLayoutTest, public ::testing::WithParamInterface<Composition> {};

TEST_P(CompositionTest, CompositesLikeTheObviousCompositorAndKeepsTheTopScreensTime) {
    std::mt19937 random(99);
    QMap<QString, QImage> images{{"under.png", randomImage(random, 60, 50)},
                                 {"over.png", randomImage(random, 90, 70)},
                                 {"frame.png", randomImage(random, 480, 520)}};
    auto layoutPlugin =
        plugin(test::layoutDescriptor(GetParam().name, 1, GetParam().width, GetParam().height,
                                      GetParam().objects, R"(<background r="10" g="200" b="64"/>)"),
               images);
    auto layout = CaptureLayout::createWithPlugin(layoutPlugin, m_device);
    const auto& objects = layoutPlugin->objects();
    const auto firstScreen = std::find_if(objects.begin(), objects.end(),
                                          [](const LayoutObject& object) {
                                              return std::holds_alternative<ScreenObject>(object);
                                          }) -
                             objects.begin();
    std::vector<uint8_t> background(layout->size()), expected;
    for (uint64_t i = 0; i < background.size(); ++i) {
        background[i] = std::array<uint8_t, 3>{10, 200, 64}[i % 3];
    }
    expected = background;
    paintReference(expected, *layoutPlugin, images, 0);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), layout->canvas()))
        << "before any frame the canvas shows background and images";

    layout->startListening(); // resets the drawing state; the device never runs
    const auto origin = std::chrono::system_clock::now();
    for (int n = 0; n < 5; ++n) {
        const auto randomByte = [&] { return uint8_t(random()); };
        auto top = test::frameOf(TopBytes, randomByte), bottom = test::frameOf(BottomBytes, randomByte);
        top->setTimestamp(1.0 + n);
        top->setWallClock(origin + std::chrono::seconds(n));
        bottom->setTimestamp(50.0 + n);
        bottom->setWallClock(origin + std::chrono::hours(1));
        // The first frame is drawn on a fresh canvas; later ones keep what lies under the first screen.
        if (n == 0) {
            expected = background;
        }
        paintReference(expected, *layoutPlugin, images, n == 0 ? 0 : firstScreen, top->data(),
                       bottom->data());
        auto result = layout->composite(top, bottom);
        ASSERT_EQ(result->size(), expected.size());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), result->data())) << "frame " << n;
        EXPECT_EQ(result->timestamp(), top->timestamp()) << "frame " << n;
        EXPECT_EQ(result->wallClock(), top->wallClock()) << "frame " << n;
        EXPECT_EQ(top.use_count(), 1) << "the layout keeps no screen frame";
    }
    layout->stopListening();
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, CompositionTest,
    ::testing::Values(
        // A canvas narrower than the screens' row span: the bottom screen runs past the right
        // edge into the next rows and past the last row, where it is cut off.
        Composition{"ImagesAroundScreensPastTheEdges", 500, 400,
                    R"(<object type="image" x="5" y="5" resource="under.png"/>
                       <object type="screen_top" x="10" y="20"/>
                       <object type="image" x="380" y="230" resource="over.png"/>
                       <object type="screen_bottom" x="300" y="200"/>
                       <object type="image" x="470" y="380" resource="over.png"/>
                       <object type="image" x="-10" y="0" resource="under.png"/>
                       <object type="clock" x="0" y="0"/>)"},
        // Only screens from the first screen on, all inside the canvas, overlapping each other.
        Composition{"OverlappingScreensOnAStillCanvas", 460, 500,
                    R"(<object type="image" x="100" y="150" resource="under.png"/>
                       <object type="screen_bottom" x="20" y="200"/>
                       <object type="screen_top" x="30" y="10"/>
                       <object type="screen_bottom" x="140" y="250"/>)"},
        // Screens inside the canvas under a frame image drawn over them, as a handheld layout is.
        Composition{"AnImageOverTheScreens", 480, 520,
                    R"(<object type="screen_top" x="40" y="20"/>
                       <object type="image" x="200" y="200" resource="over.png"/>
                       <object type="screen_bottom" x="80" y="270"/>
                       <object type="image" x="0" y="0" resource="frame.png"/>)"}),
    [](const auto& info) { return std::string(info.param.name); });

// Positions at and past the ends of the 64-bit range: the arithmetic must not wrap them back in.
TEST_F(CaptureLayoutTest, ObjectsFarOutsideTheCanvasDrawNothing) {
    std::mt19937 random(7);
    auto layout = CaptureLayout::createWithPlugin(
        plugin(test::layoutDescriptor("Far", 1, 400, 300,
                                      R"(<object type="screen_top" x="9223372036854775807" y="0"/>
                      <object type="screen_bottom" x="0" y="99999999999999999999999"/>
                      <object type="screen_top" x="-9223372036854775808" y="9223372036854775807"/>
                      <object type="screen_bottom" x="-9223372036854775808" y="-9223372036854775808"/>
                      <object type="image" x="9223372036854775807" y="9223372036854775807" resource="a.png"/>
                      <object type="image" x="-9223372036854775808" y="-1" resource="a.png"/>)",
                                      R"(<background r="1" g="2" b="3"/>)"),
               {{"a.png", randomImage(random, 20, 20)}}),
        m_device);
    std::vector<uint8_t> background(layout->size());
    for (uint64_t i = 0; i < background.size(); ++i) {
        background[i] = uint8_t(1 + i % 3);
    }
    layout->startListening();
    const auto result = layout->composite(test::frameOf(TopBytes, [] { return uint8_t(200); }),
                                          test::frameOf(BottomBytes, [] { return uint8_t(100); }));
    EXPECT_TRUE(std::equal(background.begin(), background.end(), result->data()));
    layout->stopListening();
}

// A canvas is at most 16384 on a side.
TEST_F(CaptureLayoutTest, ACanvasBeyondTheLimitsStaysEmpty) {
    LogCapture log;
    for (const auto& [width, height] : {std::pair{16385, 1}, {1, 16385}, {-400, 240}}) {
        auto layout = CaptureLayout::createWithPlugin(
            plugin(test::layoutDescriptor("Big", 1, width, height,
                                          R"(<object type="screen_top" x="0" y="0"/>)")),
            m_device);
        EXPECT_EQ(layout->size(), 0u) << width << " by " << height;
        EXPECT_EQ(log.count("Layout 'Big' has an unusable size of " + std::to_string(width) + " by " +
                            std::to_string(height) + " pixels"),
                  1u);
    }
    EXPECT_EQ(CaptureLayout::createWithPlugin(plugin(test::layoutDescriptor("Edge", 1, 16384, 2)), m_device)
                  ->size(),
              16384u * 2 * 3);
}

TEST_F(CaptureLayoutTest, AScreenLayoutRepublishesTheVeryFramesAndRunsWhileAConsumerIsSubscribed) {
    auto layout = CaptureLayout::createWithScreen(m_device->screen(1), "Bottom");
    auto view = layout->addObserver(m_wakeup);
    auto recorder = layout->addObserver(m_wakeup);
    auto screen = m_device->screen(1)->addObserver(m_wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    const auto published = test::takeFrames(*layout, view, *m_wakeup, 3);
    EXPECT_EQ(published.size(), 3u);
    EXPECT_EQ(published, test::takeFrames(*m_device->screen(1), screen, *m_wakeup, 3));
    m_device->screen(1)->removeObserver(screen);

    layout->removeObserver(view);
    layout->stopListening();
    EXPECT_EQ(test::takeFrames(*layout, recorder, *m_wakeup, 2).size(), 2u);
    layout->removeObserver(recorder);
    layout->stopListening();
}

// Which board frame below `frames` the screen at (x, y) of a composite `width` pixels wide was cut
// from, told by a few of its pixels in the gated board's pattern; -1 when none.
int64_t boardFrameOf(const CaptureData& picture, uint64_t width, uint64_t x, uint64_t y, uint64_t rawOffset,
                     uint64_t screenWidth, uint64_t frames) {
    const std::array<std::pair<uint64_t, uint64_t>, 3> probes{{{0, 0}, {screenWidth - 1, 239}, {137, 101}}};
    for (uint64_t k = 0; k < frames; ++k) {
        bool all = true;
        for (const auto& [px, py] : probes) {
            for (uint64_t c = 0; c < 3 && all; ++c) {
                all = picture.data()[((y + py) * width + x + px) * 3 + c] ==
                      test::patternByte(k, rawOffset + 3 * (px * 240 + 239 - py) + c);
            }
        }
        if (all) {
            return int64_t(k);
        }
    }
    return -1;
}

// The board's frames are let through a few at a time while screens, layout and device are stalled,
// started and stopped in every order: every composite must show the top and the bottom screen of
// one board frame, and composites come in the board's order. Pairing by queue order goes wrong for
// good once one screen's queue holds a frame the other's does not, as a layout subscribing between
// the two screens' publishing of a frame makes it.
class PairingTest : public CaptureLayoutTest {
protected:
    void SetUp() override {
        CaptureLayoutTest::SetUp();
        m_layout = sideBySide();
        for (unsigned screen : {0u, 1u}) {
            m_screens[screen] = m_device->screen(screen)->addObserver(m_wakeup);
        }
        m_board->holdAt(0);
    }
    void TearDown() override {
        stopLayout();
        CaptureLayoutTest::TearDown();
    }

    LayoutPtr sideBySide() {
        return CaptureLayout::createWithPlugin(
            plugin(test::layoutDescriptor("Pair", 1, 720, 240,
                                          R"(<object type="screen_top" x="0" y="0"/>
                                             <object type="screen_bottom" x="400" y="0"/>)")),
            m_device);
    }
    void startDevice() {
        ASSERT_TRUE(m_device->startListening());
        m_raw = m_device->addObserver(m_wakeup);
    }
    // Stops the device while it waits in the read of the next frame, which it then drops.
    void stopDevice() {
        m_device->stopListening();
        m_board->holdAt(++m_sent);
    }
    void startLayout() {
        m_view = m_layout->addObserver(m_wakeup);
        m_layout->startListening();
    }
    void stopLayout() {
        check(test::takeFrames(*m_layout, m_view, *m_wakeup, SIZE_MAX, 0ms));
        m_layout->removeObserver(m_view);
        m_layout->stopListening();
    }
    // Lets `count` more board frames through and waits until the device has published them.
    // Returns the number of the last one.
    uint64_t letThrough(uint64_t count) {
        m_sent += count;
        m_board->holdAt(m_sent);
        EXPECT_TRUE(m_board->waitUntilHeld(m_sent));
        uint64_t last = 0;
        while (auto frame = m_device->observe(m_raw)) {
            last = frame->number();
        }
        return last;
    }
    // Waits until `producer` has given `observer` the frame numbered `number`.
    bool reached(Observable& producer, const ObserverPtr& observer, uint64_t number) {
        for (;;) {
            const auto frames = test::takeFrames(producer, observer, *m_wakeup, 1);
            if (frames.empty()) {
                return false;
            }
            if (m_view == observer) {
                check(frames);
            }
            if (frames[0]->number() == number) {
                return true;
            }
        }
    }
    // Lets frames through while one screen (0 or 1) or the layout (2) is held, until everything
    // not held has handled them, and then takes the layout's composites up to the last frame.
    void stall(int held, uint64_t count) {
        Observable& producer =
            held == 2 ? static_cast<Observable&>(*m_layout) : *m_device->screen(unsigned(held));
        uint64_t last = 0;
        {
            std::scoped_lock stalled(producer);
            // Followed on a thread of its own: one that took the device's or the other screen's
            // lock while it held this one would go against the pipeline's lock order.
            const bool followed = std::async(std::launch::async, [&] {
                                      last = letThrough(count);
                                      for (unsigned screen : {0u, 1u}) {
                                          if (int(screen) != held &&
                                              !reached(*m_device->screen(screen), m_screens[screen], last)) {
                                              return false;
                                          }
                                      }
                                      return true;
                                  }).get();
            ASSERT_TRUE(followed);
        }
        ASSERT_TRUE(reached(*m_layout, m_view, last));
    }
    // Starts the layout at a moment when one screen has cut the latest board frame and the other
    // has not published it yet, so that the layout gets it from that one screen only.
    void startLayoutBetweenScreens(unsigned ahead) {
        std::scoped_lock stalled(*m_device->screen(1 - ahead));
        const bool followed = std::async(std::launch::async, [&] {
                                  return reached(*m_device->screen(ahead), m_screens[ahead], letThrough(1));
                              }).get();
        ASSERT_TRUE(followed);
        // The layout takes its lock and then the screens', the frozen one's again: against the
        // pipeline's lock order, on purpose, on this one thread (see tests/tsan.supp).
        startLayout();
    }

    void check(const std::vector<CaptureDataPtr>& composites) {
        for (const auto& composite : composites) {
            const int64_t top = boardFrameOf(*composite, 720, 0, 0, raw::TopOffset, 400, m_sent);
            const int64_t bottom = boardFrameOf(*composite, 720, 400, 0, raw::BottomOffset, 320, m_sent);
            EXPECT_GE(top, 0);
            EXPECT_EQ(top, bottom) << "composite " << composite->number();
            EXPECT_GT(top, m_lastBoardFrame) << "composite " << composite->number();
            EXPECT_GT(composite->number(), m_lastNumber);
            m_lastBoardFrame = top;
            m_lastNumber = composite->number();
            ++m_checked;
        }
    }

    LayoutPtr m_layout;
    std::array<ObserverPtr, 2> m_screens;
    ObserverPtr m_raw;
    ObserverPtr m_view;
    uint64_t m_sent = 0; // board frames let through; the next read waits
    int64_t m_lastBoardFrame = -1;
    uint64_t m_lastNumber = 0;
    int m_checked = 0;
};

TEST_F(PairingTest, EveryCompositeShowsBothScreensOfOneBoardFrame) {
    LogCapture log;
    startLayout();
    startDevice();
    stall(2, 5);
    // Held screens and a held layout: queues overflow all the way from the device to the layout.
    stall(1, 40);
    stall(0, 40);
    stall(2, 40);
    stopLayout();
    // A held screen may have taken a frame before it was held: that frame alone went to the layout
    // with no partner, or not, as the threads ran.
    log.clear();

    // The layout subscribes to one screen just after it published a frame, and to the other just
    // before: that frame reaches the layout from the second screen only. It goes, said at once, and
    // the run's count is said at the stop.
    for (unsigned ahead : {0u, 1u}) {
        startLayoutBetweenScreens(ahead);
        stall(2, 5);
        stopLayout();
    }
    const auto lines = log.lines();
    for (const char* screen : {"bottom", "top"}) {
        const std::string dropped =
            std::string(" of the ") + screen +
            " screen was skipped for layout 'Pair' as the other screen has no frame of "
            "the same number";
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [&](const std::string& line) { return line.ends_with(dropped); }),
                  1)
            << screen;
    }
    EXPECT_EQ(log.count("1 screen frames without a partner of the same number were skipped in this run of "
                        "layout 'Pair'"),
              2u);

    // Stops and starts in every order, while composites wait unread in the layout's queue.
    startLayout();
    for (bool deviceStopsFirst : {true, false}) {
        for (bool deviceStartsFirst : {true, false}) {
            letThrough(10);
            deviceStopsFirst ? (stopDevice(), stopLayout()) : (stopLayout(), stopDevice());
            deviceStartsFirst ? (startDevice(), startLayout()) : (startLayout(), startDevice());
            stall(2, 10);
        }
    }

    // The layout is changed while frames flow: the new one subscribes wherever the screens are.
    for (int change = 0; change < 5; ++change) {
        stopLayout();
        m_layout = sideBySide();
        m_board->holdAt(m_sent + 20);
        startLayout();
        letThrough(20);
        stall(2, 1);
    }
    EXPECT_GT(m_checked, 100);
}

struct DropLines {
    const char* producer;
    uint64_t overflowingFrame; // the first frame its queue has no room for
    const char* buffer;        // how the producer's lines name its queue
};

class ProducerDropLinesTest : public CaptureLayoutTest, public ::testing::WithParamInterface<DropLines> {};

TEST_P(ProducerDropLinesTest, AFullQueueLogsTheObserverThenTheProducerAndTheRunsCount) {
    const DropLines& c = GetParam();
    const std::string line = std::string("Frame was skipped as ") + c.buffer + " became too large";
    auto layout = CaptureLayout::createWithScreen(m_device->screen(0), "Top");
    const std::string producer = c.producer;
    Observable& queue = producer == "device"   ? static_cast<Observable&>(*m_device)
                        : producer == "screen" ? static_cast<Observable&>(*m_device->screen(1))
                                               : static_cast<Observable&>(*layout);
    auto slow = queue.addObserver(); // never drained
    auto paced = queue.addObserver(m_wakeup);
    // Only the layout under test listens: an idle one would leave its screen's queue to overflow
    // too, and that screen's lines could come between the two lines looked for.
    if (producer == "layout") {
        layout->startListening();
    }
    LogCapture log;
    // The board sends ten frames at a time, the next ten once these came through the queue, so that
    // however slow the machine, nothing upstream of the slow queue overflows first.
    m_board->holdAt(0);
    ASSERT_TRUE(m_device->startListening());
    for (uint64_t sent = 0, step = 0; sent <= c.overflowingFrame; sent += step) {
        step = std::min<uint64_t>(10, c.overflowingFrame + 1 - sent);
        m_board->holdAt(sent + step);
        ASSERT_EQ(test::takeFrames(queue, paced, *m_wakeup, step).size(), step) << "after " << sent;
    }
    ASSERT_TRUE(log.waitFor(line, 20s));
    const auto lines = log.lines();
    const auto found = std::find(lines.begin(), lines.end(), line);
    ASSERT_NE(found, lines.begin());
    EXPECT_EQ(*(found - 1), "Skipped frame of observer 0");
    EXPECT_EQ(log.count(line), 1u);

    queue.removeObserver(slow);
    queue.removeObserver(paced);
    layout->stopListening();
    m_device->stopListening();
    EXPECT_EQ(
        log.count(std::string("1 frames were skipped in this run as ") + c.buffer + " became too large"), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Producers, ProducerDropLinesTest,
    ::testing::Values(DropLines{"device", CaptureDevice::QueueLength, "the device buffer"},
                      DropLines{"screen", CaptureScreen::QueueLength, "the buffer for the bottom screen"},
                      DropLines{"layout", CaptureLayout::QueueLength, "the buffer for layout 'Top'"}),
    [](const auto& info) { return std::string(info.param.producer); });

} // namespace
} // namespace zandor
