#include "SessionBus.h"

#include "Process.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace zandor::test {

SessionBus::~SessionBus() {
    endProcess(m_daemon);
    if (m_previous.empty()) {
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    } else {
        setenv("DBUS_SESSION_BUS_ADDRESS", m_previous.c_str(), 1);
    }
    if (!m_folder.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
}

std::string SessionBus::start() {
    if (const char* previous = std::getenv("DBUS_SESSION_BUS_ADDRESS")) {
        m_previous = previous;
    }
    char folder[] = "/tmp/zandor-bus-XXXXXX"; // short: socket paths must fit 108 bytes
    if (!mkdtemp(folder)) {
        return "mkdtemp failed";
    }
    m_folder = folder;
    const std::string socket = m_folder + "/bus";
    m_address = "unix:path=" + socket;
    // The daemon goes with the test program even when that is killed before it can end it.
    m_daemon = startProcess({"setpriv", "--pdeathsig=TERM", "dbus-daemon", "--session", "--nofork",
                             "--nopidfile", "--address=" + m_address},
                            -1, m_folder + "/dbus.log");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::filesystem::exists(socket)) {
        if (m_daemon < 0 || reapWithin(m_daemon, std::chrono::milliseconds(20))) {
            m_daemon = -1;
            std::stringstream log;
            log << std::ifstream(m_folder + "/dbus.log").rdbuf();
            return "dbus-daemon does not start: " + log.str();
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return "dbus-daemon made no socket";
        }
    }
    setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
    return {};
}

} // namespace zandor::test
