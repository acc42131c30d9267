#pragma once

#include "UsbArrivals.h"
#include "UsbBoard.h"

#include <shared_mutex>
#include <string>

struct libusb_context;
struct libusb_device;
struct libusb_device_handle;

namespace zandor {

// The real capture board through libusb-1.0 on the default context.
class LibusbBoard final : public UsbBoard {
public:
    LibusbBoard() = default;
    ~LibusbBoard() override;
    LibusbBoard(const LibusbBoard&) = delete;
    LibusbBoard& operator=(const LibusbBoard&) = delete;

    int init() override;
    bool openDeviceWithVidPid(uint16_t vendorId, uint16_t productId) override;
    int setConfiguration(int configuration) override;
    int claimInterface(int interfaceNumber) override;
    int controlTransfer(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index, uint8_t* data,
                        uint16_t length, unsigned timeoutMs) override;
    int bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred,
                     unsigned timeoutMs) override;
    int clearHalt(uint8_t endpoint) override;
    bool openDeviceWithSerial(uint16_t vendorId, uint16_t productId, const std::string& serial) override;
    std::string serialNumber() override;
    std::vector<std::string> serialNumbers(uint16_t vendorId, uint16_t productId) override;

    int openError(std::string& node) override;
    void close() override;
    bool watchArrivals() override;
    bool arrived() override;
    void stopWatching() override;

private:
    void closeLocked();

    // Transfers hold it shared, replacing or closing the handle holds it exclusively, so a handle
    // is never closed under a transfer still running on another thread.
    std::shared_mutex m_handleMutex;
    libusb_device_handle* m_handle = nullptr;
    int m_claimed = -1;
    int m_initCount = 0;

    // What the last failed open found, for openError().
    int m_openError = 0;
    std::string m_deniedNode;

    // Used by the device thread alone while it waits for the board to come back.
    uint16_t m_vendorId = 0;
    uint16_t m_productId = 0;
    UsbArrivals m_arrivals;
};

} // namespace zandor
