#include "Ft601Usb.h"

#include <libusb.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace zandor {

namespace {

std::string stringOf(libusb_device_handle* handle, uint8_t index) {
    if (index == 0) {
        return {};
    }
    unsigned char text[128];
    const int length = libusb_get_string_descriptor_ascii(handle, index, text, sizeof text);
    return length > 0 ? std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(length))
                      : std::string();
}

bool hasOurIds(const libusb_device_descriptor& descriptor) {
    return descriptor.idVendor == Ft601Usb::VendorId &&
           std::find(Ft601Usb::ProductIds.begin(), Ft601Usb::ProductIds.end(), descriptor.idProduct) !=
               Ft601Usb::ProductIds.end();
}

std::string readSysfs(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string value;
    std::getline(in, value);
    return value;
}

// The product string the kernel read when the device came: a device we may not open can still be
// told apart from another FT601 device by it.
std::string sysfsProduct(libusb_device* device) {
    std::error_code error;
    const std::string bus = std::to_string(libusb_get_bus_number(device));
    const std::string address = std::to_string(libusb_get_device_address(device));
    for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/usb/devices", error)) {
        if (readSysfs(entry.path() / "busnum") == bus && readSysfs(entry.path() / "devnum") == address) {
            return readSysfs(entry.path() / "product");
        }
    }
    return {};
}

std::string nodeOf(libusb_device* device) {
    char node[64];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", libusb_get_bus_number(device),
                  libusb_get_device_address(device));
    return node;
}

// Calls `visit(device, handle, product)` with each capture board of `context` that could be
// opened until it returns true, and returns that handle (the others are closed). `deniedNode`
// names a board that we may not open.
template <class Visit>
libusb_device_handle* findBoards(libusb_context* context, std::string& deniedNode, Visit visit) {
    libusb_device** devices = nullptr;
    const ssize_t count = libusb_get_device_list(context, &devices);
    libusb_device_handle* kept = nullptr;
    for (ssize_t i = 0; i < count && !kept; ++i) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(devices[i], &descriptor) != LIBUSB_SUCCESS ||
            !hasOurIds(descriptor)) {
            continue;
        }
        libusb_device_handle* handle = nullptr;
        if (const int result = libusb_open(devices[i], &handle); result != LIBUSB_SUCCESS) {
            if (result == LIBUSB_ERROR_ACCESS && deniedNode.empty() &&
                Ft601Usb::isBoard(descriptor.idVendor, descriptor.idProduct, sysfsProduct(devices[i]))) {
                deniedNode = nodeOf(devices[i]);
            }
            continue;
        }
        const std::string product = stringOf(handle, descriptor.iProduct);
        if (Ft601Usb::isBoard(descriptor.idVendor, descriptor.idProduct, product) &&
            visit(devices[i], handle, descriptor, product)) {
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

int resultOf(const libusb_transfer& transfer) {
    switch (transfer.status) {
    case LIBUSB_TRANSFER_COMPLETED:
        return transfer.actual_length;
    case LIBUSB_TRANSFER_TIMED_OUT:
        return LIBUSB_ERROR_TIMEOUT;
    case LIBUSB_TRANSFER_STALL:
        return LIBUSB_ERROR_PIPE;
    case LIBUSB_TRANSFER_NO_DEVICE:
        return LIBUSB_ERROR_NO_DEVICE;
    case LIBUSB_TRANSFER_OVERFLOW:
        return LIBUSB_ERROR_OVERFLOW;
    default:
        return LIBUSB_ERROR_IO;
    }
}

} // namespace

bool Ft601Usb::isBoard(uint16_t vendorId, uint16_t productId, const std::string& product) {
    libusb_device_descriptor descriptor{};
    descriptor.idVendor = vendorId;
    descriptor.idProduct = productId;
    return hasOurIds(descriptor) && (product == "N3DSXL" || product == "N3DSXL.2");
}

Ft601Usb::~Ft601Usb() {
    close();
    stopWatching();
    freeReads();
    if (m_context) {
        libusb_exit(m_context);
    }
}

int Ft601Usb::init() {
    return m_context ? LIBUSB_SUCCESS : libusb_init(&m_context);
}

int Ft601Usb::open(const std::string& serial, std::string& deniedNode) {
    close();
    deniedNode.clear();
    libusb_device* found = nullptr;
    m_handle = findBoards(m_context, deniedNode,
                          [&](libusb_device* device, libusb_device_handle* handle,
                              const libusb_device_descriptor& descriptor, const std::string& product) {
                              std::string number = stringOf(handle, descriptor.iSerialNumber);
                              if (!serial.empty() && number != serial) {
                                  return false;
                              }
                              found = device;
                              m_product = product;
                              m_serial = std::move(number);
                              m_productId = descriptor.idProduct;
                              return true;
                          });
    if (!m_handle) {
        return deniedNode.empty() ? LIBUSB_ERROR_NOT_FOUND : LIBUSB_ERROR_ACCESS;
    }
    m_superSpeed = libusb_get_device_speed(found) >= LIBUSB_SPEED_SUPER;
    int configuration = 0;
    if (libusb_get_configuration(m_handle, &configuration) != LIBUSB_SUCCESS || configuration != 1) {
        if (const int result = libusb_set_configuration(m_handle, 1); result < 0) {
            return result;
        }
    }
    return LIBUSB_SUCCESS;
}

int Ft601Usb::claim(int interfaceNumber) {
    if (!m_handle) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    if (libusb_kernel_driver_active(m_handle, interfaceNumber) == 1) {
        libusb_detach_kernel_driver(m_handle, interfaceNumber);
    }
    const int result = libusb_claim_interface(m_handle, interfaceNumber);
    if (result == LIBUSB_SUCCESS) {
        m_claimed.push_back(interfaceNumber);
    }
    return result;
}

void Ft601Usb::close() {
    if (!m_handle) {
        return;
    }
    cancelReads();
    for (const int interfaceNumber : m_claimed) {
        libusb_release_interface(m_handle, interfaceNumber);
    }
    m_claimed.clear();
    libusb_close(m_handle);
    m_handle = nullptr;
}

int Ft601Usb::controlIn(uint8_t request, uint16_t value, uint16_t index, uint8_t* data, uint16_t length,
                        unsigned timeoutMs) {
    if (!m_handle) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    return libusb_control_transfer(m_handle, 0xC0, request, value, index, data, length, timeoutMs);
}

int Ft601Usb::bulk(uint8_t endpoint, uint8_t* data, int length, unsigned timeoutMs) {
    if (!m_handle) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    int transferred = 0;
    const int result = libusb_bulk_transfer(m_handle, endpoint, data, length, &transferred, timeoutMs);
    return result < 0 ? result : transferred;
}

void Ft601Usb::readEnded(libusb_transfer* transfer) {
    *static_cast<int*>(transfer->user_data) = 1;
}

int Ft601Usb::startReads(uint8_t endpoint, int count, int length, unsigned timeoutMs, size_t bufferBytes) {
    if (!m_handle) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    finishReads();
    count = std::clamp(count, 1, MaxReads);
    for (int i = 0; i < count; ++i) {
        Read& read = m_reads[static_cast<size_t>(i)];
        if (!read.transfer) {
            read.transfer = libusb_alloc_transfer(0);
            if (!read.transfer) {
                return LIBUSB_ERROR_NO_MEM;
            }
        }
        bufferBytes = std::max(bufferBytes, static_cast<size_t>(length));
        if (read.bufferBytes != bufferBytes) {
            read.buffer.reset(new uint8_t[bufferBytes]);
            read.bufferBytes = bufferBytes;
        }
        libusb_fill_bulk_transfer(read.transfer, m_handle, endpoint, read.buffer.get(), length,
                                  &Ft601Usb::readEnded, &read.completed, timeoutMs);
    }
    m_readCount = count;
    m_oldest = 0;
    for (int i = 0; i < count; ++i) {
        Read& read = m_reads[static_cast<size_t>(i)];
        read.completed = 0;
        if (const int result = libusb_submit_transfer(read.transfer); result < 0) {
            return result;
        }
        read.inFlight = true;
        ++m_inFlight;
    }
    return LIBUSB_SUCCESS;
}

void Ft601Usb::waitFor(Read& read) {
    while (!read.completed) {
        timeval interval{1, 0};
        libusb_handle_events_timeout_completed(m_context, &interval, &read.completed);
    }
}

int Ft601Usb::waitRead(const uint8_t*& data) {
    data = nullptr;
    Read& read = m_reads[static_cast<size_t>(m_oldest)];
    if (m_readCount == 0 || !read.inFlight) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    waitFor(read);
    read.inFlight = false;
    --m_inFlight;
    data = read.buffer.get();
    return resultOf(*read.transfer);
}

int Ft601Usb::resubmit() {
    Read& read = m_reads[static_cast<size_t>(m_oldest)];
    m_oldest = (m_oldest + 1) % std::max(m_readCount, 1);
    if (read.inFlight || !read.transfer) {
        return LIBUSB_ERROR_BUSY;
    }
    read.completed = 0;
    read.transfer->buffer = read.buffer.get(); // it may have been traded
    const int result = libusb_submit_transfer(read.transfer);
    if (result == LIBUSB_SUCCESS) {
        read.inFlight = true;
        ++m_inFlight;
    }
    return result;
}

void Ft601Usb::finishReads() {
    for (int i = 0; i < m_readCount; ++i) {
        Read& read = m_reads[static_cast<size_t>(i)];
        if (read.inFlight) {
            waitFor(read);
            read.inFlight = false;
        }
    }
    m_inFlight = 0;
    m_oldest = 0;
    m_readCount = 0;
}

void Ft601Usb::cancelReads() {
    for (int i = 0; i < m_readCount; ++i) {
        if (Read& read = m_reads[static_cast<size_t>(i)]; read.inFlight) {
            libusb_cancel_transfer(read.transfer);
        }
    }
    finishReads();
}

void Ft601Usb::freeReads() {
    for (Read& read : m_reads) {
        libusb_free_transfer(read.transfer);
        read.transfer = nullptr;
        read.buffer.reset();
        read.bufferBytes = 0;
    }
}

std::vector<std::string> Ft601Usb::serialNumbers() {
    libusb_context* context = nullptr;
    if (libusb_init(&context) != LIBUSB_SUCCESS) {
        return {};
    }
    std::vector<std::string> serials;
    std::string denied;
    findBoards(context, denied,
               [&serials](libusb_device*, libusb_device_handle* handle,
                          const libusb_device_descriptor& descriptor, const std::string&) {
                   serials.push_back(stringOf(handle, descriptor.iSerialNumber));
                   return false;
               });
    libusb_exit(context);
    return serials;
}

bool Ft601Usb::watchArrivals() {
    // Watching may start before this board was ever opened (the old models' board went away).
    return init() == LIBUSB_SUCCESS && m_arrivals.start(m_context, VendorId, ProductIds);
}

} // namespace zandor
