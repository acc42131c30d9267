#pragma once

#include "AudioRecord.h"
#include "Recorder.h"
#include "RecorderDelegate.h"
#include "RecordingBundle.h"
#include "ShellCommand.h"
#include "SublerWrapper.h"
#include "VideoRecord.h"
#include "base/Error.h"
#include "settings/CaptureSettings.h"

#include <QMap>
#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace zandor {

class AudioInput;

// Records a video of every layout on show, with the game sound (played through) and the
// narrator's microphone, into the bundle "Capture <stamp>.zdrecord" in the storage folder. When
// stopped it finishes the tracks, merges each layout's video with the sound (SublerCLI: the
// game's, or with a narrator the two mixed, then each alone), converts it when a frame rate was
// chosen (HandBrakeCLI), moves the MP4 files out beside the bundle, and reports to its delegate.
// The bundle is removed only once every movie is out of it: a failed step leaves the recording
// there, and the message says where.
class VideoRecorder final : public Recorder {
public:
    VideoRecorder(std::vector<LayoutPtr> layouts, CaptureSettings settings);
    ~VideoRecorder() override;

    void setDelegate(std::shared_ptr<RecorderDelegate> delegate);
    // Before start: the game input that is open already (see GameAudio); the game track takes its
    // sound from it when it is the chosen one.
    void shareGameInput(std::shared_ptr<AudioInput> input);

    // Starts recording; false when it cannot, as begin() says why.
    bool start() override { return !begin(); }
    // Makes the bundle, holds it and starts every movie and sound track: the Error that kept the
    // recording from starting. A bundle that cannot be made is no Error: the recording then shows
    // as running although nothing records.
    Error begin();
    bool isDone() override { return Recorder::isDone() && m_done; }

    const QString& basePath() const { return m_bundle.basePath(); }
    const QString& bundlePath() const { return m_bundle.path(); }
    // The finished file of a layout: "<base>.mp4", or "<base> <layout>.mp4" with several layouts;
    // numbered when a file of that name appeared while recording.
    QString resultPath(const VideoRecord& record) const;
    // The finished files that exist, in layout order.
    QStringList madeFiles() const;
    const QMap<QString, std::shared_ptr<VideoRecord>>& videoRecords() const { return m_videoRecords; }
    // How long the shortest movie's picture lasts so far (see VideoRecord::pictureLength).
    std::chrono::nanoseconds pictureLength() const;

    // Recovery of recordings that a crash, a kill or a power cut left unfinished (see
    // RecordingBundle).
    static QStringList abandonedBundles(const QString& storageFolder) {
        return RecordingBundle::abandoned(storageFolder);
    }
    // A recorder over an abandoned bundle, with the choices its recording was started with; the
    // Error, with what is wrong in its detail, when the bundle holds no movie that can be read
    // (holdsNothingPlayable) or, with the system's code, when it could not be read.
    static Result<std::shared_ptr<VideoRecorder>> forBundle(const QString& bundlePath);
    // Whether forBundle's `error` says the bundle holds no picture that can be played: a recovery
    // cannot ever make a movie of it, unlike one that met a full disk or a folder it may not read.
    static bool holdsNothingPlayable(const Error& error);
    // Finalises the bundle as a stopped recording is finalised, on the calling thread, reporting to
    // the delegate. False when another process holds the bundle or a step failed.
    bool recover();
    // Where the recovered movies go: beside the bundle unless another folder is set.
    void setResultFolder(const QString& folder) { m_resultFolder = folder; }
    // How long the recovered recording lasts, from its longest movie.
    double recordedSeconds() const { return m_recordedSeconds; }

protected:
    bool capture(const LayoutPtr& layout, const ObserverPtr& observer) override;
    void capturedLayouts() override;

private:
    void actualize();
    // The sound tracks each movie gets besides its picture, in order, under their names: none
    // without a narrator (the game track, if any, then goes in as recorded), the narrator alone
    // without a game track, else the two mixed, then each alone. Unset when the mix could not be
    // made.
    std::optional<std::vector<SublerWrapper::NamedSource>> soundTracks();
    // From the first picture of the movies to the end of the last, in wall-clock nanoseconds since
    // the epoch; unset when no movie says when it was captured.
    std::optional<std::pair<int64_t, int64_t>> pictureSpanNs() const;
    // Where the mix of the game and the narrator is made, in the bundle.
    QString mixPath() const;
    // The finished file of a layout as the recording's name gives it, before any numbering.
    QString plannedPath(const QString& basePath, const VideoRecord& record) const;
    // The finished files' path without the layout and extension: the bundle's, in the result folder.
    QString resultBase() const;
    // `soundTitles` name the movie's sound tracks, when they have names of their own.
    bool convert(VideoRecord& record, const QStringList& soundTitles);
    bool finish(VideoRecord& record);
    void tryError(RecordingProblem::Step step, Error error = {});
    // tryError for a failure that leaves the recording in the bundle, saying where it is kept.
    void keepError(RecordingProblem::Step step, Error error = {});

    // The least time a tool is given, however short the recording.
    static constexpr std::chrono::milliseconds ShortestToolLimit = std::chrono::seconds(10);

    const CaptureSettings m_settings;
    // Keyed by layout name: layouts of one name share a writer.
    QMap<QString, std::shared_ptr<VideoRecord>> m_videoRecords;
    // The Qt audio objects of both inputs live on this thread.
    std::unique_ptr<AudioRecord> m_audioGameRecord;
    std::unique_ptr<AudioRecord> m_audioNarratorRecord;
    std::shared_ptr<AudioInput> m_sharedGameInput;
    // Held from the start until finalising ends.
    RecordingBundle m_bundle;
    // The finished files moved out of the bundle, by layout name.
    QMap<QString, QString> m_results;
    QString m_resultFolder;
    std::shared_ptr<RecorderDelegate> m_delegate;
    std::atomic<bool> m_done{true};
    // A movie could not be written; the recording ends at each layout's next frame.
    std::atomic<bool> m_writeFailed{false};
    // When the recording started, and the tools' limits measured from its length at the stop;
    // both are used on the recorder's thread after start() has returned.
    double m_recordedSeconds = 0;
    std::chrono::steady_clock::time_point m_started;
    ToolLimits m_toolLimits;
};

} // namespace zandor
