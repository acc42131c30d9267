#include "RegularFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

int RegularFile::open(const std::string& path, Status& status) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        status = errno == ENOENT ? Status::Missing : Status::Unreadable;
        return -1;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        status = S_ISREG(info.st_mode) ? Status::Unreadable : Status::NotRegular;
        ::close(fd);
        return -1;
    }
    // Reads of a regular file never block anyway; the flag only guarded the open.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    status = Status::Read;
    return fd;
}

RegularFile::Status RegularFile::read(const std::string& path, uint64_t maxBytes, std::string& contents) {
    Status status = Status::Read;
    const int fd = open(path, status);
    if (fd < 0) {
        return status;
    }
    struct stat info {};
    fstat(fd, &info);
    if (static_cast<uint64_t>(info.st_size) > maxBytes) {
        ::close(fd);
        return Status::TooLarge;
    }
    // One byte more than allowed tells a file that grew meanwhile.
    contents.resize(static_cast<size_t>(info.st_size) + 1);
    size_t filled = 0;
    while (filled < contents.size()) {
        const ssize_t n = ::read(fd, contents.data() + filled, contents.size() - filled);
        if (n == 0) {
            break;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            status = Status::Unreadable;
            break;
        }
        filled += static_cast<size_t>(n);
        if (filled == contents.size() && filled <= maxBytes) {
            contents.resize(std::min<uint64_t>(filled * 2, maxBytes + 1));
        }
    }
    ::close(fd);
    contents.resize(filled);
    if (status == Status::Read && filled > maxBytes) {
        status = Status::TooLarge;
    }
    return status;
}

std::string RegularFile::describe(Status status, uint64_t maxBytes) {
    switch (status) {
    case Status::Read:
        return "it was read";
    case Status::Missing:
        return "it does not exist";
    case Status::Unreadable:
        return "it cannot be read";
    case Status::NotRegular:
        return "it is not a regular file";
    case Status::TooLarge:
        return "it is larger than " + (maxBytes % (1024 * 1024) == 0
                                           ? std::to_string(maxBytes / (1024 * 1024)) + " MB"
                                           : std::to_string(maxBytes) + " bytes");
    }
    return {};
}

} // namespace zandor
