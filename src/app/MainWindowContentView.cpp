#include "MainWindowContentView.h"

#include <QPainter>

#include <algorithm>

namespace zandor {

MainWindowContentView::MainWindowContentView(QWidget* parent) : QWidget(parent) {
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

void MainWindowContentView::setBackground(const QColor& color) {
    m_background = color;
    update();
}

void MainWindowContentView::setBackground(const std::optional<Color>& color) {
    QColor shown = Qt::black;
    if (color) {
        auto clamp = [](double component) { return static_cast<float>(std::clamp(component, 0.0, 1.0)); };
        shown = QColor::fromRgbF(clamp(color->red), clamp(color->green), clamp(color->blue));
    }
    QPalette colors = palette();
    colors.setColor(QPalette::Window, shown);
    setPalette(colors);
    setBackground(shown);
}

void MainWindowContentView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), m_background);
}

void MainWindowContentView::keyPressEvent(QKeyEvent* event) {
    // Not passed on: every key press is the main controller's to handle.
    emit keyPressed(*event);
    event->accept();
}

} // namespace zandor
