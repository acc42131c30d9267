#pragma once

#include <QList>
#include <QString>
#include <QWidget>

class QActionGroup;
class QToolBar;

namespace zandor {

class PreferencePane;

// A window with a toolbar button per pane that shows one pane at a time, sized to that pane. It
// remembers its position and its last pane across runs.
class PreferencesWindow : public QWidget {
    Q_OBJECT
public:
    // Takes the panes, in toolbar order; without a remembered pane the first is shown.
    PreferencesWindow(const QList<PreferencePane*>& panes, const QString& title, QWidget* parent = nullptr);
    ~PreferencesWindow() override;

    // Shows the window and brings it to the front.
    void showWindow();
    // The identifier of the pane on show; empty without panes.
    QString currentIdentifier() const;
    // Shows the pane of that identifier; an unknown identifier changes nothing.
    void selectPane(const QString& identifier);

protected:
    void hideEvent(QHideEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void rememberGeometry() const;

    QList<PreferencePane*> m_panes;
    QToolBar* m_toolbar;
    QActionGroup* m_paneActions;
    PreferencePane* m_current = nullptr;
};

} // namespace zandor
