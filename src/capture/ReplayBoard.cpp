#include "ReplayBoard.h"

#include "RawFrame.h"
#include "base/RegularFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

std::unique_ptr<ReplayBoard> ReplayBoard::open(const std::string& path, std::string& error) {
    RegularFile::Status status = RegularFile::Status::Read;
    const int fd = RegularFile::open(path, status);
    if (status == RegularFile::Status::NotRegular) {
        error = "Replay file '" + path + "' is not a regular file";
        return nullptr;
    }
    if (fd < 0) {
        error = "Could not open replay file '" + path + "': " + RegularFile::describe(status);
        return nullptr;
    }
    struct stat info {};
    fstat(fd, &info);
    auto size = static_cast<uint64_t>(info.st_size);
    if (size == 0 || size % raw::FrameBytes != 0) {
        error = "Replay file '" + path + "' holds " + std::to_string(size) +
                " bytes, not a whole number of " + std::to_string(raw::FrameBytes) + "-byte frames";
        ::close(fd);
        return nullptr;
    }
    return std::unique_ptr<ReplayBoard>(new ReplayBoard(fd, size / raw::FrameBytes));
}

ReplayBoard::~ReplayBoard() {
    ::close(m_fd);
}

void ReplayBoard::fill(uint64_t frame, uint64_t offset, uint8_t* destination, uint64_t length) {
    // Straight from the file into the frame, as the board's DMA would: no copy in between.
    auto position = static_cast<off_t>((frame % m_frames) * raw::FrameBytes + offset);
    uint64_t done = 0;
    while (done < length) {
        ssize_t n = pread(m_fd, destination + done, length - done, position + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            // The file shrank under us: the rest of the frame is black.
            std::memset(destination + done, 0, length - done);
            return;
        }
        done += static_cast<uint64_t>(n);
    }
}

} // namespace zandor
