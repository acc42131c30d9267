#include "MainWindow.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QResizeEvent>
#include <QTimer>
#include <QUrl>

namespace zandor {

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent) {
    ui.setupUi(this);
    setAcceptDrops(true);
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (shouldClose && !shouldClose()) {
        event->ignore();
        return;
    }
    event->accept();
    // Closing the main window ends the application, whatever other windows are open.
    QCoreApplication::quit();
}

void MainWindow::resizeEvent(QResizeEvent* event) {
    QMainWindow::resizeEvent(event);
    if (willResize && !m_correcting && !isFullScreen()) {
        const QSize wanted = willResize(event->size());
        if (wanted != event->size()) {
            // The window manager let the size go its own way; put it back in proportion once the
            // current resize is through.
            QTimer::singleShot(0, this, [this, wanted] {
                m_correcting = true;
                resize(wanted);
                m_correcting = false;
            });
        }
    }
    if (didResize) {
        didResize();
    }
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile() && url.toLocalFile().endsWith(QLatin1String(".zdplugin"))) {
            event->acceptProposedAction();
            return;
        }
    }
}

void MainWindow::dropEvent(QDropEvent* event) {
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile() && openFile) {
            openFile(url.toLocalFile());
        }
    }
    event->acceptProposedAction();
}

} // namespace zandor
