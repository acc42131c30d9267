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
    if (m_placing.isValid()) {
        // Sizes the window system reports while our own placement is on its way are stale.
        if (event->size() == m_placing.size()) {
            m_placing = QRect();
        }
    } else if (willResize && !m_correcting && !isFullScreen() && willResize(event->size()) != event->size()) {
        // The user or the window manager took the size its own way: put it back in proportion
        // once the current resize is through, from the size the window has by then.
        QTimer::singleShot(0, this, [this] {
            const QSize wanted = willResize ? willResize(size()) : size();
            if (wanted != size() && !m_placing.isValid()) {
                m_correcting = true;
                resize(wanted);
                m_correcting = false;
            }
        });
    }
    if (didResize) {
        didResize();
    }
}

void MainWindow::place(const QRect& frame) {
    if (frame == geometry()) {
        return;
    }
    m_placing = frame;
    setGeometry(frame);
    // A window manager may settle on another size; then the usual correction takes over.
    QTimer::singleShot(1000, this, [this, frame] {
        if (m_placing == frame) {
            m_placing = QRect();
        }
    });
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
