#include "PipeWireServer.h"

#include "Process.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <cstdlib>
#include <filesystem>

namespace zandor::test {

PipeWireServer::~PipeWireServer() {
    endProcess(m_sessionManager);
    endProcess(m_daemon);
    endProcess(m_bus);
    unsetenv("XDG_RUNTIME_DIR");
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

void PipeWireServer::killDaemon() {
    endProcess(m_daemon);
    m_daemon = -1;
}

std::string PipeWireServer::start() {
    const std::string bus = "unix:path=" + m_folder.path() + "/bus";
    setenv("XDG_RUNTIME_DIR", m_folder.path().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
    m_bus = m_folder.start({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + bus},
                           "dbus.log");
    if (!ServerFolder::waitUntil([&] { return std::filesystem::exists(m_folder.path() + "/bus"); }, m_bus)) {
        return "dbus-daemon does not start: " + m_folder.text("dbus.log");
    }
    m_daemon = m_folder.start({"pipewire"}, "pipewire.log", {"DBUS_SESSION_BUS_ADDRESS=" + bus});
    if (!ServerFolder::waitUntil(
            [] {
                return runProcess({"pw-cli", "info", "0"}, std::chrono::seconds(10)).exitCode == 0;
            },
            m_daemon)) {
        return "pipewire does not answer: " + m_folder.text("pipewire.log");
    }
    m_sessionManager =
        m_folder.start({"wireplumber"}, "wireplumber.log", {"DBUS_SESSION_BUS_ADDRESS=" + bus});
    // The session manager is ready once it has made its default node settings.
    if (!ServerFolder::waitUntil(
            [] {
                return runProcess({"pw-cli", "ls", "Metadata"}, std::chrono::seconds(10))
                           .out.find("\"default\"") != std::string::npos;
            },
            m_sessionManager)) {
        return "wireplumber does not start: " + m_folder.text("wireplumber.log");
    }
    return {};
}

QJsonObject PipeWireServer::nodeProperties(const std::string& name) {
    const auto objects = QJsonDocument::fromJson(
                             QByteArray::fromStdString(runProcess({"pw-dump"}, std::chrono::seconds(10)).out))
                             .array();
    for (const auto& value : objects) {
        const QJsonObject object = value.toObject();
        const QJsonObject properties = object["info"].toObject()["props"].toObject();
        if (object["type"] == "PipeWire:Interface:Node" && properties["node.name"] == name.c_str()) {
            return properties;
        }
    }
    return {};
}

bool PipeWireServer::waitForNode(const std::string& name, const QString& description) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    // Each pw-dump takes a few milliseconds: it is the pause between looks.
    while (nodeProperties(name)["node.description"].toString() != description) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

bool PipeWireServer::waitForListing(const std::string& name, const QString& description) {
    // pw-cli lists each node as a line "id N, type PipeWire:Interface:Node/3", then its properties
    // as lines `key = "value"`.
    const QRegularExpression node(QStringLiteral(R"re(node\.name = "(.*)"$)re"),
                                  QRegularExpression::MultilineOption);
    const QRegularExpression described(QStringLiteral(R"re(node\.description = "(.*)"$)re"),
                                       QRegularExpression::MultilineOption);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    // Each pw-cli takes a few milliseconds: it is the pause between looks.
    for (;;) {
        QStringList descriptions;
        const QString listing =
            QString::fromStdString(runProcess({"pw-cli", "ls", "Node"}, std::chrono::seconds(10)).out);
        for (const QString& block : listing.split(QStringLiteral("\tid "))) {
            if (node.match(block).captured(1) == QString::fromStdString(name)) {
                descriptions << described.match(block).captured(1);
            }
        }
        if (descriptions == QStringList{description}) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
}

} // namespace zandor::test
