#pragma once

#include "UsbArrivals.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct libusb_context;
struct libusb_device;
struct libusb_device_handle;
struct libusb_transfer;

namespace zandor {

// The FT601 board over libusb on a context of its own: finding the board by its ids and product
// string, its two interfaces, plain transfers, and a ring of asynchronous reads kept in flight.
// Results are libusb's codes (see usb:: in UsbBoard.h). Used by the device thread alone, except
// serialNumbers(), which any thread may call.
class Ft601Usb {
public:
    static constexpr uint16_t VendorId = 0x0403;
    static constexpr std::array<uint16_t, 7> ProductIds{0x601E, 0x601F, 0x602A, 0x602B,
                                                        0x602C, 0x602D, 0x602F};
    static constexpr int MaxReads = 8;

    Ft601Usb() = default;
    ~Ft601Usb();
    Ft601Usb(const Ft601Usb&) = delete;
    Ft601Usb& operator=(const Ft601Usb&) = delete;

    // Whether these ids and product string are the capture board (and not some other FT601 device).
    static bool isBoard(uint16_t vendorId, uint16_t productId, const std::string& product);

    int init();
    // Opens the board with serial number `serial` (any when empty) and sets configuration 1 when it
    // differs. On usb::ErrorAccess `deniedNode` names the node we may not open; a failure after the
    // board was opened leaves it open (isOpen()), for close().
    int open(const std::string& serial, std::string& deniedNode);
    // Claims an interface, detaching any kernel driver first.
    int claim(int interfaceNumber);
    // Cancels the reads in flight and waits for them, releases the interfaces, closes the handle.
    void close();
    bool isOpen() const { return m_handle != nullptr; }

    // What the open board is.
    std::string product() const { return m_product; }
    std::string serial() const { return m_serial; }
    uint16_t productId() const { return m_productId; }
    bool superSpeed() const { return m_superSpeed; }

    int controlIn(uint8_t request, uint16_t value, uint16_t index, uint8_t* data, uint16_t length,
                  unsigned timeoutMs);
    // Returns the bytes transferred or a negative code.
    int bulk(uint8_t endpoint, uint8_t* data, int length, unsigned timeoutMs);

    // Starts `count` reads of `length` bytes each on `endpoint`, each timing out after `timeoutMs`,
    // into buffers of `bufferBytes` (at least `length`) made with new uint8_t[].
    int startReads(uint8_t endpoint, int count, int length, unsigned timeoutMs, size_t bufferBytes);
    // Waits for the oldest read in flight to end: its result (bytes or a negative code) and its
    // bytes, which stay valid until the next call of resubmit() or stopReads().
    int waitRead(const uint8_t*& data);
    // The buffer of the read waitRead returned, which may be traded for another of the same size
    // before resubmit().
    std::unique_ptr<uint8_t[]>& readBuffer() { return m_reads[static_cast<size_t>(m_oldest)].buffer; }
    // Sends the read waitRead returned off again; a negative code when it could not go.
    int resubmit();
    // Waits for every read in flight to end (none is cancelled) and forgets them.
    void finishReads();
    // Cancels the reads in flight and waits for them to end.
    void cancelReads();
    int readsInFlight() const { return m_inFlight; }

    // The serial numbers of the boards plugged in now.
    std::vector<std::string> serialNumbers();

    bool watchArrivals();
    bool arrived() { return m_arrivals.arrived(); }
    void stopWatching() { m_arrivals.stop(); }

private:
    struct Read {
        libusb_transfer* transfer = nullptr;
        std::unique_ptr<uint8_t[]> buffer;
        size_t bufferBytes = 0;
        int completed = 0; // set by the callback
        bool inFlight = false;
    };

    static void readEnded(libusb_transfer* transfer);
    void waitFor(Read& read);
    void freeReads();

    libusb_context* m_context = nullptr;
    libusb_device_handle* m_handle = nullptr;
    std::vector<int> m_claimed;
    std::string m_product;
    std::string m_serial;
    uint16_t m_productId = 0;
    bool m_superSpeed = false;

    std::array<Read, MaxReads> m_reads;
    int m_readCount = 0;
    int m_oldest = 0; // the read waitRead looks at next
    int m_inFlight = 0;

    UsbArrivals m_arrivals;
};

} // namespace zandor
