#include "MainController.h"
#include "MainWindow.h"
#include "ZDAppDelegate.h"
#include "base/CommandLine.h"
#include "base/QtMessages.h"
#include "capture/Boards.h"
#include "capture/Board.h"
#include "session/CaptureSession.h"
#include "ui/Icons.h"

#include <QApplication>

#include <cstdio>

using namespace zandor;

int main(int argc, char** argv) {
    routeQtMessages();
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Zandor"));
    QApplication::setOrganizationName(QStringLiteral("Zandor"));
    QApplication::setDesktopFileName(QStringLiteral("zandor"));
    QApplication::setWindowIcon(icon(QStringLiteral("zandor")));

    QStringList arguments = QApplication::arguments();
    arguments.removeFirst();
    std::vector<std::string> words;
    for (const QString& argument : arguments) {
        words.push_back(argument.toStdString());
    }
    CommandLine options({"board"}, {"play"});
    if (const Error error = options.parse(words)) {
        std::fprintf(stderr,
                     "zandor: %s\nusage: zandor [--board usb|demo|replay:FILE] [--play] [PLUGIN...]\n",
                     error.detail().c_str());
        return 2;
    }
    QStringList plugins;
    for (const auto& path : options.positionals()) {
        plugins.append(QString::fromStdString(path));
    }
    // A second start hands its plugins to the running application and ends.
    if (ZDAppDelegate::sendToRunning(plugins)) {
        return 0;
    }
    auto board = createBoard(options.value("board").value_or("usb"));
    if (!board) {
        std::fprintf(stderr, "zandor: %s\n", session::boardChoiceMessage(board.error()).c_str());
        return 2;
    }

    MainController controller(std::move(*board));
    controller.awakeFromNib();
    ZDAppDelegate delegate(controller);
    delegate.listen();
    controller.mainWindow()->show();
    for (const QString& path : plugins) {
        delegate.openFile(path);
    }
    if (options.flag("play")) {
        controller.playPauseAction();
    }
    const int result = QApplication::exec();
    controller.shutdown();
    return result;
}
