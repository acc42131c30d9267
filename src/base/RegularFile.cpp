#include "RegularFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

namespace {

// A descriptor of `path` when it is a regular file, or why not.
Result<int> openRegular(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return Error::system("cannot open", path);
    }
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        Error error = Error::system("cannot read", path);
        ::close(fd);
        return error;
    }
    if (!S_ISREG(info.st_mode)) {
        ::close(fd);
        return Error::other("cannot read", path, RegularFile::describe(RegularFile::Status::NotRegular));
    }
    // Reads of a regular file never block anyway; the flag only guarded the open.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

} // namespace

int RegularFile::open(const std::string& path, Status& status) {
    const Result<int> fd = openRegular(path);
    if (!fd) {
        const Error error = fd.error();
        status = error.domain() == Error::Domain::Other ? Status::NotRegular
                 : error.systemCode() == ENOENT         ? Status::Missing
                                                        : Status::Unreadable;
        return -1;
    }
    status = Status::Read;
    return *fd;
}

Result<std::string> RegularFile::read(const std::string& path, uint64_t maxBytes) {
    const Result<int> opened = openRegular(path);
    if (!opened) {
        return opened.error();
    }
    const int fd = *opened;
    struct stat info {};
    fstat(fd, &info);
    if (static_cast<uint64_t>(info.st_size) > maxBytes) {
        ::close(fd);
        return Error::other("cannot read", path, describe(Status::TooLarge, maxBytes));
    }
    // One byte more than allowed tells a file that grew meanwhile.
    std::string contents;
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
            Error error = Error::system("cannot read", path);
            ::close(fd);
            return error;
        }
        filled += static_cast<size_t>(n);
        if (filled == contents.size() && filled <= maxBytes) {
            contents.resize(std::min<uint64_t>(filled * 2, maxBytes + 1));
        }
    }
    ::close(fd);
    if (filled > maxBytes) {
        return Error::other("cannot read", path, describe(Status::TooLarge, maxBytes));
    }
    contents.resize(filled);
    return contents;
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

std::string RegularFile::describe(const Error& error) {
    if (error.domain() == Error::Domain::Other) {
        return error.detail();
    }
    return describe(error.systemCode() == ENOENT ? Status::Missing : Status::Unreadable);
}

} // namespace zandor
