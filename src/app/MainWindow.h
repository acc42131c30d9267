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

protected:
    void closeEvent(QCloseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    bool m_correcting = false;
};

} // namespace zandor
