#include "PathControl.h"

#include <QDir>
#include <QFileIconProvider>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QToolButton>

#include <algorithm>

namespace zandor {
namespace {

QToolButton* componentButton(QWidget* parent) {
    auto* button = new QToolButton(parent);
    button->setAutoRaise(true);
    button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    button->setIconSize(QSize(16, 16));
    button->setFocusPolicy(Qt::TabFocus);
    return button;
}

QString componentTitle(const QString& folder) {
    const QString name = QDir(folder).dirName();
    return name.isEmpty() ? QStringLiteral("/") : name;
}

} // namespace

PathControl::PathControl(QWidget* parent) : QFrame(parent) {
    setFrameStyle(QFrame::StyledPanel | QFrame::Sunken);
    setBackgroundRole(QPalette::Base);
    setAutoFillBackground(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);

    m_row = new QHBoxLayout(this);
    m_row->setContentsMargins(2, 0, 2, 0);
    m_row->setSpacing(0);
    // The row folds to fit the control; its full width must not become the control's minimum.
    m_row->setSizeConstraint(QLayout::SetNoConstraint);
    m_fold = componentButton(this);
    m_fold->setText(QStringLiteral("…"));
    m_fold->setToolButtonStyle(Qt::ToolButtonTextOnly);
    m_fold->setPopupMode(QToolButton::InstantPopup);
    m_fold->setMenu(new QMenu(m_fold));
    m_fold->setStyleSheet(QStringLiteral("QToolButton::menu-indicator { image: none; }"));
    m_fold->hide();
    m_row->addWidget(m_fold);
    m_row->addStretch(1);
}

void PathControl::setPath(const QString& folder) {
    m_path = QDir::cleanPath(QDir(folder).absolutePath());
    // A click on a component may lead here while that button is still handling it: the old row goes
    // once control is back in the event loop.
    for (const Component& component : m_components) {
        for (QWidget* widget :
             {static_cast<QWidget*>(component.button), static_cast<QWidget*>(component.chevron)}) {
            if (widget) {
                widget->hide();
                widget->deleteLater();
            }
        }
    }
    m_components.clear();

    // From the folder up to the root, by name alone: the folder need not exist.
    std::vector<QString> folders{m_path};
    while (!QDir(folders.back()).isRoot()) {
        folders.push_back(QDir::cleanPath(folders.back() + QStringLiteral("/..")));
    }
    const QFileIconProvider icons;
    int index = 1; // after the fold button
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) {
        Component component{*folder};
        if (!m_components.empty()) {
            component.chevron = new QLabel(QStringLiteral("›"), this);
            component.chevron->setEnabled(false); // drawn in the muted text colour
            component.chevron->setContentsMargins(1, 0, 1, 0);
            m_row->insertWidget(index++, component.chevron);
        }
        component.button = componentButton(this);
        component.button->setText(componentTitle(*folder));
        component.button->setIcon(icons.icon(QFileInfo(*folder)));
        component.button->setToolTip(*folder);
        connect(component.button, &QToolButton::clicked, this,
                [this, clicked = *folder] { emit folderClicked(clicked); });
        m_row->insertWidget(index++, component.button);
        m_components.push_back(component);
    }
    updateGeometry();
    fitComponents();
}

int PathControl::rowWidth(size_t first) const {
    const QMargins margins = m_row->contentsMargins() + contentsMargins();
    int width = margins.left() + margins.right();
    if (first > 0) {
        width += m_fold->sizeHint().width();
    }
    for (size_t i = first; i < m_components.size(); ++i) {
        if (m_components[i].chevron && (i > first || first > 0)) {
            width += m_components[i].chevron->sizeHint().width();
        }
        width += m_components[i].button->sizeHint().width();
    }
    return width;
}

void PathControl::fitComponents() {
    if (m_components.empty()) {
        m_fold->hide();
        return;
    }
    size_t first = 0;
    while (first + 1 < m_components.size() && rowWidth(first) > width()) {
        ++first;
    }
    // As above: the action being triggered may be one of these.
    QMenu* menu = m_fold->menu();
    for (QAction* action : menu->actions()) {
        menu->removeAction(action);
        action->deleteLater();
    }
    for (size_t i = 0; i < m_components.size(); ++i) {
        const Component& component = m_components[i];
        component.button->setVisible(i >= first);
        if (component.chevron) {
            component.chevron->setVisible(i >= first);
        }
        if (i < first) {
            QAction* action = menu->addAction(component.button->icon(), component.button->text());
            connect(action, &QAction::triggered, this,
                    [this, clicked = component.folder] { emit folderClicked(clicked); });
        }
    }
    m_fold->setVisible(first > 0);
}

QSize PathControl::sizeHint() const {
    int height = m_fold->sizeHint().height();
    for (const Component& component : m_components) {
        height = std::max(height, component.button->sizeHint().height());
    }
    const QMargins margins = m_row->contentsMargins() + contentsMargins();
    // A long path asks for no more than a usual field's width; its leading components fold.
    return {std::clamp(rowWidth(0), 120, 360), height + margins.top() + margins.bottom()};
}

QSize PathControl::minimumSizeHint() const {
    const size_t last = m_components.empty() ? 0 : m_components.size() - 1;
    return {std::min(rowWidth(last), 240), sizeHint().height()};
}

void PathControl::resizeEvent(QResizeEvent* event) {
    QFrame::resizeEvent(event);
    fitComponents();
}

} // namespace zandor
