#pragma once

#include "Process.h"

#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace zandor::test {

// A private D-Bus session bus in a runtime folder of its own, for stand-in desktop services. While
// it lives, DBUS_SESSION_BUS_ADDRESS of this program points at it; the daemon is ended by its
// process id when the bus goes, also when the test failed.
class SessionBus {
public:
    SessionBus() : m_error(start()) {}
    ~SessionBus();
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

    // True once the daemon listens; otherwise error() says why.
    bool isRunning() const { return m_error.empty(); }
    const std::string& error() const { return m_error; }
    const std::string& address() const { return m_address; }

private:
    std::string start();

    ServerFolder m_folder{"bus"};
    std::string m_address;
    std::string m_previous; // the address before, given back at the end
    pid_t m_daemon = -1;
    std::string m_error; // set last, by start()
};

// A desktop service standing in on the private bus: keeps every call and answers it, by default
// with `reply`. The bus's own thread hands the calls over.
class StandInService : public QDBusVirtualObject {
public:
    using Answer = std::function<void(const QDBusMessage& call, const QDBusConnection& connection)>;
    explicit StandInService(QVariantList reply = {})
        : m_answer([reply](const QDBusMessage& call, const QDBusConnection& connection) {
              connection.send(call.createReply(reply));
          }) {}
    explicit StandInService(Answer answer) : m_answer(std::move(answer)) {}

    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& call, const QDBusConnection& connection) override;
    QList<QDBusMessage> calls() const;

private:
    const Answer m_answer;
    mutable std::mutex m_lock;
    QList<QDBusMessage> m_calls; // guarded by m_lock
};

// A test of a desktop client against a private bus, on which a connection of the test's own offers
// the stand-in services and sends their signals.
class DesktopBusTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    QString address() const { return QString::fromStdString(m_bus->address()); }
    // Puts `service` on the bus under `name`, at `path`.
    void offer(const QString& name, const QString& path, StandInService* service);
    void signal(const QString& path, const QString& interface, const QString& name, const QVariantList& args);

private:
    std::unique_ptr<SessionBus> m_bus;
    std::unique_ptr<QDBusConnection> m_desktop;
};

} // namespace zandor::test
