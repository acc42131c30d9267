// The cost of handing work to a Qt thread, as the layout view's feeder does for every frame: our
// runLater against Qt's own queued call of a function object, each measured as a round trip (post,
// run on the other thread's event loop, wake the sender).

#include "base/RunOn.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QThread>

#include <condition_variable>
#include <mutex>

using namespace zandor;

namespace {

struct Target {
    Target() {
        static int argc = 1;
        static char name[] = "app_bench";
        static char* argv[] = {name, nullptr};
        static QCoreApplication application(argc, argv);
        thread.start();
        receiver.moveToThread(&thread);
    }
    ~Target() {
        thread.quit();
        thread.wait();
    }
    QThread thread;
    QObject receiver;
};

struct RoundTrip {
    std::mutex mutex;
    std::condition_variable ran;
    bool done = false; // guarded by mutex
    void arrive() {
        std::scoped_lock lock(mutex);
        done = true;
        ran.notify_one();
    }
    void await() {
        std::unique_lock lock(mutex);
        ran.wait(lock, [this] { return done; });
        done = false;
    }
};

template <class Post> void handOver(benchmark::State& state, Post post) {
    Target target;
    RoundTrip trip;
    for (auto _ : state) {
        post(&target.receiver, [&trip] { trip.arrive(); });
        trip.await();
    }
}

void BM_HandOver_QtQueuedCall(benchmark::State& state) {
    handOver(state, [](QObject* receiver, auto work) {
        QMetaObject::invokeMethod(receiver, work, Qt::QueuedConnection);
    });
}

void BM_HandOver_RunLater(benchmark::State& state) {
    handOver(state, [](QObject* receiver, auto work) { runLater(receiver, work); });
}

} // namespace

BENCHMARK(BM_HandOver_QtQueuedCall)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HandOver_RunLater)->Unit(benchmark::kMicrosecond);
