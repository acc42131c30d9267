#include "PreferencesWindow.h"

#include "PreferencePane.h"

#include <QAction>
#include <QActionGroup>
#include <QFrame>
#include <QKeyEvent>
#include <QSettings>
#include <QShortcut>
#include <QToolBar>
#include <QVBoxLayout>

#include <algorithm>

namespace zandor {
namespace {

const QString GeometryKey = QStringLiteral("PreferencesWindow/geometry");
const QString PaneKey = QStringLiteral("PreferencesWindow/pane");

// The window's state lives with the desktop's other per-application settings, apart from the
// preferences file.
QSettings storedWindowState() {
    return QSettings(QStringLiteral("Zandor"), QStringLiteral("Zandor"));
}

} // namespace

PreferencesWindow::PreferencesWindow(const QList<PreferencePane*>& panes, const QString& title,
                                     QWidget* parent)
    : QWidget(parent, Qt::Window), m_panes(panes) {
    setWindowTitle(title);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    // The window takes the size of the pane on show.
    column->setSizeConstraint(QLayout::SetFixedSize);

    m_toolbar = new QToolBar(this);
    m_toolbar->setObjectName(QStringLiteral("toolbar"));
    m_toolbar->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
    m_toolbar->setIconSize(QSize(32, 32));
    m_toolbar->setMovable(false);
    m_toolbar->setFloatable(false);
    column->addWidget(m_toolbar);
    auto* rule = new QFrame(this);
    rule->setFrameShape(QFrame::HLine);
    rule->setFrameShadow(QFrame::Sunken);
    column->addWidget(rule);

    m_paneActions = new QActionGroup(this);
    for (PreferencePane* pane : m_panes) {
        const QString identifier = pane->identifier();
        QAction* action = m_toolbar->addAction(pane->toolbarItemImage(), pane->toolbarItemLabel());
        action->setObjectName(identifier);
        action->setData(identifier);
        action->setCheckable(true);
        m_paneActions->addAction(action);
        connect(action, &QAction::triggered, this, [this, identifier] { selectPane(identifier); });
        pane->setParent(this);
        pane->hide();
        column->addWidget(pane);
    }

    // One width for all panes, so that the toolbar stays put; the height follows the pane on show.
    int width = 0;
    for (PreferencePane* pane : m_panes) {
        width = std::max(width, pane->sizeHint().width());
    }
    for (PreferencePane* pane : m_panes) {
        pane->setMinimumWidth(width);
    }

    new QShortcut(QKeySequence::Close, this, this, &QWidget::close);

    const QSettings state = storedWindowState();
    if (const QByteArray geometry = state.value(GeometryKey).toByteArray(); !geometry.isEmpty()) {
        restoreGeometry(geometry);
    }
    selectPane(state.value(PaneKey).toString());
    if (!m_current && !m_panes.isEmpty()) {
        selectPane(m_panes.first()->identifier());
    }
}

void PreferencesWindow::keyPressEvent(QKeyEvent* event) {
    // Escape closes the window only when no control took it first: an open drop-down list closes
    // itself and no more (a shortcut would fire before the list saw the key).
    if (event->matches(QKeySequence::Cancel)) {
        close();
        return;
    }
    QWidget::keyPressEvent(event);
}

PreferencesWindow::~PreferencesWindow() {
    // Quitting with the window open destroys it without hiding it first.
    if (isVisible()) {
        rememberGeometry();
    }
}

void PreferencesWindow::showWindow() {
    show();
    raise();
    activateWindow();
}

QString PreferencesWindow::currentIdentifier() const {
    return m_current ? m_current->identifier() : QString();
}

void PreferencesWindow::selectPane(const QString& identifier) {
    PreferencePane* chosen = nullptr;
    for (PreferencePane* pane : m_panes) {
        if (pane->identifier() == identifier) {
            chosen = pane;
            break;
        }
    }
    if (!chosen) {
        return;
    }
    for (QAction* action : m_paneActions->actions()) {
        action->setChecked(action->data().toString() == identifier);
    }
    if (chosen != m_current) {
        if (m_current) {
            m_current->hide();
        }
        chosen->show();
        m_current = chosen;
    }
    storedWindowState().setValue(PaneKey, identifier);
}

void PreferencesWindow::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    rememberGeometry();
}

void PreferencesWindow::rememberGeometry() const {
    storedWindowState().setValue(GeometryKey, saveGeometry());
}

} // namespace zandor
