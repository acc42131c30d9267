#pragma once

#include "SimulatedBoard.h"

#include <cstdint>
#include <memory>
#include <string>

namespace zandor {

// A simulated board that sends the raw frames of a file (raw::FrameBytes each, the board's own
// format, as `zandor-cli dump` writes them), starting again at the first after the last.
class ReplayBoard final : public SimulatedBoard {
public:
    // Null with a one-line reason in `error` when the file cannot be read or its size is not a
    // whole, non-zero number of frames.
    static std::unique_ptr<ReplayBoard> open(const std::string& path, std::string& error);
    ~ReplayBoard() override;

protected:
    void fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) override;

private:
    ReplayBoard(int fd, uint64_t frames) : m_fd(fd), m_frames(frames) {}

    int m_fd;
    uint64_t m_frames;
};

} // namespace zandor
