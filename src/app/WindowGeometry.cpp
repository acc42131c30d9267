#include "WindowGeometry.h"

#include <algorithm>
#include <cmath>

namespace zandor {

namespace {

// Halves away from zero.
int roundPoint(double value) {
    return static_cast<int>(std::lround(value));
}

} // namespace

QSize WindowGeometry::fitContent(QSize wanted, QSize natural, QSize decoration, QSize room) {
    if (!room.isValid() || natural.isEmpty()) {
        return wanted;
    }
    const double freeWidth = room.width() - decoration.width();
    const double freeHeight = room.height() - decoration.height();
    if (wanted.width() <= freeWidth && wanted.height() <= freeHeight) {
        return wanted;
    }
    // Rounded down, so that it fits.
    const double scale = std::min(freeWidth / natural.width(), freeHeight / natural.height());
    return {std::max(1, static_cast<int>(std::floor(natural.width() * scale))),
            std::max(1, static_cast<int>(std::floor(natural.height() * scale)))};
}

QSize WindowGeometry::sizeForResize(QSize proposed, QSize decoration, QSize natural, bool resizable,
                                    QSize room) {
    if (!resizable) {
        return natural + decoration;
    }
    const QSize minimum = fitContent(natural, natural, decoration, room) + decoration;
    const double ratio = static_cast<double>(natural.height()) / natural.width();
    // The width leads and the height follows.
    const double width = proposed.width() + decoration.width();
    const double height = proposed.width() * ratio + decoration.height();
    if (width < minimum.width() || height < minimum.height()) {
        return minimum;
    }
    const QSize wanted(roundPoint(width), roundPoint(height));
    return fitContent(wanted - decoration, natural, decoration, room) + decoration;
}

QRect WindowGeometry::layoutViewFrame(QSize content, QSize natural, bool resizable, bool fullScreen,
                                      int maxScale, QPoint currentOrigin) {
    if (!resizable) {
        return QRect(currentOrigin, natural);
    }
    const double W = content.width(), H = content.height();
    const double width = natural.width(), height = natural.height();
    int w = roundPoint(W), h = roundPoint(W * height / width);
    if (H < h) {
        w = roundPoint(H * width / height);
        h = roundPoint(H);
    }
    if (fullScreen && maxScale > 0 && w / width > maxScale) {
        w = roundPoint(width * maxScale);
        h = roundPoint(height * maxScale);
    }
    return QRect(roundPoint((W - w) / 2), roundPoint((H - h) / 2), w, h);
}

} // namespace zandor
