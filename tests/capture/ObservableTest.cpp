#include "base/Log.h"
#include "base/Wakeup.h"
#include "capture/CaptureData.h"
#include "capture/Observable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace zandor {
namespace {

using namespace std::chrono_literals;

CaptureDataPtr frameNumbered(int n) {
    auto frame = CaptureData::create(4);
    std::memcpy(frame->data(), &n, sizeof n);
    return frame;
}

int numberOf(const CaptureDataPtr& frame) {
    int n;
    std::memcpy(&n, frame->data(), sizeof n);
    return n;
}

// Without observers a frame is let go at once; an observer removed keeps what it had.
TEST(Observable, EveryObserverGetsTheVerySameFramesInOrderAndIsWoken) {
    Observable producer(5);
    auto lost = frameNumbered(0);
    EXPECT_FALSE(producer.add(lost));
    EXPECT_EQ(lost.use_count(), 1) << "nobody to keep it for";
    auto wakeup = std::make_shared<Wakeup>();
    auto a = producer.addObserver(wakeup);
    auto b = producer.addObserver();
    auto first = frameNumbered(1), second = frameNumbered(2);
    std::thread publisher([&] { producer.add(first); });
    EXPECT_TRUE(wakeup->wait(20s));
    publisher.join();
    producer.add(second);
    for (const auto& observer : {a, b}) {
        EXPECT_EQ(producer.observe(observer), first);
        EXPECT_EQ(producer.observe(observer), second);
        EXPECT_FALSE(producer.observable(observer));
        EXPECT_EQ(producer.observe(observer), nullptr);
    }
    producer.add(first);
    producer.removeObserver(a);
    producer.add(second);
    EXPECT_EQ(producer.observe(a), first);
    EXPECT_EQ(producer.observe(a), nullptr);
    EXPECT_TRUE(wakeup->wait(0ms));
    EXPECT_FALSE(wakeup->wait(0ms)) << "signals not yet waited for wake one wait, then it is cleared";
}

// The one place that decides what a full queue does; the producers only add their own line.
TEST(Observable, AFullQueueDropsItsOldestFrameAndSaysWhichObserverOnceForAQuickRun) {
    LogCapture log;
    Observable producer(3);
    auto fast = producer.addObserver();
    auto slow = producer.addObserver();
    std::weak_ptr<CaptureData> oldest;
    for (int n = 1; n <= 3; ++n) {
        auto frame = frameNumbered(n);
        if (n == 1) {
            oldest = frame;
        }
        EXPECT_FALSE(producer.add(frame));
        producer.observe(fast);
    }
    EXPECT_TRUE(producer.add(frameNumbered(4)));
    EXPECT_TRUE(oldest.expired()) << "the dropped frame is let go";
    EXPECT_TRUE(producer.add(frameNumbered(5)));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Skipped frame of observer 1"})
        << "the second drop within a second is only counted";
    EXPECT_EQ(producer.droppedFrames(), 2u);

    std::vector<int> left;
    while (auto frame = producer.observe(slow)) {
        left.push_back(numberOf(frame));
    }
    EXPECT_EQ(left, (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(numberOf(producer.observe(fast)), 4);
}

} // namespace
} // namespace zandor
