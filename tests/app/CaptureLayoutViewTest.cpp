#include "Frames.h"
#include "GatedBoard.h"
#include "base/Worker.h"
#include "app/CaptureLayoutView.h"
#include "capture/CaptureDevice.h"
#include "layouts/CaptureLayout.h"

#include <gtest/gtest.h>

#include <QScreen>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <random>

namespace zandor {
namespace {

using namespace std::chrono_literals;

class CaptureLayoutViewTest : public ::testing::Test {
protected:
    void TearDown() override {
        m_view.stopListening();
        EXPECT_EQ(Worker::running(), 0);
    }

    // Publishes `count` random frames as the layout would, waits until the view has them all and
    // returns the last.
    CaptureDataPtr deliver(int count = 1) {
        QSignalSpy received(&m_view, &CaptureLayoutView::frameReceived);
        CaptureDataPtr frame;
        for (int n = 0; n < count; ++n) {
            frame = test::frameOf(m_top->size(), [this] { return uint8_t(m_random()); });
            m_top->add(frame);
        }
        while (received.count() < count) {
            EXPECT_TRUE(received.wait(20000));
        }
        return frame;
    }

    // What the view should show: the frame scaled by nearest neighbour, pixel centres sampled.
    QImage expected(const CaptureData& frame, QSize size) const {
        QImage image(size, QImage::Format_RGB32);
        const int w = static_cast<int>(m_top->width()), h = static_cast<int>(m_top->height());
        for (int y = 0; y < size.height(); ++y) {
            for (int x = 0; x < size.width(); ++x) {
                const int sx = static_cast<int>((x + 0.5) * w / size.width());
                const int sy = static_cast<int>((y + 0.5) * h / size.height());
                const uint8_t* p = frame.data() + (sy * w + sx) * 3;
                image.setPixel(x, y, qRgb(p[0], p[1], p[2]));
            }
        }
        return image;
    }

    static bool isBlack(const QImage& image) {
        QImage black(image.size(), QImage::Format_RGB32);
        black.fill(Qt::black);
        return image == black;
    }

    QImage draw() { return m_view.grab().toImage().convertToFormat(QImage::Format_RGB32); }

    std::mt19937 m_random{5};
    std::shared_ptr<CaptureDevice> m_device = CaptureDevice::create(std::make_unique<test::GatedBoard>());
    LayoutPtr m_top = CaptureLayout::createWithScreen(m_device->screen(0), "Top");
    CaptureLayoutView m_view;
};

TEST_F(CaptureLayoutViewTest, DrawsTheNewestFrameStretchedByNearestNeighbourTwiceThenBlack) {
    EXPECT_TRUE(isBlack(draw())) << "black before any layout";
    m_view.setLayout(m_top);
    ASSERT_TRUE(m_view.startListening());
    EXPECT_TRUE(isBlack(draw())) << "black before any frame";
    for (QSize size : {QSize(400, 240), QSize(800, 480), QSize(1001, 333), QSize(123, 77)}) {
        m_view.resize(size);
        const QImage shown = expected(*deliver(2), size);
        EXPECT_EQ(draw(), shown) << "only the second of two frames between redraws, at " << size.width();
        EXPECT_EQ(draw(), shown) << "drawn once more";
        EXPECT_TRUE(isBlack(draw())) << "then black";
    }
    deliver();
    m_view.setLayout(CaptureLayout::createWithScreen(m_device->screen(1), "Bottom"));
    EXPECT_TRUE(isBlack(draw())) << "a new layout forgets the old frames";
}

TEST_F(CaptureLayoutViewTest, DrawsStraightIntoTheWindowLikeIntoAnImage) {
    // Shown, the view paints into the window's backing store rather than into an image of its own.
    QWidget window;
    window.resize(700, 500);
    m_view.setParent(&window);
    m_view.setGeometry(31, 17, 601, 421);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    m_view.setLayout(m_top);
    ASSERT_TRUE(m_view.startListening());
    auto frame = deliver();
    m_view.repaint();
    const QImage screen =
        window.screen()->grabWindow(window.winId()).toImage().convertToFormat(QImage::Format_RGB32);
    EXPECT_EQ(screen.copy(m_view.geometry()), expected(*frame, m_view.size()));
    m_view.setParent(nullptr);
}

} // namespace
} // namespace zandor
