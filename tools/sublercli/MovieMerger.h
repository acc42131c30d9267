#pragma once

#include <string>

namespace zandor {

// Adds the tracks of a source movie to a destination MP4 file by stream copy. The destination is
// created when missing; otherwise its tracks and metadata are kept and the source's tracks added.
// When both movies carry their capture start, the source's tracks are moved so that both play in
// step. The destination is only ever replaced whole.
class MovieMerger {
public:
    // False with a one-line reason on failure; the destination is then as it was.
    static bool merge(const std::string& source, const std::string& destination, std::string& error);
};

} // namespace zandor
