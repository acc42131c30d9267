#include "PipeWireServer.h"

#include "Process.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace zandor::test {

namespace {

std::string fileText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Waits, looking every 20 ms, until `ready` holds or `pid` ended or the time is up.
template <class Ready> bool waitUntil(Ready ready, pid_t& pid) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!ready()) {
        if (pid < 0 || reapWithin(pid, std::chrono::milliseconds(20))) {
            pid = -1;
            return false;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

} // namespace

PipeWireServer::~PipeWireServer() {
    endProcess(m_sessionManager);
    endProcess(m_daemon);
    endProcess(m_bus);
    unsetenv("XDG_RUNTIME_DIR");
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    if (!m_folder.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
}

void PipeWireServer::killDaemon() {
    endProcess(m_daemon);
    m_daemon = -1;
}

std::string PipeWireServer::start() {
    char folder[] = "/tmp/zandor-pipewire-XXXXXX"; // short: socket paths must fit 108 bytes
    if (!mkdtemp(folder)) {
        return "mkdtemp failed";
    }
    m_folder = folder;
    const std::string bus = "unix:path=" + m_folder + "/bus";
    setenv("XDG_RUNTIME_DIR", m_folder.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
    // Each server keeps its files in the private folder, and goes with the test program even when
    // that is killed before it can end them.
    const auto server = [&](std::vector<std::string> command, const std::string& log) {
        command.insert(command.begin(),
                       {"env", "-i", "PATH=" + std::string(std::getenv("PATH") ? std::getenv("PATH") : ""),
                        "HOME=" + m_folder, "XDG_RUNTIME_DIR=" + m_folder, "DBUS_SESSION_BUS_ADDRESS=" + bus,
                        "setpriv", "--pdeathsig=TERM"});
        return startProcess(command, -1, m_folder + "/" + log);
    };
    m_bus = server({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + bus}, "dbus.log");
    if (!waitUntil([&] { return std::filesystem::exists(m_folder + "/bus"); }, m_bus)) {
        return "dbus-daemon does not start: " + fileText(m_folder + "/dbus.log");
    }
    m_daemon = server({"pipewire"}, "pipewire.log");
    if (!waitUntil(
            [] {
                return runProcess({"pw-cli", "info", "0"}, std::chrono::seconds(10)).exitCode == 0;
            },
            m_daemon)) {
        return "pipewire does not answer: " + fileText(m_folder + "/pipewire.log");
    }
    m_sessionManager = server({"wireplumber"}, "wireplumber.log");
    // The session manager is ready once it has made its default node settings.
    if (!waitUntil(
            [] {
                return runProcess({"pw-cli", "ls", "Metadata"}, std::chrono::seconds(10))
                           .out.find("\"default\"") != std::string::npos;
            },
            m_sessionManager)) {
        return "wireplumber does not start: " + fileText(m_folder + "/wireplumber.log");
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
