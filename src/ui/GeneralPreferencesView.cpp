#include "GeneralPreferencesView.h"

#include "Icons.h"
#include "settings/PreferencesController.h"
#include "settings/Settings.h"
#include "ui_GeneralPreferencesView.h"

namespace zandor {

GeneralPreferencesView::GeneralPreferencesView(QWidget* parent)
    : PreferencePane(parent), m_ui(std::make_unique<Ui::GeneralPreferencesView>()) {
    m_ui->setupUi(this);
    m_ui->notifyCheckBox->setChecked(settings::notifyOnSave.read(PreferencesController::instance()));
    connect(m_ui->notifyCheckBox, &QCheckBox::clicked, this,
            [](bool checked) { settings::notifyOnSave.write(PreferencesController::instance(), checked); });
    m_ui->globalShortcutsNote->hide();
}

void GeneralPreferencesView::setGlobalShortcutsNote(const QString& text) {
    m_ui->globalShortcutsNote->setText(text);
    m_ui->globalShortcutsNote->setVisible(!text.isEmpty());
}

GeneralPreferencesView::~GeneralPreferencesView() = default;

QString GeneralPreferencesView::identifier() const {
    return QStringLiteral("General");
}
QString GeneralPreferencesView::toolbarItemLabel() const {
    return tr("General");
}
QIcon GeneralPreferencesView::toolbarItemImage() const {
    return icon(QStringLiteral("toolbar_preferences"));
}

} // namespace zandor
