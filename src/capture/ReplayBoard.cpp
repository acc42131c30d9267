#include "ReplayBoard.h"

#include "RawFrame.h"
#include "base/RegularFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

namespace {

uint32_t littleEndian32(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

} // namespace

void ReplayBoard::header(uint8_t (&bytes)[HeaderBytes]) {
    std::memset(bytes, 0, HeaderBytes);
    std::memcpy(bytes, Magic, sizeof Magic);
    for (int i = 0; i < 4; ++i) {
        bytes[sizeof Magic + i] = static_cast<uint8_t>(RecordBytes >> (8 * i));
    }
}

Result<std::unique_ptr<ReplayBoard>> ReplayBoard::open(const std::string& path) {
    RegularFile::Status status = RegularFile::Status::Read;
    const int fd = RegularFile::open(path, status);
    if (status == RegularFile::Status::NotRegular) {
        return Error::library(Error::Domain::Other, StepOpen, path, NotRegular, "is not a regular file");
    }
    if (fd < 0) {
        return Error::library(Error::Domain::Other, StepOpen, path, Unreadable,
                              RegularFile::describe(status));
    }
    struct stat info {};
    fstat(fd, &info);
    const auto size = static_cast<uint64_t>(info.st_size);
    uint8_t start[HeaderBytes] = {};
    uint8_t expected[HeaderBytes];
    header(expected);
    const bool withSound = size >= HeaderBytes && pread(fd, start, HeaderBytes, 0) == HeaderBytes &&
                           std::memcmp(start, expected, HeaderBytes) == 0;
    if (withSound && size > HeaderBytes && (size - HeaderBytes) % RecordBytes == 0) {
        return std::unique_ptr<ReplayBoard>(new ReplayBoard(fd, (size - HeaderBytes) / RecordBytes, true));
    }
    if (!withSound && size > 0 && size % raw::FrameBytes == 0) {
        return std::unique_ptr<ReplayBoard>(new ReplayBoard(fd, size / raw::FrameBytes, false));
    }
    ::close(fd);
    return Error::library(Error::Domain::Other, StepOpen, path, NotFrames,
                          "holds " + std::to_string(size) + " bytes, not a whole number of " +
                              std::to_string(raw::FrameBytes) + "-byte frames");
}

ReplayBoard::~ReplayBoard() {
    ::close(m_fd);
}

uint64_t ReplayBoard::recordStart(uint64_t frame) const {
    return m_withSound ? HeaderBytes + (frame % m_frames) * RecordBytes
                       : (frame % m_frames) * raw::FrameBytes;
}

void ReplayBoard::read(uint64_t position, uint8_t* destination, uint64_t length) const {
    uint64_t done = 0;
    while (done < length) {
        const ssize_t n = pread(m_fd, destination + done, length - done, static_cast<off_t>(position + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            std::memset(destination + done, 0, length - done);
            return;
        }
        done += static_cast<uint64_t>(n);
    }
}

void ReplayBoard::fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) {
    // Straight from the file into the frame, as the board's DMA would: no copy in between.
    read(recordStart(frame) + offset, destination, length);
}

uint64_t ReplayBoard::soundBytes(uint64_t frame) {
    if (!m_withSound) {
        return 0;
    }
    uint8_t count[SoundCountBytes];
    read(recordStart(frame) + raw::FrameBytes, count, sizeof count);
    // A damaged count sends no more than a board could.
    return 2 * std::min<uint64_t>(littleEndian32(count), raw::MaxSoundValues);
}

void ReplayBoard::fillSound(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) {
    read(recordStart(frame) + raw::FrameBytes + SoundCountBytes + offset, destination, length);
}

} // namespace zandor
