#include "SessionBus.h"

#include "Process.h"
#include "UserFolders.h"

#include <cstdlib>
#include <filesystem>

namespace zandor::test {

SessionBus::~SessionBus() {
    endProcess(m_daemon);
    if (m_previous.empty()) {
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    } else {
        setenv("DBUS_SESSION_BUS_ADDRESS", m_previous.c_str(), 1);
    }
}

std::string SessionBus::start() {
    if (const char* previous = std::getenv("DBUS_SESSION_BUS_ADDRESS")) {
        m_previous = previous;
    }
    const std::string socket = m_folder.path() + "/bus";
    m_address = "unix:path=" + socket;
    m_daemon = m_folder.start(
        {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + m_address}, "dbus.log");
    if (!ServerFolder::waitUntil([&] { return std::filesystem::exists(socket); }, m_daemon)) {
        return "dbus-daemon does not start: " + m_folder.text("dbus.log");
    }
    setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
    return {};
}

bool StandInService::handleMessage(const QDBusMessage& call, const QDBusConnection& connection) {
    {
        std::scoped_lock lock(m_lock);
        m_calls << call;
    }
    m_answer(call, connection);
    return true;
}

QList<QDBusMessage> StandInService::calls() const {
    std::scoped_lock lock(m_lock);
    return m_calls;
}

void DesktopBusTest::SetUp() {
    isolateUserFolders();
    m_bus = std::make_unique<SessionBus>();
    ASSERT_TRUE(m_bus->isRunning()) << m_bus->error();
    m_desktop =
        std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address(), "stand-in-desktop"));
    ASSERT_TRUE(m_desktop->isConnected());
}

void DesktopBusTest::TearDown() {
    m_desktop.reset();
    QDBusConnection::disconnectFromBus("stand-in-desktop");
}

void DesktopBusTest::offer(const QString& name, const QString& path, StandInService* service) {
    ASSERT_TRUE(m_desktop->registerVirtualObject(path, service));
    ASSERT_TRUE(m_desktop->registerService(name));
}

void DesktopBusTest::signal(const QString& path, const QString& interface, const QString& name,
                            const QVariantList& args) {
    QDBusMessage message = QDBusMessage::createSignal(path, interface, name);
    message.setArguments(args);
    ASSERT_TRUE(m_desktop->send(message));
}

} // namespace zandor::test
