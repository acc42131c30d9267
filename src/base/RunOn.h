#pragma once

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <type_traits>
#include <utility>

namespace zandor {

// Work handed from one thread to the thread a Qt object lives on: the GUI thread for widgets and
// controllers, the audio thread for the audio objects. These are the only ways the program does
// it.

// Runs `work` on the thread of `context`, later, from any thread. Nothing runs when `context` is
// null (a QPointer whose object is gone) or is destroyed before its thread gets to the work.
template <class Work> void runLater(QObject* context, Work work) {
    if (context) {
        QMetaObject::invokeMethod(context, std::move(work), Qt::QueuedConnection);
    }
}

// Runs `work` on the thread of `context` and waits for its result. On that thread, or when that
// thread no longer runs (nothing else can touch the object then), `work` runs at once.
template <class Work> auto runAndWait(QObject* context, Work&& work) {
    using Result = decltype(work());
    if (context->thread() == QThread::currentThread() || !context->thread()->isRunning()) {
        return work();
    }
    if constexpr (std::is_void_v<Result>) {
        QMetaObject::invokeMethod(context, std::forward<Work>(work), Qt::BlockingQueuedConnection);
    } else {
        Result result{};
        QMetaObject::invokeMethod(
            context, [&] { result = work(); }, Qt::BlockingQueuedConnection);
        return result;
    }
}

} // namespace zandor
