#pragma once

#include "PreferencePane.h"

#include <memory>

namespace zandor {

namespace Ui {
class GeneralPreferencesView;
}

// A pane for general settings: notifications of the files made, and whether the desktop binds
// Zandor's global shortcuts.
class GeneralPreferencesView : public PreferencePane {
    Q_OBJECT
public:
    explicit GeneralPreferencesView(QWidget* parent = nullptr);
    ~GeneralPreferencesView() override;

    QString identifier() const override;
    QString toolbarItemLabel() const override;
    QIcon toolbarItemImage() const override;

    // What the pane says of the global shortcuts: bound by the desktop, or why the in-window keys
    // are the only ones.
    void setGlobalShortcutsNote(const QString& text);

private:
    std::unique_ptr<Ui::GeneralPreferencesView> m_ui;
};

} // namespace zandor
