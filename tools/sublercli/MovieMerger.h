#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zandor {

// Adds the tracks of source movies to a destination MP4 file by stream copy. The destination is
// created when missing; otherwise its tracks and metadata are kept and the sources' tracks added
// after them, in the order of the sources. Movies that carry their capture start are lined up by
// it, on the destination's time line (or the first source's, when the destination is made), so
// that all play in step. The destination is only ever replaced whole.
class MovieMerger {
public:
    // How the tracks of one source are named in the result; what is unset stays as the source has it.
    struct Labels {
        // The track's name, stored as its title and as its handler's name.
        std::optional<std::string> title;
        // An ISO 639-2 code; "und" for undetermined.
        std::optional<std::string> language;
        // Whether players choose the track by default. An MP4 file says so with the track's
        // "enabled" flag; of a kind of track without it, players take the first.
        std::optional<bool> isDefault;
    };
    struct Source {
        std::string path;
        Labels labels;
    };

    // False with a one-line reason on failure; the destination is then as it was. A failure to
    // write the destination also gives the system's code (ENOSPC for a full disk), else 0.
    static bool merge(const std::vector<Source>& sources, const std::string& destination, std::string& error,
                      int& writeError);
};

} // namespace zandor
