#include "CaptureLayoutView.h"

#include "LayoutViewFeeder.h"
#include "base/RunOn.h"

#include <QFontMetrics>
#include <QPainter>
#include <QPaintEngine>
#include <QPointer>

#include <algorithm>
#include <cstring>
#include <vector>

namespace zandor {

CaptureLayoutView::CaptureLayoutView(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    QPointer<CaptureLayoutView> view(this);
    // Asked from the feeder's thread; update() runs on the GUI thread and merges waiting requests.
    m_feeder = std::make_shared<LayoutViewFeeder>([view] {
        runLater(view, [view] {
            view->update();
            emit view->frameReceived();
        });
    });
}

CaptureLayoutView::~CaptureLayoutView() {
    m_feeder->stopListening();
}

void CaptureLayoutView::setLayout(const LayoutPtr& layout) {
    m_feeder->setLayout(layout);
}

bool CaptureLayoutView::startListening() {
    return m_feeder->startListening();
}

void CaptureLayoutView::stopListening() {
    m_feeder->stopListening();
}

bool CaptureLayoutView::isListening() const {
    return m_feeder->isListening();
}

void CaptureLayoutView::setNoSignal(bool noSignal) {
    if (noSignal != m_noSignal) {
        m_noSignal = noSignal;
        update();
    }
}

void CaptureLayoutView::setIdle(bool idle) {
    if (idle != m_idle) {
        m_idle = idle;
        update();
    }
}

void CaptureLayoutView::drawLine(QPainter& painter, const QString& text) {
    // A size that reads well at the view's height, smaller where the line would not fit across.
    QFont font = painter.font();
    const int size = std::clamp(height() / 24, 10, 48);
    font.setPixelSize(size);
    const int room = width() * 9 / 10;
    const int advance = QFontMetrics(font).horizontalAdvance(text);
    if (advance > room) {
        font.setPixelSize(std::max(8, size * room / advance));
    }
    painter.setFont(font);
    painter.setPen(QColor(0xe0, 0xe0, 0xe0));
    painter.drawText(rect(), Qt::AlignCenter, text);
}

void CaptureLayoutView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const qreal ratio = devicePixelRatioF();
    const QSize pixels = (QSizeF(size()) * ratio).toSize();
    auto shown = m_feeder->lock();
    CaptureDataPtr frame = LayoutViewFeeder::frameToDraw(shown);
    LayoutPtr layout = shown->layout;
    if (!frame || !layout || frame->size() < layout->size() || pixels.isEmpty()) {
        painter.fillRect(rect(), Qt::black);
        if (m_noSignal) {
            drawLine(painter, NoSignalText);
        } else if (m_idle) {
            drawLine(painter, IdleText);
        }
        return;
    }
    // The frame's bytes are read in place, under the feeder's lock. Where the window's backing
    // store is a plain 32-bit image, the scaled picture is written straight into it; otherwise
    // into an image of our own that is then drawn.
    const int width = static_cast<int>(layout->width()), height = static_cast<int>(layout->height());
    if (QImage* store = backingStoreImage(painter, pixels)) {
        scaleNearest(frame->data(), width, height, *store);
    } else {
        if (m_scaled.size() != pixels) {
            m_scaled = QImage(pixels, QImage::Format_RGB32);
            m_scaled.setDevicePixelRatio(ratio);
        }
        scaleNearest(frame->data(), width, height, m_scaled);
        painter.drawImage(QPoint(0, 0), m_scaled);
    }
    if (m_noSignal) {
        drawLine(painter, NoSignalText);
    }
}

QImage* CaptureLayoutView::backingStoreImage(QPainter& painter, QSize pixels) {
    QPaintEngine* engine = painter.paintEngine();
    QPaintDevice* device = engine ? engine->paintDevice() : nullptr;
    if (!device || device->devType() != QInternal::Image ||
        painter.deviceTransform().type() > QTransform::TxTranslate || devicePixelRatioF() != 1.0) {
        return nullptr;
    }
    auto* image = static_cast<QImage*>(device);
    if (image->format() != QImage::Format_RGB32 && image->format() != QImage::Format_ARGB32_Premultiplied) {
        return nullptr;
    }
    const QPoint offset = painter.deviceTransform().map(QPoint(0, 0));
    if (!image->rect().contains(QRect(offset, pixels))) {
        return nullptr;
    }
    // A view of our part of the store, sharing its pixels: opaque, so premultiplied is the same.
    m_storeView = QImage(image->bits() + offset.y() * image->bytesPerLine() + offset.x() * 4, pixels.width(),
                         pixels.height(), image->bytesPerLine(), QImage::Format_RGB32);
    return &m_storeView;
}

void CaptureLayoutView::scaleNearest(const uint8_t* rgb, int width, int height, QImage& target) {
    const int targetWidth = target.width(), targetHeight = target.height();
    if (width <= 0 || height <= 0 || targetWidth <= 0 || targetHeight <= 0) {
        return;
    }
    std::vector<int> columns(static_cast<size_t>(targetWidth));
    for (int x = 0; x < targetWidth; ++x) {
        columns[static_cast<size_t>(x)] = static_cast<int>((2LL * x + 1) * width / (2LL * targetWidth)) * 3;
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
