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
        logs::base.quietly("%s", qUtf8Printable(message));
        break;
    case QtCriticalMsg:
    case QtFatalMsg:
        logs::base.error("%s", qUtf8Printable(message));
        break;
    }
}

} // namespace

void routeQtMessages() {
    qInstallMessageHandler(handle);
}

} // namespace zandor
