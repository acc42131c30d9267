#pragma once

#include "CaptureData.h"
#include "DropReport.h"
#include "Observer.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace zandor {

class Wakeup;

// A producer of frames with one bounded queue per subscriber. Publishing never blocks: a full
// queue drops its oldest frame. One recursive lock guards the observers, their queues and the
// subclass's own state; it is recursive because a producer publishes while holding it.
//
// The threads of the pipeline and their locks. Each producer runs one thread (the device's reads
// the board; each screen's, layout's and recorder's waits on its Wakeup for frames from the one
// before it) and has one lock, m_lock. A thread never holds a producer's lock while it waits for
// frames, and takes another producer's lock while holding its own only in this order, from the
// consumer end down:
//
//     recorder  ->  layout  ->  screen          device  ->  screen
//
// A recorder starts and stops its layouts under its lock; a layout subscribes to its screens under
// its lock; the device starts and stops its screens under its lock, and those two calls reach back
// to the device, so they take the device's lock first themselves (the device's own calls already
// hold it). Device and layout locks never nest. Frames travel between threads only through the
// observers' queues, under the producer's lock.
class Observable : public std::enable_shared_from_this<Observable> {
public:
    explicit Observable(uint64_t bufferSize);
    virtual ~Observable() = default;
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    // A new subscriber queue. The 257th observer of one producer gets identifier 0 again and
    // replaces the first in the dictionary; that limit is intended. `wakeup`, when given, is
    // signalled whenever a frame is queued for this observer, and when the observer is removed.
    ObserverPtr addObserver(std::shared_ptr<Wakeup> wakeup = nullptr);
    void removeObserver(const ObserverPtr& observer);
    // Empties the dictionary without taking the lock: its caller already holds it.
    void removeObservers();
    bool hasObservers();
    // Whether `observer` is still subscribed here.
    bool hasObserver(const ObserverPtr& observer);

    // Publishes one frame to every observer. Returns whether any observer dropped a frame.
    bool add(const CaptureDataPtr& frame);
    // Whether a frame waits in the observer's queue.
    bool observable(const ObserverPtr& observer);
    // The oldest waiting frame of the observer, or null.
    CaptureDataPtr observe(const ObserverPtr& observer);
    // The frame observe() would take next, left in the queue; null when none waits.
    CaptureDataPtr peek(const ObserverPtr& observer);
    // Takes the oldest waiting frame if it is `frame` (one seen by peek); false when a full queue
    // has dropped that one since.
    bool take(const ObserverPtr& observer, const CaptureDataPtr& frame);

    void freeze() { m_lock.lock(); }
    void unfreeze() { m_lock.unlock(); }
    // So that std::scoped_lock can hold a producer frozen for one block.
    void lock() { freeze(); }
    void unlock() { unfreeze(); }

    uint64_t bufferSize() const { return m_bufferSize; }
    // Frames dropped from full queues since creation, all observers together.
    uint64_t droppedFrames();

protected:
    template <class T> std::shared_ptr<T> self() { return std::static_pointer_cast<T>(shared_from_this()); }

    // Ends a run of the producer for the observers' drop lines: the next drop is logged again.
    // Expects m_lock held.
    void endDropRun() { m_observerDrops.endRun(); }

    std::recursive_mutex m_lock;

private:
    const uint64_t m_bufferSize;
    std::map<Observer::Key, ObserverPtr> m_observers; // guarded by m_lock
    uint8_t m_last = 0;                               // guarded by m_lock
    uint64_t m_dropped = 0;                           // guarded by m_lock
    DropReport m_observerDrops;                       // guarded by m_lock
};

} // namespace zandor
