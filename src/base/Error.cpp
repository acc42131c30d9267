#include "Error.h"

#include <cstring>

namespace zandor {

std::string Error::cause() const {
    if (m_domain == Domain::System) {
        return std::strerror(m_code);
    }
    if (m_detail.empty() && systemCode() != 0) {
        return std::strerror(systemCode());
    }
    return m_detail;
}

std::string Error::logLine() const {
    if (!*this) {
        return {};
    }
    std::string line = m_step;
    if (!m_path.empty()) {
        line += " '" + m_path + "'";
    }
    const std::string why = cause();
    return why.empty() ? line : line + ": " + why;
}

} // namespace zandor
