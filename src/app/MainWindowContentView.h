#pragma once

#include <QColor>
#include <QKeyEvent>
#include <QWidget>

#include <memory>

namespace zandor {

using KeyEventPtr = std::shared_ptr<QKeyEvent>;

// The main window's content: paints the active layout's background colour over its area and turns
// every key press into one "MainWindowContentViewKeyNotification", the event under
// "MainWindowContentViewKeyEvent".
class MainWindowContentView : public QWidget {
    Q_OBJECT
public:
    explicit MainWindowContentView(QWidget* parent = nullptr);

    const QColor& background() const { return m_background; }
    void setBackground(const QColor& color);

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QColor m_background = Qt::black;
};

} // namespace zandor

Q_DECLARE_METATYPE(zandor::KeyEventPtr)
