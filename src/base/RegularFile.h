#pragma once

#include "Error.h"

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

    // All of `path` when it is a regular file of at most `maxBytes`. Otherwise the Error: the
    // system's code (ENOENT when there is no file), or, with no code, what is wrong with it ("it is
    // not a regular file", "it is larger than 1 MB").
    static Result<std::string> read(const std::string& path, uint64_t maxBytes);
    // A descriptor of `path`, open for reading (blocking reads) and close-on-exec, when it is a
    // regular file; -1 otherwise, with `status` saying why.
    static int open(const std::string& path, Status& status);

    // Why a file was not read, as the end of a sentence: "it is not a regular file".
    static std::string describe(Status status, uint64_t maxBytes = 0);
    // The same for an Error of read(): "it does not exist", "it cannot be read", or what is wrong.
    static std::string describe(const Error& error);
};

} // namespace zandor
