#pragma once

#include "Error.h"

#include <cstdint>
#include <string>

namespace zandor {

// A file written beside its target under a unique name and renamed over the target only when
// complete, so that the target is either untouched or whole, whatever stops the writing. The
// file is removed when it is not committed.
class AtomicFile {
public:
    explicit AtomicFile(std::string target) : m_target(std::move(target)) {}
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // Creates the empty file, with the target's permissions when the target exists and the usual
    // ones for a new file otherwise. Fails when the target is a folder or its folder cannot be
    // written.
    Error create();
    // Where the contents go until the commit, for writers that open the file themselves.
    const std::string& path() const { return m_path; }
    Error write(const uint8_t* data, uint64_t length);
    // Makes the contents durable and renames the file over the target.
    Error commit();

private:
    std::string m_target;
    std::string m_path;
    int m_fd = -1;
    bool m_committed = false;
};

} // namespace zandor
