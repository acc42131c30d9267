#include "CaptureData.h"

#include "FramePool.h"

#include <cstring>
#include <utility>

namespace zandor {

// Allocated for overwriting: the block is not cleared, as producers overwrite all of it.
CaptureData::CaptureData(uint64_t size)
    : m_data(std::make_shared_for_overwrite<uint8_t[]>(size)), m_bytes(m_data.get()), m_size(size) {}

CaptureData::CaptureData(std::shared_ptr<uint8_t[]> sharedBlock, uint64_t size)
    : m_data(std::move(sharedBlock)), m_bytes(m_data.get()), m_size(size) {}

CaptureData::CaptureData(uint8_t* pooledBlock, uint64_t size, std::shared_ptr<FramePool> pool)
    : m_pool(std::move(pool)), m_bytes(pooledBlock), m_size(size) {}

CaptureData::~CaptureData() {
    if (m_pool) {
        m_pool->giveBack(m_bytes);
    }
}

std::shared_ptr<CaptureData> CaptureData::copy() const {
    auto duplicate = create(m_size);
    std::memcpy(duplicate->data(), m_bytes, m_size);
    return duplicate;
}

} // namespace zandor
