#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zandor::test {

struct ProcessResult {
    int exitCode = -1;       // -1 when the process did not exit by itself
    int signal = 0;          // the signal that ended it, if one did
    bool overstayed = false; // still running at the deadline, then killed
    std::string out;
    std::string err;
};

// Runs a program (looked up on PATH when the name has no slash) to its end, killing it when it
// still runs at the deadline, and collects what it wrote.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         std::chrono::seconds timeout = std::chrono::seconds(90));

// The lines of a text, without their line ends.
std::vector<std::string> splitLines(const std::string& text);

} // namespace zandor::test
