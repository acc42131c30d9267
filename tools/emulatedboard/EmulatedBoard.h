#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct _UMockdevTestbed UMockdevTestbed;
typedef struct _UMockdevIoctlBase UMockdevIoctlBase;
typedef struct _UMockdevIoctlClient UMockdevIoctlClient;
typedef struct _UMockdevIoctlData UMockdevIoctlData;

namespace zandor {

class Ft601Model;
class SimulatedBoard;
class UsbBoard;

// The capture board emulated where the kernel would present it: a umockdev testbed shows a USB
// device 16d0:06a3 (with the model's serial number) in sysfs and at /dev/bus/usb/001/DDD, and answers the
// usbfs ioctls that libusb issues on that node. A simulated board (the demo picture or a replay file) decides
// what the board answers; this class only speaks usbfs. The new models' board (0403:601f, see
// Ft601Model) is emulated the same way, its frames counted as the old board's frame requests are. A program
// reaches the board when it runs with libumockdev-preload loaded and $UMOCKDEV_DIR naming rootDir() (this
// process, when it was started under the preload, or any child started with childEnvironment()).
//
// Unplugging fails every URB in flight and every later request with ENODEV, sends a "remove"
// uevent and takes the device out of sysfs and /dev; plugging it in again gives it the next device
// number and sends "add", as the kernel does.
class EmulatedBoard {
public:
    // A control request as it reached the board.
    struct Setup {
        uint8_t requestType;
        uint8_t request;
        uint16_t value;
        uint16_t index;
        uint16_t length;
    };

    // A program that makes the board in its own process must run under umockdev's preload library
    // (libusb there, and umockdev's uevent sender, must see the testbed). Called first thing in
    // main(): starts the program again with the library when it was not loaded; returns only when
    // it was, or with a reason when starting again failed.
    static std::string runUnderPreload(char** argv);

    // Starts the testbed with the board plugged in. Null with a one-line reason when umockdev
    // cannot start.
    static std::unique_ptr<EmulatedBoard> create(std::unique_ptr<SimulatedBoard> model, std::string& error);
    // A second board plugged in beside `first`, on the same bus and testbed, at its own port and
    // device numbers; `first` must outlive it.
    static std::unique_ptr<EmulatedBoard> createBeside(EmulatedBoard& first,
                                                       std::unique_ptr<SimulatedBoard> model);
    // The new models' board, alone or beside `first`.
    static std::unique_ptr<EmulatedBoard> create(std::unique_ptr<Ft601Model> model, std::string& error);
    static std::unique_ptr<EmulatedBoard> createBeside(EmulatedBoard& first,
                                                       std::unique_ptr<Ft601Model> model);
    ~EmulatedBoard();
    EmulatedBoard(const EmulatedBoard&) = delete;
    EmulatedBoard& operator=(const EmulatedBoard&) = delete;

    void plug();
    void unplug();
    // Unplugs when the board receives frame start request number `request` (0 is the first one
    // after plugging in), and plugs in again `replugAfter` later unless that is negative.
    void unplugAtRequest(uint64_t request,
                         std::chrono::milliseconds replugAfter = std::chrono::milliseconds(-1));
    // Waits until the board has received `count` frame start requests since it was last plugged in.
    bool waitForFrameRequests(uint64_t count, std::chrono::milliseconds timeout);

    // Makes the board refuse to be configured, or its interface to be claimed (with EIO).
    void refuseConfiguration(bool refuse);
    void refuseClaim(bool refuse);

    // The device node's permission bits (0600 by default, as the kernel leaves it without a rule).
    void setNodeMode(unsigned mode);

    // The simulated board whose frames it sends (behind an FT601 board, its source).
    SimulatedBoard& model() { return *m_model; }
    // The FT601 board; null for the old one.
    Ft601Model* ft601() { return m_ft601; }
    std::string rootDir() const { return m_rootDir; }
    std::string deviceNode();
    // Environment entries that put a child process in front of this board.
    std::vector<std::string> childEnvironment() const;

    // What the board has seen: frame start requests since the last plug, the halts cleared, and the
    // interface claims refused as busy.
    uint64_t frameRequests();
    int clearedHalts();
    int busyClaims();

private:
    struct Urb;
    struct Client;

    EmulatedBoard() = default;
    static std::unique_ptr<EmulatedBoard> create(std::unique_ptr<UsbBoard> device, SimulatedBoard& model,
                                                 Ft601Model* ft601, std::string& error);
    static std::unique_ptr<EmulatedBoard> createBeside(EmulatedBoard& first, std::unique_ptr<UsbBoard> device,
                                                       SimulatedBoard& model, Ft601Model* ft601);
    void start(std::unique_ptr<UsbBoard> device, SimulatedBoard& model, Ft601Model* ft601);
    // Counts a frame the FT601 board sent; false when the board is unplugged at it.
    bool countFt601Frame();
    static int handleIoctl(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, void* self);
    bool handle(UMockdevIoctlClient* client);
    void submit(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg);
    void reap(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg);
    void discard(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg);
    bool claim(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg);
    void unplugLocked();
    void plugLocked();
    void replugTimer();

    std::unique_ptr<UsbBoard> m_device; // what answers: the simulated board itself, or an Ft601Model
    SimulatedBoard* m_model = nullptr;
    Ft601Model* m_ft601 = nullptr;
    UMockdevTestbed* m_testbed = nullptr;
    UMockdevIoctlBase* m_handler = nullptr;
    std::string m_rootDir;
    const char* m_sysPath = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2";
    bool m_trace = false;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_plugged = false;
    int m_deviceNumber = 1;
    unsigned m_nodeMode = 0600;
    bool m_refuseConfiguration = false;
    bool m_refuseClaim = false;
    std::string m_node; // /dev/bus/usb/001/DDD while plugged
    std::map<UMockdevIoctlClient*, std::unique_ptr<Client>> m_clients;
    uint64_t m_frameRequests = 0;
    int m_clearedHalts = 0;
    int m_busyClaims = 0;
    uint64_t m_unplugAt = UINT64_MAX;
    std::chrono::milliseconds m_replugAfter{-1};
    std::chrono::steady_clock::time_point m_replugAt = std::chrono::steady_clock::time_point::max();
    bool m_stopping = false;
    std::thread m_timer; // plugs the board in again when an unplug asked for it
};

} // namespace zandor
