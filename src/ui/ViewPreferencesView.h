#pragma once

#include "PreferencePane.h"

#include <QStringList>

#include <memory>

namespace zandor {

namespace Ui {
class ViewPreferencesView;
}

// The full-screen settings: which display, the largest scale, and the controls overlay.
class ViewPreferencesView : public PreferencePane {
    Q_OBJECT
public:
    // `screenNames`: the displays' names in the platform's order; two displays may share a name.
    explicit ViewPreferencesView(const QStringList& screenNames, QWidget* parent = nullptr);
    ~ViewPreferencesView() override;

    QString identifier() const override;
    QString toolbarItemLabel() const override;
    QIcon toolbarItemImage() const override;

private:
    void selectScreenAction(int index);
    void selectShowHUDAction(bool checked);
    void selectMaximalScaleAction(int index);

    std::unique_ptr<Ui::ViewPreferencesView> m_ui;
};

} // namespace zandor
