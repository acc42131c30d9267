#pragma once

#include <cstdint>
#include <string>

namespace zandor {

// Opens and reads files whose names come from users and plug-ins. Only a regular file is read: it is
// opened without blocking, so that a named pipe in its place cannot hold the program in open() for
// ever, and checked before anything is read. Reads stop at a limit, so that a link to /dev/zero or
// a huge file cannot take the memory.
class RegularFile {
public:
    enum class Status { Read, Missing, Unreadable, NotRegular, TooLarge };

    // Reads all of `path` into `contents` when it is a regular file of at most `maxBytes`.
    static Status read(const std::string& path, uint64_t maxBytes, std::string& contents);
    // A descriptor of `path`, open for reading (blocking reads) and close-on-exec, when it is a
    // regular file; -1 otherwise, with `status` saying why.
    static int open(const std::string& path, Status& status);

    // Why a file was not read, as the end of a sentence: "it is not a regular file".
    static std::string describe(Status status, uint64_t maxBytes = 0);
};

} // namespace zandor
