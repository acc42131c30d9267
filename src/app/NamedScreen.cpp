#include "NamedScreen.h"

#include <QScreen>

namespace zandor {

QString NamedScreen::name(const QScreen* screen) {
    const QString model = screen ? screen->model().trimmed() : QString();
    return model.isEmpty() ? QStringLiteral("Unknown") : model;
}

} // namespace zandor
