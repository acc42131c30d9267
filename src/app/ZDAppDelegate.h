#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class QLocalServer;

namespace zandor {

class MainController;

// Answers the desktop's questions to the application: whether it may quit (not while a video is
// being recorded), and what to do with a plugin bundle opened with it, dropped on its window or
// handed over by a second start of the application (install it, and say so when that fails).
class ZDAppDelegate : public QObject {
    Q_OBJECT
public:
    explicit ZDAppDelegate(MainController& controller);
    ~ZDAppDelegate() override;

    bool applicationShouldTerminate();
    // Installs the plugin bundle at `path`; tells the user when the registry refuses it.
    bool openFile(const QString& path);

    // Becomes the running instance that later starts hand their files to.
    bool listen();
    // Hands the files to an instance that already runs; false when none answers.
    static bool sendToRunning(const QStringList& paths);
    // The socket of this user's instance on this display (see RuntimeFolder::sessionSocket); empty,
    // with a line in the log, when there is no private folder to put it in.
    static QString serverName();

private:
    MainController& m_controller;
    std::unique_ptr<QLocalServer> m_server;
};

} // namespace zandor
