#pragma once

#include "layouts/LayoutPlugin.h"

#include <QColor>
#include <QKeyEvent>
#include <QWidget>

#include <optional>

namespace zandor {

// The main window's content: paints the active layout's background colour over its area and hands
// every key press to whoever listens to keyPressed.
class MainWindowContentView : public QWidget {
    Q_OBJECT
public:
    explicit MainWindowContentView(QWidget* parent = nullptr);

    const QColor& background() const { return m_background; }
    void setBackground(const QColor& color);
    // A layout's background, black when it has none; the window around takes it too.
    void setBackground(const std::optional<Color>& color);

signals:
    void keyPressed(const QKeyEvent& event);

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QColor m_background = Qt::black;
};

} // namespace zandor
