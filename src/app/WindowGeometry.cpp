#include "WindowGeometry.h"

#include <cmath>

namespace zandor {

namespace {

// Halves away from zero.
int roundPoint(double value) {
    return static_cast<int>(std::lround(value));
}

} // namespace

QSize WindowGeometry::sizeForResize(QSize proposed, QSize decoration, QSize natural, bool resizable) {
    const QSize minimum = natural + decoration;
    if (!resizable) {
        return minimum;
    }
    const double ratio = static_cast<double>(natural.height()) / natural.width();
    // The width leads and the height follows.
    const double width = proposed.width() + decoration.width();
    const double height = proposed.width() * ratio + decoration.height();
    if (width < minimum.width() || height < minimum.height()) {
        return minimum;
    }
    return {roundPoint(width), roundPoint(height)};
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
