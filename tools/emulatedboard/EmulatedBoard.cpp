#include "EmulatedBoard.h"

#include "Ft601Model.h"

#include "capture/RawFrame.h"
#include "capture/SimulatedBoard.h"
#include "capture/UsbBoard.h"

#include <umockdev.h>

#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

namespace {

constexpr int BusNumber = 1;
// The ports of the first board and of one plugged in beside it.
constexpr const char* SysPath = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2";
constexpr const char* SysPathBeside = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-3";
// The device numbers of a board beside the first start here, far from the first's.
constexpr int DeviceNumbersBeside = 100;

// Device, configuration, interface and endpoint descriptors as the kernel shows them in sysfs:
// one configuration, interface 0 of the vendor class, bulk IN endpoint 0x82 with 512-byte packets;
// the serial number is string 3.
constexpr const char* Descriptors = "12010002000000"
                                    "40d016a3060001"
                                    "000003"
                                    "01" // USB 2.0, 64-byte control packets
                                    "09021900010100"
                                    "8032" // configuration 1: 25 bytes
                                    "09040000"
                                    "01ff000000"      // interface 0: vendor class
                                    "07058202000200"; // bulk IN 0x82, 512 bytes

// The usbfs capabilities of a current kernel on an xHCI controller: a bulk read of any length goes
// out as one URB.
constexpr uint32_t Capabilities = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                                  USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                  USBDEVFS_CAP_REAP_AFTER_DISCONNECT;

// What the device tells of itself in sysfs.
struct Identity {
    uint16_t vendorId;
    uint16_t productId;
    const char* manufacturer;
    std::string product;
    int megabits; // the link's speed
    std::string descriptors;
};

// The device as umockdev-record would describe it: sysfs attributes, udev properties, descriptors.
std::string deviceDescription(const char* sysPath, int deviceNumber, const std::string& serial,
                              const Identity& identity) {
    char text[2048];
    std::snprintf(text, sizeof text,
                  "P: %s\n"
                  "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\nE: PRODUCT=%x/%x/100\n"
                  "E: BUSNUM=%03d\nE: DEVNUM=%03d\nE: DEVNAME=/dev/bus/usb/%03d/%03d\n"
                  "A: idVendor=%04x\\n\nA: idProduct=%04x\\n\nA: busnum=%d\\n\nA: devnum=%d\\n\n"
                  "A: bConfigurationValue=1\\n\nA: bNumConfigurations=1\\n\nA: speed=%d\\n\n"
                  "A: manufacturer=%s\\n\nA: product=%s\\n\nA: serial=%s\\n\n"
                  "H: descriptors=%s\n",
                  sysPath + 4, identity.vendorId, identity.productId, BusNumber, deviceNumber, BusNumber,
                  deviceNumber, identity.vendorId, identity.productId, BusNumber, deviceNumber,
                  identity.megabits, identity.manufacturer, identity.product.c_str(), serial.c_str(),
                  identity.descriptors.c_str());
    return text;
}

int errnoOf(int usbResult) {
    switch (usbResult) {
    case usb::ErrorPipe:
        return EPIPE;
    case usb::ErrorNoDevice:
        return ENODEV;
    case usb::ErrorTimeout:
        return ETIMEDOUT;
    default:
        return EIO;
    }
}

// A reference to an ioctl argument resolved into this process, dropped with the scope.
struct DataRef {
    UMockdevIoctlData* data = nullptr;
    explicit DataRef(UMockdevIoctlData* resolved) : data(resolved) {}
    ~DataRef() {
        if (data) {
            umockdev_ioctl_data_unref(data);
        }
    }
    DataRef(const DataRef&) = delete;
    DataRef& operator=(const DataRef&) = delete;
};

} // namespace

// A URB the client submitted, with its argument kept resolved (the URB and its buffer) until it
// is reaped.
struct EmulatedBoard::Urb {
    UMockdevIoctlData* data; // one reference of ours
    int status = 0;
    int actualLength = 0;
};

// One open file of the device node: the URBs it has in flight and done, and its claim.
struct EmulatedBoard::Client {
    UMockdevIoctlClient* client; // one reference of ours
    std::string node;
    std::vector<Urb> inFlight; // bulk reads that time out wait here until libusb discards them
    std::deque<Urb> done;
    bool claimed = false;

    ~Client() {
        for (auto& urb : inFlight) {
            umockdev_ioctl_data_unref(urb.data);
        }
        for (auto& urb : done) {
            umockdev_ioctl_data_unref(urb.data);
        }
        g_object_unref(client);
    }
};

std::string EmulatedBoard::runUnderPreload(char** argv) {
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload && std::strstr(preload, "libumockdev-preload")) {
        return {};
    }
    const std::string value =
        std::string("libumockdev-preload.so.0") + (preload && *preload ? ":" : "") + (preload ? preload : "");
    setenv("LD_PRELOAD", value.c_str(), 1);
    // A sanitizer's runtime then no longer comes first among the libraries; it works all the same.
    const char* asan = std::getenv("ASAN_OPTIONS");
    const std::string options =
        std::string(asan ? asan : "") + (asan && *asan ? ":" : "") + "verify_asan_link_order=0";
    setenv("ASAN_OPTIONS", options.c_str(), 1);
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    self[length > 0 ? length : 0] = '\0';
    execv(self, argv); // by its own name, which the process and its threads keep
    return std::string("cannot start again with libumockdev-preload: ") + std::strerror(errno);
}

std::unique_ptr<EmulatedBoard> EmulatedBoard::create(std::unique_ptr<SimulatedBoard> model,
                                                     std::string& error) {
    SimulatedBoard& simulated = *model;
    return create(std::move(model), simulated, nullptr, error);
}

std::unique_ptr<EmulatedBoard> EmulatedBoard::create(std::unique_ptr<Ft601Model> model, std::string& error) {
    Ft601Model* ft601 = model.get();
    return create(std::move(model), ft601->source(), ft601, error);
}

std::unique_ptr<EmulatedBoard> EmulatedBoard::createBeside(EmulatedBoard& first,
                                                           std::unique_ptr<SimulatedBoard> model) {
    SimulatedBoard& simulated = *model;
    return createBeside(first, std::move(model), simulated, nullptr);
}

std::unique_ptr<EmulatedBoard> EmulatedBoard::createBeside(EmulatedBoard& first,
                                                           std::unique_ptr<Ft601Model> model) {
    Ft601Model* ft601 = model.get();
    return createBeside(first, std::move(model), ft601->source(), ft601);
}

std::unique_ptr<EmulatedBoard> EmulatedBoard::create(std::unique_ptr<UsbBoard> device, SimulatedBoard& model,
                                                     Ft601Model* ft601, std::string& error) {
    std::unique_ptr<EmulatedBoard> board(new EmulatedBoard);
    board->m_testbed = umockdev_testbed_new();
    if (!board->m_testbed) {
        error = "Could not start a umockdev testbed";
        return nullptr;
    }
    gchar* root = umockdev_testbed_get_root_dir(board->m_testbed);
    board->m_rootDir = root;
    g_free(root);
    // The testbed folder is private to its creator; a program that runs as another user (to test
    // what a user without permission sees) must still find the device in it, and place the socket
    // that stands in for its uevent listener there.
    chmod(board->m_rootDir.c_str(), 01777);
    board->start(std::move(device), model, ft601);
    return board;
}

std::unique_ptr<EmulatedBoard> EmulatedBoard::createBeside(EmulatedBoard& first,
                                                           std::unique_ptr<UsbBoard> device,
                                                           SimulatedBoard& model, Ft601Model* ft601) {
    std::unique_ptr<EmulatedBoard> board(new EmulatedBoard);
    board->m_testbed = static_cast<UMockdevTestbed*>(g_object_ref(first.m_testbed));
    board->m_rootDir = first.m_rootDir;
    board->m_sysPath = SysPathBeside;
    board->m_deviceNumber = DeviceNumbersBeside;
    board->start(std::move(device), model, ft601);
    return board;
}

void EmulatedBoard::start(std::unique_ptr<UsbBoard> device, SimulatedBoard& model, Ft601Model* ft601) {
    EmulatedBoard* board = this;
    board->m_device = std::move(device);
    board->m_model = &model;
    board->m_ft601 = ft601;
    board->m_device->openDeviceWithVidPid(raw::VendorId, raw::ProductId);
    board->m_trace = std::getenv("ZANDOR_EMULATOR_TRACE") != nullptr;
    board->m_handler = umockdev_ioctl_base_new();
    g_signal_connect(board->m_handler, "handle-ioctl", G_CALLBACK(&EmulatedBoard::handleIoctl), board);
    {
        std::scoped_lock lock(board->m_mutex);
        board->plugLocked();
    }
    board->m_timer = std::thread([board] { board->replugTimer(); });
}

EmulatedBoard::~EmulatedBoard() {
    {
        std::scoped_lock lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    if (m_timer.joinable()) {
        m_timer.join();
    }
    // No request reaches this board any more, even when the testbed lives on for another board
    // (which then ends its worker thread, which runs our handler, before it is gone).
    g_signal_handlers_disconnect_by_data(m_handler, this);
    {
        std::scoped_lock lock(m_mutex);
        if (m_plugged) {
            unplugLocked();
        }
    }
    g_clear_object(&m_testbed);
    g_clear_object(&m_handler);
    std::scoped_lock lock(m_mutex);
    m_clients.clear();
}

void EmulatedBoard::plug() {
    std::scoped_lock lock(m_mutex);
    if (!m_plugged) {
        plugLocked();
    }
}

void EmulatedBoard::unplug() {
    std::scoped_lock lock(m_mutex);
    if (m_plugged) {
        unplugLocked();
    }
}

void EmulatedBoard::unplugAtRequest(uint64_t request, std::chrono::milliseconds replugAfter) {
    std::scoped_lock lock(m_mutex);
    m_unplugAt = request;
    m_replugAfter = replugAfter;
}

bool EmulatedBoard::waitForFrameRequests(uint64_t count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return m_frameRequests >= count; });
}

void EmulatedBoard::refuseConfiguration(bool refuse) {
    std::scoped_lock lock(m_mutex);
    m_refuseConfiguration = refuse;
}

void EmulatedBoard::refuseClaim(bool refuse) {
    std::scoped_lock lock(m_mutex);
    m_refuseClaim = refuse;
}

void EmulatedBoard::setNodeMode(unsigned mode) {
    std::scoped_lock lock(m_mutex);
    m_nodeMode = mode;
    if (m_plugged) {
        chmod((m_rootDir + m_node).c_str(), mode);
    }
}

std::string EmulatedBoard::deviceNode() {
    std::scoped_lock lock(m_mutex);
    return m_node;
}

std::vector<std::string> EmulatedBoard::childEnvironment() const {
    std::string preload = "libumockdev-preload.so.0";
    if (const char* existing = std::getenv("LD_PRELOAD");
        existing && *existing && std::strstr(existing, "libumockdev-preload") == nullptr) {
        preload += std::string(":") + existing;
    } else if (existing && *existing) {
        preload = existing;
    }
    return {"UMOCKDEV_DIR=" + m_rootDir, "LD_PRELOAD=" + preload};
}

uint64_t EmulatedBoard::frameRequests() {
    std::scoped_lock lock(m_mutex);
    return m_frameRequests;
}

int EmulatedBoard::clearedHalts() {
    std::scoped_lock lock(m_mutex);
    return m_clearedHalts;
}

int EmulatedBoard::busyClaims() {
    std::scoped_lock lock(m_mutex);
    return m_busyClaims;
}

// Called with m_mutex held.
void EmulatedBoard::plugLocked() {
    ++m_deviceNumber; // 1 is the root hub's; each plug gets the next number, as with the kernel
    char node[32];
    std::snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", BusNumber, m_deviceNumber);
    m_node = node;
    m_frameRequests = 0;

    // The ioctl handler and the node exist before the "add" uevent goes out, so a program that
    // opens the board as soon as it hears of it finds both.
    GError* error = nullptr;
    if (!umockdev_testbed_attach_ioctl(m_testbed, node, m_handler, &error)) {
        std::fprintf(stderr, "emulated board: could not attach to %s: %s\n", node,
                     error ? error->message : "?");
        g_clear_error(&error);
    }
    // The socket that carries the ioctls stands for the kernel, which every user reaches; who may
    // use the board is the node's mode alone.
    chmod((m_rootDir + "/ioctl" + m_node).c_str(), 0666);
    std::filesystem::path file = m_rootDir + m_node;
    std::filesystem::create_directories(file.parent_path());
    if (int fd = ::open(file.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600); fd >= 0) {
        ::close(fd);
    }
    chmod(file.c_str(), m_nodeMode);

    const Identity identity =
        m_ft601
            ? Identity{Ft601Model::VendorId,
                       m_ft601->options().productId,
                       "FTDI",
                       m_ft601->options().product,
                       m_ft601->options().superSpeed ? 5000 : 480,
                       m_ft601->descriptors()}
            : Identity{raw::VendorId, raw::ProductId, "Zandor", "Capture board (emulated)", 480, Descriptors};
    const std::string description = deviceDescription(m_sysPath, m_deviceNumber, m_model->serial(), identity);
    if (!umockdev_testbed_add_from_string(m_testbed, description.c_str(), &error)) {
        std::fprintf(stderr, "emulated board: could not add the device: %s\n", error ? error->message : "?");
        g_clear_error(&error);
    }
    m_device->openDeviceWithVidPid(raw::VendorId, raw::ProductId);
    m_plugged = true;
    if (m_trace) {
        std::fprintf(stderr, "emulated board: plugged in at %s\n", node);
    }
    m_changed.notify_all();
}

// Called with m_mutex held.
void EmulatedBoard::unplugLocked() {
    m_plugged = false;
    // Whatever was in flight fails as the kernel fails it when the device goes.
    for (auto& [client, state] : m_clients) {
        for (auto& urb : state->inFlight) {
            urb.status = -ENODEV;
            state->done.push_back(urb);
        }
        state->inFlight.clear();
        state->claimed = false;
    }
    umockdev_testbed_uevent(m_testbed, m_sysPath, "remove");
    umockdev_testbed_remove_device(m_testbed, m_sysPath);
    if (m_replugAfter.count() >= 0) {
        m_replugAt = std::chrono::steady_clock::now() + m_replugAfter;
    }
    if (m_trace) {
        std::fprintf(stderr, "emulated board: unplugged from %s\n", m_node.c_str());
    }
    m_changed.notify_all();
}

void EmulatedBoard::replugTimer() {
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        if (m_replugAt == std::chrono::steady_clock::time_point::max()) {
            m_changed.wait(lock);
        } else if (m_changed.wait_until(lock, m_replugAt) == std::cv_status::timeout ||
                   std::chrono::steady_clock::now() >= m_replugAt) {
            m_replugAt = std::chrono::steady_clock::time_point::max();
            if (!m_plugged && !m_stopping) {
                plugLocked();
            }
        }
    }
}

int EmulatedBoard::handleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, void* self) {
    return static_cast<EmulatedBoard*>(self)->handle(client) ? TRUE : FALSE;
}

// Runs on the testbed's worker thread, one request at a time.
bool EmulatedBoard::handle(UMockdevIoctlClient* client) {
    std::unique_lock lock(m_mutex);
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    if (m_trace) {
        std::fprintf(stderr, "emulated board: %s ioctl 0x%lx\n", umockdev_ioctl_client_get_devnode(client),
                     request);
    }

    auto found = m_clients.find(client);
    if (found == m_clients.end()) {
        // A new open file of the node; files closed since are forgotten with their URBs and claims.
        std::erase_if(m_clients,
                      [](const auto& entry) { return !umockdev_ioctl_client_get_connected(entry.first); });
        auto state = std::make_unique<Client>();
        state->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
        state->node = umockdev_ioctl_client_get_devnode(client);
        found = m_clients.emplace(client, std::move(state)).first;
    }
    Client& state = *found->second;
    // A file of a device that has gone (or of an earlier plug) only gives back what it had done.
    const bool gone = !m_plugged || state.node != m_node;

    switch (request) {
    case USBDEVFS_REAPURB:
    case USBDEVFS_REAPURBNDELAY:
        reap(client, state, arg);
        return true;
    case USBDEVFS_DISCARDURB:
        discard(client, state, arg);
        return true;
    default:
        break;
    }
    if (gone) {
        umockdev_ioctl_client_complete(client, -1, ENODEV);
        return true;
    }

    switch (request) {
    case USBDEVFS_GET_CAPABILITIES: {
        DataRef value(umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr));
        if (!value.data) {
            umockdev_ioctl_client_complete(client, -1, EFAULT);
            return true;
        }
        std::memcpy(value.data->data, &Capabilities, sizeof Capabilities);
        umockdev_ioctl_client_complete(client, 0, 0);
        return true;
    }
    case USBDEVFS_SETCONFIGURATION: {
        DataRef value(umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned), nullptr));
        unsigned configuration = 0;
        if (value.data) {
            std::memcpy(&configuration, value.data->data, sizeof configuration);
        }
        if (m_refuseConfiguration) {
            umockdev_ioctl_client_complete(client, -1, EIO);
            return true;
        }
        int result = m_device->setConfiguration(static_cast<int>(configuration));
        umockdev_ioctl_client_complete(client, result < 0 ? -1 : 0, result < 0 ? EINVAL : 0);
        return true;
    }
    case USBDEVFS_CLAIMINTERFACE:
        claim(client, state, arg);
        return true;
    case USBDEVFS_RELEASEINTERFACE:
        state.claimed = false;
        umockdev_ioctl_client_complete(client, 0, 0);
        return true;
    case USBDEVFS_CLEAR_HALT: {
        DataRef value(umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned), nullptr));
        unsigned endpoint = 0;
        if (value.data) {
            std::memcpy(&endpoint, value.data->data, sizeof endpoint);
        }
        m_device->clearHalt(static_cast<uint8_t>(endpoint));
        ++m_clearedHalts;
        umockdev_ioctl_client_complete(client, 0, 0);
        return true;
    }
    case USBDEVFS_SUBMITURB:
        submit(client, state, arg);
        return true;
    case USBDEVFS_RESETEP:
    case USBDEVFS_RESET:
        umockdev_ioctl_client_complete(client, 0, 0);
        return true;
    case USBDEVFS_GETDRIVER:
    case USBDEVFS_IOCTL:
        // No kernel driver is bound to the board's interface.
        umockdev_ioctl_client_complete(client, -1, ENODATA);
        return true;
    default:
        if (m_trace) {
            std::fprintf(stderr, "emulated board: ioctl 0x%lx is not supported\n", request);
        }
        umockdev_ioctl_client_complete(client, -1, ENOTTY);
        return true;
    }
}

bool EmulatedBoard::claim(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg) {
    DataRef value(umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned), nullptr));
    unsigned interfaceNumber = 0;
    if (value.data) {
        std::memcpy(&interfaceNumber, value.data->data, sizeof interfaceNumber);
    }
    if (m_device->claimInterface(static_cast<int>(interfaceNumber)) < 0) {
        umockdev_ioctl_client_complete(client, -1, ENOENT);
        return false;
    }
    if (m_refuseClaim) {
        umockdev_ioctl_client_complete(client, -1, EIO);
        return false;
    }
    // Another open file, in this process or another, holding the interface makes it busy.
    for (const auto& [other, otherState] : m_clients) {
        if (other != client && otherState->claimed && otherState->node == state.node &&
            umockdev_ioctl_client_get_connected(other)) {
            ++m_busyClaims;
            umockdev_ioctl_client_complete(client, -1, EBUSY);
            return false;
        }
    }
    state.claimed = true;
    umockdev_ioctl_client_complete(client, 0, 0);
    return true;
}

void EmulatedBoard::submit(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg) {
    UMockdevIoctlData* urbData = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
    if (!urbData) {
        umockdev_ioctl_client_complete(client, -1, EFAULT);
        return;
    }
    auto* urb = reinterpret_cast<usbdevfs_urb*>(urbData->data);
    uint8_t* buffer = nullptr;
    if (urb->buffer_length > 0) {
        DataRef resolved(umockdev_ioctl_data_resolve(urbData, offsetof(usbdevfs_urb, buffer),
                                                     static_cast<gsize>(urb->buffer_length), nullptr));
        buffer = resolved.data ? resolved.data->data : nullptr;
    }

    Urb pending{urbData};
    bool waits = false;
    if (urb->type == USBDEVFS_URB_TYPE_CONTROL && buffer && urb->buffer_length >= 8) {
        Setup setup{buffer[0], buffer[1], static_cast<uint16_t>(buffer[2] | buffer[3] << 8),
                    static_cast<uint16_t>(buffer[4] | buffer[5] << 8),
                    static_cast<uint16_t>(buffer[6] | buffer[7] << 8)};
        if (!m_ft601 && setup.requestType == raw::FrameRequestType && setup.request == raw::FrameRequest) {
            const uint64_t number = m_frameRequests++;
            m_changed.notify_all();
            if (number == m_unplugAt) {
                m_unplugAt = UINT64_MAX;
                umockdev_ioctl_data_unref(urbData);
                unplugLocked();
                umockdev_ioctl_client_complete(client, -1, ENODEV);
                return;
            }
        }
        int result = m_device->controlTransfer(setup.requestType, setup.request, setup.value, setup.index,
                                               buffer + 8, setup.length, raw::ControlTimeoutMs);
        pending.status = result < 0 ? -errnoOf(result) : 0;
        pending.actualLength = result < 0 ? 0 : result;
    } else if (urb->type == USBDEVFS_URB_TYPE_BULK && buffer) {
        int transferred = 0;
        const uint64_t framesBefore = m_ft601 ? m_ft601->framesSent() : 0;
        int result = m_device->bulkTransfer(urb->endpoint, buffer, urb->buffer_length, &transferred,
                                            raw::BulkTimeoutMs);
        pending.actualLength = transferred;
        if (m_ft601 && m_ft601->framesSent() > framesBefore && !countFt601Frame()) {
            // Pulled out as the frame went: the read fails as the kernel fails it.
            pending.status = -ENODEV;
            pending.actualLength = 0;
        } else if (result == usb::ErrorTimeout) {
            // The board says no more; the URB stays in flight until libusb gives up on it.
            waits = true;
        } else {
            pending.status = result < 0 ? -errnoOf(result) : 0;
        }
    } else {
        umockdev_ioctl_data_unref(urbData);
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return;
    }
    if (waits) {
        state.inFlight.push_back(pending);
    } else {
        state.done.push_back(pending);
    }
    umockdev_ioctl_client_complete(client, 0, 0);
}

// Called with m_mutex held.
bool EmulatedBoard::countFt601Frame() {
    const uint64_t number = m_frameRequests++;
    m_changed.notify_all();
    if (number != m_unplugAt) {
        return true;
    }
    m_unplugAt = UINT64_MAX;
    unplugLocked();
    return false;
}

void EmulatedBoard::reap(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg) {
    if (state.done.empty()) {
        const bool gone = !m_plugged || state.node != m_node;
        umockdev_ioctl_client_complete(client, -1, gone && state.inFlight.empty() ? ENODEV : EAGAIN);
        return;
    }
    Urb urb = state.done.front();
    state.done.pop_front();
    auto* fields = reinterpret_cast<usbdevfs_urb*>(urb.data->data);
    fields->status = urb.status;
    fields->actual_length = urb.actualLength;
    DataRef pointer(umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr));
    if (pointer.data) {
        umockdev_ioctl_data_set_ptr(pointer.data, 0, urb.data);
    }
    umockdev_ioctl_data_unref(urb.data);
    umockdev_ioctl_client_complete(client, pointer.data ? 0 : -1, pointer.data ? 0 : EFAULT);
}

void EmulatedBoard::discard(UMockdevIoctlClient* client, Client& state, UMockdevIoctlData* arg) {
    unsigned long address = 0;
    std::memcpy(&address, arg->data, sizeof address);
    auto urb = std::find_if(state.inFlight.begin(), state.inFlight.end(),
                            [&](const Urb& candidate) { return candidate.data->client_addr == address; });
    if (urb == state.inFlight.end()) {
        umockdev_ioctl_client_complete(client, -1, EINVAL);
        return;
    }
    urb->status = -ENOENT;
    state.done.push_back(*urb);
    state.inFlight.erase(urb);
    umockdev_ioctl_client_complete(client, 0, 0);
}

} // namespace zandor
