#include "SvgIconEngine.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QGuiApplication>
#include <QImageReader>
#include <QPainter>
#include <QPalette>
#include <QPixmapCache>

namespace zandor {
namespace {

constexpr qreal DisabledOpacity = 0.4;

QColor glyphColor(QIcon::Mode mode) {
    const QPalette palette = QGuiApplication::palette();
    return mode == QIcon::Selected ? palette.color(QPalette::Active, QPalette::HighlightedText)
                                   : palette.color(QPalette::Active, QPalette::WindowText);
}

} // namespace

SvgIconEngine::SvgIconEngine(QByteArray svg)
    : m_svg(std::move(svg)),
      m_cacheKey(QString::fromLatin1(QCryptographicHash::hash(m_svg, QCryptographicHash::Sha1).toHex())) {}

QIconEngine* SvgIconEngine::clone() const {
    return new SvgIconEngine(*this);
}

QString SvgIconEngine::key() const {
    return QStringLiteral("zandor-svg");
}

QPixmap SvgIconEngine::pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) {
    return scaledPixmap(size, mode, state, 1.0);
}

QPixmap SvgIconEngine::scaledPixmap(const QSize& size, QIcon::Mode mode, QIcon::State, qreal scale) {
    const QSize pixels = size * scale;
    if (pixels.isEmpty()) {
        return {};
    }
    const QColor color = glyphColor(mode);
    const QString cacheKey = QStringLiteral("zandor-icon-%1-%2x%3-%4-%5")
                                 .arg(m_cacheKey)
                                 .arg(pixels.width())
                                 .arg(pixels.height())
                                 .arg(color.rgba(), 8, 16, QLatin1Char('0'))
                                 .arg(int(mode));
    QPixmap result;
    if (QPixmapCache::find(cacheKey, &result)) {
        return result;
    }

    QByteArray svg = m_svg;
    svg.replace("currentColor", color.name(QColor::HexRgb).toLatin1());
    QBuffer buffer(&svg);
    QImageReader reader(&buffer, "svg");
    // Keep the image's proportions inside the asked size, centred.
    QSize drawn = reader.size().isValid() ? reader.size().scaled(pixels, Qt::KeepAspectRatio) : pixels;
    reader.setScaledSize(drawn);
    const QImage image = reader.read();

    QImage canvas(pixels, QImage::Format_ARGB32_Premultiplied);
    canvas.fill(Qt::transparent);
    if (!image.isNull()) {
        QPainter painter(&canvas);
        if (mode == QIcon::Disabled) {
            painter.setOpacity(DisabledOpacity);
        }
        painter.drawImage((pixels.width() - drawn.width()) / 2, (pixels.height() - drawn.height()) / 2,
                          image);
    }
    result = QPixmap::fromImage(std::move(canvas));
    result.setDevicePixelRatio(scale);
    QPixmapCache::insert(cacheKey, result);
    return result;
}

void SvgIconEngine::paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State state) {
    const qreal scale = painter->device() ? painter->device()->devicePixelRatioF() : 1.0;
    painter->drawPixmap(rect, scaledPixmap(rect.size(), mode, state, scale));
}

} // namespace zandor
