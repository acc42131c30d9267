#pragma once

#include <mutex>
#include <utility>

namespace zandor {

// A value shared between threads that can only be reached through its lock:
//
//     auto state = m_state.lock();
//     state->listening = true;
//
// The view returned by lock() holds the lock for as long as it lives, so a function that must be
// called with the lock held takes that view as a parameter instead of saying so in a comment.
template <class T, class Mutex = std::mutex> class Guarded {
public:
    template <class U> class View {
    public:
        explicit View(Mutex& mutex, U& value) : m_lock(mutex), m_value(&value) {}
        U* operator->() const { return m_value; }
        U& operator*() const { return *m_value; }

    private:
        std::unique_lock<Mutex> m_lock;
        U* m_value;
    };
    using Locked = View<T>;
    using ConstLocked = View<const T>;

    template <class... Args> explicit Guarded(Args&&... args) : m_value(std::forward<Args>(args)...) {}
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    Locked lock() { return Locked(m_mutex, m_value); }
    ConstLocked lock() const { return ConstLocked(m_mutex, m_value); }

private:
    mutable Mutex m_mutex;
    T m_value;
};

} // namespace zandor
