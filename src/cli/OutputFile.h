#pragma once

#include <cstdint>
#include <string>

namespace zandor {

// A file written beside its final name and renamed over it only when complete, so that a failed
// or interrupted run never leaves a half-written file under the name asked for.
class OutputFile {
public:
    explicit OutputFile(std::string path) : m_path(std::move(path)) {}
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Creates the temporary file; false with a reason when the place cannot be written.
    bool open(std::string& error);
    bool write(const uint8_t* data, uint64_t length, std::string& error);
    // Flushes to disk and renames the file to its final name.
    bool commit(std::string& error);

private:
    std::string m_path;
    std::string m_temporary;
    int m_fd = -1;
};

} // namespace zandor
