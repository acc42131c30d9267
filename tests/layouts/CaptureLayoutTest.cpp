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
          m_canvas(m_width * static_cast<uint64_t>(plugin.height()) * 3) {
        paint(true, 0, nullptr, nullptr); // before any frame: background and images
    }

    // One frame: the whole canvas the first time, then only from the first screen object on.
    const std::vector<uint8_t>& draw(const uint8_t* top, const uint8_t* bottom) {
        const auto& objects = m_plugin.objects();
        qsizetype start = 0;
        while (m_drawn && start < objects.size() &&
               !objects[start]["type"].toString().startsWith("screen_")) {
            ++start;
        }
        paint(!m_drawn, start, top, bottom);
        m_drawn = true;
        return m_canvas;
    }

    const std::vector<uint8_t>& canvas() const { return m_canvas; }

private:
    void paint(bool background, qsizetype start, const uint8_t* top, const uint8_t* bottom) {
        if (background) {
            const auto c = m_plugin.background().value_or(Color{});
            const uint8_t color[3] = {uint8_t(int(c.red * 255.0)), uint8_t(int(c.green * 255.0)),
                                      uint8_t(int(c.blue * 255.0))};
            for (uint64_t i = 0; i < m_canvas.size(); ++i) {
                m_canvas[i] = color[i % 3];
            }
        }
        for (qsizetype i = start; i < m_plugin.objects().size(); ++i) {
            const auto& object = m_plugin.objects()[i];
            const auto x0 = object["x"].toLongLong(), y0 = object["y"].toLongLong();
            const QString type = object["type"].toString();
            if (type == "image") {
                const QImage& image = m_images[object["resource"].toString()];
                for (int y = 0; y < image.height(); ++y) {
                    for (int x = 0; x < image.width(); ++x) {
                        blend(uint64_t(x0 + x), uint64_t(y0 + y), image.pixelColor(x, y));
                    }
                }
            } else if (top && (type == "screen_top" || type == "screen_bottom")) {
                // Screens replace pixels in canvas byte order from their first pixel on: a row that
                // passes the right edge goes on in the next canvas row; nothing goes past the end.
                const uint64_t rowBytes = (type == "screen_top" ? 400 : 320) * 3;
                for (uint64_t y = 0; y < 240; ++y) {
                    for (uint64_t x = 0; x < rowBytes; ++x) {
                        const uint64_t at = ((uint64_t(y0) + y) * m_width + uint64_t(x0)) * 3 + x;
                        if (at < m_canvas.size()) {
                            m_canvas[at] = (type == "screen_top" ? top : bottom)[y * rowBytes + x];
                        }
                    }
                }
            }
        }
    }

    void blend(uint64_t x, uint64_t y, const QColor& color) {
        if (x >= m_width || (y * m_width + x) * 3 >= m_canvas.size()) {
            return;
        }
        const double alpha = color.alpha() / 255.0;
        uint8_t* pixel = &m_canvas[(y * m_width + x) * 3];
        for (const int value : {color.red(), color.green(), color.blue()}) {
            *pixel = static_cast<uint8_t>(std::trunc(alpha * value + (1.0 - alpha) * *pixel));
            ++pixel;
        }
    }

    const LayoutPlugin& m_plugin;
    QMap<QString, QImage> m_images;
    uint64_t m_width;
    std::vector<uint8_t> m_canvas;
    bool m_drawn = false;
};

QImage randomImage(std::mt19937& random, int width, int height) {
    QImage image(width, height, QImage::Format_RGBA8888);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            int choice = static_cast<int>(random() % 4);
            int alpha = choice == 0 ? 0 : choice == 1 ? 255 : static_cast<int>(random() % 256);
            image.setPixelColor(x, y,
                                QColor(int(random() % 256), int(random() % 256), int(random() % 256), alpha));
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

    std::shared_ptr<LayoutPlugin> plugin(const QByteArray& descriptor,
                                         const QMap<QString, QImage>& images = {}) {
        auto bundle = test::writeBundle(m_folder.path(), QStringLiteral("l%1.zdplugin").arg(++m_count),
                                        descriptor, images);
        auto plugin = std::make_shared<LayoutPlugin>(bundle, false);
        EXPECT_TRUE(plugin->parse());
        return plugin;
    }

    void expectLikeTheReference(const QByteArray& descriptor, const QMap<QString, QImage>& images);

    QTemporaryDir m_folder;
    int m_count = 0;
    std::shared_ptr<Wakeup> m_wakeup = std::make_shared<Wakeup>();
    test::GatedBoard* m_board = nullptr;
    std::shared_ptr<CaptureDevice> m_device;
};

// Runs the layout live for five frames and compares each with the obvious compositor.
void CaptureLayoutTest::expectLikeTheReference(const QByteArray& descriptor,
                                               const QMap<QString, QImage>& images) {
    auto layoutPlugin = plugin(descriptor, images);
    auto layout = CaptureLayout::createWithPlugin(layoutPlugin, m_device);
    ReferenceCanvas reference(*layoutPlugin, images);
    ASSERT_EQ(layout->size(), reference.canvas().size());
    EXPECT_EQ(std::vector<uint8_t>(layout->canvas(), layout->canvas() + layout->size()), reference.canvas())
        << "before any frame the canvas shows background and images";

    auto frames = layout->addObserver(m_wakeup);
    auto tops = m_device->screen(0)->addObserver(m_wakeup);
    auto bottoms = m_device->screen(1)->addObserver(m_wakeup);
    ASSERT_TRUE(layout->startListening());
    ASSERT_TRUE(m_device->startListening());
    auto published = test::takeFrames(*layout, frames, *m_wakeup, 5);
    auto topFrames = test::takeFrames(*m_device->screen(0), tops, *m_wakeup, 5);
    auto bottomFrames = test::takeFrames(*m_device->screen(1), bottoms, *m_wakeup, 5);
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
    // Only screens after the first screen, all inside the canvas, overlapping each other.
    expectLikeTheReference(
        test::layoutDescriptor("Still", 1, 460, 500,
                               R"(<object type="image" x="100" y="150" resource="under.png"/>
           <object type="screen_bottom" x="20" y="200"/>
           <object type="screen_top" x="30" y="10"/>
           <object type="screen_bottom" x="140" y="250"/>)",
                               R"(<background r="1" g="2" b="3"/>)"),
        {{"under.png", randomImage(random, 300, 200)}});
}

TEST_F(CaptureLayoutTest, PairsScreensOnlyWhenBothDeliver) {
    auto layout = CaptureLayout::createWithPlugin(
        plugin(test::layoutDescriptor(
            "Pair", 1, 720, 240,
            R"(<object type="screen_top" x="0" y="0"/><object type="screen_bottom" x="400" y="0"/>)")),
        m_device);
    auto frames = layout->addObserver(m_wakeup);
    auto tops = m_device->screen(0)->addObserver(m_wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    auto first = test::takeFrames(*layout, frames, *m_wakeup, 1);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0]->size(), 518400u);

    // Without the bottom screen no frame is composited, however many top frames come.
    m_device->screen(1)->stopListening();
    while (layout->observe(frames)) {
    }
    test::takeFrames(*m_device->screen(0), tops, *m_wakeup, 25);
    auto more = test::takeFrames(*m_device->screen(0), tops, *m_wakeup, 3);
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
    auto frames = layout->addObserver(m_wakeup);
    auto screens = m_device->screen(1)->addObserver(m_wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    auto published = test::takeFrames(*layout, frames, *m_wakeup, 3);
    auto screenFrames = test::takeFrames(*m_device->screen(1), screens, *m_wakeup, 3);
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
    auto view = layout->addObserver(m_wakeup);
    auto recorder = layout->addObserver(m_wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());

    layout->removeObserver(view);
    layout->stopListening();
    EXPECT_TRUE(layout->isListening()) << "the recorder still listens";
    EXPECT_EQ(test::takeFrames(*layout, recorder, *m_wakeup, 2).size(), 2u);

    // The last consumer leaves without stopping: the thread ends, the flag stays, and a start in
    // that state starts nothing.
    layout->removeObserver(recorder);
    m_device->stopListening();
    ASSERT_TRUE(DetachedThread::waitForAll(20s));
    EXPECT_TRUE(layout->isListening());
    auto again = layout->addObserver(m_wakeup);
    layout->startListening();
    EXPECT_EQ(DetachedThread::running(), 0);

    // A stop now takes effect (after the observer goes) and a new start runs the layout again.
    layout->removeObserver(again);
    layout->stopListening();
    EXPECT_FALSE(layout->isListening());
    again = layout->addObserver(m_wakeup);
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    EXPECT_EQ(test::takeFrames(*layout, again, *m_wakeup, 1).size(), 1u);
    layout->removeObserver(again);
    layout->stopListening();
}

TEST_F(CaptureLayoutTest, AFullLayoutQueueLogsTheObserverThenTheLayout) {
    auto layout = CaptureLayout::createWithScreen(m_device->screen(0), "Top");
    auto slow = layout->addObserver();
    LogCapture log;
    // At the board's own pace every frame reaches the layout (an unpaced board would overrun the
    // screen's queue first); the 201st one overflows the layout's queue of 200.
    layout->startListening();
    ASSERT_TRUE(m_device->startListening());
    EXPECT_TRUE(log.waitFor("Frame was skipped as the buffer for layout 'Top' became too large", 20s));
    auto lines = log.lines();
    auto layoutLine = std::find(lines.begin(), lines.end(),
                                "Frame was skipped as the buffer for layout 'Top' became too large");
    ASSERT_NE(layoutLine, lines.begin());
    EXPECT_EQ(*(layoutLine - 1), "Skipped frame of observer 0");
    layout->removeObserver(slow);
    layout->stopListening();
}

} // namespace
} // namespace zandor
