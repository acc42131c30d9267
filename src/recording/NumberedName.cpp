#include "NumberedName.h"

#include <QFileInfo>

namespace zandor {

QString NumberedName::first(const QString& stem, const std::function<bool(const QString& name)>& taken) {
    QString name = stem;
    for (int number = 2; number <= Last && taken(name); ++number) {
        name = QStringLiteral("%1 %2").arg(stem).arg(number);
    }
    return name;
}

QString NumberedName::file(const QString& stem, const QString& suffix) {
    const QString dot = u'.' + suffix;
    return first(stem, [&dot](const QString& name) { return QFileInfo::exists(name + dot); }) + dot;
}

} // namespace zandor
