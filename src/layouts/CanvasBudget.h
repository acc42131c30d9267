#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace zandor {

// What holds a canvas the budget counts: it can let its canvas go while nothing runs it, and draw
// it again when it is started.
class CanvasHolder {
public:
    virtual ~CanvasHolder() = default;
    // Lets the canvas go unless the holder runs; the bytes freed, 0 when it runs.
    virtual uint64_t dropCanvasIfIdle() = 0;
};

// The memory the canvases of all layouts loaded at once may take together: a plug-in may ask for a
// canvas of 16384 by 16384 pixels (768 MB), and a handful of those must not take the machine's
// memory at start. A canvas that does not fit is not made until its layout is started; to make
// room then, the canvases of layouts that do not run are let go, those made longest ago first.
// Canvases of layouts that run are never let go: when those alone exceed the budget, the start is
// refused. Thread-safe; it takes a holder's locks while holding its own, never the other way.
class CanvasBudget {
public:
    static constexpr uint64_t MaximumLimit = uint64_t{1} << 30;

    // The process's budget: a gigabyte, or a quarter of the machine's memory when that is less.
    static CanvasBudget& instance();
    static uint64_t defaultLimit();

    explicit CanvasBudget(uint64_t limit) : m_limit(limit) {}

    uint64_t limit();
    // For tests: another limit from now on.
    void setLimit(uint64_t limit);
    // Bytes held now by holders still alive.
    uint64_t used();

    // Counts `bytes` for `holder` (once per holder: a second reservation replaces the first), when
    // they fit; with `mayDrop`, after letting idle holders' canvases go as needed. False when they
    // do not fit: nothing is counted.
    bool reserve(const std::shared_ptr<CanvasHolder>& holder, uint64_t bytes, bool mayDrop);

private:
    struct Entry {
        std::weak_ptr<CanvasHolder> holder;
        const CanvasHolder* key;
        uint64_t bytes;
    };
    // Forgets holders that are gone; under m_mutex.
    void prune();
    uint64_t usedLocked() const;

    std::mutex m_mutex;
    uint64_t m_limit;
    std::vector<Entry> m_entries; // oldest reservation first
};

} // namespace zandor
