#include "AtomicFile.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

namespace {

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

AtomicFile::~AtomicFile() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
    if (!m_path.empty() && !m_committed) {
        ::unlink(m_path.c_str());
    }
}

Error AtomicFile::create() {
    struct stat info {};
    const bool exists = ::stat(m_target.c_str(), &info) == 0;
    if (exists && S_ISDIR(info.st_mode)) {
        return Error::other("cannot write", m_target, "it is a folder");
    }
    std::string pattern = m_target + ".part-XXXXXX";
    m_fd = mkstemp(pattern.data());
    if (m_fd < 0) {
        return Error::system("cannot write beside", m_target);
    }
    m_path = pattern;
    // mkstemp makes the file private; the result should look like any other file the user makes,
    // or keep the permissions the target had.
    mode_t mode = 0;
    if (exists) {
        mode = info.st_mode & 07777;
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }
    ::fchmod(m_fd, mode); // the file works either way; only its permissions would differ
    return {};
}

Error AtomicFile::write(const uint8_t* data, uint64_t length) {
    while (length > 0) {
        const ssize_t n = ::write(m_fd, data, length);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return Error::system("cannot write", m_target, n < 0 ? errno : ENOSPC);
        }
        data += n;
        length -= static_cast<uint64_t>(n);
    }
    return {};
}

Error AtomicFile::commit() {
    // A writer that opened path() itself has closed its descriptor by now; ours refers to the
    // same file.
    if (::fsync(m_fd) != 0) {
        return Error::system("cannot write", m_target);
    }
    if (::rename(m_path.c_str(), m_target.c_str()) != 0) {
        return Error::system("cannot replace", m_target);
    }
    m_committed = true;
    const int folder = ::open(folderOf(m_target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    return {};
}

} // namespace zandor
