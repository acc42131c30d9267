#pragma once

#include <QColor>
#include <QKeyEvent>
#include <QWidget>

namespace zandor {

// The main window's content: paints the active layout's background colour over its area and hands
// every key press to whoever listens to keyPressed.
class MainWindowContentView : public QWidget {
    Q_OBJECT
public:
    explicit MainWindowContentView(QWidget* parent = nullptr);

    const QColor& background() const { return m_background; }
    void setBackground(const QColor& color);

signals:
    void keyPressed(const QKeyEvent& event);

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QColor m_background = Qt::black;
};

} // namespace zandor
