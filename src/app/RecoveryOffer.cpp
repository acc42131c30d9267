#include "RecoveryOffer.h"

#include "base/Log.h"
#include "recording/RecordingBundle.h"
#include "recording/VideoRecorder.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QFrame>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>

#include <algorithm>

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

namespace {

QLabel* label(const QString& text, QWidget* parent, bool heading = false) {
    auto* shown = new QLabel(text, parent);
    shown->setWordWrap(true);
    shown->setTextInteractionFlags(Qt::TextSelectableByMouse);
    if (heading) {
        QFont font = shown->font();
        font.setBold(true);
        shown->setFont(font);
    }
    return shown;
}

// Fills a section of the dialog, named `name` + "Section": its heading, what it says, and the
// recordings it lists, one a line (`name` + "List"). The section's buttons go into the layout returned.
QVBoxLayout* fillSection(QWidget* section, const char* name, const QString& heading, const QString& text,
                         const QStringList& lines) {
    section->setObjectName(QLatin1String(name) + QLatin1String("Section"));
    auto* box = new QVBoxLayout(section);
    box->setContentsMargins(0, 0, 0, 0);
    box->addWidget(label(heading, section, true));
    box->addWidget(label(text, section));
    QLabel* list = label(lines.join(u'\n'), section);
    list->setObjectName(QLatin1String(name) + QLatin1String("List"));
    box->addWidget(list);
    return box;
}

// "Capture 01_02_2026 10_00_00: 0:02", or what keeps it from being played.
QString lengthLine(const QString& bundle) {
    const auto recorder = VideoRecorder::forBundle(bundle);
    const auto seconds = recorder ? static_cast<int>((*recorder)->recordedSeconds()) : 0;
    return QStringLiteral("%1: %2").arg(QFileInfo(bundle).completeBaseName(),
                                        recorder ? QString::asprintf("%d:%02d", seconds / 60, seconds % 60)
                                                 : QStringLiteral("nothing readable"));
}

// Asks, window-modal on `dialog`, whether `bundles` are to be deleted; deletes them and calls
// `deleted` when the user says so, and does nothing else on Cancel.
void confirmDelete(QDialog* dialog, const QStringList& bundles, std::function<void()> deleted) {
    qint64 bytes = 0;
    for (const QString& bundle : bundles) {
        bytes += RecordingBundle::size(bundle);
    }
    auto* question =
        new QMessageBox(QMessageBox::Warning, QStringLiteral("Zandor"),
                        RecoveryOffer::deleteQuestion(bundles.size(), bytes), QMessageBox::NoButton, dialog);
    question->setObjectName(QStringLiteral("deleteConfirmation"));
    QPushButton* deleteButton = question->addButton(QStringLiteral("Delete"), QMessageBox::DestructiveRole);
    QPushButton* cancelButton = question->addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    // What cannot be undone is not what Return does.
    question->setDefaultButton(cancelButton);
    question->setEscapeButton(cancelButton);
    question->setWindowModality(Qt::WindowModal);
    question->setAttribute(Qt::WA_DeleteOnClose);
    QObject::connect(question, &QMessageBox::buttonClicked, dialog,
                     [bundles, deleteButton, deleted = std::move(deleted)](QAbstractButton* button) {
                         if (button != deleteButton) {
                             return;
                         }
                         for (const QString& bundle : bundles) {
                             // Not from under a recovery that holds it now (one started
                             // earlier, still running in the background).
                             RecordingBundle held;
                             Error error = held.open(bundle);
                             if (!error) {
                                 error = held.lock();
                             }
                             if (error || !QDir(bundle).removeRecursively()) {
                                 logs::app.error("Could not delete %s", qUtf8Printable(bundle));
                             }
                         }
                         deleted();
                     });
    question->open();
}

} // namespace

bool RecoveryOffer::anyRecoverable(const QStringList& bundles) {
    return std::any_of(bundles.begin(), bundles.end(),
                       [](const QString& bundle) { return !RecordingBundle::isUnrecoverable(bundle); });
}

QString RecoveryOffer::deleteQuestion(qsizetype count, qint64 bytes) {
    const QString size = QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
    return count == 1 ? QStringLiteral("Delete 1 unfinished recording (%1)? This cannot be undone.").arg(size)
                      : QStringLiteral("Delete %1 unfinished recordings (%2)? This cannot be undone.")
                            .arg(count)
                            .arg(size);
}

QDialog* RecoveryOffer::open(QWidget* parent, const QStringList& bundles, Actions actions) {
    QStringList recoverable, unrecoverable;
    for (const QString& bundle : bundles) {
        (RecordingBundle::isUnrecoverable(bundle) ? unrecoverable : recoverable).append(bundle);
    }
    auto* dialog = new QDialog(parent);
    dialog->setObjectName(QStringLiteral("recoveryWindow"));
    dialog->setWindowTitle(QStringLiteral("Zandor"));
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    auto* layout = new QVBoxLayout(dialog);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    // A section goes once its bundles are deleted; the dialog with the last one.
    const auto removeSection = [dialog](QWidget* section) {
        section->hide();
        section->deleteLater();
        if (auto* line = dialog->findChild<QFrame*>(QStringLiteral("sectionLine"))) {
            line->hide();
        }
        for (const char* name : {"recoverableSection", "unrecoverableSection"}) {
            const auto* other = dialog->findChild<QWidget*>(QLatin1String(name));
            if (other && other != section) {
                return;
            }
        }
        dialog->close();
    };

    if (!recoverable.isEmpty()) {
        auto* section = new QWidget(dialog);
        QStringList lines;
        for (const QString& bundle : recoverable) {
            lines << lengthLine(bundle);
        }
        QVBoxLayout* box = fillSection(
            section, "recoverable", QStringLiteral("Some recordings were not finished."),
            QStringLiteral("Zandor ended while these recordings were made or finalized. Recover them now?"),
            lines);
        auto* buttons = new QDialogButtonBox(section);
        QPushButton* recoverButton =
            buttons->addButton(QStringLiteral("Recover"), QDialogButtonBox::AcceptRole);
        QPushButton* deleteButton =
            buttons->addButton(QStringLiteral("Delete"), QDialogButtonBox::DestructiveRole);
        QPushButton* laterButton = buttons->addButton(QStringLiteral("Later"), QDialogButtonBox::RejectRole);
        recoverButton->setDefault(true);
        box->addWidget(buttons);
        layout->addWidget(section);
        QObject::connect(recoverButton, &QPushButton::clicked, dialog,
                         [dialog, recoverable, recover = actions.recover] {
                             dialog->close();
                             recover(recoverable);
                         });
        QObject::connect(laterButton, &QPushButton::clicked, dialog, &QDialog::close);
        QObject::connect(
            deleteButton, &QPushButton::clicked, dialog, [dialog, recoverable, section, removeSection] {
                confirmDelete(dialog, recoverable, [section, removeSection] { removeSection(section); });
            });
    }

    if (!unrecoverable.isEmpty()) {
        auto* section = new QWidget(dialog);
        if (!recoverable.isEmpty()) {
            // Set apart from what the Recover above acts on.
            auto* line = new QFrame(section);
            line->setObjectName(QStringLiteral("sectionLine"));
            line->setFrameShape(QFrame::HLine);
            line->setFrameShadow(QFrame::Sunken);
            layout->addSpacing(6);
            layout->addWidget(line);
            layout->addSpacing(6);
        }
        QStringList lines;
        for (const QString& bundle : unrecoverable) {
            lines << QFileInfo(bundle).completeBaseName();
        }
        QVBoxLayout* box =
            fillSection(section, "unrecoverable", QStringLiteral("Cannot be recovered"),
                        unrecoverable.size() == 1
                            ? QStringLiteral("This recording holds no picture or sound that can be played.")
                            : QStringLiteral("These recordings hold no picture or sound that can be played."),
                        lines);
        auto* buttons = new QDialogButtonBox(section);
        QPushButton* deleteButton =
            buttons->addButton(QStringLiteral("Delete"), QDialogButtonBox::DestructiveRole);
        QPushButton* showButton =
            buttons->addButton(QStringLiteral("Show in Folder"), QDialogButtonBox::ActionRole);
        // Return must not reach Delete when this section is the dialog's only one.
        deleteButton->setAutoDefault(false);
        showButton->setAutoDefault(false);
        box->addWidget(buttons);
        layout->addWidget(section);
        QObject::connect(showButton, &QPushButton::clicked, dialog,
                         [bundle = unrecoverable.first(), show = actions.showInFolder] { show(bundle); });
        QObject::connect(
            deleteButton, &QPushButton::clicked, dialog, [dialog, unrecoverable, section, removeSection] {
                confirmDelete(dialog, unrecoverable, [section, removeSection] { removeSection(section); });
            });
    }
    dialog->open();
    return dialog;
}

RecoveryOffer::Outcome RecoveryOffer::outcome(const session::RecoveryDone& done) {
    if (!done.failed.isEmpty()) {
        QString text = done.failed.join(u'\n');
        if (!done.unrecoverable.isEmpty()) {
            text += done.unrecoverable.size() == 1
                        ? QStringLiteral(
                              "\n\nThe recording that holds nothing playable stays listed in Capture > "
                              "Unfinished Recordings…, as \"Cannot be recovered\", until you delete it.")
                        : QStringLiteral(
                              "\n\nThe recordings that hold nothing playable stay listed in Capture > "
                              "Unfinished Recordings…, as \"Cannot be recovered\", until you delete them.");
        }
        return {QStringLiteral("Could not recover every recording."), text, true};
    }
    return {QStringLiteral("The recordings were recovered."),
            QStringLiteral("%1 seconds were saved: %2")
                .arg(static_cast<int>(done.seconds))
                .arg(done.made.join(QStringLiteral(", "))),
            false};
}

} // namespace zandor
