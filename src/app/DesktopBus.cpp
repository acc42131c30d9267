#include "DesktopBus.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTimer>

namespace zandor::desktop_bus {

QDBusConnection connect(const QString& address, const QString& name) {
    // Read now, not when the process first met a bus: libdbus keeps the address it read first.
    // Without one, the bus of the user's session is in the runtime folder; no other bus is
    // started for us (libdbus would try to launch one).
    QString session = address.isEmpty() ? qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS") : address;
    if (session.isEmpty()) {
        const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
        if (!runtime.isEmpty() && QFileInfo::exists(runtime + QStringLiteral("/bus"))) {
            session = QStringLiteral("unix:path=%1/bus").arg(runtime);
        }
    }
    // An empty address gives a connection that is not connected: nothing is told to the desktop.
    return QDBusConnection::connectToBus(session, name);
}

void endLater(const QString& name) {
    QCoreApplication* application = QCoreApplication::instance();
    if (!application) {
        QDBusConnection::disconnectFromBus(name);
        return;
    }
    QTimer::singleShot(0, application, [name] { QDBusConnection::disconnectFromBus(name); });
}

bool Subscriptions::add(const QString& service, const QString& path, const QString& interface,
                        const QString& name, const char* slot) {
    if (!m_bus.connect(service, path, interface, name, m_receiver, slot)) {
        return false;
    }
    m_entries.push_back({service, path, interface, name, slot});
    return true;
}

void Subscriptions::release() {
    for (const Entry& entry : m_entries) {
        m_bus.disconnect(entry.service, entry.path, entry.interface, entry.name, m_receiver, entry.slot);
    }
    m_entries.clear();
}

} // namespace zandor::desktop_bus
