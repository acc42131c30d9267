// SublerCLI: adds the tracks of movies to another.
//
//   SublerCLI -source SOURCE [-title TITLE] [-language CODE] [-default yes|no] [-source ...]
//             -dest DESTINATION
//
// Creates DESTINATION as an MP4 file with the sources' tracks when it does not exist, otherwise
// adds the sources' tracks to it in place, by stream copy. The options after a source name its
// tracks in the result: their title (also their handler's name), their language (ISO 639-2, "und"
// for undetermined) and whether players choose them by default. Exits with 0 on success;
// otherwise with one line on standard error saying why, and 3 when the destination's disk is full,
// else 1.

#include "MovieMerger.h"

#include "base/Log.h"
#include "base/ToolExit.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

bool isLanguageCode(const std::string& code) {
    return code.size() == 3 &&
           std::all_of(code.begin(), code.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

// The sources and destination of the command line; false when it is not one SublerCLI takes.
bool parse(int argc, char** argv, std::vector<zandor::MovieMerger::Source>& sources,
           std::string& destination) {
    bool haveDestination = false;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 >= argc) {
            return false;
        }
        const std::string option = argv[i], value = argv[i + 1];
        if (option == "-source") {
            sources.push_back({value, {}});
        } else if (option == "-dest" && !haveDestination) {
            destination = value;
            haveDestination = true;
        } else if (sources.empty()) {
            return false;
        } else if (option == "-title") {
            sources.back().labels.title = value;
        } else if (option == "-language" && isLanguageCode(value)) {
            sources.back().labels.language = value;
        } else if (option == "-default" && (value == "yes" || value == "no")) {
            sources.back().labels.isDefault = value == "yes";
        } else {
            return false;
        }
    }
    return haveDestination && !sources.empty();
}

} // namespace

int main(int argc, char** argv) {
    std::vector<zandor::MovieMerger::Source> sources;
    std::string destination;
    if (!parse(argc, argv, sources, destination)) {
        std::fprintf(stderr, "usage: SublerCLI -source SOURCE [-title TITLE] [-language CODE] "
                             "[-default yes|no] [-source ...] -dest DESTINATION\n");
        return 1;
    }
    // FFmpeg's own warnings would add lines to standard error, which holds only the reason of a
    // failure; they are kept here, and the last one is added to that reason.
    zandor::LogCapture ffmpegMessages;
    std::string error;
    int writeError = 0;
    if (zandor::MovieMerger::merge(sources, destination, error, writeError)) {
        return 0;
    }
    const auto messages = ffmpegMessages.lines();
    if (!messages.empty()) {
        error += " (" + messages.back() + ")";
    }
    std::fprintf(stderr, "SublerCLI: %s\n", error.c_str());
    return writeError == ENOSPC || writeError == EDQUOT ? zandor::tool_exit::DiskFull : 1;
}
