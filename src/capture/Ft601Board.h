#pragma once

#include "Board.h"
#include "Ft601Usb.h"

#include <mutex>
#include <string>

namespace zandor {

// The driver of the FT601-based board of the console's new models (0403:601f and its kin, product
// string "N3DSXL" or "N3DSXL.2"). The chip takes numbered 20-byte session commands on endpoint
// 0x01 for each transfer on the board's pipes; the board takes its own commands on 0x02 (SPI on
// and off, configuration read, firmware choice) and, once streaming, sends one frame a read on
// 0x82: the picture in its own column order (ColumnOrder::Ft601, or Ft601ThreeD with both eyes),
// then the frame's sound, ending in a short packet. Five reads stay in flight.
class Ft601Board final : public Board {
public:
    // With `onlySerial`, the driver opens that board alone, whatever serial open() is asked for.
    explicit Ft601Board(std::string onlySerial = {});
    ~Ft601Board() override;

    static constexpr uint32_t FlatReadBytes = 555008;
    static constexpr uint32_t ThreeDReadBytes = 842752;
    static constexpr int ReadsInFlight = 5;
    static constexpr unsigned TimeoutMs = 500;

    Error open(const std::string& serial) override;
    FrameStatus readFrame(CaptureData& frame) override;
    void close() override;
    BoardInfo info() const override;
    bool can3D() const override;
    bool is3D() const override;
    Error set3D(bool on) override;
    std::vector<std::string> serials() override;
    bool watchArrivals() override { return m_usb.watchArrivals(); }
    bool arrived() override { return m_usb.arrived(); }
    void stopWatching() override { m_usb.stopWatching(); }

private:
    // Opens, claims and readies the data pipe: the first half of connecting, and all of reopening.
    Error openOnce(const std::string& serial);
    // Aborts the data pipe, lets the interfaces and the handle go.
    void shut();
    int session(uint8_t pipe, uint8_t code, uint32_t bytes);
    int abortData();
    int boardCommand(uint32_t command);
    int readReply(uint8_t* data, int length, unsigned timeoutMs);
    // The firmware for the flat picture or for 3D; `switching` on a board already set up.
    int chooseFirmware(bool threeD, bool switching);
    int readConfiguration(bool& capable);
    // Stream, abort, stream, and the reads in flight.
    int startStreaming();
    uint32_t readBytes() const { return m_3D ? ThreeDReadBytes : FlatReadBytes; }

    const std::string m_onlySerial;
    Ft601Usb m_usb;
    // The device thread's own.
    bool m_streaming = false;
    bool m_want3D = false;
    bool m_3D = false;
    int m_silentFrames = 0;
    // What the board told; guarded by m_lock, as the log and the command line may ask meanwhile.
    mutable std::mutex m_lock;
    std::string m_product = "N3DSXL";
    std::string m_serial;
    uint16_t m_productId = 0x601F;
    bool m_superSpeed = false;
    bool m_can3D = false;
    bool m_threeDNow = false;
    std::optional<bool> m_sendsSound;
};

} // namespace zandor
