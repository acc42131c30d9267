#include "Settings.h"

#include "PreferencesController.h"
#include "VideoQuality.h"
#include "base/AppPaths.h"

#include <QDir>

namespace zandor {

std::vector<SeededSetting>& declaredSettings() {
    static std::vector<SeededSetting> settings;
    return settings;
}

template <class T> T Setting<T>::read(const PreferencesController& store) const {
    const QVariant value = store.preference(key);
    return accepts(value) ? *typedValue(value) : fallback();
}

template <class T> void Setting<T>::write(PreferencesController& store, const T& value) const {
    store.setPreference(key, stored(value));
}

template class Setting<bool>;
template class Setting<int>;
template class Setting<QString>;

namespace settings {

namespace {

QString expandTilde(const QString& path) {
    if (path == QStringLiteral("~") || path.startsWith(QStringLiteral("~/"))) {
        return QDir::homePath() + path.mid(1);
    }
    return path;
}

} // namespace

QString defaultStorageFolder() {
    return expandTilde(expandTilde(AppPaths::desktopFolder()));
}

QStringList frameRates() {
    return {QStringLiteral("Original"), QStringLiteral("24"), QStringLiteral("25"),
            QStringLiteral("30"),       QStringLiteral("50"), QStringLiteral("60")};
}

QStringList videoQualityNames() {
    QStringList names;
    for (const auto& preset : VideoQuality::videoQualities()) {
        names << preset->name();
    }
    return names;
}

} // namespace settings

} // namespace zandor
