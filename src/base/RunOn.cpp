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

// Carries one task to its thread as an event of its own. Everything the carrier holds is made
// before it is posted and touched after only on the receiving thread, so the hand-over is the
// event queue's alone. Qt is not built with ThreadSanitizer and its queue's locks are invisible
// to it; the two annotations say what the queue guarantees: what the sending thread did before
// posting happens before the task runs.
class Carrier final : public QObject {
public:
    Carrier(QObject* context, std::unique_ptr<Task> task) : m_context(context), m_task(std::move(task)) {}

    void send() {
        auto* event = new QEvent(QEvent::User);
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
        if (event->type() != QEvent::User) {
            return QObject::event(event);
        }
        if (m_context) {
            m_task->run();
        }
        // Its one event is being delivered and no other is posted to it: the carrier goes now,
        // as Qt's own deferred deletion does it, rather than by another trip through the queue.
        delete this;
        return true;
    }

private:
    QPointer<QObject> m_context;
    std::unique_ptr<Task> m_task;
};

} // namespace

void post(QObject* context, std::unique_ptr<Task> task) {
    auto* carrier = new Carrier(context, std::move(task));
    carrier->moveToThread(context->thread());
    carrier->send();
}

} // namespace zandor::detail
