#include "GeneralPreferencesView.h"

#include "Icons.h"
#include "ui_GeneralPreferencesView.h"

namespace zandor {

GeneralPreferencesView::GeneralPreferencesView(QWidget* parent)
    : PreferencePane(parent), m_ui(std::make_unique<Ui::GeneralPreferencesView>()) {
    m_ui->setupUi(this);
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
