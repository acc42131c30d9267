#pragma once

#include <QDBusConnection>
#include <QString>

#include <vector>

class QObject;

namespace zandor::desktop_bus {

// A connection of its own, named `name`, to the session bus at `address`, by default the one of
// DBUS_SESSION_BUS_ADDRESS as it is now, else the one in XDG_RUNTIME_DIR; not connected when there
// is none. Its owner ends it with endLater.
QDBusConnection connect(const QString& address, const QString& name);

// Ends the connection named `name` once the event loop runs again: after its owner is gone. Ended
// while the owner is still being destroyed, the connection's own object would go on QtDBus's thread
// at the same time, and look at the owner as a sender of its signals.
void endLater(const QString& name);

// The bus signals an object receives, each let go of before the object goes (release() in its
// destructor): left to QtDBus, they would be let go of on its own thread while the object is
// already being destroyed.
class Subscriptions {
public:
    Subscriptions(QDBusConnection& bus, QObject* receiver) : m_bus(bus), m_receiver(receiver) {}
    bool add(const QString& service, const QString& path, const QString& interface, const QString& name,
             const char* slot);
    void release();

private:
    struct Entry {
        QString service, path, interface, name;
        const char* slot;
    };
    QDBusConnection& m_bus;
    QObject* m_receiver;
    std::vector<Entry> m_entries;
};

} // namespace zandor::desktop_bus
