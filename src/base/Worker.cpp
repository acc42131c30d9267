#include "Worker.h"

#include "Log.h"

#include <atomic>
#include <condition_variable>
#include <pthread.h>

namespace zandor {

namespace {

std::atomic<int> g_running{0};

} // namespace

struct Worker::Run::State {
    mutable std::mutex mutex;
    uint64_t generation = 0; // guarded by mutex
    bool active = false;     // guarded by mutex
    const std::shared_ptr<Wakeup> wakeup = std::make_shared<Wakeup>();
};

// One started thread and its end, which the thread marks as its very last act.
struct Worker::Thread {
    struct End {
        std::mutex mutex;
        std::condition_variable ended;
        bool done = false; // guarded by mutex
    };
    std::thread thread;
    std::shared_ptr<End> end = std::make_shared<End>();
};

bool Worker::Run::active() const {
    std::scoped_lock lock(m_state->mutex);
    return m_state->active && m_state->generation == m_generation;
}

bool Worker::Run::wait(std::chrono::nanoseconds timeout) const {
    if (!active()) {
        return false;
    }
    m_state->wakeup->wait(timeout);
    return active();
}

Worker::Worker(std::string name, std::chrono::milliseconds joinTimeout)
    : m_name(std::move(name)), m_joinTimeout(joinTimeout), m_state(std::make_shared<Run::State>()) {}

Worker::~Worker() {
    stop();
    std::scoped_lock lock(m_threadsMutex);
    for (auto& thread : m_threads) {
        if (thread->thread.get_id() == std::this_thread::get_id()) {
            // The owner is destroyed by its own thread letting go of it: the thread ends right after.
            thread->thread.detach();
        } else if (!joinThread(*thread, m_joinTimeout)) {
            // Destroying the worker under its running thread would be worse than waiting.
            thread->thread.join();
        }
    }
}

void Worker::start(std::function<void(const Run&)> body) {
    // A thread of an earlier run that does not end in time is logged by join() and no longer acts
    // for the worker (its generation is over): the new run starts beside it, and it is joined later.
    static_cast<void>(join(m_joinTimeout));
    uint64_t generation;
    {
        std::scoped_lock lock(m_state->mutex);
        generation = ++m_state->generation;
        m_state->active = true;
    }
    // The record is in place before the thread runs, and the lock is held until the thread is
    // stored in it: a body that drops the last reference to its owner (and so the worker) waits for
    // this in the destructor's join, instead of the worker being gone while start() still uses it.
    std::scoped_lock lock(m_threadsMutex);
    m_threads.push_back(std::make_unique<Thread>());
    Thread& thread = *m_threads.back();
    ++g_running;
    thread.thread = std::thread([name = m_name.substr(0, 15), end = thread.end, body = std::move(body),
                                 run = Run(m_state, generation)]() mutable {
        pthread_setname_np(pthread_self(), name.c_str());
        body(run);
        // What the body holds (perhaps the last reference to the worker's owner) goes before the
        // thread counts as ended.
        body = nullptr;
        --g_running;
        std::scoped_lock lock(end->mutex);
        end->done = true;
        end->ended.notify_all();
    });
}

void Worker::stop() {
    {
        std::scoped_lock lock(m_state->mutex);
        m_state->active = false;
    }
    m_state->wakeup->signal();
}

bool Worker::joinThread(Thread& thread, std::chrono::milliseconds timeout) {
    std::unique_lock lock(thread.end->mutex);
    if (!thread.end->ended.wait_for(lock, timeout, [&thread] { return thread.end->done; })) {
        logs::base.error("The thread %s did not end within %lld ms", m_name.c_str(),
                         static_cast<long long>(timeout.count()));
        return false;
    }
    lock.unlock();
    thread.thread.join();
    return true;
}

bool Worker::join(std::chrono::milliseconds timeout) {
    std::scoped_lock lock(m_threadsMutex);
    bool joined = true;
    for (auto it = m_threads.begin(); it != m_threads.end();) {
        if ((*it)->thread.get_id() == std::this_thread::get_id()) {
            ++it; // the caller is this thread, which is ending; a later join or the destructor ends it
        } else if (joinThread(**it, timeout)) {
            it = m_threads.erase(it);
        } else {
            joined = false;
            ++it;
        }
    }
    return joined;
}

bool Worker::stopAndJoin(std::chrono::milliseconds timeout) {
    stop();
    return join(timeout);
}

bool Worker::isActive() const {
    std::scoped_lock lock(m_state->mutex);
    return m_state->active;
}

uint64_t Worker::generation() const {
    std::scoped_lock lock(m_state->mutex);
    return m_state->generation;
}

const std::shared_ptr<Wakeup>& Worker::wakeup() const {
    return m_state->wakeup;
}

int Worker::running() {
    return g_running;
}

} // namespace zandor
