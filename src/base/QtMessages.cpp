#include "QtMessages.h"

#include "Log.h"

#include <QString>
#include <QtGlobal>

namespace zandor {

namespace {

void handle(QtMsgType type, const QMessageLogContext&, const QString& message) {
    switch (type) {
    case QtDebugMsg:
    case QtInfoMsg:
        break;
    case QtWarningMsg:
        logQuietly("%s", qUtf8Printable(message));
        break;
    case QtCriticalMsg:
    case QtFatalMsg:
        log("%s", qUtf8Printable(message));
        break;
    }
}

} // namespace

void routeQtMessages() {
    qInstallMessageHandler(handle);
}

} // namespace zandor
