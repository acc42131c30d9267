#pragma once

#include "Process.h"

#include <sys/types.h>

#include <QJsonObject>

#include <chrono>
#include <string>

namespace zandor::test {

// A private PipeWire for the camera tests: its own D-Bus session, pipewire and wireplumber, all
// in a temporary runtime folder. While it lives, XDG_RUNTIME_DIR and DBUS_SESSION_BUS_ADDRESS of
// this program point at it, so the camera and every consumer started from here use it.
class PipeWireServer {
public:
    PipeWireServer() : m_error(start()) {}
    ~PipeWireServer();
    PipeWireServer(const PipeWireServer&) = delete;
    PipeWireServer& operator=(const PipeWireServer&) = delete;

    // True once the daemon and the session manager answer; otherwise error() says why.
    bool isRunning() const { return m_error.empty(); }
    const std::string& error() const { return m_error; }
    const std::string& folder() const { return m_folder.path(); }
    // Ends the daemon, as if it crashed; the session manager and the bus stay.
    void killDaemon();

    // The properties of the node named `name` as pw-dump lists them; empty when there is none.
    static QJsonObject nodeProperties(const std::string& name);
    // Waits until the node named `name` is described as `description`; with an empty description,
    // until there is no such node.
    static bool waitForNode(const std::string& name, const QString& description);
    // Waits until PipeWire's registry, where programs list cameras (pw-cli ls), lists exactly one
    // node named `name`, described as `description`. The registry keeps the properties a node was
    // made with, where pw-dump shows its current ones.
    static bool waitForListing(const std::string& name, const QString& description);

private:
    std::string start();

    ServerFolder m_folder{"pipewire"};
    pid_t m_bus = -1;
    pid_t m_daemon = -1;
    pid_t m_sessionManager = -1;
    std::string m_error; // set last, by start()
};

} // namespace zandor::test
