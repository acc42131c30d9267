#pragma once

#include <QPoint>
#include <QRect>
#include <QSize>

namespace zandor {

// Where the main window and its picture go, as plain arithmetic on sizes.
namespace WindowGeometry {

// The window size for a proposed one: natural size plus decoration for a fixed layout; else the
// proposed width as content width with the layout's proportions, never below natural, and never
// beyond `room` (the screen's available size less the window manager's frame; invalid for no
// bound), where the largest size that fits is taken, below natural if it must.
QSize sizeForResize(QSize proposed, QSize decoration, QSize natural, bool resizable, QSize room = {});
// The content size `wanted` (of the proportions of `natural`) when it fits `room` together with
// the decoration; else the largest of those proportions that does. An invalid room fits anything.
QSize fitContent(QSize wanted, QSize natural, QSize decoration, QSize room);
// Where the layout view goes in a content area: fitted, centred, capped in full screen.
QRect layoutViewFrame(QSize content, QSize natural, bool resizable, bool fullScreen, int maxScale,
                      QPoint currentOrigin);

} // namespace WindowGeometry

} // namespace zandor
