#pragma once

#include "ShellCommand.h"

#include <QString>

namespace zandor {

// Re-encodes a movie with the "HandBrakeCLI" tool: H.264 video at a fixed frame rate and average
// bit rate in an MP4 file, audio copied.
class HandBrakeWrapper {
public:
    static HandBrakeWrapper& instance();

    // Converts `source` into `destination`. `bitRate` is in kilobits per second and
    // `framesPerSecond` in frames per second, both decimal text. True when the tool exited with
    // status 0 within `limits`.
    bool convert(const QString& source, const QString& destination, const QString& bitRate,
                 const QString& framesPerSecond, const ToolLimits& limits = {});

private:
    HandBrakeWrapper() = default;
};

} // namespace zandor
