#include "VideoRecorder.h"

#include "AudioMixer.h"
#include "HandBrakeWrapper.h"
#include "SublerWrapper.h"
#include "audio/AudioThread.h"
#include "base/Log.h"
#include "base/Memory.h"
#include "base/RegularFile.h"
#include "media/FFmpeg.h"
#include "settings/PropertyList.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

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

namespace {

// What a recording was started with, written into its bundle so that a recovery needs nothing else.
const QString ChoicesFile = QStringLiteral("Recording.plist");
const QString ChoiceLayouts = QStringLiteral("Layouts");
const QString ChoiceFramesPerSecond = QStringLiteral("FramesPerSecond");
const QString ChoiceVideoQuality = QStringLiteral("VideoQuality");

} // namespace

VideoRecorder::~VideoRecorder() {
    unlockBundle();
    // Finalising stops both inputs; these end a recording that never got that far.
    m_audioNarratorRecord->stop();
    m_audioGameRecord->stop();
}

void VideoRecorder::shareGameInput(std::shared_ptr<AudioInput> input) {
    m_sharedGameInput = std::move(input);
}

void VideoRecorder::setDelegate(std::shared_ptr<RecorderDelegate> delegate) {
    m_delegate = std::move(delegate);
}

QString VideoRecorder::resultPath(const VideoRecord& record) const {
    if (m_videoRecords.size() > 1) {
        return QStringLiteral("%1 %2.%3").arg(m_basePath, fileNamePart(record.name()), QStringLiteral("mp4"));
    }
    return QStringLiteral("%1.%2").arg(m_basePath, QStringLiteral("mp4"));
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

bool VideoRecorder::start() {
    m_done = false;
    m_writeFailed = false;
    m_basePath = QStringLiteral("%1/Capture %2").arg(m_settings.storageFolder, stringWithCurrentDate());
    m_bundlePath = QStringLiteral("%1.%2").arg(m_basePath, QStringLiteral("zdrecord"));
    // Another recording of the same second (or its movie) keeps its name: this one is numbered.
    const QString stamped = m_basePath;
    const auto taken = [this] {
        return QFileInfo(m_bundlePath).isDir() ||
               std::any_of(m_videoRecords.begin(), m_videoRecords.end(),
                           [this](const auto& record) { return QFileInfo::exists(resultPath(*record)); });
    };
    for (int number = 2; number < 100 && taken(); ++number) {
        m_basePath = QStringLiteral("%1 %2").arg(stamped).arg(number);
        m_bundlePath = QStringLiteral("%1.%2").arg(m_basePath, QStringLiteral("zdrecord"));
    }
    if (!QDir().mkpath(m_bundlePath)) {
        // Reported as a success on purpose: the caller shows the recording state although
        // nothing records.
        logs::recording.error("Could not create bundle for recording");
        return true;
    }

    // Held from here until finalising ends; the choices make the bundle recoverable on its own.
    lockBundle();
    if (!writeChoices()) {
        logs::recording.warning("Could not write the choices of the recording into %s",
                                qUtf8Printable(m_bundlePath));
    }
    bool success = true;
    for (const auto& record : m_videoRecords) {
        if (!record->start(m_bundlePath, m_settings)) {
            success = false;
            break;
        }
    }
    if (success) {
        m_audioGameRecord->share(m_sharedGameInput, std::chrono::milliseconds(m_settings.gameAudioOffsetMs));
        success = m_audioGameRecord->start(m_settings.gameAudioInput, m_bundlePath, true);
        if (success) {
            success = m_audioNarratorRecord->start(m_settings.narratorAudioInput, m_bundlePath, false);
        }
    }
    if (success) {
        m_started = std::chrono::steady_clock::now();
        Recorder::start();
    } else {
        stop();
    }
    return success;
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
        if (!record->stop()) {
            keepError(
                record->diskFull()
                    ? QStringLiteral("The recording of the video could not be finalized. The disk is full.")
                    : QStringLiteral("The recording of the video could not be finalized."));
            success = false;
        }
    }
    // The sound tracks end with the picture, neither short of it nor running on, and both inputs
    // are let go (a microphone left open would go on showing as in use).
    for (AudioRecord* audio : {m_audioGameRecord.get(), m_audioNarratorRecord.get()}) {
        if (audio->isRecording() && !audio->stop(pictureEnd)) {
            keepError(QStringLiteral("The recording of the audio could not be finalized."));
            success = false;
        }
    }
    if (success) {
        actualize();
    }
    unlockBundle();
    releaseFreeMemory(); // the encoders' memory, freed on this thread
}

bool VideoRecorder::lockBundle() {
    if (m_bundleLock < 0) {
        m_bundleLock =
            ::open(QFile::encodeName(m_bundlePath).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    if (m_bundleLock >= 0 && ::flock(m_bundleLock, LOCK_EX | LOCK_NB) == 0) {
        return true;
    }
    unlockBundle();
    return false;
}

void VideoRecorder::unlockBundle() {
    if (m_bundleLock >= 0) {
        ::close(m_bundleLock); // releases the lock
        m_bundleLock = -1;
    }
}

bool VideoRecorder::writeChoices() const {
    QVariantList names;
    for (const auto& record : m_videoRecords) {
        names.append(record->name());
    }
    const QByteArray xml = PropertyList::dictionary({{ChoiceLayouts, names},
                                                     {ChoiceFramesPerSecond, m_settings.framesPerSecond},
                                                     {ChoiceVideoQuality, m_settings.videoQuality}})
                               .toXml();
    QSaveFile file(m_bundlePath + u'/' + ChoicesFile);
    return file.open(QIODevice::WriteOnly) && file.write(xml) == xml.size() && file.commit();
}

QStringList VideoRecorder::abandonedBundles(const QString& storageFolder) {
    QStringList abandoned;
    const QDir folder(storageFolder);
    for (const QString& name : folder.entryList({QStringLiteral("*.zdrecord")}, QDir::Dirs, QDir::Name)) {
        const QString path = folder.filePath(name);
        const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            abandoned.append(path);
        }
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return abandoned;
}

std::shared_ptr<VideoRecorder> VideoRecorder::forBundle(const QString& bundlePath, QString& why) {
    const QString bundle = QDir::cleanPath(QFileInfo(bundlePath).absoluteFilePath());
    if (!bundle.endsWith(QStringLiteral(".zdrecord")) || !QFileInfo(bundle).isDir()) {
        why = QStringLiteral("it is not a recording bundle (a folder named *.zdrecord)");
        return nullptr;
    }
    CaptureSettings settings;
    settings.storageFolder = QFileInfo(bundle).path();
    QStringList names;
    std::string xml;
    if (RegularFile::read(QFile::encodeName(bundle + u'/' + ChoicesFile).toStdString(), 64 * 1024, xml) ==
        RegularFile::Status::Read) {
        const PropertyList choices = PropertyList::fromXml(QByteArray::fromStdString(xml));
        for (const auto& [key, value] : choices.entries()) {
            if (key == ChoiceLayouts) {
                names = value.toStringList();
            } else if (key == ChoiceFramesPerSecond &&
                       CaptureSettings::frameRates().contains(value.toString())) {
                settings.framesPerSecond = value.toString();
            } else if (key == ChoiceVideoQuality) {
                settings.videoQuality = value.toString();
            }
        }
    }
    if (names.isEmpty()) {
        // A bundle from before its choices were written: its movies name the layouts, and the
        // board's own timing is kept.
        for (QString file : QDir(bundle).entryList({QStringLiteral("Video*.mov")}, QDir::Files, QDir::Name)) {
            names.append(file.mid(5, file.size() - 9));
        }
    }
    auto recorder = std::make_shared<VideoRecorder>(std::vector<LayoutPtr>{}, settings);
    recorder->m_bundlePath = bundle;
    recorder->m_basePath = bundle.chopped(9);
    recorder->m_audioGameRecord->adopt(bundle);
    recorder->m_audioNarratorRecord->adopt(bundle);
    for (const QString& name : names) {
        auto record = std::make_shared<VideoRecord>(name, bundle, settings);
        // A movie that was cut off mid-fragment still plays up to its last whole fragment.
        std::string error;
        const ff::InputContext movie = ff::openInput(record->recordPath().toStdString(), error);
        if (movie && av_find_best_stream(movie.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0) >= 0) {
            recorder->m_videoRecords.insert(name, record);
            recorder->m_recordedSeconds =
                std::max(recorder->m_recordedSeconds,
                         static_cast<double>(std::max<int64_t>(movie->duration, 0)) / AV_TIME_BASE);
        }
    }
    if (recorder->m_videoRecords.isEmpty()) {
        why = QStringLiteral("it holds no movie that can be read");
        return nullptr;
    }
    return recorder;
}

bool VideoRecorder::recover() {
    if (!lockBundle()) {
        tryError(QStringLiteral("The recording is being recorded or finalised by another Zandor."));
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
    actualize();
    unlockBundle();
    // The bundle goes only when every step succeeded.
    return !QFileInfo::exists(m_bundlePath);
}

QString VideoRecorder::mixPath() const {
    return m_bundlePath + QStringLiteral("/AudioMix.mov");
}

std::optional<std::pair<int64_t, int64_t>> VideoRecorder::pictureSpanNs() const {
    std::optional<std::pair<int64_t, int64_t>> span;
    for (const auto& record : m_videoRecords) {
        std::string error;
        const ff::InputContext movie = ff::openInput(record->recordPath().toStdString(), error);
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
    std::string why = "no movie says when its picture was captured";
    if (!picture || !AudioMixer::mix({game.toStdString(), narrator.toStdString()}, picture->first,
                                     picture->second, mixPath().toStdString(), why)) {
        logs::recording.error("Could not mix the game sound and the narrator: %s", why.c_str());
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
        keepError(QStringLiteral("It was not possible to merge audio."));
        success = allMovedOut = false;
    }
    QStringList soundTitles;
    for (const auto& sound : sounds.value_or(std::vector<SublerWrapper::NamedSource>{})) {
        soundTitles.append(sound.title);
    }
    for (auto it = m_videoRecords.begin(); it != m_videoRecords.end() && success; ++it) {
        VideoRecord& record = **it;
        if (!SublerWrapper::instance().appendSource(record.recordPath(), record.mergePath(), m_toolLimits)) {
            keepError(QStringLiteral("It was not possible to merge video."));
            allMovedOut = false;
            continue;
        }
        bool merged = true;
        if (!sounds->empty()) {
            merged = SublerWrapper::instance().appendSources(*sounds, record.mergePath(), m_toolLimits);
        } else if (QFileInfo::exists(m_audioGameRecord->path())) {
            // Without a narrator, the game track goes in as it was recorded.
            merged = SublerWrapper::instance().appendSource(m_audioGameRecord->path(), record.mergePath(),
                                                            m_toolLimits);
        }
        if (!merged) {
            keepError(QStringLiteral("It was not possible to merge audio."));
            success = false;
        }
        if (!success || !convert(record, soundTitles)) {
            allMovedOut = false;
        }
    }
    if (allMovedOut && !QDir(m_bundlePath).removeRecursively()) {
        tryError(QStringLiteral("It was not possible to remove recording bundle."));
        success = false;
    }
    m_done = true;
    if (success && m_delegate) {
        if (const auto lost = m_audioGameRecord->lostAt()) {
            const long long seconds = lost->count() / 1000;
            m_delegate->recordNotice(QString::asprintf(
                "The game sound stopped at %02lld:%02lld: its input went away, and the rest "
                "of the movie is silent.",
                seconds / 60, seconds % 60));
        }
        m_delegate->recordDone();
    }
}

bool VideoRecorder::convert(VideoRecord& record, const QStringList& soundTitles) {
    if (record.framesPerSecond() != QLatin1String("Original")) {
        const QString bitRate = QString::asprintf("%ld", static_cast<long>(record.quality()->bitRate()));
        if (!HandBrakeWrapper::instance().convert(record.mergePath(), record.convertPath(), bitRate,
                                                  record.framesPerSecond(), soundTitles, m_toolLimits)) {
            keepError(QStringLiteral("It was not possible to convert the merged video."));
            return false;
        }
    } else if (!QFile::rename(record.mergePath(), record.convertPath())) {
        keepError(QStringLiteral("It was not possible to move the merged video to the convertion path."));
        return false;
    }
    return finish(record);
}

bool VideoRecorder::finish(VideoRecord& record) {
    if (!QFile::rename(record.convertPath(), resultPath(record))) {
        keepError(QStringLiteral("Could not move file outside recording bundle."));
        return false;
    }
    return true;
}

void VideoRecorder::keepError(const QString& message) {
    tryError(QStringLiteral("%1 The recording is kept in \"%2\".").arg(message, m_bundlePath));
}

void VideoRecorder::tryError(const QString& message) {
    if (m_delegate) {
        m_delegate->recordError(message);
    }
}

} // namespace zandor
