#pragma once

#include <QIcon>
#include <QString>
#include <QWidget>

namespace zandor {

// A page of the preferences window. Its controls write their settings the moment the user changes
// them; the window needs only the three toolbar values and the widget itself.
class PreferencePane : public QWidget {
    Q_OBJECT
public:
    using QWidget::QWidget;

    // Names the pane among the window's panes, and in the remembered window state.
    virtual QString identifier() const = 0;
    virtual QString toolbarItemLabel() const = 0;
    virtual QIcon toolbarItemImage() const = 0;
};

} // namespace zandor
