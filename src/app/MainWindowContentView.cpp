#include "MainWindowContentView.h"

#include <QPainter>

namespace zandor {

MainWindowContentView::MainWindowContentView(QWidget* parent) : QWidget(parent) {
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

void MainWindowContentView::setBackground(const QColor& color) {
    m_background = color;
    update();
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
