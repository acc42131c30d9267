#include "MainWindow.h"

#include "base/Version.h"
#include "ui/Icons.h"
#include "ui_StatusSheet.h"

#include <QDialog>
#include <QMessageBox>
#include <QScreen>
#include <QVBoxLayout>
#include <QWindow>

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
    for (QAction* action :
         {ui.playPauseItem, ui.screenshotItem, ui.recordItem, ui.saveReplayItem, ui.sizeOriginalItem,
          ui.sizeDoubleItem, ui.fullScreenItem, ui.preferencesItem, ui.quitItem}) {
        // The shortcuts work in full screen too, where the picture is outside the main window.
        action->setShortcutContext(Qt::ApplicationShortcut);
    }
    ui.sizeOriginalItem->setData(1);
    ui.sizeDoubleItem->setData(2);
    ui.fullScreenItem->setIcon(icon(QStringLiteral("toolbar_view")));
    ui.preferencesItem->setIcon(icon(QStringLiteral("toolbar_preferences")));
    ui.screenshotItem->setIcon(icon(QStringLiteral("toolbar_view")));
    ui.recordItem->setIcon(icon(QStringLiteral("toolbar_record")));
    ui.saveReplayItem->setIcon(icon(QStringLiteral("toolbar_replay")));

    m_statusWindow = std::make_unique<QDialog>(this);
    m_statusUi = std::make_unique<::Ui::StatusSheet>();
    m_statusUi->setupUi(m_statusWindow.get());
    m_statusWindow->setWindowModality(Qt::WindowModal);
    // The finalising sheet blocks the main window; a replay can still be saved from it.
    m_statusWindow->addAction(ui.saveReplayItem);
}

MainWindow::~MainWindow() = default;

void MainWindow::showStatus(const QString& text) {
    m_statusUi->statusLabel->setText(text);
    m_statusUi->statusProgress->setRange(0, 0);
    m_statusWindow->open();
}

void MainWindow::hideStatus() {
    m_statusUi->statusProgress->setRange(0, 1);
    m_statusWindow->hide();
}

void MainWindow::alert(const QString& title, const QString& text, int style, const QString& image,
                       const QString& details) {
    const QMessageBox::Icon kind = style == 2   ? QMessageBox::Critical
                                   : style == 1 ? QMessageBox::Information
                                                : QMessageBox::Warning;
    auto* alert = new QMessageBox(kind, QStringLiteral("Zandor"), title, QMessageBox::Ok, this);
    alert->setInformativeText(text);
    if (!details.isEmpty()) {
        alert->setDetailedText(details);
    }
    if (!image.isEmpty()) {
        alert->setIconPixmap(icon(image).pixmap(64, 64));
    }
    alert->setWindowModality(Qt::WindowModal);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->open();
}

void MainWindow::showAbout() {
    auto* about = new QMessageBox(QMessageBox::NoIcon, QStringLiteral("About Zandor"),
                                  QStringLiteral("<b>Zandor</b>"), QMessageBox::Ok, this);
    about->setObjectName(QStringLiteral("aboutWindow"));
    about->setInformativeText(
        QStringLiteral(
            "Version %1\n\nLive view, screenshots and video recording for the dual-screen handheld "
            "console's capture board.")
            .arg(QString::fromLatin1(applicationVersion())));
    about->setIconPixmap(icon(QStringLiteral("zandor")).pixmap(64, 64));
    about->setAttribute(Qt::WA_DeleteOnClose);
    // A message box is modal by default; the about window must not hold up the main window.
    about->setWindowModality(Qt::NonModal);
    about->show();
}

void MainWindow::showBoard(const BoardInfo& info) {
    auto* panel =
        new QMessageBox(QMessageBox::NoIcon, QStringLiteral("About this board"),
                        QStringLiteral("<b>%1</b>").arg(QString::fromStdString(info.name).toHtmlEscaped()),
                        QMessageBox::Ok, this);
    panel->setObjectName(QStringLiteral("aboutBoardWindow"));
    const QString sound = !info.sendsSound   ? QStringLiteral("not known until the picture plays")
                          : *info.sendsSound ? QStringLiteral("yes")
                                             : QStringLiteral("no: the capture board sends no sound");
    QString text =
        QStringLiteral("Vendor and product: %1\nSerial number: %2\nFirmware version: %3\nSound: %4")
            .arg(QString::fromStdString(info.vendorProduct()),
                 info.serial.empty() ? QStringLiteral("none") : QString::fromStdString(info.serial),
                 info.firmwareVersion > 0 ? QString::number(info.firmwareVersion)
                                          : QStringLiteral("not known"),
                 sound);
    if (!info.usbSpeed.empty()) {
        text += QStringLiteral("\nConnection: %1").arg(QString::fromStdString(info.usbSpeed));
    }
    text += QStringLiteral("\n3D picture: %1").arg(info.can3D ? QStringLiteral("yes") : QStringLiteral("no"));
    panel->setInformativeText(text);
    panel->setIconPixmap(icon(QStringLiteral("zandor")).pixmap(64, 64));
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setWindowModality(Qt::NonModal);
    panel->show();
}

std::unique_ptr<QWidget> MainWindow::takeContentFullScreen(QScreen* screen) {
    auto surface = std::make_unique<QWidget>(nullptr, Qt::Window | Qt::FramelessWindowHint);
    surface->setObjectName(QStringLiteral("fullScreenWindow"));
    surface->setWindowTitle(QStringLiteral("Zandor"));
    auto* box = new QVBoxLayout(surface.get());
    box->setContentsMargins(0, 0, 0, 0);
    QWidget* content = takeCentralWidget();
    box->addWidget(content);
    if (screen) {
        surface->setGeometry(screen->geometry());
        surface->winId();
        surface->windowHandle()->setScreen(screen);
    }
    surface->showFullScreen();
    content->setFocus();
    return surface;
}

void MainWindow::returnContent(std::unique_ptr<QWidget> surface) {
    QWidget* content = ui.mainView;
    surface->layout()->removeWidget(content);
    setCentralWidget(content);
    surface.reset();
    activateWindow();
    // Shown and laid out at once (a reparented widget is hidden until later), so that the picture
    // is placed in the window's content, not in the full-screen surface it leaves.
    content->show();
    layout()->activate();
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

QRect MainWindow::keepLowerLeft(QSize size) const {
    const QRect old = geometry();
    if (!isVisible()) {
        return QRect(old.topLeft(), size); // not placed yet: the desktop places it when shown
    }
    QRect frame(old.left(), old.top() + old.height() - size.height(), size.width(), size.height());
    // Keep the window on its screen as far as it fits, the title bar and the left edge above all.
    if (const QRect available = usableArea(); available.isValid()) {
        frame.moveBottom(std::min(frame.bottom(), available.bottom()));
        frame.moveTop(std::max(frame.top(), available.top()));
        frame.moveRight(std::min(frame.right(), available.right()));
        frame.moveLeft(std::max(frame.left(), available.left()));
    }
    return frame;
}

QRect MainWindow::usableArea() const {
    const QScreen* shownOn = screen();
    if (!shownOn) {
        return {};
    }
    // The window manager's frame (title bar, borders) around the window takes its part of the
    // screen too; it is known once the window is shown.
    const QRect outer = frameGeometry();
    const QRect inner = geometry();
    return shownOn->availableGeometry().adjusted(inner.left() - outer.left(), inner.top() - outer.top(),
                                                 inner.right() - outer.right(),
                                                 inner.bottom() - outer.bottom());
}

QList<GlobalShortcuts::Shortcut> MainWindow::globalShortcuts() const {
    return {{QStringLiteral("save-replay"), QStringLiteral("Save Replay"), QStringLiteral("LOGO+ALT+S")},
            {QStringLiteral("record"), QStringLiteral("Record"), QStringLiteral("LOGO+ALT+R")},
            {QStringLiteral("screenshot"), QStringLiteral("Screenshot"), QStringLiteral("LOGO+ALT+F12")}};
}

void MainWindow::triggerShortcut(const QString& id) {
    QAction* item = id == QLatin1String("save-replay")  ? ui.saveReplayItem
                    : id == QLatin1String("record")     ? ui.recordItem
                    : id == QLatin1String("screenshot") ? ui.screenshotItem
                                                        : nullptr;
    // Each does what its item does, when its item may.
    if (item && item->isEnabled()) {
        item->trigger();
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
