#pragma once

#include "GlobalShortcuts.h"

#include "ui_MainWindow.h"

#include "capture/Board.h"

#include <QMainWindow>

#include <functional>
#include <memory>

class QDialog;
class QScreen;
namespace Ui {
class StatusSheet;
}

namespace zandor {

// The main window. It asks before it closes, keeps its proportions while the user resizes it, and
// takes plugin bundles dropped on it; the decisions are the main controller's.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    ::Ui::MainWindow ui;

    // Whether the window may close now.
    std::function<bool()> shouldClose;
    // The size the window should have when the user resized it to the given size.
    std::function<QSize(QSize)> willResize;
    // Called after every resize.
    std::function<void()> didResize;
    // A plugin bundle dropped on the window.
    std::function<void(const QString&)> openFile;

    // A window-modal alert that does not wait: style 0 warning, 1 information, 2 critical; the
    // image is a toolbar image's name, or empty for the standard one. `details`, when given, are
    // shown behind the alert's details button.
    void alert(const QString& title, const QString& text, int style, const QString& image = {},
               const QString& details = {});
    // A sheet with a spinning progress bar that blocks the window (a replay can still be saved),
    // until hidden.
    void showStatus(const QString& text);
    void hideStatus();
    // The About panel, which does not hold up the window.
    void showAbout();
    // A small panel of what the capture board told of itself: name, vendor and product, serial,
    // firmware version and whether it sends sound.
    void showBoard(const BoardInfo& info);
    // Moves the content to a frameless surface taking the whole of `screen` (or the first one);
    // the returned surface gives it back in returnContent.
    std::unique_ptr<QWidget> takeContentFullScreen(QScreen* screen);
    void returnContent(std::unique_ptr<QWidget> surface);

    // Sets the window's frame for the application (a layout change, a size step), as opposed to
    // a resize by the user, which is kept in proportion.
    void place(const QRect& frame);
    // Save Replay, Record and Screenshot, as the desktop may bind them, with the keys suggested.
    QList<GlobalShortcuts::Shortcut> globalShortcuts() const;
    // Does what the item of the global shortcut `id` does, when the item may.
    void triggerShortcut(const QString& id);
    // A window frame of the given size whose lower-left corner stays where the window's is, kept
    // on its screen as far as it fits.
    QRect keepLowerLeft(QSize size) const;
    // The part of the window's screen its content may take: the available area less the window
    // manager's frame around the window; invalid without a screen.
    QRect usableArea() const;
    // Tells an X11 window manager the proportions of the content (`natural`) and the size of the
    // menu bar and toolbar around it (`decoration`), so that dragging the window keeps them.
    void setAspect(QSize natural, QSize decoration);

protected:
    void closeEvent(QCloseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    std::unique_ptr<QDialog> m_statusWindow;
    std::unique_ptr<::Ui::StatusSheet> m_statusUi;
    bool m_correcting = false;
    QRect m_placing; // the frame being placed, until the window has its size
    QSize m_aspect;
    QSize m_aspectBase;
    void applyAspect();
};

} // namespace zandor
