#include "DesktopBus.h"

namespace zandor::desktop_bus {

QDBusConnection connect(const QString& address, const QString& name) {
    // Read now, not when the process first met a bus: libdbus keeps the address it read first.
    const QString session = address.isEmpty() ? qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS") : address;
    return session.isEmpty() ? QDBusConnection::connectToBus(QDBusConnection::SessionBus, name)
                             : QDBusConnection::connectToBus(session, name);
}

} // namespace zandor::desktop_bus
