#pragma once

#include <QMetaObject>
#include <QObject>
#include <QThread>

#include <condition_variable>
#include <mutex>
#include <memory>
#include <type_traits>
#include <utility>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace zandor {

// Work handed from one thread to the thread a Qt object lives on: the GUI thread for widgets and
// controllers, the audio thread for the audio objects. These are the only ways the program does
// it.

namespace detail {

// Qt's event queue hands work over under its own locks, which ThreadSanitizer does not see (Qt is
// not built with it). These two tell it what the queue guarantees: everything the sending thread
// did before the hand-over happens before the work runs. No-ops in other builds.
inline void handOver([[maybe_unused]] QObject* context) {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(context);
#endif
}
inline void takeOver([[maybe_unused]] QObject* context) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(context);
#endif
}

} // namespace detail

// Runs `work` on the thread of `context`, later, from any thread. Nothing runs when `context` is
// null (a QPointer whose object is gone) or is destroyed before its thread gets to the work.
template <class Work> void runLater(QObject* context, Work work) {
    if (context) {
        detail::handOver(context);
        QMetaObject::invokeMethod(
            context,
            [context, work = std::move(work)]() mutable {
                detail::takeOver(context);
                work();
            },
            Qt::QueuedConnection);
    }
}

// Runs `work` on the thread of `context` and waits for its result (a default one when `context`
// is destroyed before its thread got to the work). On that thread, or when that thread no longer
// runs (nothing else can touch the object then), `work` runs at once. The wait is on a condition
// variable of our own rather than Qt's blocking connection, so that the thread checkers see the
// result handed back too.
template <class Work> auto runAndWait(QObject* context, Work&& work) {
    using Result = decltype(work());
    if (context->thread() == QThread::currentThread() || !context->thread()->isRunning()) {
        return work();
    }
    struct Wait {
        std::mutex mutex;
        std::condition_variable ended;
        bool done = false; // guarded by mutex
        void end() {
            std::scoped_lock lock(mutex);
            done = true;
            ended.notify_one();
        }
    };
    // Ends the wait when the posted work has run, or when Qt drops it unrun.
    struct Ender {
        std::shared_ptr<Wait> wait;
        explicit Ender(std::shared_ptr<Wait> w) : wait(std::move(w)) {}
        Ender(Ender&& other) noexcept : wait(std::move(other.wait)) {}
        Ender(const Ender&) = delete;
        ~Ender() {
            if (wait) {
                wait->end();
            }
        }
    };
    auto wait = std::make_shared<Wait>();
    std::conditional_t<std::is_void_v<Result>, bool, Result> result{};
    runLater(context, [&work, &result, ender = Ender(wait)] {
        if constexpr (std::is_void_v<Result>) {
            work();
        } else {
            result = work();
        }
    });
    std::unique_lock lock(wait->mutex);
    wait->ended.wait(lock, [&] { return wait->done; });
    if constexpr (!std::is_void_v<Result>) {
        return result;
    }
}

} // namespace zandor
