#include "CaptureDevice.h"

#include "CaptureScreen.h"
#include "RawFrame.h"
#include "UsbBoard.h"
#include "base/Log.h"

#include <algorithm>
#include <cstring>
#include <sys/prctl.h>
#include <thread>

namespace zandor {

std::shared_ptr<CaptureDevice> CaptureDevice::create(std::unique_ptr<UsbBoard> board) {
    std::shared_ptr<CaptureDevice> device(new CaptureDevice(std::move(board)));
    device->m_screens[0] = std::make_shared<CaptureScreen>(raw::TopWidth, raw::TopHeight, raw::TopOffset);
    device->m_screens[1] =
        std::make_shared<CaptureScreen>(raw::BottomWidth, raw::BottomHeight, raw::BottomOffset);
    return device;
}

CaptureDevice::CaptureDevice(std::unique_ptr<UsbBoard> board)
    : Observable(QueueLength), m_board(std::move(board)) {}

CaptureDevice::~CaptureDevice() {
    // The screens read the device's queues: they end before it.
    for (auto& screen : m_screens) {
        if (screen) {
            screen->stopListening();
            screen->join();
        }
    }
}

void CaptureDevice::joinThreads() {
    // A thread ends within one frame request (bulk reads time out after 50 ms).
    for (auto& screen : m_screens) {
        screen->join();
    }
    m_worker.join();
}

namespace {

// The board is there but its device node is not ours to open: the common first-run problem on Linux.
void logNoPermission(const std::string& node) {
    logs::capture.error(
        "No permission to open the capture board at %s: install the udev rule 70-zandor-capture.rules (see "
        "README) and plug the board in again",
        node.c_str());
}

} // namespace

CaptureDevice::Failure CaptureDevice::openBoard(bool quiet) {
    const auto say = [quiet](const char* line) {
        if (!quiet) {
            logs::capture.error("%s", line);
        }
    };
    if (m_board->init() < 0) {
        say("Could not initialize USB library");
        return Failure::Library;
    }
    if (!m_board->openDeviceWithVidPid(raw::VendorId, raw::ProductId)) {
        say("Could not connect to capture device");
        std::string node;
        if (m_board->openError(node) == usb::ErrorAccess) {
            if (!quiet) {
                logNoPermission(node);
            }
            return Failure::NoPermission;
        }
        return Failure::NoBoard;
    }
    if (m_board->setConfiguration(raw::Configuration) < 0) {
        say("Could not configure capture device");
        return Failure::Configuration;
    }
    if (int claim = m_board->claimInterface(raw::Interface); claim < 0) {
        say("Could not claim capture interface");
        if (claim == usb::ErrorBusy) {
            say("Another program is using the capture board: close it, then try again");
        }
        return Failure::Claim;
    }
    // The board needs a first frame start request and a moment before it answers bulk reads.
    vendorRequest(raw::FrameRequest, 0, 0, nullptr);
    std::this_thread::sleep_for(std::chrono::microseconds(50000));
    return Failure::None;
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
    m_failure = openBoard(false);
    if (m_failure == Failure::None) {
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

CaptureDevice::Failure CaptureDevice::failure() {
    std::scoped_lock lock(m_lock);
    return m_failure;
}

bool CaptureDevice::isDisconnected() {
    std::scoped_lock lock(m_lock);
    return m_disconnected;
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

int CaptureDevice::vendorRequest(uint8_t request, uint16_t value, uint16_t length, uint8_t* buffer) {
    return m_board->controlTransfer(raw::FrameRequestType, request, value, 0, buffer, length,
                                    raw::ControlTimeoutMs);
}

int CaptureDevice::readBulk(uint8_t* buffer, int32_t length, int32_t* transferred) {
    return m_board->bulkTransfer(raw::BulkEndpoint, buffer, length, transferred, raw::BulkTimeoutMs);
}

CaptureDevice::Status CaptureDevice::receiveFrame(CaptureData& frame) {
    Status status = Complete;
    int request = vendorRequest(raw::FrameRequest, 0, 0, frame.data());
    if (request < 0) {
        // Provisional only: the bulk reads below decide the status.
        status = request == usb::ErrorTimeout ? Incomplete : Error;
    }

    const int32_t wanted = static_cast<int32_t>(raw::FrameBytes);
    int32_t received = 0;
    uint8_t* position = frame.data();
    int result = usb::Success;
    int32_t transferred = 0;
    do {
        // Whole 512-byte blocks: the last read may run up to 511 bytes into the frame's slack.
        int32_t length = (wanted - received + raw::BulkBlockBytes - 1) & ~(raw::BulkBlockBytes - 1);
        transferred = 0;
        result = readBulk(position, length, &transferred);
        if (result == usb::Success) {
            received += transferred;
            position += transferred;
        }
    } while (received < wanted && result == usb::Success && transferred > 0);

    m_lastRead = result;
    if (result == usb::ErrorPipe) {
        m_board->clearHalt(raw::BulkEndpoint);
        status = Error;
    } else if (result == usb::ErrorTimeout || received < wanted) {
        status = Incomplete;
    } else if (result < 0) {
        status = Error;
    } else {
        status = Complete;
    }
    return status;
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
        frame = std::make_shared<CaptureData>(m_black, raw::BlockBytes);
    } else {
        frame = m_pool->take();
        if (receiveFrame(*frame) != Complete) {
            std::memset(frame->data(), 0, frame->size());
            vanished = m_lastRead == usb::ErrorNoDevice;
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
    m_board->close();
    if (!m_black) {
        m_black = std::make_shared<uint8_t[]>(raw::BlockBytes); // value-initialised: all zero
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
    if (const Failure failure = openBoard(true); failure != Failure::None) {
        m_board->close();
        // The one failure worth a line while waiting: the board is back but we may not open it.
        if (failure == Failure::NoPermission && !m_saidNoPermission) {
            std::string node;
            m_board->openError(node);
            logNoPermission(node);
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
