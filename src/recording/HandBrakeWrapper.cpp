#include "HandBrakeWrapper.h"

#include "ShellCommand.h"

namespace zandor {

HandBrakeWrapper& HandBrakeWrapper::instance() {
    static HandBrakeWrapper wrapper;
    return wrapper;
}

bool HandBrakeWrapper::convert(const QString& source, const QString& destination, const QString& bitRate,
                               const QString& framesPerSecond, const ToolLimits& limits) {
    return ShellCommand::runSucceeded(
        QStringLiteral("HandBrakeCLI"),
        {QStringLiteral("--input"), source, QStringLiteral("--output"), destination,
         QStringLiteral("--encoder"), QStringLiteral("x264"), QStringLiteral("--format"),
         QStringLiteral("mp4"), QStringLiteral("--rate"), framesPerSecond, QStringLiteral("--vb"), bitRate,
         QStringLiteral("--aencoder"), QStringLiteral("copy:aac"), QStringLiteral("--optimize")},
        limits);
}

} // namespace zandor
