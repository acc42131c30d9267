#pragma once

#include "Board.h"

#include <atomic>
#include <memory>
#include <string>

namespace zandor {

class ClassicBoard;
class Ft601Board;

// Whichever capture board is plugged in: the old models' 16d0:06a3 board or the new models' FT601
// board, found by its ids (and product string), the old one first when both are there. Each
// opening looks again, so a board swapped while unplugged is found too.
class AnyUsbBoard final : public Board {
public:
    // With `onlySerial`, that board alone, whatever serial open() is asked for.
    explicit AnyUsbBoard(std::string onlySerial = {});
    ~AnyUsbBoard() override;

    Error open(const std::string& serial) override;
    FrameStatus readFrame(CaptureData& frame) override;
    void close() override;
    BoardInfo info() const override;
    bool can3D() const override;
    bool is3D() const override;
    Error set3D(bool on) override;
    std::vector<std::string> serials() override;
    bool watchArrivals() override;
    bool arrived() override;
    void stopWatching() override;

private:
    const std::unique_ptr<ClassicBoard> m_classic;
    const std::unique_ptr<Ft601Board> m_ft601;
    // The one that opened last: set by the device thread, read by any (info, 3D).
    std::atomic<Board*> m_open{nullptr};
};

} // namespace zandor
