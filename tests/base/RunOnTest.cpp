#include "base/RunOn.h"
#include "base/Wakeup.h"

#include <gtest/gtest.h>

#include <QObject>
#include <QThread>

#include <memory>

namespace zandor {
namespace {

struct EventThread : QThread {
    EventThread() { start(); }
    ~EventThread() override {
        quit();
        wait();
    }
};

// Work handed to an object's thread runs there, in order, and runAndWait brings its result back;
// work for an object destroyed before its thread got to it does not run; a thread that no longer
// runs cannot take work, so runAndWait does it at once.
TEST(RunOn, WorkRunsOnTheObjectsThreadOnlyWhileTheObjectLives) {
    EventThread thread;
    auto context = std::make_unique<QObject>();
    context->moveToThread(&thread);
    std::vector<int> order;
    runLater(context.get(), [&order] { order.push_back(1); });
    const QThread* ranOn = runAndWait(context.get(), [&order] {
        order.push_back(2);
        return QThread::currentThread();
    });
    EXPECT_EQ(ranOn, &thread);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));

    // The thread is held while the work is handed over, so the object lives at every hand-over
    // and is gone before the thread gets to the last one.
    bool ran = false;
    Wakeup gate;
    QObject* raw = context.get();
    runLater(raw, [&gate] { gate.wait(std::chrono::seconds(20)); });
    runLater(raw, [&context] { context.reset(); });
    runLater(raw, [&ran] { ran = true; });
    gate.signal();
    // A round trip through the thread's queue: everything queued before it has been handled.
    QObject probe;
    probe.moveToThread(&thread);
    runAndWait(&probe, [] {});
    EXPECT_FALSE(context);
    EXPECT_FALSE(ran) << "work ran for an object that was gone";
    runAndWait(&probe, [&probe] { probe.moveToThread(nullptr); });

    thread.quit();
    thread.wait();
    QObject stranded;
    stranded.moveToThread(&thread);
    EXPECT_EQ(runAndWait(&stranded, [] { return 7; }), 7);
}

} // namespace
} // namespace zandor
