#include "ZDAppDelegate.h"

#include "MainController.h"
#include "MainWindow.h"
#include "base/Log.h"
#include "base/RuntimeFolder.h"
#include "layouts/PluginController.h"

#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSessionManager>

namespace zandor {

ZDAppDelegate::ZDAppDelegate(MainController& controller) : m_controller(controller) {
    m_controller.mainWindow()->openFile = [this](const QString& path) { openFile(path); };
    // The desktop session is ending: refused while a video is being recorded.
    connect(qGuiApp, &QGuiApplication::commitDataRequest, this, [this](QSessionManager& manager) {
        if (!applicationShouldTerminate()) {
            manager.cancel();
        }
    });
}

ZDAppDelegate::~ZDAppDelegate() = default;

bool ZDAppDelegate::applicationShouldTerminate() {
    return m_controller.attemptExit();
}

bool ZDAppDelegate::openFile(const QString& path) {
    if (PluginController::instance().installPlugin(path)) {
        return true;
    }
    m_controller.displayMessage(
        QStringLiteral("Could not install the plugin."),
        QStringLiteral(
            "\"%1\" could not be installed. It must be a layout plugin (a folder ending in .zdplugin "
            "holding a plugin.xml), and no plugin of the same name may be installed already.")
            .arg(QDir::toNativeSeparators(path)),
        0);
    return false;
}

QString ZDAppDelegate::serverName() {
    const auto socket = RuntimeFolder::sessionSocket("zandor");
    if (!socket) {
        logs::app.warning("Plugins cannot be handed to a running Zandor: %s",
                          socket.error().logLine().c_str());
        return {};
    }
    return QString::fromStdString(*socket);
}

bool ZDAppDelegate::listen() {
    const QString name = serverName();
    if (name.isEmpty()) {
        return false;
    }
    m_server = std::make_unique<QLocalServer>();
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(name)) {
        // A socket left by a crashed instance: nobody answered on it, and in a folder only this
        // user can enter nobody else could have made it, so it is ours to take.
        QLocalServer::removeServer(name);
        if (!m_server->listen(name)) {
            return false;
        }
    }
    connect(m_server.get(), &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_server->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                while (socket->canReadLine()) {
                    const QString path = QString::fromUtf8(socket->readLine()).trimmed();
                    if (path.isEmpty()) {
                        m_controller.mainWindow()->raise();
                        m_controller.mainWindow()->activateWindow();
                    } else {
                        openFile(path);
                    }
                }
            });
        }
    });
    return true;
}

bool ZDAppDelegate::sendToRunning(const QStringList& paths) {
    const QString name = serverName();
    if (name.isEmpty()) {
        return false;
    }
    QLocalSocket socket;
    socket.connectToServer(name);
    if (!socket.waitForConnected(500)) {
        return false;
    }
    for (const QString& path : paths) {
        socket.write(QFileInfo(path).absoluteFilePath().toUtf8() + '\n');
    }
    socket.write("\n"); // and bring the window to the front
    socket.waitForBytesWritten(2000);
    socket.disconnectFromServer();
    return true;
}

} // namespace zandor
