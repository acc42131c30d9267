#include "Frames.h"
#include "GatedBoard.h"
#include "PluginBundles.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "layouts/CaptureLayout.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cmath>
#include <random>

namespace zandor {
namespace {

using namespace std::chrono_literals;

// The obvious compositor: a canvas painted pixel by pixel as the layout's rules say, kept across
// frames. Screens are given as rows of 3 bytes a pixel.
class ReferenceCanvas {
public:
    ReferenceCanvas(const LayoutPlugin& plugin, QMap<QString, QImage> images)
        : m_plugin(plugin), m_images(std::move(images)), m_width(static_cast<uint64_t>(plugin.width())),
          m_height(static_cast<uint64_t>(plugin.height())), m_canvas(m_width * m_height * 3) {
        paintBackground();
        for (const auto& object : plugin.objects()) {
            if (object["type"] == "image") {
                paintImage(object);
            }
        }
    }

    // One frame: the whole canvas the first time, then only from the first screen object on.
    const std::vector<uint8_t>& draw(const uint8_t* top, const uint8_t* bottom) {
        const auto& objects = m_plugin.objects();
        qsizetype start = 0;
        if (m_drawn) {
            start = objects.size();
            for (qsizetype i = 0; i < objects.size(); ++i) {
                if (objects[i]["type"] == "screen_top" || objects[i]["type"] == "screen_bottom") {
                    start = std::min(start, i);
                }
            }
        } else {
            paintBackground();
        }
        m_drawn = true;
        for (qsizetype i = start; i < objects.size(); ++i) {
            const auto& object = objects[i];
            if (object["type"] == "image") {
                paintImage(object);
            } else if (object["type"] == "screen_top") {
                paintScreen(top, 400, object);
            } else if (object["type"] == "screen_bottom") {
                paintScreen(bottom, 320, object);
            }
        }
        return m_canvas;
    }

    const std::vector<uint8_t>& canvas() const { return m_canvas; }

private:
    void blend(uint64_t x, uint64_t y, const uint8_t* color, double alpha) {
        if (x >= m_width || y >= m_height) {
            return;
        }
        for (int k = 0; k < 3; ++k) {
            uint8_t& old = m_canvas[(y * m_width + x) * 3 + k];
            old = static_cast<uint8_t>(std::trunc(alpha * color[k] + (1.0 - alpha) * old));
        }
    }

    void paintBackground() {
        auto c = m_plugin.background().value_or(Color{});
        uint8_t color[3] = {uint8_t(int(c.red * 255.0)), uint8_t(int(c.green * 255.0)), uint8_t(int(c.blue * 255.0))};
        for (uint64_t y = 0; y < m_height; ++y) {
            for (uint64_t x = 0; x < m_width; ++x) {
                blend(x, y, color, 1.0);
            }
        }
    }

    void paintImage(const QVariantMap& object) {
        const QImage& image = m_images[object["resource"].toString()];
        auto x0 = static_cast<uint64_t>(object["x"].toLongLong()), y0 = static_cast<uint64_t>(object["y"].toLongLong());
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                QColor c = image.pixelColor(x, y);
                uint8_t color[3] = {uint8_t(c.red()), uint8_t(c.green()), uint8_t(c.blue())};
                blend(x0 + static_cast<uint64_t>(x), y0 + static_cast<uint64_t>(y), color, c.alpha() / 255.0);
            }
        }
    }

    // Screens replace pixels in canvas byte order from their first pixel on: a row that passes
    // the right edge goes on in the next canvas row; nothing goes past the canvas's end.
    void paintScreen(const uint8_t* rows, uint64_t width, const QVariantMap& object) {
        auto x0 = static_cast<uint64_t>(object["x"].toLongLong()), y0 = static_cast<uint64_t>(object["y"].toLongLong());
        for (uint64_t y = 0; y < 240; ++y) {
            for (uint64_t x = 0; x < width * 3; ++x) {
                uint64_t at = ((y0 + y) * m_width + x0) * 3 + x;
                if (at < m_canvas.size()) {
                    m_canvas[at] = rows[(y * width) * 3 + x];
                }
            }
        }
    }

    const LayoutPlugin& m_plugin;
    QMap<QString, QImage> m_images;
    uint64_t m_width, m_height;
    std::vector<uint8_t> m_canvas;
    bool m_drawn = false;
};

QImage randomImage(std::mt19937& random, int width, int height) {
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            int choice = static_cast<int>(random() % 4);
            int alpha = choice == 0 ? 0 : choice == 1 ? 255 : static_cast<int>(random() % 256);
            image.setPixelColor(x, y, QColor(int(random() % 256), int(random() % 256), int(random() % 256), alpha));
        }
    }
    return image;
}

class CaptureLayoutTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(DetachedThread::waitForAll(20s));
        auto board = std::make_unique<test::GatedBoard>();
        m_board = board.get();
        m_device = CaptureDevice::create(std::move(board));
    }
    void TearDown() override {
        m_device->stopListening();
        m_board->release();
        EXPECT_TRUE(DetachedThread::waitForAll(20s));
    }

    std::shared_ptr<LayoutPlugin> plugin(const QByteArray& descriptor, const QMap<QString, QImage>& images = {}) {
        auto bundle = test::writeBundle(m_folder.path(), QStringLiteral("l%1.zdplugin").arg(++m_count), descriptor, images);
        auto plugin = std::make_shared<LayoutPlugin>(bundle, false);
        EXPECT_TRUE(plugin->parse());
        return plugin;
    }

    void expectLikeTheReference(const QByteArray& descriptor, const QMap<QString, QImage>& images);

    QTemporaryDir m_folder;
    int m_count = 0;
    test::GatedBoard* m_board = nullptr;
    std::shared_ptr<CaptureDevice> m_device;
};

// Runs the layout live for five frames and compares each with the obvious compositor.
void CaptureLayoutTest::expectLikeTheReference(const QByteArray& descriptor, const QMap<QString, QImage>& images) {
    auto layoutPlugin = plugin(descriptor, images);
    auto layout = CaptureLayout::createWithPlugin(layoutPlugin, m_device);
    ReferenceCanvas reference(*layoutPlugin, images);
    ASSERT_EQ(layout->size(), reference.canvas().size());
    EXPECT_EQ(std::vector<uint8_t>(layout->canvas(), layout->canvas() + layout->size()), reference.canvas())
        << "before any frame the canvas shows background and images";

    auto wakeup = std::make_shared<Wakeup>();
    auto frames = layout->addObserver(wakeup);
    auto tops = m_device->screen(0)->addObserver(wakeup);
    auto bottoms = m_device->screen(1)->addObserver(wakeup);
    ASSERT_TRUE(layout->startListening());
    ASSERT_TRUE(m_device->startListening());
    auto published = test::takeFrames(*layout, frames, *wakeup, 5);
    auto topFrames = test::takeFrames(*m_device->screen(0), tops, *wakeup, 5);
    auto bottomFrames = test::takeFrames(*m_device->screen(1), bottoms, *wakeup, 5);
    layout->removeObserver(frames);
    layout->stopListening();
    m_device->stopListening();
    ASSERT_EQ(published.size(), 5u);
    ASSERT_EQ(topFrames.size(), 5u);
    ASSERT_EQ(bottomFrames.size(), 5u);

    // A fresh reference: the layout's first frame repaints everything.
    ReferenceCanvas live(*layoutPlugin, images);
    for (size_t n = 0; n < 5; ++n) {
        EXPECT_EQ(published[n]->timestamp(), topFrames[n]->timestamp());
        const auto& expected = live.draw(topFrames[n]->data(), bottomFrames[n]->data());
        ASSERT_EQ(published[n]->size(), expected.size());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), published[n]->data())) << "frame " << n;
    }
}

TEST_F(CaptureLayoutTest, CompositesImagesOverAndUnderScreensLikeTheObviousCompositor) {
    std::mt19937 random(99);
    QMap<QString, QImage> images{{"under.png", randomImage(random, 60, 50)},
                                 {"over.png", randomImage(random, 90, 70)},
                                 {"edge.png", randomImage(random, 40, 40)}};
    // A canvas narrower than the screens' row span, so the bottom screen runs past the right edge
    // into the next rows and past the last row, where it is cut off.
    expectLikeTheReference(test::layoutDescriptor("Mixed", 1, 500, 400,
                                                  R"(<object type="image" x="5" y="5" resource="under.png"/>
           <object type="screen_top" x="10" y="20"/>
           <object type="image" x="380" y="230" resource="over.png"/>
           <object type="screen_bottom" x="300" y="200"/>
           <object type="image" x="470" y="380" resource="edge.png"/>
           <object type="image" x="-10" y="0" resource="edge.png"/>
           <object type="clock" x="0" y="0"/>)",
                                                  R"(<background r="10" g="200" b="64"/>)"),
                           images);
}

TEST_F(CaptureLayoutTest, CompositesScreensOverAStillCanvasLikeTheObviousCompositor) {
    std::mt19937 random(7);
    QMap<QString, QImage> images{{"under.png", randomImage(random, 300, 200)}};
    // Only screens after the first screen, all inside the canvas, overlapping each other.
    expectLikeTheReference(test::layoutDescriptor("Still", 1, 460, 500,
                                                  R"(<object type="image" x="100" y="150" resource="under.png"/>
           <object type="screen_bottom" x="20" y="200"/>
           <object type="screen_top" x="30" y="10"/>
           <object type="screen_bottom" x="140" y="250"/>)",
                                                  R"(<background r="1" g="2" b="3"/>)"),
                           images);
}

TEST_F(CaptureLayoutTest, TheBlendTruncatesAndClipsAtTheCanvasEdges) {
    auto layout = CaptureLayout::createWithPlugin(plugin(test::layoutDescriptor("Grey", 1, 4, 3, {}, R"(<background r="200" g="200" b="0"/>)")), m_device);
    const uint8_t color[3] = {10, 10, 10};
    layout->drawCanvasPixelColor(color, 128 / 255.0, 1, 1);
    const uint8_t* pixel = layout->canvas() + (1 * 4 + 1) * 3;
    EXPECT_EQ(pixel[0], 104) << "104.627... truncated";
    EXPECT_EQ(pixel[2], 5) << "0 + 128/255 * 10 = 5.02";
    layout->drawCanvasPixelColor(color, 1.0, 4, 0);
    layout->drawCanvasPixelColor(color, 1.0, 0, 3);
    layout->drawCanvasPixelColor(color, 1.0, UINT64_MAX, 0);
    std::vector<uint8_t> canvas(layout->canvas(), layout->canvas() + layout->size());
    EXPECT_EQ(std::count(canvas.begin(), canvas.end(), 10), 0) << "pixels beyond the canvas are skipped";

    // A screen whose rows pass the right edge continues in the next row; past the end, nothing.
    std::vector<uint8_t> source(400 * 240 * 3);
    for (size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<uint8_t>(i % 251);
    }
    layout->drawCanvasSource(source.data(), {2, 1, 400, 240});
    EXPECT_EQ(layout->canvas()[(1 * 4 + 2) * 3], source[0]);
    EXPECT_EQ(layout->canvas()[(2 * 4 + 0) * 3], source[2 * 3]) << "wrapped into the next row";
}

TEST_F(CaptureLayoutTest, PairsScreensOnlyWhenBothDeliver) {
    auto layout = CaptureLayout::createWithPlugin(plugin(test::layoutDescriptor("Pair", 1, 720, 240,
        R"(<object type="screen_top" x="0" y="0"/><object type="screen_bottom" x="400" y="0"/>)")), m_device);
    auto wakeup = std::make_shared<Wakeup>();
    auto frames = layout->addObserver(wakeup);
    auto tops = m_device->screen(0)->addObserver(wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    auto first = test::takeFrames(*layout, frames, *wakeup, 1);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0]->size(), 518400u);

    // Without the bottom screen no frame is composited, however many top frames come.
    m_device->screen(1)->stopListening();
    while (layout->observe(frames)) {
    }
    test::takeFrames(*m_device->screen(0), tops, *wakeup, 25);
    auto more = test::takeFrames(*m_device->screen(0), tops, *wakeup, 3);
    ASSERT_EQ(more.size(), 3u);
    size_t composited = 0;
    while (layout->observe(frames)) {
        ++composited;
    }
    EXPECT_LE(composited, 1u) << "at most the pair that was under way";
    layout->removeObserver(frames);
    layout->stopListening();
}

TEST_F(CaptureLayoutTest, AScreenLayoutRepublishesTheVeryFrame) {
    auto layout = CaptureLayout::createWithScreen(m_device->screen(1), "Bottom");
    EXPECT_EQ(layout->size(), 230400u);
    EXPECT_TRUE(layout->isResizable());
    auto wakeup = std::make_shared<Wakeup>();
    auto frames = layout->addObserver(wakeup);
    auto screens = m_device->screen(1)->addObserver(wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    auto published = test::takeFrames(*layout, frames, *wakeup, 3);
    auto screenFrames = test::takeFrames(*m_device->screen(1), screens, *wakeup, 3);
    ASSERT_EQ(published.size(), 3u);
    ASSERT_EQ(screenFrames.size(), 3u);
    for (size_t n = 0; n < 3; ++n) {
        EXPECT_EQ(published[n], screenFrames[n]);
    }
    layout->removeObserver(frames);
    layout->stopListening();
}

TEST_F(CaptureLayoutTest, KeepsRunningWhileAConsumerIsSubscribed) {
    auto layout = CaptureLayout::createWithScreen(m_device->screen(0), "Top");
    auto wakeup = std::make_shared<Wakeup>();
    auto view = layout->addObserver(wakeup);
    auto recorder = layout->addObserver(wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());

    layout->removeObserver(view);
    layout->stopListening();
    EXPECT_TRUE(layout->isListening()) << "the recorder still listens";
    EXPECT_EQ(test::takeFrames(*layout, recorder, *wakeup, 2).size(), 2u);

    // The last consumer leaves without stopping: the thread ends, the flag stays, and a start in
    // that state starts nothing.
    layout->removeObserver(recorder);
    m_device->stopListening();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));
    EXPECT_TRUE(layout->isListening());
    auto again = layout->addObserver(wakeup);
    layout->startListening();
    EXPECT_EQ(DetachedThread::running(), 0);

    // A stop now takes effect (after the observer goes) and a new start runs the layout again.
    layout->removeObserver(again);
    layout->stopListening();
    EXPECT_FALSE(layout->isListening());
    again = layout->addObserver(wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    EXPECT_EQ(test::takeFrames(*layout, again, *wakeup, 1).size(), 1u);
    layout->removeObserver(again);
    layout->stopListening();
}

TEST_F(CaptureLayoutTest, AFullLayoutQueueLogsTheObserverThenTheLayout) {
    auto layout = CaptureLayout::createWithScreen(m_device->screen(0), "Top");
    auto slow = layout->addObserver();
    LogCapture log;
    m_device->setFramePeriod(0ns);
    m_board->holdAt(202);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    EXPECT_TRUE(log.waitFor("Frame was skipped as the buffer for layout 'Top' became too large", 20s));
    auto lines = log.lines();
    auto layoutLine = std::find(lines.begin(), lines.end(), "Frame was skipped as the buffer for layout 'Top' became too large");
    ASSERT_NE(layoutLine, lines.begin());
    EXPECT_EQ(*(layoutLine - 1), "Skipped frame of observer 0");
    layout->removeObserver(slow);
    layout->stopListening();
}

} // namespace
} // namespace zandor
