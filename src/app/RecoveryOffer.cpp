#include "RecoveryOffer.h"

#include "recording/VideoRecorder.h"

#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QTimer>
#include <QWidget>
#include <QWindow>

namespace zandor {

namespace {

// Waits for a window's first exposure: it is shown, then mapped by the window manager, which has
// placed it by the time the window is exposed.
class ExposureWatch final : public QObject {
public:
    ExposureWatch(QWidget* window, std::function<void()> then)
        : QObject(window), m_window(window), m_then(std::move(then)) {
        window->installEventFilter(this);
        watchHandle();
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (watched == m_window && event->type() == QEvent::Show) {
            watchHandle();
        } else if (watched == m_handle && event->type() == QEvent::Expose && m_handle->isExposed()) {
            done();
        }
        return false;
    }

private:
    void watchHandle() {
        if (m_handle || !m_window->windowHandle()) {
            return;
        }
        m_handle = m_window->windowHandle();
        m_handle->installEventFilter(this);
        if (m_handle->isExposed()) {
            done();
        }
    }
    void done() {
        if (m_done) {
            return;
        }
        m_done = true;
        m_window->removeEventFilter(this);
        if (m_handle) {
            m_handle->removeEventFilter(this);
        }
        // After the exposure is handled, so that the window has its place and size.
        QTimer::singleShot(0, m_window, std::move(m_then));
        deleteLater();
    }

    QWidget* const m_window;
    QPointer<QWindow> m_handle;
    std::function<void()> m_then;
    bool m_done = false;
};

} // namespace

void RecoveryOffer::whenShown(QWidget* window, std::function<void()> then) {
    new ExposureWatch(window, std::move(then));
}

void RecoveryOffer::open(QWidget* parent, const QStringList& bundles, std::function<void()> recover) {
    QStringList lines;
    for (const QString& bundle : bundles) {
        const auto recorder = VideoRecorder::forBundle(bundle);
        const auto seconds = recorder ? static_cast<int>((*recorder)->recordedSeconds()) : 0;
        lines << QStringLiteral("%1: %2").arg(QFileInfo(bundle).completeBaseName(),
                                              recorder
                                                  ? QString::asprintf("%d:%02d", seconds / 60, seconds % 60)
                                                  : QStringLiteral("nothing readable"));
    }
    auto* dialog =
        new QMessageBox(QMessageBox::Question, QStringLiteral("Zandor"),
                        QStringLiteral("Some recordings were not finished."), QMessageBox::NoButton, parent);
    dialog->setObjectName(QStringLiteral("recoveryWindow"));
    dialog->setInformativeText(
        QStringLiteral("Zandor ended while these recordings were made or finalized. Recover them now?\n\n%1")
            .arg(lines.join(u'\n')));
    QPushButton* recoverButton = dialog->addButton(QStringLiteral("Recover"), QMessageBox::AcceptRole);
    dialog->addButton(QStringLiteral("Later"), QMessageBox::RejectRole);
    QPushButton* removeButton = dialog->addButton(QStringLiteral("Delete"), QMessageBox::DestructiveRole);
    dialog->setDefaultButton(recoverButton);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(
        dialog, &QMessageBox::buttonClicked, dialog,
        [bundles, recover = std::move(recover), recoverButton, removeButton](QAbstractButton* button) {
            if (button == recoverButton) {
                recover();
            } else if (button == removeButton) {
                for (const QString& bundle : bundles) {
                    QDir(bundle).removeRecursively();
                }
            }
        });
    dialog->open();
}

RecoveryOffer::Outcome RecoveryOffer::outcome(const session::RecoveryDone& done) {
    if (!done.failed.isEmpty()) {
        return {QStringLiteral("Could not recover every recording."), done.failed.join(u'\n'), true};
    }
    return {QStringLiteral("The recordings were recovered."),
            QStringLiteral("%1 seconds were saved: %2")
                .arg(static_cast<int>(done.seconds))
                .arg(done.made.join(QStringLiteral(", "))),
            false};
}

} // namespace zandor
