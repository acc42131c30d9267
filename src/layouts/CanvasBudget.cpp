#include "CanvasBudget.h"

#include <unistd.h>

#include <algorithm>

namespace zandor {

CanvasBudget& CanvasBudget::instance() {
    static CanvasBudget budget(defaultLimit());
    return budget;
}

uint64_t CanvasBudget::defaultLimit() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) {
        return MaximumLimit;
    }
    return std::min(MaximumLimit, static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize) / 4);
}

uint64_t CanvasBudget::limit() {
    std::scoped_lock lock(m_mutex);
    return m_limit;
}

void CanvasBudget::setLimit(uint64_t limit) {
    std::scoped_lock lock(m_mutex);
    m_limit = limit;
}

uint64_t CanvasBudget::used() {
    std::scoped_lock lock(m_mutex);
    prune();
    return usedLocked();
}

void CanvasBudget::prune() {
    std::erase_if(m_entries, [](const Entry& entry) { return entry.holder.expired(); });
}

uint64_t CanvasBudget::usedLocked() const {
    uint64_t sum = 0;
    for (const Entry& entry : m_entries) {
        sum += entry.bytes;
    }
    return sum;
}

bool CanvasBudget::reserve(const std::shared_ptr<CanvasHolder>& holder, uint64_t bytes, bool mayDrop) {
    // Holders locked here may be the last owners of a layout: they go after the lock is let go,
    // whose destruction may need it.
    std::vector<std::shared_ptr<CanvasHolder>> visited;
    std::scoped_lock lock(m_mutex);
    prune();
    std::erase_if(m_entries, [&](const Entry& entry) { return entry.key == holder.get(); });
    if (bytes > m_limit) {
        return false;
    }
    for (auto it = m_entries.begin(); mayDrop && usedLocked() + bytes > m_limit && it != m_entries.end();) {
        auto other = it->holder.lock();
        if (other && other->dropCanvasIfIdle() > 0) {
            visited.push_back(std::move(other));
            it = m_entries.erase(it);
        } else {
            visited.push_back(std::move(other));
            ++it;
        }
    }
    if (usedLocked() + bytes > m_limit) {
        return false;
    }
    m_entries.push_back({holder, holder.get(), bytes});
    return true;
}

} // namespace zandor
