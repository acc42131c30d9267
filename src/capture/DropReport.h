#pragma once

#include <chrono>
#include <cstdint>

namespace zandor {

// Keeps a producer's log readable while it drops frames: the first drop of a run is logged, then
// at most one line a second while drops go on, and the run's end gives the count. Not locked: its
// producer guards it with its own lock.
class DropReport {
public:
    // Counts one drop; true when its line should be written now.
    bool dropped(std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());
    // The drops of the run now ending; the next drop starts a new run and is logged again.
    uint64_t endRun();

private:
    uint64_t m_count = 0;
    bool m_logged = false;
    std::chrono::steady_clock::time_point m_lastLine;
};

} // namespace zandor
