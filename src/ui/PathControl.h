#pragma once

#include <QFrame>
#include <QString>

#include <vector>

class QHBoxLayout;
class QLabel;
class QToolButton;

namespace zandor {

// Shows a folder as a row of its path components, from the root down to the folder itself. Clicking
// a component tells which folder it stands for; the control does not change until setPath() is
// called. When the row is too wide, the leading components fold into a "…" button with a menu.
class PathControl : public QFrame {
    Q_OBJECT
public:
    explicit PathControl(QWidget* parent = nullptr);

    // Shows `folder`, made absolute and clean.
    void setPath(const QString& folder);
    const QString& path() const { return m_path; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

signals:
    // The user clicked the component standing for `folder` (the shown folder or one above it).
    void folderClicked(const QString& folder);

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Component {
        QString folder;
        QToolButton* button = nullptr;
        QLabel* chevron = nullptr; // before the button; none before the root
    };

    void fitComponents();
    // The width the components from `first` on take, with the fold button when `first` > 0.
    int rowWidth(size_t first) const;

    QString m_path;
    QHBoxLayout* m_row;
    QToolButton* m_fold;
    std::vector<Component> m_components;
};

} // namespace zandor
