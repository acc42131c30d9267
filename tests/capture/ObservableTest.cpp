#include "base/Log.h"
#include "capture/CaptureData.h"
#include "capture/Observable.h"

#include <gtest/gtest.h>

#include <cstring>

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

// A consumer that looks before it takes: a frame looked at and then dropped by the full queue is
// not taken, nor is the newer frame now in its place.
TEST(Observable, AFrameLookedAtIsTakenOnlyWhileItIsStillTheOldest) {
    Observable producer(2);
    auto observer = producer.addObserver();
    EXPECT_EQ(producer.peek(observer), nullptr);
    producer.add(frameNumbered(1));
    producer.add(frameNumbered(2));
    const auto seen = producer.peek(observer);
    EXPECT_EQ(numberOf(seen), 1);
    EXPECT_EQ(producer.peek(observer), seen) << "looking leaves it there";
    producer.add(frameNumbered(3));
    EXPECT_FALSE(producer.take(observer, seen));
    EXPECT_TRUE(producer.take(observer, producer.peek(observer)));
    EXPECT_EQ(numberOf(producer.observe(observer)), 3);
}

} // namespace
} // namespace zandor
