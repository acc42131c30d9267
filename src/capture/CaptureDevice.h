#pragma once

#include "FramePool.h"
#include "Observable.h"
#include "RawFrame.h"
#include "base/Error.h"
#include "ColumnOrder.h"
#include "base/Worker.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace zandor {

class Board;
class CaptureScreen;
class UsbBoard;

// The capture board: reads one raw frame at a time from the board's driver (see Board) on a thread
// of its own, at most 60 a second, stamps it with the seconds since listening began (at the moment
// it was asked for) and publishes it, with the sound that came with it. Owns the two screens that
// cut each raw frame.
//
// Every published frame is numbered by its slot on the board's frame grid: the nominal frame
// periods since the run's first request up to its own, rounded, and always above the previous
// number, so a request that came late skips numbers rather than squeezing time. Numbers never repeat over the
// device's life (a new run goes on after the last one), so frames of an earlier run can never be
// taken for frames of a later one. A movie times its frames by these numbers.
//
// When the board vanishes while listening (the cable is pulled), the device logs it once, lets the
// handle go and goes on publishing a black, stamped frame every period, so that everything
// downstream keeps time; it watches for the board to come back, opens it again and goes on with
// real frames. A board chosen by its serial number, or the one that was open when it vanished,
// is waited for by its serial: another board plugged in meanwhile is left alone.
class CaptureDevice final : public Observable {
public:
    static constexpr uint64_t QueueLength = 20;
    static constexpr std::chrono::nanoseconds DefaultFramePeriod{16'666'667};
    // The board's nominal rate, of which DefaultFramePeriod is the rounded period; frame numbers
    // count its periods.
    static constexpr int NominalFramesPerSecond = 60;
    static constexpr uint64_t RateLogInterval = 300;
    // Without hotplug notices, how often a vanished board is looked for; with them, how often an
    // announced board that could not be opened yet is tried again, for at most ArrivalRetryTime.
    static constexpr std::chrono::milliseconds ReconnectInterval{500};
    static constexpr std::chrono::seconds ArrivalRetryTime{5};

    static std::shared_ptr<CaptureDevice> create(std::unique_ptr<Board> board);
    // A board on the bus that speaks as the 16d0:06a3 board does (libusb's, or a simulated one).
    static std::shared_ptr<CaptureDevice> create(std::unique_ptr<UsbBoard> board);
    ~CaptureDevice() override;

    // Opens the board and starts the device thread and both screens. Returns whether the device
    // is now listening; a second start while listening does nothing.
    // Take the device's lock, then each screen's to start or stop it (see Observable.h). Call
    // them holding no producer's lock: they join the threads of the run before.
    bool startListening();
    // Ends the run and waits, bounded, for the device's and the screens' threads to end; the
    // device thread lets the board go as it ends, so that another program (or the next run) can
    // claim it.
    void stopListening();
    bool isListening();
    // Why the last startListening failed (see Board::open); no error when it did not.
    Error failure();
    // The serial number of the board to open; empty (the default) for the first one found. Taken
    // at the next startListening.
    void setSerial(std::string serial);
    // Whether the board vanished while listening and has not come back yet.
    bool isDisconnected();
    // Called on the device thread, with false when the board vanishes and true when it is back.
    void setConnectionObserver(std::function<void(bool connected)> observer);

    // 0 the top screen (the left eye in 3D), 1 the bottom one, 2 the right eye (see ScreenId).
    std::shared_ptr<CaptureScreen> screen(unsigned index) const { return m_screens.at(index); }

    // Asks for the console's 3D picture or the flat one; the device thread switches the board
    // between two frames (and at every opening), so a run goes on across the switch. A board
    // that cannot capture 3D stays flat, with one log line.
    void set3D(bool on);
    bool wants3D();

    // Fetches, stamps, numbers and publishes one frame; `due` is when the pass was due on the
    // device thread's pacing grid.
    void frameRequest(std::chrono::steady_clock::time_point due);

    // Frames requested since the last startListening.
    uint64_t count();
    // The wall-clock moment of the last startListening; frame time stamps count from it.
    std::chrono::system_clock::time_point startTime();
    // The shortest time between two frame requests; 1/60 second unless changed (benchmarks run
    // unpaced with zero).
    void setFramePeriod(std::chrono::nanoseconds period);

    // The board behind the device.
    Board& board() { return *m_board; }

private:
    explicit CaptureDevice(std::unique_ptr<Board> board);
    void listener(const Worker::Run& run);
    // Waits for the threads of the previous run. Holding no lock.
    void joinThreads();
    // The opening sequence up to the frame start request and its pause; `quiet` for the attempts
    // while waiting for a vanished board, which must not fill the log.
    Error openBoard(const std::string& serial, bool quiet);
    void disconnected();
    void tryReconnect();
    void notifyConnection(bool connected);
    // On the device thread: gives the board the 3D choice when it changed.
    void apply3D();

    std::unique_ptr<Board> m_board;
    // A full queue, the frame a consumer has in hand and the one being read.
    const FramePoolPtr m_pool = FramePool::create(raw::MaxBlockBytes, QueueLength + 2);
    std::array<std::shared_ptr<CaptureScreen>, ScreenCount> m_screens;

    // Guarded by the Observable lock.
    bool m_listening = false;
    DropReport m_drops; // guarded by m_lock
    uint64_t m_count = 0;
    std::chrono::system_clock::time_point m_first;
    // The numbering: the first number of the run, when its first pass was due (unset until then),
    // and the last number given.
    uint64_t m_runBase = 1;
    std::optional<std::chrono::steady_clock::time_point> m_runOrigin;
    uint64_t m_lastNumber = 0;
    std::chrono::nanoseconds m_framePeriod = DefaultFramePeriod;
    Error m_failure;
    std::string m_serial;
    bool m_disconnected = false;
    bool m_wants3D = false;
    std::function<void(bool)> m_connectionObserver;

    // The device thread's own: how it waits for a vanished board (announced arrivals, or attempts
    // at intervals), and the serial number it waits for.
    std::string m_awaitedSerial;
    // The 3D choice last given to the board, so that a refusal is said once.
    std::optional<bool> m_asked3D;
    std::shared_ptr<uint8_t[]> m_black; // the one block every black frame of a disconnect shares
    bool m_announced = false;
    bool m_saidNoPermission = false;
    std::chrono::steady_clock::time_point m_nextAttempt;
    std::chrono::steady_clock::time_point m_retryUntil;

    // Last: destroyed first, it joins the thread before the members above go. A restart joins
    // the previous run's thread first, so that its last request cannot mix with the new run's
    // counters and handle.
    Worker m_worker{"zandor-device"};
};

} // namespace zandor
