#include "MainWindow.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QCoreApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QResizeEvent>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <xcb/xcb.h>

#include <array>

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
    QTimer::singleShot(0, this, [this] { applyAspect(); });
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

void MainWindow::setAspect(QSize natural, QSize decoration) {
    m_aspect = natural;
    m_aspectBase = decoration;
    // After Qt has written its own hints for the sizes just set.
    QTimer::singleShot(0, this, [this] { applyAspect(); });
}

void MainWindow::showEvent(QShowEvent* event) {
    QMainWindow::showEvent(event);
    QTimer::singleShot(0, this, [this] { applyAspect(); });
}

void MainWindow::applyAspect() {
    auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (QGuiApplication::platformName() != QLatin1String("xcb") || !x11 || !x11->connection() ||
        !m_aspect.isValid() || !testAttribute(Qt::WA_WState_Created)) {
        return;
    }
    // Qt writes the size hints (WM_NORMAL_HINTS) itself whenever sizes change; the aspect is
    // added to what it wrote. The ICCCM layout: flags, 4 obsolete, min, max, increment, min
    // aspect, max aspect, base size, gravity.
    xcb_connection_t* connection = x11->connection();
    const auto window = static_cast<xcb_window_t>(winId());
    std::array<uint32_t, 18> hints{};
    xcb_get_property_reply_t* reply = xcb_get_property_reply(
        connection,
        xcb_get_property(connection, 0, window, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 0, 18),
        nullptr);
    if (reply) {
        const int length = xcb_get_property_value_length(reply);
        std::memcpy(hints.data(), xcb_get_property_value(reply),
                    std::min<size_t>(static_cast<size_t>(std::max(length, 0)), sizeof hints));
        free(reply);
    }
    constexpr uint32_t AspectFlag = 1u << 7, BaseSizeFlag = 1u << 8;
    hints[0] |= AspectFlag | BaseSizeFlag;
    hints[11] = hints[13] = static_cast<uint32_t>(m_aspect.width());
    hints[12] = hints[14] = static_cast<uint32_t>(m_aspect.height());
    hints[15] = static_cast<uint32_t>(m_aspectBase.width());
    hints[16] = static_cast<uint32_t>(m_aspectBase.height());
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NORMAL_HINTS,
                        XCB_ATOM_WM_SIZE_HINTS, 32, static_cast<uint32_t>(hints.size()), hints.data());
    xcb_flush(connection);
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
