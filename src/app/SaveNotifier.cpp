#include "SaveNotifier.h"

#include "DesktopBus.h"

#include "base/Log.h"

#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace zandor {

namespace {

const QString NotificationsService = QStringLiteral("org.freedesktop.Notifications");
const QString NotificationsPath = QStringLiteral("/org/freedesktop/Notifications");
const QString PortalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString PortalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString PortalInterface = QStringLiteral("org.freedesktop.portal.Notification");
const QString OpenAction = QStringLiteral("open");
const QString ShowAction = QStringLiteral("show");

// Calls without waiting, and hands the reply to `done` on this thread.
template <class Done>
void callAsync(const QDBusConnection& bus, const QDBusMessage& call, QObject* context, Done done) {
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [watcher, done = std::move(done)] {
        watcher->deleteLater();
        done(watcher->reply());
    });
}

int g_connections = 0;

} // namespace

SaveNotifier::SaveNotifier(const QString& busAddress, bool sandboxed, QObject* parent)
    : QObject(parent), m_busName(QStringLiteral("zandor-notifier-%1").arg(++g_connections)),
      m_bus(desktop_bus::connect(busAddress, m_busName)), m_sandboxed(sandboxed) {
    if (m_sandboxed) {
        qDBusRegisterMetaType<QList<QVariantMap>>();
        m_subscriptions.add(PortalService, PortalPath, PortalInterface, QStringLiteral("ActionInvoked"),
                            SLOT(portalActionInvoked(QString, QString, QVariantList)));
    } else {
        m_subscriptions.add(NotificationsService, NotificationsPath, NotificationsService,
                            QStringLiteral("ActionInvoked"), SLOT(actionInvoked(uint, QString)));
        m_subscriptions.add(NotificationsService, NotificationsPath, NotificationsService,
                            QStringLiteral("NotificationClosed"), SLOT(notificationClosed(uint, uint)));
    }
}

SaveNotifier::~SaveNotifier() {
    m_subscriptions.release();
    desktop_bus::endLater(m_busName);
}

bool SaveNotifier::isSandboxed() {
    return QFileInfo::exists(QStringLiteral("/.flatpak-info"));
}

QString SaveNotifier::line(const QString& summary, const QString& path) {
    return QStringLiteral("%1: %2").arg(summary, QFileInfo(path).fileName());
}

void SaveNotifier::fileSaved(const QString& summary, const QString& path) {
    if (!m_enabled || !m_bus.isConnected()) {
        if (m_fallback) {
            m_fallback(line(summary, path));
        }
        return;
    }
    const QString name = QFileInfo(path).fileName();
    if (m_sandboxed) {
        const QString id = QStringLiteral("saved-%1").arg(++m_portalCount);
        const QList<QVariantMap> buttons{
            {{QStringLiteral("label"), QStringLiteral("Open")}, {QStringLiteral("action"), OpenAction}},
            {{QStringLiteral("label"), QStringLiteral("Show in Folder")},
             {QStringLiteral("action"), ShowAction}}};
        const QVariantMap notification{{QStringLiteral("title"), summary},
                                       {QStringLiteral("body"), name},
                                       {QStringLiteral("default-action"), OpenAction},
                                       {QStringLiteral("buttons"), QVariant::fromValue(buttons)}};
        QDBusMessage call = QDBusMessage::createMethodCall(PortalService, PortalPath, PortalInterface,
                                                           QStringLiteral("AddNotification"));
        call << id << notification;
        callAsync(m_bus, call, this, [this, id, summary, path](const QDBusMessage& reply) {
            if (reply.type() == QDBusMessage::ErrorMessage) {
                notFound(summary, path, reply);
                return;
            }
            m_portalShown.insert(id, path);
            emit notified(path);
        });
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(NotificationsService, NotificationsPath,
                                                       NotificationsService, QStringLiteral("Notify"));
    // The default action is the click on the notification itself: it opens the file.
    const QStringList actions{QStringLiteral("default"),
                              QStringLiteral("Open"),
                              OpenAction,
                              QStringLiteral("Open"),
                              ShowAction,
                              QStringLiteral("Show in Folder")};
    const QVariantMap hints{{QStringLiteral("desktop-entry"), QStringLiteral("zandor")},
                            {QStringLiteral("category"), QStringLiteral("transfer.complete")}};
    call << QStringLiteral("Zandor") << uint(0) << QStringLiteral("zandor") << summary << name << actions
         << hints << int(-1);
    callAsync(m_bus, call, this, [this, summary, path](const QDBusMessage& reply) {
        if (reply.type() == QDBusMessage::ErrorMessage || reply.arguments().isEmpty()) {
            notFound(summary, path, reply);
            return;
        }
        m_shown.insert(reply.arguments().constFirst().toUInt(), path);
        emit notified(path);
    });
}

void SaveNotifier::notFound(const QString& summary, const QString& path, const QDBusMessage& error) {
    if (!m_serviceMissing) {
        m_serviceMissing = true;
        logs::app.info("No desktop notifications: %s", qUtf8Printable(error.errorMessage()));
    }
    if (m_fallback) {
        m_fallback(line(summary, path));
    }
}

void SaveNotifier::actionInvoked(uint id, const QString& action) {
    // The service sends every application's actions to everyone listening: only ours count.
    if (const auto found = m_shown.constFind(id); found != m_shown.constEnd()) {
        invoke(*found, action);
    }
}

void SaveNotifier::notificationClosed(uint id, uint) {
    m_shown.remove(id);
}

void SaveNotifier::portalActionInvoked(const QString& id, const QString& action, const QVariantList&) {
    if (const auto found = m_portalShown.constFind(id); found != m_portalShown.constEnd()) {
        invoke(*found, action);
    }
}

void SaveNotifier::invoke(const QString& path, const QString& action) {
    if (action == OpenAction || action == QLatin1String("default")) {
        open(path);
    } else if (action == ShowAction) {
        showInFolder(path);
    }
}

void SaveNotifier::open(const QString& path) {
    QDesktopServices::openUrl(QUrl::fromLocalFile(path));
}

void SaveNotifier::showInFolder(const QString& path) {
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    // Without a file manager that shows items, the folder opens in whatever opens folders.
    callAsync(m_bus, call, this, [path](const QDBusMessage& reply) {
        if (reply.type() == QDBusMessage::ErrorMessage) {
            QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
        }
    });
}

} // namespace zandor
