// SublerCLI: adds the tracks of one movie to another.
//
//   SublerCLI -source SOURCE -dest DESTINATION
//
// Creates DESTINATION as an MP4 file with SOURCE's tracks when it does not exist, otherwise adds
// SOURCE's tracks to it in place, by stream copy. Exits with 0 on success; otherwise with 1 and
// one line on standard error saying why.

#include "MovieMerger.h"

#include "base/Log.h"

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    if (argc != 5 || std::strcmp(argv[1], "-source") != 0 || std::strcmp(argv[3], "-dest") != 0) {
        std::fprintf(stderr, "usage: SublerCLI -source SOURCE -dest DESTINATION\n");
        return 1;
    }
    // FFmpeg's own warnings would add lines to standard error, which holds only the reason of a
    // failure; they are kept here, and the last one is added to that reason.
    zandor::LogCapture ffmpegMessages;
    std::string error;
    if (zandor::MovieMerger::merge(argv[2], argv[4], error)) {
        return 0;
    }
    const auto messages = ffmpegMessages.lines();
    if (!messages.empty()) {
        error += " (" + messages.back() + ")";
    }
    std::fprintf(stderr, "SublerCLI: %s\n", error.c_str());
    return 1;
}
