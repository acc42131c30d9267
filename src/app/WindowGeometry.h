#pragma once

#include <QPoint>
#include <QRect>
#include <QSize>

namespace zandor {

// Where the main window and its picture go, as plain arithmetic on sizes.
namespace WindowGeometry {

// The window size for a proposed one: natural size plus decoration for a fixed layout; else the
// proposed width as content width with the layout's proportions, never below natural.
QSize sizeForResize(QSize proposed, QSize decoration, QSize natural, bool resizable);
// Where the layout view goes in a content area: fitted, centred, capped in full screen.
QRect layoutViewFrame(QSize content, QSize natural, bool resizable, bool fullScreen, int maxScale,
                      QPoint currentOrigin);

} // namespace WindowGeometry

} // namespace zandor
