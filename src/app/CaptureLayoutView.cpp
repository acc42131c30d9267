#include "CaptureLayoutView.h"

#include "LayoutViewFeeder.h"

#include <QPainter>
#include <QPointer>

#include <cstring>
#include <vector>

namespace zandor {

CaptureLayoutView::CaptureLayoutView(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    QPointer<CaptureLayoutView> view(this);
    // Asked from the feeder's thread; update() runs on the GUI thread and merges waiting requests.
    m_feeder = std::make_shared<LayoutViewFeeder>([view] {
        QMetaObject::invokeMethod(
            view, [view] {
                if (view) {
                    view->update();
                    emit view->frameReceived();
                }
            },
            Qt::QueuedConnection);
    });
}

CaptureLayoutView::~CaptureLayoutView() { m_feeder->stopListening(); }

void CaptureLayoutView::setLayout(const LayoutPtr& layout) { m_feeder->setLayout(layout); }

bool CaptureLayoutView::startListening() { return m_feeder->startListening(); }

void CaptureLayoutView::stopListening() { m_feeder->stopListening(); }

bool CaptureLayoutView::isListening() const { return m_feeder->isListening(); }

void CaptureLayoutView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const qreal ratio = devicePixelRatioF();
    const QSize pixels = (QSizeF(size()) * ratio).toSize();
    {
        std::scoped_lock lock(m_feeder->lock());
        CaptureDataPtr frame = m_feeder->frameToDraw();
        LayoutPtr layout = m_feeder->layout();
        if (frame && layout && frame->size() >= layout->size() && !pixels.isEmpty()) {
            if (m_scaled.size() != pixels) {
                m_scaled = QImage(pixels, QImage::Format_RGB32);
                m_scaled.setDevicePixelRatio(ratio);
            }
            // The frame's bytes are read in place, under the feeder's lock.
            scaleNearest(frame->data(), static_cast<int>(layout->width()), static_cast<int>(layout->height()),
                         m_scaled);
            painter.drawImage(QPoint(0, 0), m_scaled);
            return;
        }
    }
    painter.fillRect(rect(), Qt::black);
}

void CaptureLayoutView::scaleNearest(const uint8_t* rgb, int width, int height, QImage& target) {
    const int targetWidth = target.width(), targetHeight = target.height();
    if (width <= 0 || height <= 0 || targetWidth <= 0 || targetHeight <= 0) {
        return;
    }
    std::vector<int> columns(static_cast<size_t>(targetWidth));
    for (int x = 0; x < targetWidth; ++x) {
        columns[static_cast<size_t>(x)] =
            static_cast<int>((2LL * x + 1) * width / (2LL * targetWidth)) * 3;
    }
    int previousSource = -1;
    const auto rowBytes = static_cast<size_t>(targetWidth) * 4;
    for (int y = 0; y < targetHeight; ++y) {
        const int sourceRow = static_cast<int>((2LL * y + 1) * height / (2LL * targetHeight));
        auto* out = reinterpret_cast<uint32_t*>(target.scanLine(y));
        if (sourceRow == previousSource) {
            // Scaled up, neighbouring rows show the same source row: copy it whole.
            std::memcpy(out, target.constScanLine(y - 1), rowBytes);
            continue;
        }
        const uint8_t* row = rgb + static_cast<size_t>(sourceRow) * static_cast<size_t>(width) * 3;
        for (int x = 0; x < targetWidth; ++x) {
            const uint8_t* p = row + columns[static_cast<size_t>(x)];
            out[x] = 0xFF000000u | uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
        }
        previousSource = sourceRow;
    }
}

} // namespace zandor
