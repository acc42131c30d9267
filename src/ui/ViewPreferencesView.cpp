#include "ViewPreferencesView.h"

#include "Icons.h"
#include "settings/Settings.h"
#include "settings/PreferencesController.h"
#include "ui_ViewPreferencesView.h"

namespace zandor {

ViewPreferencesView::ViewPreferencesView(const QStringList& screenNames, QWidget* parent)
    : PreferencePane(parent), m_ui(std::make_unique<Ui::ViewPreferencesView>()) {
    m_ui->setupUi(this);
    auto& preferences = PreferencesController::instance();

    // With no display chosen (the empty default) nothing is selected, and full screen uses the main
    // display, which the placeholder says. Of two displays of the stored name the last is selected.
    const QString screen = settings::fullscreenScreen.read(preferences);
    int selected = -1;
    for (const QString& name : screenNames) {
        m_ui->screenPopup->addItem(name);
        if (name == screen) {
            selected = m_ui->screenPopup->count() - 1;
        }
    }
    m_ui->screenPopup->setCurrentIndex(selected);

    m_ui->fullscreenhudEnableButton->setChecked(settings::fullscreenHudEnabled.read(preferences));

    // The items are in scale order, "No limit" first: an item's tag is its scale, 0 for no limit. A
    // stored scale no item has leaves the interface's choice.
    for (int i = 0; i < m_ui->fullscreenMaxScale->count(); ++i) {
        m_ui->fullscreenMaxScale->setItemData(i, qint64(i));
    }
    const qint64 scale = settings::fullscreenMaxScale.read(preferences);
    if (const int index = m_ui->fullscreenMaxScale->findData(scale); index >= 0) {
        m_ui->fullscreenMaxScale->setCurrentIndex(index);
    }

    // Only the user's own choices write: these signals do not fire while the controls are filled.
    connect(m_ui->screenPopup, &QComboBox::activated, this, &ViewPreferencesView::selectScreenAction);
    connect(m_ui->fullscreenhudEnableButton, &QCheckBox::clicked, this,
            &ViewPreferencesView::selectShowHUDAction);
    connect(m_ui->fullscreenMaxScale, &QComboBox::activated, this,
            &ViewPreferencesView::selectMaximalScaleAction);
}

ViewPreferencesView::~ViewPreferencesView() = default;

QString ViewPreferencesView::identifier() const {
    return QStringLiteral("View");
}
QString ViewPreferencesView::toolbarItemLabel() const {
    return tr("View");
}
QIcon ViewPreferencesView::toolbarItemImage() const {
    return icon(QStringLiteral("toolbar_view"));
}

void ViewPreferencesView::selectScreenAction(int index) {
    settings::fullscreenScreen.write(PreferencesController::instance(), m_ui->screenPopup->itemText(index));
}

void ViewPreferencesView::selectShowHUDAction(bool checked) {
    settings::fullscreenHudEnabled.write(PreferencesController::instance(), checked);
}

void ViewPreferencesView::selectMaximalScaleAction(int index) {
    settings::fullscreenMaxScale.write(PreferencesController::instance(),
                                       m_ui->fullscreenMaxScale->itemData(index).toInt());
}

} // namespace zandor
