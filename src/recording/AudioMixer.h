#pragma once

#include "base/Error.h"

#include <cstdint>
#include <string>
#include <vector>

namespace zandor {

// Mixes recorded sound tracks into one, as a movie's "Game and narrator" track: each placed on the
// wall clock by its movie's capture start, all added sample by sample at full level and clipped to
// the sample range, the result encoded and dated as AudioFileWriter does a recorded track. Works
// through the tracks in step, holding a few thousand samples of each.
class AudioMixer {
public:
    // Mixes the span from `fromNs` to `toNs` (wall-clock nanoseconds since the epoch; the
    // picture's, so that the mix starts and ends with it); a track is silent where it has no
    // sound. The Error when a track cannot be read (or carries no capture start) or the mix cannot
    // be written.
    static Error mix(const std::vector<std::string>& tracks, int64_t fromNs, int64_t toNs,
                     const std::string& destination);
};

} // namespace zandor
