#pragma once

#include "UsbBoard.h"

#include <shared_mutex>

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
    int bulkTransfer(uint8_t endpoint, uint8_t* data, int length, int* transferred, unsigned timeoutMs) override;
    int clearHalt(uint8_t endpoint) override;

private:
    void close();

    // Transfers hold it shared, replacing or closing the handle holds it exclusively, so a handle
    // is never closed under a transfer still running on another thread.
    std::shared_mutex m_handleMutex;
    libusb_device_handle* m_handle = nullptr;
    int m_claimed = -1;
    int m_initCount = 0;
};

} // namespace zandor
