#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zandor {

// libusb's own result codes, as the board calls return them.
namespace usb {
constexpr int Success = 0;
constexpr int ErrorIo = -1;
constexpr int ErrorAccess = -3;
constexpr int ErrorNoDevice = -4;
constexpr int ErrorNotFound = -5;
constexpr int ErrorBusy = -6;
constexpr int ErrorTimeout = -7;
constexpr int ErrorPipe = -9;
constexpr int ErrorOverflow = -8;

// libusb's name of a code ("LIBUSB_ERROR_TIMEOUT"), for the log.
const char* errorName(int code);
} // namespace usb

// The conversation with the capture board, one method per libusb call the device makes. Results
// are libusb's codes. The board keeps the open handle itself, so a second openDeviceWithVidPid
// opens a new handle in place of the old one.
class UsbBoard {
public:
    virtual ~UsbBoard() = default;

    // libusb_init on the default context.
    virtual int init() = 0;
    // libusb_open_device_with_vid_pid; false when no handle came back.
    virtual bool openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) = 0;
    virtual int setConfiguration(int configuration) = 0;
    virtual int claimInterface(int interfaceNumber) = 0;
    // Returns the bytes transferred or a negative libusb code.
    virtual int controlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index,
                                uint8_t* data, uint16_t length, unsigned timeoutMs) = 0;
    virtual int bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                             unsigned timeoutMs) = 0;
    virtual int clearHalt(uint8_t endpoint) = 0;

    // Why the last openDeviceWithVidPid gave no handle: usb::ErrorAccess when a board is plugged
    // in but its device node (named in `node`) is not ours to open, usb::ErrorNotFound otherwise.
    virtual int openError(std::string& node) {
        node.clear();
        return usb::ErrorNotFound;
    }

    // Opens the board with serial number `serial` among those with these ids; false when none
    // is plugged in (openError says why, as for openDeviceWithVidPid).
    virtual bool openDeviceWithSerial(uint16_t vendorId, uint16_t productId, const std::string& serial) {
        if (!openDeviceWithVidPid(vendorId, productId)) {
            return false;
        }
        if (serialNumber() == serial) {
            return true;
        }
        close();
        return false;
    }
    // The open board's serial number (its iSerialNumber string descriptor); empty when it has none.
    virtual std::string serialNumber() { return {}; }
    // The serial numbers of the boards with these ids plugged in now.
    virtual std::vector<std::string> serialNumbers(uint16_t vendorId, uint16_t productId) {
        (void)vendorId;
        (void)productId;
        return {};
    }

    // For a board that vanished or a run that ended (libusb_release_interface and libusb_close):
    // lets the handle go.
    virtual void close() {}
    // Starts watching for the board to be plugged in (libusb_hotplug_register_callback). False
    // when arrivals are not announced: then the caller tries to open the board at intervals.
    virtual bool watchArrivals() { return false; }
    // Whether the board was announced since the last call (libusb_handle_events_timeout with no
    // wait: it never blocks).
    virtual bool arrived() { return false; }
    virtual void stopWatching() {}
};

} // namespace zandor
