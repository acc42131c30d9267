#pragma once

#include "PreferencePane.h"

#include <memory>

namespace zandor {

namespace Ui {
class GeneralPreferencesView;
}

// A pane for general settings. It has none yet, so the preferences window does not show it.
class GeneralPreferencesView : public PreferencePane {
    Q_OBJECT
public:
    explicit GeneralPreferencesView(QWidget* parent = nullptr);
    ~GeneralPreferencesView() override;

    QString identifier() const override;
    QString toolbarItemLabel() const override;
    QIcon toolbarItemImage() const override;

private:
    std::unique_ptr<Ui::GeneralPreferencesView> m_ui;
};

} // namespace zandor
