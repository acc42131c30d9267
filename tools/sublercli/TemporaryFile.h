#pragma once

#include <string>

namespace zandor {

// A file written beside its target under a unique name and renamed over the target only when
// complete, so that the target is either untouched or whole. Removed when not committed.
class TemporaryFile {
public:
    explicit TemporaryFile(std::string target) : m_target(std::move(target)) {}
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Creates the empty file, with the target's permissions when the target exists. False with a
    // reason when the folder cannot be written.
    bool create(std::string& error);
    const std::string& path() const { return m_path; }
    // Makes the file's contents durable and renames it over the target.
    bool commit(std::string& error);

private:
    std::string m_target;
    std::string m_path;
    int m_fd = -1;
    bool m_committed = false;
};

} // namespace zandor
