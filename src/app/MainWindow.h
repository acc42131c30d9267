#pragma once

#include "ui_MainWindow.h"

#include <QMainWindow>

#include <functional>

namespace zandor {

// The main window. It asks before it closes, keeps its proportions while the user resizes it, and
// takes plugin bundles dropped on it; the decisions are the main controller's.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);

    ::Ui::MainWindow ui;

    // Whether the window may close now.
    std::function<bool()> shouldClose;
    // The size the window should have when the user resized it to the given size.
    std::function<QSize(QSize)> willResize;
    // Called after every resize.
    std::function<void()> didResize;
    // A plugin bundle dropped on the window.
    std::function<void(const QString&)> openFile;

    // Sets the window's frame for the application (a layout change, a size step), as opposed to
    // a resize by the user, which is kept in proportion.
    void place(const QRect& frame);
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
    bool m_correcting = false;
    QRect m_placing; // the frame being placed, until the window has its size
    QSize m_aspect;
    QSize m_aspectBase;
    void applyAspect();
};

} // namespace zandor
