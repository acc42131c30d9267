#pragma once

#include <string>
#include <vector>

namespace zandor::test {

struct ProcessResult {
    int exitCode = -1; // -1 when the process did not exit normally
    std::string out;
    std::string err;
};

// Runs a program to its end and collects what it wrote.
ProcessResult runProcess(const std::vector<std::string>& arguments);

// The lines of a text, without their line ends.
std::vector<std::string> splitLines(const std::string& text);

} // namespace zandor::test
