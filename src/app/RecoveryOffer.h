#pragma once

#include "session/CaptureSession.h"

#include <QString>
#include <QStringList>

#include <functional>

class QDialog;
class QWidget;

namespace zandor {

// The recordings an earlier run left unfinished, offered to the user and reported on.
namespace RecoveryOffer {

// Calls `then` once `window` is on screen where the window manager put it: a dialog centred on it
// before then is centred on where the window asked to be, often the screen's corner.
void whenShown(QWidget* window, std::function<void()> then);

// What the dialog's buttons ask of its owner.
struct Actions {
    std::function<void(const QStringList& bundles)> recover;
    std::function<void(const QString& bundle)> showInFolder;
};

// Opens, window-modal on `parent` and over it, one dialog listing `bundles`: those that may be
// recovered with their lengths ("Recover", "Later", or "Delete" once confirmed), and apart, as
// "Cannot be recovered", those a recovery found nothing playable in ("Delete" once confirmed,
// "Show in Folder"). The dialog closes itself once nothing is left in it.
QDialog* open(QWidget* parent, const QStringList& bundles, Actions actions);

// Whether the dialog is worth opening by itself at start: some bundle may still be recovered.
bool anyRecoverable(const QStringList& bundles);

// The question asked before `count` unfinished recordings of `bytes` together are deleted.
QString deleteQuestion(qsizetype count, qint64 bytes);

// What the user is told when recovering ended.
struct Outcome {
    QString title;
    QString text;
    bool failed = false;
};
Outcome outcome(const session::RecoveryDone& done);

} // namespace RecoveryOffer

} // namespace zandor
