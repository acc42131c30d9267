#include "SampleClock.h"

#include <algorithm>

namespace zandor {

SampleClock::Clock::duration SampleClock::durationOf(int64_t samples) const {
    const int64_t nanoseconds = samples / m_rate * 1'000'000'000 + samples % m_rate * 1'000'000'000 / m_rate;
    return std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(nanoseconds));
}

void SampleClock::reset(int sampleRate) {
    m_rate = sampleRate > 0 ? sampleRate : 44100;
    m_samples = 0;
    m_origin.reset();
    m_bounds.clear();
}

SampleClock::Clock::time_point SampleClock::place(int64_t frames, Clock::time_point arrived) {
    // Every sample of the buffer, its last one too, was taken before the buffer arrived.
    const Clock::time_point bound = arrived - durationOf(m_samples + frames);
    if (!m_origin) {
        m_origin = bound;
        m_lastArrival = m_firstArrival = arrived;
        m_bounds.push_back({arrived, bound});
    } else {
        while (!m_bounds.empty() && m_bounds.back().origin >= bound) {
            m_bounds.pop_back();
        }
        m_bounds.push_back({arrived, bound});
        while (m_bounds.front().arrived < arrived - Window) {
            m_bounds.pop_front();
        }
        // The bounds are in order of arrival and of origin both, so the least of any recent
        // stretch is its first entry.
        const auto recent = std::find_if(m_bounds.begin(), m_bounds.end(), [&](const Bound& entry) {
            return entry.arrived >= arrived - DropoutWindow;
        });
        const auto sinceLastArrival = arrived - m_lastArrival;
        m_lastArrival = arrived;
        if (bound < *m_origin) {
            m_origin = bound;
        } else if (recent->origin - *m_origin > Dropout) {
            m_origin = recent->origin;
        } else if (arrived - m_firstArrival >= Window && m_bounds.front().origin > *m_origin) {
            const auto allowed = std::chrono::duration_cast<Clock::duration>(
                RisePerSecond * std::chrono::duration<double>(sinceLastArrival).count());
            *m_origin += std::min<Clock::duration>(m_bounds.front().origin - *m_origin, allowed);
        }
    }
    const Clock::time_point placed = *m_origin + durationOf(m_samples);
    m_samples += frames;
    return placed;
}

} // namespace zandor
