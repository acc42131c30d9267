#include "HandBrakeWrapper.h"

#include "ShellCommand.h"

namespace zandor {

HandBrakeWrapper& HandBrakeWrapper::instance() {
    static HandBrakeWrapper wrapper;
    return wrapper;
}

Error HandBrakeWrapper::convert(const QString& source, const QString& destination, const QString& bitRate,
                                const QString& framesPerSecond, const QStringList& soundTitles,
                                const ToolLimits& limits) {
    QStringList arguments{QStringLiteral("--input"),   source,
                          QStringLiteral("--output"),  destination,
                          QStringLiteral("--encoder"), QStringLiteral("x264"),
                          QStringLiteral("--format"),  QStringLiteral("mp4"),
                          QStringLiteral("--rate"),    framesPerSecond,
                          QStringLiteral("--vb"),      bitRate};
    if (soundTitles.isEmpty()) {
        arguments << QStringLiteral("--aencoder") << QStringLiteral("copy:aac");
    } else {
        // The tool takes the first sound track only unless told otherwise, and names the tracks
        // after their channels; the lists are comma-separated, one entry a track.
        QStringList tracks, encoders;
        for (qsizetype track = 1; track <= soundTitles.size(); ++track) {
            tracks << QString::number(track);
            encoders << QStringLiteral("copy:aac");
        }
        arguments << QStringLiteral("--audio") << tracks.join(u',') << QStringLiteral("--aencoder")
                  << encoders.join(u',') << QStringLiteral("--aname") << soundTitles.join(u',');
    }
    // Without a crop the tool would cut away what it takes for black borders (a layout's dark
    // background), and without a constant rate it would keep the capture's own, uneven timing.
    arguments << QStringLiteral("--optimize") << QStringLiteral("--crop") << QStringLiteral("0:0:0:0")
              << QStringLiteral("--cfr");
    return ShellCommand::runSucceeded(QStringLiteral("HandBrakeCLI"), arguments, limits);
}

} // namespace zandor
