#pragma once

#include "base/Wakeup.h"
#include "capture/CaptureData.h"
#include "capture/CaptureDevice.h"
#include "capture/Observable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace zandor::test {

// A frame of `size` bytes, each made by `byte()`.
template <class Byte> CaptureDataPtr frameOf(uint64_t size, Byte byte) {
    auto frame = CaptureData::create(size);
    std::generate(frame->data(), frame->data() + size, byte);
    return frame;
}

// Takes frames from `observer` until `count` have arrived or `timeout` passed without progress,
// sleeping on the observer's wake-up in between.
inline std::vector<CaptureDataPtr> takeFrames(Observable& producer, const ObserverPtr& observer,
                                              Wakeup& wakeup, size_t count,
                                              std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::vector<CaptureDataPtr> frames;
    while (frames.size() < count) {
        if (auto frame = producer.observe(observer)) {
            frames.push_back(std::move(frame));
        } else if (!wakeup.wait(timeout) && !producer.observable(observer)) {
            break;
        }
    }
    return frames;
}

// Starts the device, takes `count` frames from a fresh observer, then stops it.
inline std::vector<CaptureDataPtr> playFrames(CaptureDevice& device, const std::shared_ptr<Wakeup>& wakeup,
                                              size_t count) {
    auto observer = device.addObserver(wakeup);
    EXPECT_TRUE(device.startListening());
    auto frames = takeFrames(device, observer, *wakeup, count);
    device.stopListening();
    EXPECT_EQ(frames.size(), count);
    return frames;
}

// Waits, sleeping on `wakeup` (signalled when the observer is removed), until `producer` has let
// `observer` go; false on timeout.
inline bool waitUntilRemoved(Observable& producer, const ObserverPtr& observer, Wakeup& wakeup,
                             std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (producer.hasObserver(observer)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        wakeup.wait(deadline - std::chrono::steady_clock::now());
    }
    return true;
}

inline bool allZero(const CaptureData& frame) {
    return std::all_of(frame.data(), frame.data() + frame.size(), [](uint8_t byte) { return byte == 0; });
}

// Takes frames one at a time until one with a picture follows black ones, or twenty seconds' worth
// have come: the frames of a board that went away and came back.
inline std::vector<CaptureDataPtr> framesThroughAGap(Observable& producer, const ObserverPtr& observer,
                                                     Wakeup& wakeup) {
    std::vector<CaptureDataPtr> frames;
    for (bool gap = false; frames.size() < 60 * 20 && !(gap && !allZero(*frames.back()));) {
        auto more = takeFrames(producer, observer, wakeup, 1);
        if (more.empty()) {
            ADD_FAILURE() << "no frame came after " << frames.size();
            break;
        }
        frames.push_back(more.front());
        gap = gap || allZero(*frames.back());
    }
    return frames;
}

} // namespace zandor::test
