#include "CaptureData.h"

#include <cstring>

namespace zandor {

// new uint8_t[n] default-initialises: the block is not cleared, as producers overwrite all of it.
CaptureData::CaptureData(uint64_t size) : m_data(new uint8_t[size]), m_size(size) {}

std::shared_ptr<CaptureData> CaptureData::copy() const {
    auto duplicate = create(m_size);
    std::memcpy(duplicate->data(), m_data.get(), m_size);
    return duplicate;
}

} // namespace zandor
