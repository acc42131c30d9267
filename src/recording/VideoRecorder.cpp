#include "VideoRecorder.h"

#include "AudioMixer.h"
#include "HandBrakeWrapper.h"
#include "NumberedName.h"
#include "SublerWrapper.h"
#include "audio/AudioThread.h"
#include "base/Log.h"
#include "base/Memory.h"
#include "media/FFmpeg.h"
#include "settings/Settings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace zandor {

VideoRecorder::VideoRecorder(std::vector<LayoutPtr> layouts, CaptureSettings settings)
    : Recorder(std::move(layouts)), m_settings(std::move(settings)) {
    for (const auto& layout : this->layouts()) {
        m_videoRecords.insert(layout->name(), std::make_shared<VideoRecord>(layout));
    }
    m_audioGameRecord = std::make_unique<AudioRecord>(QStringLiteral("Game"), AudioThread::instance());
    m_audioNarratorRecord =
        std::make_unique<AudioRecord>(QStringLiteral("Narrator"), AudioThread::instance());
}

VideoRecorder::~VideoRecorder() {
    m_bundle.unlock();
    // Finalising stops both inputs; these end a recording that never got that far.
    for (AudioRecord* audio : {m_audioNarratorRecord.get(), m_audioGameRecord.get()}) {
        if (audio->isRecording()) {
            if (const Error error = audio->stop()) {
                logs::recording.error("The %s sound was left unfinished: %s", qUtf8Printable(audio->name()),
                                      error.logLine().c_str());
            }
        }
    }
}

void VideoRecorder::shareGameInput(std::shared_ptr<AudioInput> input) {
    m_sharedGameInput = std::move(input);
}

void VideoRecorder::setDelegate(std::shared_ptr<RecorderDelegate> delegate) {
    m_delegate = std::move(delegate);
}

QString VideoRecorder::plannedPath(const QString& basePath, const VideoRecord& record) const {
    if (m_videoRecords.size() > 1) {
        return QStringLiteral("%1 %2.%3").arg(basePath, fileNamePart(record.name()), QStringLiteral("mp4"));
    }
    return QStringLiteral("%1.%2").arg(basePath, QStringLiteral("mp4"));
}

QString VideoRecorder::resultBase() const {
    return m_resultFolder.isEmpty() ? m_bundle.basePath()
                                    : m_resultFolder + u'/' + QFileInfo(m_bundle.basePath()).fileName();
}

QString VideoRecorder::resultPath(const VideoRecord& record) const {
    return m_results.value(record.name(), plannedPath(resultBase(), record));
}

QStringList VideoRecorder::madeFiles() const {
    QStringList made;
    for (const auto& record : m_videoRecords) {
        if (QFileInfo::exists(resultPath(*record))) {
            made.append(resultPath(*record));
        }
    }
    return made;
}

Error VideoRecorder::begin() {
    m_done = false;
    m_writeFailed = false;
    m_results.clear();
    // Another recording of the same second (or its movie) keeps its name: this one is numbered.
    const Error created =
        m_bundle.create(m_settings.storageFolder, stringWithCurrentDate(), [this](const QString& base) {
            return std::any_of(m_videoRecords.begin(), m_videoRecords.end(), [&](const auto& record) {
                return QFileInfo::exists(plannedPath(base, *record));
            });
        });
    if (created) {
        // Reported as a success on purpose: the caller shows the recording state although
        // nothing records.
        return {};
    }
    // Held from here until finalising ends, so that nobody takes the recording for an abandoned
    // one; the choices make the bundle recoverable on its own.
    if (Error error = m_bundle.lock()) {
        QDir().rmdir(m_bundle.path());
        m_done = true;
        return error;
    }
    RecordingBundle::Choices choices{{}, m_settings.framesPerSecond, m_settings.videoQuality};
    for (const auto& record : m_videoRecords) {
        choices.layouts.append(record->name());
    }
    if (const Error error = m_bundle.writeChoices(choices)) {
        logs::recording.warning("Could not write the choices of the recording into %s",
                                qUtf8Printable(m_bundle.path()));
        logs::recording.warning("%s", error.logLine().c_str());
    }
    Error error;
    for (const auto& record : m_videoRecords) {
        if ((error = record->start(m_bundle.path(), m_settings))) {
            break;
        }
    }
    if (!error) {
        m_audioGameRecord->share(m_sharedGameInput, std::chrono::milliseconds(m_settings.gameAudioOffsetMs));
        error = m_audioGameRecord->start(m_settings.gameAudioInput, m_bundle.path(), true);
    }
    if (!error) {
        error = m_audioNarratorRecord->start(m_settings.narratorAudioInput, m_bundle.path(), false);
    }
    if (!error) {
        m_started = std::chrono::steady_clock::now();
        Recorder::start();
    } else {
        stop();
    }
    return error;
}

bool VideoRecorder::capture(const LayoutPtr& layout, const ObserverPtr& observer) {
    if (CaptureDataPtr frame = layout->observe(observer)) {
        if (auto record = m_videoRecords.value(layout->name())) {
            if (!record->append(*frame) && record->writeFailed() && !m_writeFailed.exchange(true)) {
                logs::recording.error("The movie %s cannot be written: the recording stops here",
                                      qUtf8Printable(record->recordPath()));
            }
        }
    }
    // A video goes on until it is stopped, or until a movie cannot be written: then every layout
    // is finished at its next frame, and what was written is kept.
    return m_writeFailed;
}

std::chrono::nanoseconds VideoRecorder::pictureLength() const {
    std::optional<std::chrono::nanoseconds> shortest;
    for (const auto& record : m_videoRecords) {
        const std::chrono::nanoseconds length = record->pictureLength();
        shortest = shortest ? std::min(*shortest, length) : length;
    }
    return shortest.value_or(std::chrono::nanoseconds(0));
}

void VideoRecorder::capturedLayouts() {
    // A tool that takes twenty times as long as the recording (or ten seconds for a short one) has
    // hung; ToolLimits' default ends one that prints nothing for ten minutes.
    const auto recorded = std::chrono::steady_clock::now() - m_started;
    m_toolLimits.total =
        std::max(std::chrono::duration_cast<std::chrono::milliseconds>(recorded * 20), ShortestToolLimit);
    bool success = true;
    std::optional<std::chrono::system_clock::time_point> pictureEnd;
    for (const auto& record : m_videoRecords) {
        if (const auto end = record->pictureEnd(); end && (!pictureEnd || *end > *pictureEnd)) {
            pictureEnd = end;
        }
        if (Error error = record->stop()) {
            keepError(RecordingProblem::Step::FinishVideo, std::move(error));
            success = false;
        }
    }
    // The sound tracks end with the picture, neither short of it nor running on, and both inputs
    // are let go (a microphone left open would go on showing as in use).
    for (AudioRecord* audio : {m_audioGameRecord.get(), m_audioNarratorRecord.get()}) {
        if (!audio->isRecording()) {
            continue;
        }
        if (Error error = audio->stop(pictureEnd)) {
            keepError(RecordingProblem::Step::FinishAudio, std::move(error));
            success = false;
        }
    }
    if (success) {
        actualize();
    }
    m_bundle.unlock();
    releaseFreeMemory(); // the encoders' memory, freed on this thread
    // Finished by a failed write rather than by a stop: the recording ends here as a stopped one
    // does, letting the layouts go, instead of holding them until someone presses stop.
    if (m_writeFailed) {
        stop();
    }
}

namespace {

const char* const NothingPlayable = "it holds no movie that can be read";

// Whether the movie's picture stream has a first packet: a movie cut off before its first fragment
// is a header alone.
bool holdsPicture(AVFormatContext* movie, int stream) {
    const ff::Packet packet(av_packet_alloc());
    if (!packet) {
        return false;
    }
    while (av_read_frame(movie, packet.get()) >= 0) {
        const bool picture = packet->stream_index == stream;
        av_packet_unref(packet.get());
        if (picture) {
            return true;
        }
    }
    return false;
}

// Whether opening a movie failed for a cause that may pass (no permission, an I/O error, no
// memory), not for what the file holds: a missing file or a damaged one has a code of its own.
bool mayPass(const Error& error) {
    const int code = error.systemCode();
    return error.domain() == Error::Domain::FFmpeg && (code == EACCES || code == EPERM || code == EIO ||
                                                       code == ENOMEM || code == EMFILE || code == ENFILE);
}

} // namespace

bool VideoRecorder::holdsNothingPlayable(const Error& error) {
    return error.domain() == Error::Domain::Other && error.detail() == NothingPlayable;
}

Result<std::shared_ptr<VideoRecorder>> VideoRecorder::forBundle(const QString& bundlePath) {
    const QString bundle = QDir::cleanPath(QFileInfo(bundlePath).absoluteFilePath());
    if (!RecordingBundle::isBundle(bundle)) {
        return Error::other("cannot recover", bundle.toStdString(),
                            "it is not a recording bundle (a folder named *.zdrecord)");
    }
    // A folder that cannot be listed would look empty.
    if (::access(QFile::encodeName(bundle).constData(), R_OK | X_OK) != 0) {
        return Error::system("cannot read", bundle.toStdString());
    }
    CaptureSettings settings;
    settings.storageFolder = QFileInfo(bundle).path();
    RecordingBundle reading;
    if (Error error = reading.open(bundle)) {
        return error;
    }
    QStringList names;
    if (const auto choices = reading.readChoices()) {
        names = choices->layouts;
        if (settings::frameRates().contains(choices->framesPerSecond)) {
            settings.framesPerSecond = choices->framesPerSecond;
        }
        if (!choices->videoQuality.isEmpty()) {
            settings.videoQuality = choices->videoQuality;
        }
    } else {
        // A bundle from before its choices were written: its movies name the layouts, and the
        // board's own timing is kept.
        names = reading.movieLayouts();
    }
    auto recorder = std::make_shared<VideoRecorder>(std::vector<LayoutPtr>{}, settings);
    if (Error error = recorder->m_bundle.open(bundle)) {
        return error;
    }
    recorder->m_audioGameRecord->adopt(bundle);
    recorder->m_audioNarratorRecord->adopt(bundle);
    Error unreadable;
    for (const QString& name : names) {
        auto record = std::make_shared<VideoRecord>(name, bundle, settings);
        // A movie that was cut off mid-fragment still plays up to its last whole fragment.
        // One that cannot be opened holds nothing to recover.
        auto opened = ff::openInput(record->recordPath().toStdString());
        if (!opened) {
            if (mayPass(opened.error())) {
                unreadable = opened.error();
            }
            continue;
        }
        AVFormatContext* movie = opened->get();
        const int stream = av_find_best_stream(movie, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        const int64_t duration = movie->duration;
        if (stream >= 0 && holdsPicture(movie, stream)) {
            recorder->m_videoRecords.insert(name, record);
            recorder->m_recordedSeconds =
                std::max(recorder->m_recordedSeconds,
                         static_cast<double>(std::max<int64_t>(duration, 0)) / AV_TIME_BASE);
        }
    }
    if (recorder->m_videoRecords.isEmpty()) {
        if (unreadable) {
            return unreadable;
        }
        return Error::other("cannot recover", bundle.toStdString(), NothingPlayable);
    }
    return recorder;
}

bool VideoRecorder::recover() {
    if (Error error = m_bundle.lock()) {
        tryError(RecordingProblem::Step::HeldElsewhere, std::move(error));
        return false;
    }
    // What an earlier, failed finalising left half made is made again from the recorded tracks:
    // merging into it would add the tracks a second time.
    for (const auto& record : m_videoRecords) {
        QFile::remove(record->mergePath());
        QFile::remove(record->convertPath());
    }
    QFile::remove(mixPath());
    m_done = false;
    m_results.clear();
    actualize();
    m_bundle.unlock();
    // The bundle goes only when every step succeeded.
    return !QFileInfo::exists(m_bundle.path());
}

QString VideoRecorder::mixPath() const {
    return m_bundle.path() + QStringLiteral("/AudioMix.mov");
}

std::optional<std::pair<int64_t, int64_t>> VideoRecorder::pictureSpanNs() const {
    std::optional<std::pair<int64_t, int64_t>> span;
    for (const auto& record : m_videoRecords) {
        const auto opened = ff::openInput(record->recordPath().toStdString());
        const AVFormatContext* movie = opened ? opened->get() : nullptr;
        const std::optional<int64_t> start = movie ? ff::captureStartNs(movie->metadata) : std::nullopt;
        if (!start || movie->duration <= 0) {
            continue;
        }
        const int64_t end = *start + av_rescale(movie->duration, 1000000000, AV_TIME_BASE);
        span = span ? std::pair{std::min(span->first, *start), std::max(span->second, end)}
                    : std::pair{*start, end};
    }
    return span;
}

std::optional<std::vector<SublerWrapper::NamedSource>> VideoRecorder::soundTracks() {
    const QString game = m_audioGameRecord->path(), narrator = m_audioNarratorRecord->path();
    const bool haveGame = !game.isEmpty() && QFileInfo::exists(game);
    if (narrator.isEmpty() || !QFileInfo::exists(narrator)) {
        return std::vector<SublerWrapper::NamedSource>{};
    }
    const QString und = QStringLiteral("und");
    if (!haveGame) {
        return std::vector<SublerWrapper::NamedSource>{{narrator, QStringLiteral("Narrator"), und, true}};
    }
    // Heard together by default, the mix starting and ending with the picture as the game track
    // does; each alone as well, not chosen by default, so that an editor can balance the two.
    const auto picture = pictureSpanNs();
    const Error failed = picture
                             ? AudioMixer::mix({game.toStdString(), narrator.toStdString()}, picture->first,
                                               picture->second, mixPath().toStdString())
                             : Error::other("cannot mix", {}, "no movie says when its picture was captured");
    if (failed) {
        logs::recording.error("Could not mix the game sound and the narrator: %s",
                              (picture ? failed.logLine() : failed.detail()).c_str());
        return std::nullopt;
    }
    return std::vector<SublerWrapper::NamedSource>{
        {mixPath(), QStringLiteral("Game and narrator"), und, true},
        {game, QStringLiteral("Game"), und, false},
        {narrator, QStringLiteral("Narrator"), und, false}};
}

void VideoRecorder::actualize() {
    bool success = true;
    // The bundle goes only when every layout's movie is out of it: whatever failed, the recorded
    // tracks stay where the user is told they are.
    bool allMovedOut = true;
    const auto sounds = soundTracks();
    if (!sounds) {
        keepError(RecordingProblem::Step::MergeAudio);
        success = allMovedOut = false;
    }
    QStringList soundTitles;
    for (const auto& sound : sounds.value_or(std::vector<SublerWrapper::NamedSource>{})) {
        soundTitles.append(sound.title);
    }
    for (auto it = m_videoRecords.begin(); it != m_videoRecords.end() && success; ++it) {
        VideoRecord& record = **it;
        if (Error error = SublerWrapper::instance().appendSource(record.recordPath(), record.mergePath(),
                                                                 m_toolLimits)) {
            keepError(RecordingProblem::Step::MergeVideo, std::move(error));
            allMovedOut = false;
            continue;
        }
        Error merged;
        if (!sounds->empty()) {
            merged = SublerWrapper::instance().appendSources(*sounds, record.mergePath(), m_toolLimits);
        } else if (QFileInfo::exists(m_audioGameRecord->path())) {
            // Without a narrator, the game track goes in as it was recorded.
            merged = SublerWrapper::instance().appendSource(m_audioGameRecord->path(), record.mergePath(),
                                                            m_toolLimits);
        }
        if (merged) {
            keepError(RecordingProblem::Step::MergeAudio, std::move(merged));
            success = false;
        }
        if (!success || !convert(record, soundTitles)) {
            allMovedOut = false;
        }
    }
    if (allMovedOut && !QDir(m_bundle.path()).removeRecursively()) {
        tryError(RecordingProblem::Step::RemoveBundle);
        success = false;
    }
    m_done = true;
    if (success && m_delegate) {
        if (const auto lost = m_audioGameRecord->lostAt()) {
            m_delegate->recordGameSoundLost(*lost);
        }
        m_delegate->recordDone();
    }
}

bool VideoRecorder::convert(VideoRecord& record, const QStringList& soundTitles) {
    if (record.framesPerSecond() != QLatin1String("Original")) {
        const QString bitRate = QString::asprintf("%ld", static_cast<long>(record.quality()->bitRate()));
        if (Error error =
                HandBrakeWrapper::instance().convert(record.mergePath(), record.convertPath(), bitRate,
                                                     record.framesPerSecond(), soundTitles, m_toolLimits)) {
            keepError(RecordingProblem::Step::Convert, std::move(error));
            return false;
        }
    } else if (!QFile::rename(record.mergePath(), record.convertPath())) {
        // QFile gives no code for a failed rename.
        keepError(RecordingProblem::Step::MoveForConversion,
                  Error::other("cannot rename", record.mergePath().toStdString(), "it could not be renamed"));
        return false;
    }
    return finish(record);
}

bool VideoRecorder::finish(VideoRecord& record) {
    // A file of the movie's name that appeared meanwhile (or a movie an earlier, failed finalising
    // of a recovered bundle moved out) keeps its place: this one is numbered.
    const QString planned = plannedPath(resultBase(), record);
    const QString result = NumberedName::file(planned.chopped(4), QStringLiteral("mp4"));
    if (!QFile::rename(record.convertPath(), result)) {
        keepError(RecordingProblem::Step::MoveOut,
                  Error::other("cannot rename", record.convertPath().toStdString(),
                               "it could not be moved to " + result.toStdString()));
        return false;
    }
    m_results.insert(record.name(), result);
    return true;
}

void VideoRecorder::keepError(RecordingProblem::Step step, Error error) {
    if (m_delegate) {
        m_delegate->recordError({step, std::move(error), m_bundle.path()});
    }
}

void VideoRecorder::tryError(RecordingProblem::Step step, Error error) {
    if (m_delegate) {
        m_delegate->recordError({step, std::move(error), {}});
    }
}

} // namespace zandor
