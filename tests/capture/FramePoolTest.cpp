#include "capture/FramePool.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

namespace zandor {
namespace {

// A block goes back only when the last of the frame's holders lets go, and the next frame gets
// that very block: shared, never copied, never allocated again.
TEST(FramePool, ABlockComesBackWhenTheLastConsumerLetsGoAndIsReused) {
    auto pool = FramePool::create(1000, 4);
    CaptureDataPtr frame = pool->take();
    ASSERT_EQ(frame->size(), 1000u);
    const uint8_t* block = frame->data();
    frame->setNumber(7);
    CaptureDataPtr queued = frame, inHand = frame;
    frame.reset();
    queued.reset();
    EXPECT_EQ(pool->freeBlocks(), 0u) << "taken back while a consumer holds the frame";
    // The last holder lets go on another thread, as consumers do.
    std::thread([held = std::move(inHand)]() mutable { held.reset(); }).join();
    EXPECT_EQ(pool->freeBlocks(), 1u);
    EXPECT_EQ(pool->framesOut(), 0u);
    CaptureDataPtr next = pool->take();
    EXPECT_EQ(next->data(), block);
    EXPECT_EQ(next->number(), 0u) << "a reused frame keeps the old one's number";
}

// A consumer that keeps every frame does not make the pool grow: past its capacity the frames get
// fresh blocks, counted, and of everything let go the pool keeps no more than its capacity. The
// frames outlive the pool's producer (here: the last reference to the pool) safely.
TEST(FramePool, AConsumerHoldingFramesForeverDoesNotMakeThePoolGrow) {
    auto pool = FramePool::create(64, 3);
    std::vector<CaptureDataPtr> held;
    for (int i = 0; i < 10; ++i) {
        held.push_back(pool->take());
        held.back()->data()[63] = static_cast<uint8_t>(i);
    }
    EXPECT_EQ(pool->overflows(), 7u);
    EXPECT_EQ(pool->framesOut(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(held[size_t(i)]->data()[63], i) << "two frames share a block";
    }
    held.resize(5);
    held.shrink_to_fit();
    EXPECT_EQ(pool->freeBlocks(), 3u);
    std::weak_ptr<FramePool> watched = pool;
    pool.reset();
    EXPECT_FALSE(watched.expired()) << "the frames out hold their pool";
    held.clear();
    EXPECT_TRUE(watched.expired());
}

} // namespace
} // namespace zandor
