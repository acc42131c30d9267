#include "AnyUsbBoard.h"

#include "ClassicBoard.h"
#include "Ft601Board.h"
#include "LibusbBoard.h"
#include "UsbBoard.h"

namespace zandor {

namespace {

// How far an opening got: a board that was found but could not be used says more than one not found.
int depth(const Error& error) {
    if (error.step() == Board::StepOpen) {
        return error.code() == usb::ErrorAccess ? 1 : 0;
    }
    return 2;
}

} // namespace

AnyUsbBoard::AnyUsbBoard(std::string onlySerial)
    : m_classic(std::make_unique<ClassicBoard>(std::make_unique<LibusbBoard>(), "Capture board", onlySerial)),
      m_ft601(std::make_unique<Ft601Board>(onlySerial)) {}

AnyUsbBoard::~AnyUsbBoard() = default;

Error AnyUsbBoard::open(const std::string& serial) {
    m_open = nullptr;
    Error classic = m_classic->open(serial);
    if (!classic) {
        m_open = m_classic.get();
        return {};
    }
    m_classic->close();
    Error ft601 = m_ft601->open(serial);
    if (!ft601) {
        m_open = m_ft601.get();
        return {};
    }
    m_ft601->close();
    return depth(ft601) > depth(classic) ? ft601 : classic;
}

Board::FrameStatus AnyUsbBoard::readFrame(CaptureData& frame) {
    Board* open = m_open;
    return open ? open->readFrame(frame) : FrameStatus::Gone;
}

void AnyUsbBoard::close() {
    if (Board* open = m_open) {
        open->close();
    }
}

BoardInfo AnyUsbBoard::info() const {
    Board* open = m_open;
    return open ? open->info() : m_classic->info();
}

bool AnyUsbBoard::can3D() const {
    Board* open = m_open;
    return open && open->can3D();
}

bool AnyUsbBoard::is3D() const {
    Board* open = m_open;
    return open && open->is3D();
}

Error AnyUsbBoard::set3D(bool on) {
    // The choice is kept for the FT601 board's next opening, whichever board is open now.
    Error error = m_ft601->set3D(on);
    if (m_open.load() == m_classic.get()) {
        return m_classic->set3D(on);
    }
    return error;
}

std::vector<std::string> AnyUsbBoard::serials() {
    std::vector<std::string> serials = m_classic->serials();
    for (std::string& serial : m_ft601->serials()) {
        serials.push_back(std::move(serial));
    }
    return serials;
}

bool AnyUsbBoard::watchArrivals() {
    const bool classic = m_classic->watchArrivals();
    const bool ft601 = m_ft601->watchArrivals();
    return classic && ft601;
}

bool AnyUsbBoard::arrived() {
    const bool classic = m_classic->arrived();
    const bool ft601 = m_ft601->arrived();
    return classic || ft601;
}

void AnyUsbBoard::stopWatching() {
    m_classic->stopWatching();
    m_ft601->stopWatching();
}

} // namespace zandor
