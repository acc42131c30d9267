#pragma once

#include "CaptureData.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace zandor {

// A producer's frames of one size, made without an allocation each: a frame's block and the
// frame object itself (with its reference count) come back here when the last consumer lets go of
// the frame, and the next frame reuses them. Frames stay shared and are never copied.
//
// The pool keeps at most `capacity` blocks: what the producer's queues can hold at once, the frame
// a consumer has in hand and the one being made. A consumer that holds on to more frames than that
// does not make it grow: the producer's next frames then get fresh memory, which is freed, not
// kept, when they are let go. Dropping them instead would take frames from every other consumer
// for one consumer's sake.
//
// Owned by std::shared_ptr (see create): every frame holds its pool, so it may outlive its
// producer. Frames may be let go on any thread.
class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    static std::shared_ptr<FramePool> create(uint64_t blockSize, size_t capacity);
    ~FramePool();
    FramePool(const FramePool&) = delete;
    FramePool& operator=(const FramePool&) = delete;

    // A frame of blockSize bytes, not cleared: its producer overwrites all of it.
    CaptureDataPtr take();

    uint64_t blockSize() const { return m_blockSize; }
    size_t capacity() const { return m_capacity; }
    // Blocks waiting for reuse.
    size_t freeBlocks();
    // Frames out now, pooled or not.
    size_t framesOut();
    // Frames made with fresh memory because the pool's blocks were all out, since creation.
    uint64_t overflows();

private:
    template <class T> friend class FramePoolAllocator;
    friend class CaptureData;

    FramePool(uint64_t blockSize, size_t capacity);
    // The memory of a frame object with its reference count.
    void* allocateNode(size_t bytes);
    void freeNode(void* node, size_t bytes);
    // Called by a pooled frame as it goes.
    void giveBack(uint8_t* block);

    const uint64_t m_blockSize;
    const size_t m_capacity;
    std::mutex m_mutex;
    std::vector<uint8_t*> m_blocks; // guarded by m_mutex
    std::vector<void*> m_nodes;     // guarded by m_mutex
    size_t m_nodeBytes = 0;         // guarded by m_mutex
    size_t m_out = 0;               // guarded by m_mutex
    uint64_t m_overflows = 0;       // guarded by m_mutex
};

using FramePoolPtr = std::shared_ptr<FramePool>;

} // namespace zandor
