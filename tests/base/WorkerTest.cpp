// The threads' primitives: the owned Worker, the Wakeup it sleeps on, and Guarded state.

#include "base/Guarded.h"
#include "base/Log.h"
#include "base/Wakeup.h"
#include "base/Worker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace zandor {
namespace {

using namespace std::chrono_literals;

// A gate a body waits at until the test opens it.
class Gate {
public:
    void open() {
        std::scoped_lock lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void pass() {
        std::unique_lock lock(m_mutex);
        m_arrived = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }
    bool waitForArrival() {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, 20s, [this] { return m_arrived; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
    bool m_arrived = false;
};

TEST(Wakeup, ASignalIsKeptUntilTheNextWaitWhichClearsIt) {
    Wakeup wakeup;
    EXPECT_FALSE(wakeup.wait(1ms)) << "woken without a signal";
    wakeup.signal();
    wakeup.signal();
    EXPECT_TRUE(wakeup.wait(20s)) << "a signal before the wait was lost";
    EXPECT_FALSE(wakeup.wait(1ms)) << "two signals woke two waits: not reset";
    std::thread signaller([&] { wakeup.signal(); });
    EXPECT_TRUE(wakeup.wait(20s));
    signaller.join();
}

// After a stop, the old thread never sees itself active again, not even when it outlives a join and
// a new run has begun meanwhile; the new run is active. A join is bounded and says when it gave up;
// the thread is joined later, never dropped, and what its body held is let go once it has ended.
TEST(Worker, AStoppedRunStaysStoppedWhenANewOneStartsBeforeItsThreadEnded) {
    LogCapture log;
    Worker worker("test-worker", 50ms);
    Gate gate;
    std::atomic<int> oldRunActiveAfterRestart{-1};
    Wakeup looked;
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> watched = held;
    worker.start([&, held = std::move(held)](const Worker::Run& run) {
        gate.pass();
        oldRunActiveAfterRestart = run.active();
        looked.signal();
    });
    ASSERT_TRUE(gate.waitForArrival());
    worker.stop();
    // The old thread is held at the gate: the start's join times out and says so.
    std::atomic<bool> newRunActive{false};
    Wakeup started;
    worker.start([&](const Worker::Run& run) {
        newRunActive = run.active();
        started.signal();
        while (run.wait(20s)) {
        }
    });
    ASSERT_TRUE(started.wait(20s));
    EXPECT_TRUE(newRunActive);
    EXPECT_EQ(worker.generation(), 2u);
    EXPECT_EQ(Worker::running(), 2);
    EXPECT_EQ(log.count("The thread test-worker did not end within 50 ms"), 1u);
    EXPECT_FALSE(worker.join(10ms));
    EXPECT_EQ(log.count("The thread test-worker did not end within 10 ms"), 2u) << "one line a thread";

    // The old thread looks while the new run goes on.
    gate.open();
    ASSERT_TRUE(looked.wait(20s));
    EXPECT_EQ(oldRunActiveAfterRestart, 0) << "the old thread acted for the new run";
    EXPECT_TRUE(worker.stopAndJoin(20s));
    EXPECT_EQ(Worker::running(), 0);
    EXPECT_TRUE(watched.expired()) << "the body's captures outlived its thread";
}

// A body may stop and join its own worker (a recorder that finishes stops itself), and an owner
// let go by its own thread is destroyed there: neither waits for itself.
TEST(Worker, ItsOwnThreadMayStopJoinAndDestroyIt) {
    // Shared with the thread, which may still be in signal() when the wait returns.
    const auto ended = std::make_shared<Wakeup>();
    {
        auto worker = std::make_shared<Worker>("test-self");
        Worker* raw = worker.get();
        raw->start([worker = std::move(worker), ended](const Worker::Run& run) mutable {
            EXPECT_TRUE(worker->stopAndJoin(20s));
            EXPECT_FALSE(run.active());
            worker.reset(); // the last reference: the worker goes on its own thread
            ended->signal();
        });
    }
    ASSERT_TRUE(ended->wait(20s));
}

TEST(Guarded, StateIsReachedOnlyUnderItsLock) {
    struct Counts {
        long a = 0;
        long b = 0;
    };
    Guarded<Counts> counts;
    auto add = [&counts] {
        for (int i = 0; i < 100000; ++i) {
            auto locked = counts.lock();
            ++locked->a;
            locked->b = locked->a; // torn unless the two happen under one lock
        }
    };
    std::thread other(add);
    add();
    other.join();
    const auto& constant = counts;
    auto locked = constant.lock();
    EXPECT_EQ(locked->a, 200000);
    EXPECT_EQ(locked->b, 200000);
}

} // namespace
} // namespace zandor
