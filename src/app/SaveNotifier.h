#pragma once

#include "DesktopBus.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QString>

#include <functional>

class QDBusMessage;

namespace zandor {

// Tells the desktop of every file Zandor made: a notification naming the file, with the actions
// "Open" (the file's own application) and "Show in Folder" (the file manager, or the folder opened
// where none answers). It goes through the desktop's notification service, or the desktop portal's
// when Zandor runs sandboxed. Where neither answers, or notifications are off, the fallback (the
// window's status bar) shows the same line. Runs on the GUI thread; never waits for the bus.
class SaveNotifier : public QObject {
    Q_OBJECT
public:
    // Sandboxed: through the portal. A connection of its own to the session bus at `busAddress`
    // (by default the one of DBUS_SESSION_BUS_ADDRESS as it is now).
    explicit SaveNotifier(const QString& busAddress = {}, bool sandboxed = isSandboxed(),
                          QObject* parent = nullptr);
    ~SaveNotifier() override;

    static bool isSandboxed();

    // Shows `text` where no notification can be raised.
    void setFallback(std::function<void(const QString&)> show) { m_fallback = std::move(show); }
    // Notifications on (the default) or off; off, the fallback says it.
    void setEnabled(bool enabled) { m_enabled = enabled; }

    // A file was made: `summary` says what ("Screenshot saved"), the notification names the file.
    void fileSaved(const QString& summary, const QString& path);

    // The actions of a notification, also for the fallback's owner.
    void open(const QString& path);
    void showInFolder(const QString& path);

    // The line shown by the fallback: "Screenshot saved: Screenshot 01_02_2026 10_00_00.png".
    static QString line(const QString& summary, const QString& path);

signals:
    // A notification was raised for `path` (its reply came).
    void notified(const QString& path);

private slots:
    void actionInvoked(uint id, const QString& action);
    void notificationClosed(uint id, uint reason);
    void portalActionInvoked(const QString& id, const QString& action, const QVariantList& parameter);

private:
    void invoke(const QString& path, const QString& action);
    void notFound(const QString& summary, const QString& path, const QDBusMessage& error);

    const QString m_busName;
    QDBusConnection m_bus;
    desktop_bus::Subscriptions m_subscriptions{m_bus, this};
    const bool m_sandboxed;
    bool m_enabled = true;
    bool m_serviceMissing = false; // said once in the log
    std::function<void(const QString&)> m_fallback;
    QHash<uint, QString> m_shown;          // notification id -> file
    QHash<QString, QString> m_portalShown; // portal notification id -> file
    uint m_portalCount = 0;
};

} // namespace zandor
