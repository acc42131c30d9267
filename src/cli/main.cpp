#include "Cli.h"
#include "base/QtMessages.h"

#include <QCoreApplication>

int main(int argc, char** argv) {
    zandor::routeQtMessages();
    // Qt's file, image and audio classes expect an application object.
    QCoreApplication application(argc, argv);
    return zandor::Cli::run({argv + 1, argv + argc});
}
