#include "LibusbBoard.h"

#include <libusb.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <span>
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

// libusb_open_device_with_vid_pid says only "no handle". Finds the board's device node, when the
// board is plugged in, and whether we may open it: that is the common first-run problem on Linux.
int diagnoseOpenFailure(uint16_t vendorId, uint16_t productId, std::string& deniedNode) {
    char vendor[8], product[8];
    std::snprintf(vendor, sizeof vendor, "%04x", vendorId);
    std::snprintf(product, sizeof product, "%04x", productId);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/usb/devices", error)) {
        if (readSysfs(entry.path() / "idVendor") != vendor ||
            readSysfs(entry.path() / "idProduct") != product) {
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
            deniedNode = node;
            return LIBUSB_ERROR_ACCESS;
        }
        break;
    }
    return LIBUSB_ERROR_NOT_FOUND;
}

// The iSerialNumber string of an open device; empty when it has none or it cannot be read.
std::string serialOf(libusb_device_handle* handle) {
    libusb_device_descriptor descriptor{};
    if (libusb_get_device_descriptor(libusb_get_device(handle), &descriptor) != LIBUSB_SUCCESS ||
        descriptor.iSerialNumber == 0) {
        return {};
    }
    unsigned char text[32]; // at most 31 characters
    const int length =
        libusb_get_string_descriptor_ascii(handle, descriptor.iSerialNumber, text, sizeof text);
    return length > 0 ? std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(length))
                      : std::string();
}

} // namespace

const char* usb::errorName(int code) {
    return libusb_error_name(code);
}

LibusbBoard::~LibusbBoard() {
    {
        std::unique_lock lock(m_handleMutex);
        closeLocked();
    }
    stopWatching();
    for (; m_initCount > 0; --m_initCount) {
        libusb_exit(nullptr);
    }
}

// Called with m_handleMutex held exclusively.
void LibusbBoard::closeLocked() {
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
    if (m_initCount > 0) {
        return LIBUSB_SUCCESS; // the default context stays ours; a reconnect must not stack references
    }
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
    closeLocked();
    m_vendorId = vendorId;
    m_productId = productId;
    m_handle = libusb_open_device_with_vid_pid(nullptr, vendorId, productId);
    m_deniedNode.clear();
    m_openError = m_handle ? LIBUSB_SUCCESS : diagnoseOpenFailure(vendorId, productId, m_deniedNode);
    return m_handle != nullptr;
}

namespace {

// Calls `visit` with each plugged-in board with these ids of `context`, opened, until it returns
// true: that handle is returned, the others closed. `denied` tells whether one could not be opened
// for want of permission.
template <class Visit>
libusb_device_handle* findBoard(libusb_context* context, uint16_t vendorId, uint16_t productId, bool& denied,
                                Visit visit) {
    libusb_device** devices = nullptr;
    const ssize_t count = libusb_get_device_list(context, &devices);
    libusb_device_handle* kept = nullptr;
    for (ssize_t i = 0; i < count && !kept; ++i) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(devices[i], &descriptor) != LIBUSB_SUCCESS ||
            descriptor.idVendor != vendorId || descriptor.idProduct != productId) {
            continue;
        }
        libusb_device_handle* handle = nullptr;
        if (const int result = libusb_open(devices[i], &handle); result != LIBUSB_SUCCESS) {
            denied = denied || result == LIBUSB_ERROR_ACCESS;
            continue;
        }
        if (visit(handle)) {
            kept = handle;
        } else {
            libusb_close(handle);
        }
    }
    if (count >= 0) {
        libusb_free_device_list(devices, 1);
    }
    return kept;
}

} // namespace

bool LibusbBoard::openDeviceWithSerial(uint16_t vendorId, uint16_t productId, const std::string& serial) {
    std::unique_lock lock(m_handleMutex);
    closeLocked();
    m_vendorId = vendorId;
    m_productId = productId;
    m_openError = LIBUSB_ERROR_NOT_FOUND;
    m_deniedNode.clear();
    bool denied = false;
    m_handle = findBoard(nullptr, vendorId, productId, denied,
                         [&serial](libusb_device_handle* handle) { return serialOf(handle) == serial; });
    if (m_handle) {
        m_openError = LIBUSB_SUCCESS;
    } else if (denied) {
        // A board we may not open cannot tell its serial; it may be the one wanted.
        m_openError = diagnoseOpenFailure(vendorId, productId, m_deniedNode);
    }
    return m_handle != nullptr;
}

std::string LibusbBoard::serialNumber() {
    std::shared_lock lock(m_handleMutex);
    return m_handle ? serialOf(m_handle) : std::string();
}

std::vector<std::string> LibusbBoard::serialNumbers(uint16_t vendorId, uint16_t productId) {
    // On a context of its own: any thread may ask while the device thread reads, and the board's
    // handle and state are not touched.
    libusb_context* context = nullptr;
    if (libusb_init(&context) != LIBUSB_SUCCESS) {
        return {};
    }
    std::vector<std::string> serials;
    bool denied = false;
    findBoard(context, vendorId, productId, denied, [&serials](libusb_device_handle* handle) {
        serials.push_back(serialOf(handle));
        return false;
    });
    libusb_exit(context);
    return serials;
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

int LibusbBoard::openError(std::string& node) {
    std::shared_lock lock(m_handleMutex);
    node = m_deniedNode;
    return m_openError;
}

void LibusbBoard::close() {
    std::unique_lock lock(m_handleMutex);
    closeLocked();
}

bool LibusbBoard::watchArrivals() {
    return m_initCount > 0 && m_arrivals.start(nullptr, m_vendorId, std::span(&m_productId, 1));
}

bool LibusbBoard::arrived() {
    // With no handle open there is nothing else for the event handling to handle.
    return m_arrivals.arrived();
}

void LibusbBoard::stopWatching() {
    m_arrivals.stop();
}

} // namespace zandor
