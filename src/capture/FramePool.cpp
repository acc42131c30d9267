#include "FramePool.h"

#include <new>

namespace zandor {

// Gives a frame object and its reference count memory from the pool's nodes. Every copy holds the
// pool, so that the pool outlives the frame's last reference.
template <class T> class FramePoolAllocator {
public:
    using value_type = T;

    explicit FramePoolAllocator(std::shared_ptr<FramePool> pool) : m_pool(std::move(pool)) {}
    template <class U> FramePoolAllocator(const FramePoolAllocator<U>& other) : m_pool(other.m_pool) {}

    T* allocate(size_t n) { return static_cast<T*>(m_pool->allocateNode(n * sizeof(T))); }
    void deallocate(T* node, size_t n) { m_pool->freeNode(node, n * sizeof(T)); }

    template <class U> bool operator==(const FramePoolAllocator<U>& other) const {
        return m_pool == other.m_pool;
    }

private:
    template <class U> friend class FramePoolAllocator;
    std::shared_ptr<FramePool> m_pool;
};

std::shared_ptr<FramePool> FramePool::create(uint64_t blockSize, size_t capacity) {
    return std::shared_ptr<FramePool>(new FramePool(blockSize, capacity));
}

FramePool::FramePool(uint64_t blockSize, size_t capacity) : m_blockSize(blockSize), m_capacity(capacity) {
    // Made once, so that giving back never allocates.
    m_blocks.reserve(capacity);
    m_nodes.reserve(capacity);
}

FramePool::~FramePool() {
    for (uint8_t* block : m_blocks) {
        delete[] block;
    }
    for (void* node : m_nodes) {
        ::operator delete(node);
    }
}

CaptureDataPtr FramePool::take() {
    uint8_t* block = nullptr;
    {
        std::scoped_lock lock(m_mutex);
        if (!m_blocks.empty()) {
            block = m_blocks.back();
            m_blocks.pop_back();
        } else if (m_out >= m_capacity) {
            ++m_overflows;
        }
        ++m_out;
    }
    if (!block) {
        block = new uint8_t[m_blockSize];
    }
    return std::allocate_shared<CaptureData>(FramePoolAllocator<CaptureData>(shared_from_this()), block,
                                             m_blockSize, shared_from_this());
}

void FramePool::giveBack(uint8_t* block) {
    {
        std::scoped_lock lock(m_mutex);
        --m_out;
        if (m_blocks.size() < m_capacity) {
            m_blocks.push_back(block);
            return;
        }
    }
    delete[] block;
}

void* FramePool::allocateNode(size_t bytes) {
    {
        std::scoped_lock lock(m_mutex);
        if (!m_nodes.empty() && bytes == m_nodeBytes) {
            void* node = m_nodes.back();
            m_nodes.pop_back();
            return node;
        }
    }
    return ::operator new(bytes);
}

void FramePool::freeNode(void* node, size_t bytes) {
    {
        std::scoped_lock lock(m_mutex);
        if (m_nodes.empty() && m_nodeBytes != bytes) {
            m_nodeBytes = bytes;
        }
        if (bytes == m_nodeBytes && m_nodes.size() < m_capacity) {
            m_nodes.push_back(node);
            return;
        }
    }
    ::operator delete(node);
}

size_t FramePool::freeBlocks() {
    std::scoped_lock lock(m_mutex);
    return m_blocks.size();
}

size_t FramePool::framesOut() {
    std::scoped_lock lock(m_mutex);
    return m_out;
}

uint64_t FramePool::overflows() {
    std::scoped_lock lock(m_mutex);
    return m_overflows;
}

} // namespace zandor
