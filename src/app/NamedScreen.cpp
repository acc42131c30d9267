#include "NamedScreen.h"

#include <QGuiApplication>

#include <QScreen>

namespace zandor {

QString NamedScreen::name(const QScreen* screen) {
    const QString model = screen ? screen->model().trimmed() : QString();
    return model.isEmpty() ? QStringLiteral("Unknown") : model;
}

QScreen* NamedScreen::find(const QString& chosen) {
    const auto screens = QGuiApplication::screens();
    for (QScreen* candidate : screens) {
        if (name(candidate) == chosen) {
            return candidate;
        }
    }
    return screens.isEmpty() ? nullptr : screens.front();
}

} // namespace zandor
