#pragma once

#include <QObject>
#include <QThread>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace zandor {

// Work handed from one thread to the thread a Qt object lives on: the GUI thread for widgets and
// controllers, the audio thread for the audio objects. These are the only ways the program does
// it.

namespace detail {

class Task {
public:
    virtual ~Task() = default;
    virtual void run() = 0;
};

template <class Work> class WorkTask final : public Task {
public:
    explicit WorkTask(Work work) : m_work(std::move(work)) {}
    void run() override { m_work(); }

private:
    Work m_work;
};

// Hands `task` to the thread of `context`, where it runs unless `context` is gone by then; the
// task is destroyed on that thread either way.
void post(QObject* context, std::unique_ptr<Task> task);

} // namespace detail

// Runs `work` on the thread of `context`, later, from any thread. Nothing runs when `context` is
// null (a QPointer whose object is gone) or is destroyed before its thread gets to the work.
template <class Work> void runLater(QObject* context, Work work) {
    if (context) {
        detail::post(context, std::make_unique<detail::WorkTask<Work>>(std::move(work)));
    }
}

// Runs `work` on the thread of `context` and waits for its result (a default one when `context`
// is destroyed before its thread got to the work). On that thread, or when that thread no longer
// runs (nothing else can touch the object then), `work` runs at once.
template <class Work> auto runAndWait(QObject* context, Work&& work) {
    using Result = decltype(work());
    if (context->thread() == QThread::currentThread() || !context->thread()->isRunning()) {
        return work();
    }
    struct Wait {
        std::mutex mutex;
        std::condition_variable ended;
        bool done = false; // guarded by mutex
    };
    // Ends the wait when the handed work is destroyed: after it ran, or unrun.
    struct Ender {
        std::shared_ptr<Wait> wait;
        explicit Ender(std::shared_ptr<Wait> w) : wait(std::move(w)) {}
        Ender(Ender&& other) noexcept : wait(std::move(other.wait)) {}
        Ender(const Ender&) = delete;
        ~Ender() {
            if (wait) {
                std::scoped_lock lock(wait->mutex);
                wait->done = true;
                wait->ended.notify_one();
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
