#include "OutputFile.h"

#include <cerrno>
#include <cstring>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

namespace {

std::string reason(const std::string& path) { return "Could not write '" + path + "': " + std::strerror(errno); }

} // namespace

OutputFile::~OutputFile() {
    if (m_fd >= 0) {
        ::close(m_fd);
        ::unlink(m_temporary.c_str());
    }
}

bool OutputFile::open(std::string& error) {
    struct stat info {};
    if (::stat(m_path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        error = "Could not write '" + m_path + "': it is a folder";
        return false;
    }
    std::string pattern = m_path + ".part-XXXXXX";
    m_fd = mkstemp(pattern.data());
    if (m_fd < 0) {
        error = reason(m_path);
        return false;
    }
    fchmod(m_fd, 0644);
    m_temporary = pattern;
    return true;
}

bool OutputFile::write(const uint8_t* data, uint64_t length, std::string& error) {
    while (length > 0) {
        ssize_t n = ::write(m_fd, data, length);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error = reason(m_path);
            return false;
        }
        data += n;
        length -= static_cast<uint64_t>(n);
    }
    return true;
}

bool OutputFile::commit(std::string& error) {
    if (fsync(m_fd) != 0 || ::close(m_fd) != 0) {
        error = reason(m_path);
        m_fd = -1;
        ::unlink(m_temporary.c_str());
        return false;
    }
    m_fd = -1;
    if (std::rename(m_temporary.c_str(), m_path.c_str()) != 0) {
        error = reason(m_path);
        ::unlink(m_temporary.c_str());
        return false;
    }
    return true;
}

} // namespace zandor
