#pragma once

#include <QDBusConnection>
#include <QString>

namespace zandor::desktop_bus {

// A connection of its own, named `name`, to the session bus at `address`, by default the one of
// DBUS_SESSION_BUS_ADDRESS as it is now, else the one in XDG_RUNTIME_DIR; not connected when there
// is none. Its owner ends it with QDBusConnection::disconnectFromBus.
QDBusConnection connect(const QString& address, const QString& name);

} // namespace zandor::desktop_bus
