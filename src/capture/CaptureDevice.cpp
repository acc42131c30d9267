#include "CaptureDevice.h"

#include "CaptureScreen.h"
#include "RawFrame.h"
#include "UsbBoard.h"
#include "base/DetachedThread.h"
#include "base/Log.h"

#include <algorithm>
#include <cstring>
#include <sys/prctl.h>
#include <thread>

namespace zandor {

std::shared_ptr<CaptureDevice> CaptureDevice::create(std::unique_ptr<UsbBoard> board) {
    std::shared_ptr<CaptureDevice> device(new CaptureDevice(std::move(board)));
    device->m_screens[0] = std::make_shared<CaptureScreen>(raw::TopWidth, raw::TopHeight, raw::TopOffset, device);
    device->m_screens[1] =
        std::make_shared<CaptureScreen>(raw::BottomWidth, raw::BottomHeight, raw::BottomOffset, device);
    return device;
}

CaptureDevice::CaptureDevice(std::unique_ptr<UsbBoard> board) : Observable(QueueLength), m_board(std::move(board)) {}

CaptureDevice::~CaptureDevice() = default;

void CaptureDevice::waitForPreviousThread() {
    if (isListening()) {
        return; // a second start while listening adds a second thread, as it always did
    }
    std::unique_lock lock(m_threadMutex);
    // A previous thread ends within one frame request (bulk reads time out after 50 ms).
    m_threadEnded.wait_for(lock, std::chrono::seconds(2), [this] { return m_threadsRunning == 0; });
}

bool CaptureDevice::startListening() {
    waitForPreviousThread();
    std::scoped_lock lock(m_lock);
    if (m_board->init() < 0) {
        log("Could not initialize USB library");
    } else if (!m_board->openDeviceWithVidPid(raw::VendorId, raw::ProductId)) {
        log("Could not connect to capture device");
    } else if (m_board->setConfiguration(raw::Configuration) < 0) {
        log("Could not configure capture device");
    } else if (m_board->claimInterface(raw::Interface) < 0) {
        log("Could not claim capture interface");
    } else {
        // The board needs a first frame start request and a moment before it answers bulk reads.
        vendorRequest(raw::FrameRequest, 0, 0, nullptr);
        std::this_thread::sleep_for(std::chrono::microseconds(50000));
        m_count = 0;
        m_first = std::chrono::system_clock::now();
        m_listening = true;
        {
            std::scoped_lock threadLock(m_threadMutex);
            ++m_threadsRunning;
        }
        DetachedThread::start("zandor-device", [device = self<CaptureDevice>()] { device->listener(); });
    }
    if (m_listening) {
        for (auto& screen : m_screens) {
            screen->startListening();
        }
    }
    return m_listening;
}

void CaptureDevice::stopListening() {
    std::scoped_lock lock(m_lock);
    for (auto& screen : m_screens) {
        screen->stopListening();
    }
    removeObservers();
    m_listening = false;
}

bool CaptureDevice::isListening() {
    std::scoped_lock lock(m_lock);
    return m_listening;
}

uint64_t CaptureDevice::count() {
    std::scoped_lock lock(m_lock);
    return m_count;
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
    return m_board->controlTransfer(raw::FrameRequestType, request, value, 0, buffer, length, raw::ControlTimeoutMs);
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

void CaptureDevice::frameRequest() {
    auto frame = CaptureData::create(raw::BlockBytes);
    if (receiveFrame(*frame) != Complete) {
        std::memset(frame->data(), 0, frame->size());
    }

    std::scoped_lock lock(m_lock);
    ++m_count;
    std::chrono::duration<double> since = std::chrono::system_clock::now() - m_first;
    frame->setTimestamp(since.count());
    if (m_count % RateLogInterval == 0) {
        log("Device FPS: %f Timestamp: %f", static_cast<double>(m_count) / since.count(), since.count());
    }
    if (m_listening && add(frame)) {
        log("Frame was skipped as the device buffer became too large");
    }
}

void CaptureDevice::listener() {
    // The kernel may wake a sleeper up to its timer slack (50 µs by default) late; at 60 frames a
    // second that lateness adds up to a frame lost every few seconds. This thread asks for none.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    // Passes start on a fixed grid of one period: a wake-up that comes a little late does not
    // push every later pass back, so the board gives its full 60 frames a second. A request that
    // takes longer than a period starts the next pass at once.
    auto passStart = std::chrono::steady_clock::now();
    for (;;) {
        bool listening;
        std::chrono::nanoseconds period;
        {
            std::scoped_lock lock(m_lock);
            listening = m_listening;
            period = m_framePeriod;
        }
        if (listening) {
            frameRequest();
        }
        passStart = std::max(passStart + period, std::chrono::steady_clock::now());
        std::this_thread::sleep_until(passStart);
        if (!listening) {
            break;
        }
    }
    std::scoped_lock threadLock(m_threadMutex);
    --m_threadsRunning;
    m_threadEnded.notify_all();
}

} // namespace zandor
