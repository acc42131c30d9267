#include "MainController.h"
#include "MainWindow.h"
#include "ZDAppDelegate.h"
#include "base/CommandLine.h"
#include "base/QtMessages.h"
#include "base/Version.h"
#include "capture/Boards.h"
#include "capture/Board.h"
#include "session/CaptureSession.h"
#include "ui/Icons.h"

#include <QApplication>

#include <cstdio>
#include <cstring>

using namespace zandor;

namespace {

const char* const Help =
    "usage: zandor [--board BOARD] [--play] [PLUGIN...]\n"
    "       zandor --help | --version\n"
    "\n"
    "Live view, screenshots and recordings from the dual-screen handheld console's\n"
    "capture board.\n"
    "\n"
    "  --board BOARD  where the picture comes from: usb (the first board found, the\n"
    "                 default), usb:SERIAL, demo (a moving demo picture) or replay:FILE\n"
    "                 (raw frames written by zandor-cli dump)\n"
    "  --play         start the live picture at once\n"
    "  PLUGIN         a layout plugin folder (*.zdplugin) to install; when Zandor runs\n"
    "                 already, it is handed to the running one\n"
    "  --help         show this help\n"
    "  --version      show the version\n";

} // namespace

int main(int argc, char** argv) {
    routeQtMessages();
    // Answered before the application object exists, which needs a display.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(Help, stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("zandor %s\n", applicationVersion());
            return 0;
        }
    }
    // Said before the application object needs a display. Qt's own options are no error: "-platform
    // NAME" reads as two plugins here, and Qt takes "--platform NAME" as well; the plugins are taken
    // from what Qt leaves.
    CommandLine withQtOptions({"board", "platform", "platformpluginpath", "platformtheme", "plugin",
                               "qwindowgeometry", "qwindowicon", "qwindowtitle", "style", "stylesheet",
                               "display", "session"},
                              {"play", "reverse", "widgetcount", "nograb", "dograb", "sync"});
    if (const Error error = withQtOptions.parse({argv + 1, argv + argc})) {
        return CommandLine::usageError("zandor", error.detail());
    }
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
        return CommandLine::usageError("zandor", error.detail());
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
