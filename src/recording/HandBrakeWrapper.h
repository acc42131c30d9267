#pragma once

#include "ShellCommand.h"

#include <QString>
#include <QStringList>

namespace zandor {

// Re-encodes a movie with the "HandBrakeCLI" tool: H.264 video of the source's size, uncropped, at
// a constant frame rate and average bit rate in an MP4 file, sound tracks copied.
class HandBrakeWrapper {
public:
    static HandBrakeWrapper& instance();

    // Converts `source` into `destination`. `bitRate` is in kilobits per second and
    // `framesPerSecond` in frames per second, both decimal text. Without `soundTitles` the first
    // sound track is kept as it is; with them, that many sound tracks, each under its title. The
    // tool's Error (see ShellCommand::runSucceeded) unless it exited with status 0 within `limits`.
    Error convert(const QString& source, const QString& destination, const QString& bitRate,
                  const QString& framesPerSecond, const QStringList& soundTitles = {},
                  const ToolLimits& limits = {});

private:
    HandBrakeWrapper() = default;
};

} // namespace zandor
