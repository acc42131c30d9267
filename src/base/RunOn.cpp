#include "RunOn.h"

#include <QCoreApplication>
#include <QEvent>
#include <QPointer>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace zandor::detail {

namespace {

// One task on its way, owned by the event as Qt owns its queued calls: when the receiving thread
// ends before it gets to the event, Qt deletes the event and the task goes with it (which also
// ends a runAndWait's wait).
class TaskEvent final : public QEvent {
public:
    static inline const auto Type = static_cast<QEvent::Type>(QEvent::registerEventType());
    TaskEvent(QObject* context, std::unique_ptr<Task> task)
        : QEvent(Type), context(context), task(std::move(task)) {}
    QPointer<QObject> context;
    std::unique_ptr<Task> task;
};

// Receives one task event on the context's thread, runs it and goes. Everything the event holds is
// made before it is posted and touched after only on the receiving thread, so the hand-over is the
// event queue's alone. Qt is not built with ThreadSanitizer and its queue's locks are invisible
// to it; the two annotations say what the queue guarantees: what the sending thread did before
// posting happens before the task runs.
class Carrier final : public QObject {
public:
    void send(TaskEvent* event) {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(this);
#endif
        QCoreApplication::postEvent(this, event);
    }

protected:
    bool event(QEvent* event) override {
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(this);
#endif
        if (event->type() != TaskEvent::Type) {
            return QObject::event(event);
        }
        auto* task = static_cast<TaskEvent*>(event);
        if (task->context) {
            task->task->run();
        }
        // Its one event is being delivered and no other is posted to it: the carrier goes now,
        // as Qt's own deferred deletion does it, rather than by another trip through the queue.
        delete this;
        return true;
    }
};

} // namespace

void post(QObject* context, std::unique_ptr<Task> task) {
    auto* event = new TaskEvent(context, std::move(task));
    auto* carrier = new Carrier;
    carrier->moveToThread(context->thread());
    carrier->send(event);
}

} // namespace zandor::detail
