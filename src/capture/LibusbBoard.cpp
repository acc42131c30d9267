#include "LibusbBoard.h"

#include "base/Log.h"

#include <libusb.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace zandor {

namespace {

std::string readSysfs(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string value;
    in >> value;
    return value;
}

// libusb_open_device_with_vid_pid says only "no handle". When the board is plugged in but its
// device node is not ours to open, say so: that is the common first-run problem on Linux.
void explainOpenFailure(uint16_t vendorId, uint16_t productId) {
    char vendor[8], product[8];
    std::snprintf(vendor, sizeof vendor, "%04x", vendorId);
    std::snprintf(product, sizeof product, "%04x", productId);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/usb/devices", error)) {
        if (readSysfs(entry.path() / "idVendor") != vendor || readSysfs(entry.path() / "idProduct") != product) {
            continue;
        }
        std::string bus = readSysfs(entry.path() / "busnum");
        std::string dev = readSysfs(entry.path() / "devnum");
        if (bus.empty() || dev.empty()) {
            continue;
        }
        char node[64];
        std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", std::stoi(bus), std::stoi(dev));
        if (access(node, R_OK | W_OK) != 0 && errno == EACCES) {
            log("No permission to open the capture board at %s: install the udev rule "
                "70-zandor-capture.rules (see README) and plug the board in again",
                node);
        }
        return;
    }
}

} // namespace

LibusbBoard::~LibusbBoard() {
    {
        std::unique_lock lock(m_handleMutex);
        close();
    }
    for (; m_initCount > 0; --m_initCount) {
        libusb_exit(nullptr);
    }
}

// Called with m_handleMutex held exclusively.
void LibusbBoard::close() {
    if (!m_handle) {
        return;
    }
    if (m_claimed >= 0) {
        libusb_release_interface(m_handle, m_claimed);
        m_claimed = -1;
    }
    libusb_close(m_handle);
    m_handle = nullptr;
}

int LibusbBoard::init() {
    int result = libusb_init(nullptr);
    if (result == LIBUSB_SUCCESS) {
        ++m_initCount;
    }
    return result;
}

bool LibusbBoard::openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) {
    // The previous handle still claims the interface; a new claim would fail with "busy", so it is
    // closed before the new one is opened. The device makes sure no transfer still uses it.
    std::unique_lock lock(m_handleMutex);
    close();
    m_handle = libusb_open_device_with_vid_pid(nullptr, vendorId, productId);
    if (!m_handle) {
        explainOpenFailure(vendorId, productId);
    }
    return m_handle != nullptr;
}

int LibusbBoard::setConfiguration(int configuration) {
    std::shared_lock lock(m_handleMutex);
    return m_handle ? libusb_set_configuration(m_handle, configuration) : LIBUSB_ERROR_NO_DEVICE;
}

int LibusbBoard::claimInterface(int interfaceNumber) {
    std::unique_lock lock(m_handleMutex);
    if (!m_handle) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    int result = libusb_claim_interface(m_handle, interfaceNumber);
    if (result == LIBUSB_SUCCESS) {
        m_claimed = interfaceNumber;
    }
    return result;
}

int LibusbBoard::controlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index,
                                 uint8_t* data, uint16_t length, unsigned timeoutMs) {
    std::shared_lock lock(m_handleMutex);
    if (!m_handle) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return libusb_control_transfer(m_handle, requestType, request, value, index, data, length, timeoutMs);
}

int LibusbBoard::bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                              unsigned timeoutMs) {
    std::shared_lock lock(m_handleMutex);
    if (!m_handle) {
        *transferred = 0;
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return libusb_bulk_transfer(m_handle, endpoint, data, length, transferred, timeoutMs);
}

int LibusbBoard::clearHalt(uint8_t endpoint) {
    std::shared_lock lock(m_handleMutex);
    return m_handle ? libusb_clear_halt(m_handle, endpoint) : LIBUSB_ERROR_NO_DEVICE;
}

} // namespace zandor
