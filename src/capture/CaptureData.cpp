#include "CaptureData.h"

#include <cstring>
#include <utility>

namespace zandor {

// Allocated for overwriting: the block is not cleared, as producers overwrite all of it.
CaptureData::CaptureData(uint64_t size)
    : m_data(std::make_shared_for_overwrite<uint8_t[]>(size)), m_size(size) {}

CaptureData::CaptureData(std::shared_ptr<uint8_t[]> sharedBlock, uint64_t size)
    : m_data(std::move(sharedBlock)), m_size(size) {}

std::shared_ptr<CaptureData> CaptureData::copy() const {
    auto duplicate = create(m_size);
    std::memcpy(duplicate->data(), m_data.get(), m_size);
    return duplicate;
}

} // namespace zandor
