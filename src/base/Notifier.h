#pragma once

#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace zandor {

inline const QString PluginInstalledNotification = QStringLiteral("PluginInstalledNotification");

// The application-wide notification centre: posting emits `notified` synchronously, on the
// posting thread, to every connected receiver.
class Notifier : public QObject {
    Q_OBJECT
public:
    static Notifier* instance();

    void post(const QString& name, const QVariant& object = {}, const QVariantMap& userInfo = {});

signals:
    void notified(const QString& name, const QVariant& object, const QVariantMap& userInfo);
};

} // namespace zandor
