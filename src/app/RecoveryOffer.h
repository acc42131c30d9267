#pragma once

#include "session/CaptureSession.h"

#include <QString>
#include <QStringList>

#include <functional>

class QWidget;

namespace zandor {

// The recordings an earlier run left unfinished, offered to the user and reported on.
namespace RecoveryOffer {

// Calls `then` once `window` is on screen where the window manager put it: a dialog centred on it
// before then is centred on where the window asked to be, often the screen's corner.
void whenShown(QWidget* window, std::function<void()> then);

// Opens, window-modal on `parent`, one dialog listing `bundles` with their lengths: "Recover" calls
// `recover`, "Later" leaves them, "Delete" removes the listed bundles.
void open(QWidget* parent, const QStringList& bundles, std::function<void()> recover);

// What the user is told when recovering ended.
struct Outcome {
    QString title;
    QString text;
    bool failed = false;
};
Outcome outcome(const session::RecoveryDone& done);

} // namespace RecoveryOffer

} // namespace zandor
