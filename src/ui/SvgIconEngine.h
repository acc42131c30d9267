#pragma once

#include <QByteArray>
#include <QIconEngine>

namespace zandor {

// Draws an SVG image at whatever size is asked. The colour "currentColor" in the image becomes the
// palette's text colour at drawing time (the highlighted text colour for selected icons), so glyphs
// read well in light and dark themes and follow a change of theme; disabled icons are faded.
class SvgIconEngine : public QIconEngine {
public:
    explicit SvgIconEngine(QByteArray svg);

    void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State state) override;
    QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override;
    QPixmap scaledPixmap(const QSize& size, QIcon::Mode mode, QIcon::State state, qreal scale) override;
    QIconEngine* clone() const override;
    QString key() const override;

private:
    QByteArray m_svg;
    // Identifies this image in the shared pixmap cache.
    QString m_cacheKey;
};

} // namespace zandor
