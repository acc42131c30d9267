#include "RecoveryOffer.h"

#include "recording/VideoRecorder.h"

#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>

namespace zandor {

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
