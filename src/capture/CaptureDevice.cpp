#include "CaptureDevice.h"

#include "Board.h"
#include "CaptureScreen.h"
#include "ClassicBoard.h"
#include "RawFrame.h"
#include "UsbBoard.h"
#include "base/Log.h"

#include <algorithm>
#include <cstring>
#include <sys/prctl.h>
#include <thread>

namespace zandor {

std::shared_ptr<CaptureDevice> CaptureDevice::create(std::unique_ptr<UsbBoard> board) {
    return create(std::make_unique<ClassicBoard>(std::move(board)));
}

std::shared_ptr<CaptureDevice> CaptureDevice::create(std::unique_ptr<Board> board) {
    std::shared_ptr<CaptureDevice> device(new CaptureDevice(std::move(board)));
    for (unsigned i = 0; i < ScreenCount; ++i) {
        device->m_screens[i] = std::make_shared<CaptureScreen>(static_cast<ScreenId>(i));
    }
    return device;
}

CaptureDevice::CaptureDevice(std::unique_ptr<Board> board)
    : Observable(QueueLength), m_board(std::move(board)) {}

CaptureDevice::~CaptureDevice() {
    // The screens read the device's queues: they end before it.
    for (auto& screen : m_screens) {
        if (screen) {
            screen->stopListening();
            if (!screen->join()) {
                logs::capture.warning("A screen's thread did not end in time as the device went");
            }
        }
    }
}

void CaptureDevice::joinThreads() {
    // A thread ends within one frame request (bulk reads time out after 50 ms).
    bool ended = true;
    for (auto& screen : m_screens) {
        ended = screen->join() && ended;
    }
    if (!(m_worker.join() && ended)) {
        logs::capture.warning("The capture threads of the last run did not end in time");
    }
}

namespace {

// The board is there but its device node is not ours to open: the common first-run problem on Linux.
void logNoPermission(const std::string& node) {
    logs::capture.error(
        "No permission to open the capture board at %s: install the udev rule 70-zandor-capture.rules (see "
        "README) and plug the board in again",
        node.c_str());
}

bool isNoPermission(const Error& error) {
    return error.domain() == Error::Domain::Usb && error.step() == Board::StepOpen &&
           error.code() == usb::ErrorAccess;
}

} // namespace

Error CaptureDevice::openBoard(const std::string& serial, bool quiet) {
    m_asked3D.reset();
    if (wants3D()) {
        // Taken by the opening; refused by a board that cannot (said after it opened).
        (void)m_board->set3D(true);
    }
    Error error = m_board->open(serial);
    if (!error || quiet) {
        return error;
    }
    const std::string& step = error.step();
    if (step == Board::StepInit) {
        logs::capture.error("Could not initialize USB library");
    } else if (step == Board::StepOpen) {
        logs::capture.error("Could not connect to capture device");
        if (isNoPermission(error)) {
            logNoPermission(error.path());
        }
    } else if (step == Board::StepConfigure) {
        logs::capture.error("Could not configure capture device");
    } else if (step == Board::StepClaim) {
        logs::capture.error("Could not claim capture interface");
        if (error.code() == usb::ErrorBusy) {
            logs::capture.error("Another program is using the capture board: close it, then try again");
        }
    } else {
        logs::capture.error("%s", error.logLine().c_str());
    }
    return error;
}

bool CaptureDevice::startListening() {
    if (isListening()) {
        return true;
    }
    joinThreads();
    std::scoped_lock lock(m_lock);
    if (m_listening) {
        return true;
    }
    m_failure = openBoard(m_serial, false);
    if (!m_failure) {
        logs::capture.info("Capture board: %s", m_board->info().describe().c_str());
        m_count = 0;
        m_first = std::chrono::system_clock::now();
        m_runBase = m_lastNumber + 1;
        m_runOrigin.reset();
        m_listening = true;
        m_disconnected = false;
        m_worker.start([device = self<CaptureDevice>()](const Worker::Run& run) { device->listener(run); });
        for (auto& screen : m_screens) {
            screen->startListening(*this);
        }
    }
    return m_listening;
}

void CaptureDevice::stopListening() {
    {
        std::scoped_lock lock(m_lock);
        for (auto& screen : m_screens) {
            screen->stopListening();
        }
        removeObservers();
        m_listening = false;
        m_worker.stop();
        endDropRun();
        if (const uint64_t dropped = m_drops.endRun()) {
            logs::capture.warning(
                "%llu frames were skipped in this run as the device buffer became too large",
                static_cast<unsigned long long>(dropped));
        }
    }
    joinThreads();
}

bool CaptureDevice::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

uint64_t CaptureDevice::count() {
    std::scoped_lock lock(m_lock);
    return m_count;
}

Error CaptureDevice::failure() {
    std::scoped_lock lock(m_lock);
    return m_failure;
}

void CaptureDevice::setSerial(std::string serial) {
    std::scoped_lock lock(m_lock);
    m_serial = std::move(serial);
}

bool CaptureDevice::isDisconnected() {
    std::scoped_lock lock(m_lock);
    return m_disconnected;
}

void CaptureDevice::set3D(bool on) {
    std::scoped_lock lock(m_lock);
    m_wants3D = on;
}

bool CaptureDevice::wants3D() {
    std::scoped_lock lock(m_lock);
    return m_wants3D;
}

void CaptureDevice::apply3D() {
    const bool wanted = wants3D();
    if (m_asked3D == wanted) {
        return;
    }
    m_asked3D = wanted;
    if (m_board->is3D() == wanted) {
        return;
    }
    if (const Error error = m_board->set3D(wanted)) {
        logs::capture.warning("The capture board stays without 3D: %s", error.logLine().c_str());
    } else {
        logs::capture.info("The capture board switched 3D %s", wanted ? "on" : "off");
    }
}

void CaptureDevice::setConnectionObserver(std::function<void(bool connected)> observer) {
    std::scoped_lock lock(m_lock);
    m_connectionObserver = std::move(observer);
}

void CaptureDevice::notifyConnection(bool connected) {
    std::function<void(bool)> observer;
    {
        std::scoped_lock lock(m_lock);
        observer = m_connectionObserver;
    }
    // Outside the lock: the observer may ask the device anything.
    if (observer) {
        observer(connected);
    }
}

std::chrono::system_clock::time_point CaptureDevice::startTime() {
    std::scoped_lock lock(m_lock);
    return m_first;
}

void CaptureDevice::setFramePeriod(std::chrono::nanoseconds period) {
    std::scoped_lock lock(m_lock);
    m_framePeriod = period;
}

void CaptureDevice::frameRequest(std::chrono::steady_clock::time_point due) {
    // The frame shows the moment it is asked for. A pass that starts on time takes its slot on the
    // grid, whatever the wake-up's small lateness; one that starts later by half a period or more
    // (the thread waited for a processor, or for the board to come back) takes the slot of when it
    // really asks, so that its picture is not placed before the moment it shows.
    const auto asked = std::chrono::steady_clock::now();
    const auto askedWall = std::chrono::system_clock::now();
    const auto slotTime = asked - due < DefaultFramePeriod / 2 ? due : asked;
    const bool wasDisconnected = isDisconnected();
    bool vanished = false;
    std::shared_ptr<CaptureData> frame;
    if (wasDisconnected) {
        // While the board is away every frame is the same black picture: one block serves them all.
        frame = std::make_shared<CaptureData>(m_black, raw::MaxBlockBytes);
    } else {
        apply3D();
        frame = m_pool->take();
        if (const Board::FrameStatus status = m_board->readFrame(*frame);
            status != Board::FrameStatus::Complete) {
            std::memset(frame->data(), 0, frame->size());
            vanished = status == Board::FrameStatus::Gone;
        }
    }

    std::scoped_lock lock(m_lock);
    ++m_count;
    if (!m_runOrigin) {
        m_runOrigin = slotTime;
    }
    // Passes on the grid fall exactly on slots; one off it rounds to the nearest slot, and never
    // onto a number already given.
    const auto slot =
        (std::max(slotTime, *m_runOrigin) - *m_runOrigin + DefaultFramePeriod / 2) / DefaultFramePeriod;
    m_lastNumber = std::max(m_runBase + static_cast<uint64_t>(slot), m_lastNumber + 1);
    frame->setNumber(m_lastNumber);
    // The frame is stamped with its slot's time, not with when its read ended: the very time a movie
    // or a replay gives it by its number, counted from the run's first slot, so that a frame's
    // stamp and its place in a movie never part (nor does how long the first read took move them).
    const auto slotOnTheGrid = *m_runOrigin + DefaultFramePeriod * (m_lastNumber - m_runBase);
    const auto taken =
        askedWall - std::chrono::duration_cast<std::chrono::system_clock::duration>(asked - slotOnTheGrid);
    std::chrono::duration<double> since = taken - m_first;
    frame->setTimestamp(since.count());
    frame->setWallClock(taken);
    if (m_count % RateLogInterval == 0) {
        logs::capture.info("Device FPS: %f Timestamp: %f", static_cast<double>(m_count) / since.count(),
                           since.count());
    }
    if (m_listening && add(frame) && m_drops.dropped()) {
        logs::capture.warning("Frame was skipped as the device buffer became too large");
    }
    if (vanished) {
        disconnected();
    }
}

// On the device thread, after the black frame of the read that found the board gone.
void CaptureDevice::disconnected() {
    logs::capture.warning("Capture device disconnected");
    // The same board is waited for; with no serial to tell boards apart, any board will do.
    {
        std::scoped_lock lock(m_lock);
        m_awaitedSerial = m_serial;
    }
    if (m_awaitedSerial.empty()) {
        m_awaitedSerial = m_board->info().serial;
    }
    m_board->close();
    if (!m_black) {
        m_black = std::make_shared<uint8_t[]>(raw::MaxBlockBytes); // value-initialised: all zero
    }
    m_announced = m_board->watchArrivals();
    m_saidNoPermission = false;
    const auto now = std::chrono::steady_clock::now();
    m_nextAttempt = now + ReconnectInterval;
    m_retryUntil = now;
    {
        std::scoped_lock lock(m_lock);
        m_disconnected = true;
    }
    notifyConnection(false);
}

// On the device thread, once a pass while the board is gone: opens it again when it was announced
// (or, without announcements, every ReconnectInterval). An announced board may not be ready at
// once (its node's permissions come a moment later), so it is tried again for a while.
void CaptureDevice::tryReconnect() {
    const auto now = std::chrono::steady_clock::now();
    bool attempt;
    if (m_announced) {
        if (m_board->arrived()) {
            m_retryUntil = now + ArrivalRetryTime;
            attempt = true;
        } else {
            attempt = now < m_retryUntil && now >= m_nextAttempt;
        }
    } else {
        attempt = now >= m_nextAttempt;
    }
    if (!attempt) {
        return;
    }
    m_nextAttempt = now + ReconnectInterval;
    if (const Error failure = openBoard(m_awaitedSerial, true)) {
        m_board->close();
        // The one failure worth a line while waiting: the board is back but we may not open it.
        if (isNoPermission(failure) && !m_saidNoPermission) {
            logNoPermission(failure.path());
            m_saidNoPermission = true;
        }
        return;
    }
    m_board->stopWatching();
    m_retryUntil = now;
    {
        std::scoped_lock lock(m_lock);
        m_disconnected = false;
    }
    logs::capture.info("Capture device reconnected");
    logs::capture.info("Capture board: %s", m_board->info().describe().c_str());
    notifyConnection(true);
}

void CaptureDevice::listener(const Worker::Run& run) {
    // The kernel may wake a sleeper up to its timer slack (50 µs by default) late; at 60 frames a
    // second that lateness adds up to a frame lost every few seconds. This thread asks for none.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    // Passes start on a fixed grid of one period: a wake-up that comes a little late does not
    // push every later pass back, so the board gives its full 60 frames a second. A request that
    // takes longer than a period starts the next pass at once.
    auto passStart = std::chrono::steady_clock::now();
    while (run.active()) {
        std::chrono::nanoseconds period;
        {
            std::scoped_lock lock(m_lock);
            period = m_framePeriod;
        }
        if (isDisconnected()) {
            tryReconnect();
        }
        frameRequest(passStart);
        passStart = std::max(passStart + period, std::chrono::steady_clock::now());
        // Woken early only by a stop.
        run.wait(passStart - std::chrono::steady_clock::now());
    }
    if (isDisconnected()) {
        m_board->stopWatching();
    }
    // The handle is this thread's while the run lasts; a paused board is free for others.
    m_board->close();
}

} // namespace zandor
