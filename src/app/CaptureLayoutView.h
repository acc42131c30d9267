#pragma once

#include "layouts/CaptureLayout.h"
#include "session/CaptureSession.h"

#include <QImage>
#include <QPainter>
#include <QWidget>

#include <memory>

namespace zandor {

class LayoutViewFeeder;

// Draws the newest frame of the active layout stretched over its whole area, by nearest neighbour
// so that pixel art stays sharp. A feeder thread takes the layout's frames as they come and asks
// for a redraw; a frame is drawn at most twice (when it arrives and at the next redraw), after that
// the view shows black until the next frame. Black also before any layout or frame, with a line
// saying how to start the picture while it does not play.
class CaptureLayoutView : public QWidget, public LayoutFeed {
    Q_OBJECT
public:
    explicit CaptureLayoutView(QWidget* parent = nullptr);
    ~CaptureLayoutView() override;

    using QWidget::setLayout;
    // Shows another layout and forgets the frames of the previous one. The caller stops listening
    // before and starts again after.
    void setLayout(const LayoutPtr& layout) override;
    bool startListening() override;
    void stopListening() override;
    bool isListening() const;

    // While the board is away the picture is black; this puts one centred line over it saying so.
    void setNoSignal(bool noSignal);
    bool showsNoSignal() const { return m_noSignal; }
    static inline const QString NoSignalText = QStringLiteral("No signal: capture board disconnected");
    // While the picture does not play, the black view says how to start it.
    void setIdle(bool idle);
    bool showsIdle() const { return m_idle; }
    static inline const QString IdleText = QStringLiteral("Press Play or Space");

    // Scales a frame of rows of red, green and blue bytes by nearest neighbour into `target`
    // (Format_RGB32): target pixel (X, Y) shows the source pixel under its centre,
    // ((2X + 1) * width / (2 * target width), (2Y + 1) * height / (2 * target height)).
    static void scaleNearest(const uint8_t* rgb, int width, int height, QImage& target);

signals:
    // A new frame is waiting to be drawn (a redraw has been asked for).
    void frameReceived();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    // Our part of the window's backing store as an image to write into, when it can be reached.
    QImage* backingStoreImage(QPainter& painter, QSize pixels);
    // One centred line in light grey over the picture.
    void drawLine(QPainter& painter, const QString& text);

    std::shared_ptr<LayoutViewFeeder> m_feeder;
    QImage m_scaled;    // reused from one draw to the next
    QImage m_storeView; // over the backing store's pixels, for one draw
    bool m_noSignal = false;
    bool m_idle = false;
};

} // namespace zandor
