#pragma once

#include <QString>

class QScreen;

namespace zandor {

// The name under which a display is chosen for full screen: its product name as the display
// reports it (its EDID product name, which QScreen::model() gives on X11), or "Unknown".
class NamedScreen {
public:
    static QString name(const QScreen* screen);
    // The display of that name, else the first one; null when there is none.
    static QScreen* find(const QString& name);
};

} // namespace zandor
