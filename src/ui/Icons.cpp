#include "Icons.h"

#include "SvgIconEngine.h"

#include <QFile>
#include <QHash>

// Resources of a static library are registered only when something refers to them; the macro must
// be used outside any namespace.
static void registerIconResources() {
    Q_INIT_RESOURCE(icons);
}

namespace zandor {

QIcon icon(const QString& name) {
    static const bool registered = (registerIconResources(), true);
    (void)registered;
    static QHash<QString, QIcon> loaded;
    if (auto found = loaded.constFind(name); found != loaded.constEnd()) {
        return *found;
    }
    QFile file(QStringLiteral(":/icons/%1.svg").arg(name));
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QIcon result(new SvgIconEngine(file.readAll()));
    loaded.insert(name, result);
    return result;
}

} // namespace zandor
