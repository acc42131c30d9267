#pragma once

#include <sys/types.h>

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

    std::string m_folder;
    std::string m_address;
    std::string m_previous; // the address before, given back at the end
    pid_t m_daemon = -1;
    std::string m_error; // set last, by start()
};

} // namespace zandor::test
