#include "RecordingBundle.h"

#include "NumberedName.h"
#include "base/AtomicFile.h"
#include "base/Log.h"
#include "base/RegularFile.h"
#include "settings/PropertyList.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zandor {

namespace {

const QString ChoicesFile = QStringLiteral("Recording.plist");
// Its presence marks a bundle that holds nothing playable; it says why, for whoever looks.
const QString UnrecoverableFile = QStringLiteral("Unrecoverable");
const QString ChoiceLayouts = QStringLiteral("Layouts");
const QString ChoiceFramesPerSecond = QStringLiteral("FramesPerSecond");
const QString ChoiceVideoQuality = QStringLiteral("VideoQuality");
constexpr uint64_t MaximumChoicesBytes = 64 * 1024;

int openFolder(const QString& path) {
    return ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

} // namespace

RecordingBundle::~RecordingBundle() {
    unlock();
}

Error RecordingBundle::create(const QString& folder, const QString& stamp,
                              const std::function<bool(const QString& basePath)>& taken) {
    unlock();
    if (!QDir().mkpath(folder)) {
        logs::recording.error("Could not create bundle for recording");
        return Error::other("cannot make the folder", QFile::encodeName(folder).toStdString(),
                            "it cannot be made");
    }
    const auto bundleOf = [](const QString& base) { return QStringLiteral("%1.%2").arg(base, Extension); };
    const QString stem = QStringLiteral("%1/Capture %2").arg(folder, stamp);
    // Another process may make the chosen bundle between the look and mkdir: then the next number.
    Error error = Error::system("cannot make the bundle", QFile::encodeName(stem).toStdString(), EEXIST);
    for (int attempt = 0; attempt < NumberedName::Last; ++attempt) {
        m_basePath = NumberedName::first(
            stem, [&](const QString& base) { return QFileInfo::exists(bundleOf(base)) || taken(base); });
        m_path = bundleOf(m_basePath);
        const QByteArray path = QFile::encodeName(m_path);
        if (::mkdir(path.constData(), 0777) == 0) {
            return {};
        }
        error = Error::system("cannot make the bundle", path.toStdString());
        if (error.code() != EEXIST) {
            break;
        }
    }
    logs::recording.error("Could not create bundle for recording");
    return error;
}

Error RecordingBundle::open(const QString& path) {
    unlock();
    if (!isBundle(path)) {
        return Error::other("cannot open", QFile::encodeName(path).toStdString(),
                            "it is not a recording bundle (a folder named *.zdrecord)");
    }
    m_path = path;
    m_basePath = path.chopped(Extension.size() + 1);
    return {};
}

Error RecordingBundle::lock() {
    if (m_lock < 0) {
        m_lock = openFolder(m_path);
    }
    if (m_lock >= 0 && ::flock(m_lock, LOCK_EX | LOCK_NB) == 0) {
        return {};
    }
    Error error = Error::system("cannot hold", QFile::encodeName(m_path).toStdString());
    logs::recording.error("Could not hold the recording bundle %s: %s", qUtf8Printable(m_path),
                          error.code() == EWOULDBLOCK ? "another process holds it" : error.cause().c_str());
    unlock();
    return error;
}

void RecordingBundle::unlock() {
    if (m_lock >= 0) {
        ::close(m_lock); // releases the lock
        m_lock = -1;
    }
}

Error RecordingBundle::writeChoices(const Choices& choices) const {
    QVariantList layouts;
    for (const QString& name : choices.layouts) {
        layouts.append(name);
    }
    const QByteArray xml = PropertyList::dictionary({{ChoiceLayouts, layouts},
                                                     {ChoiceFramesPerSecond, choices.framesPerSecond},
                                                     {ChoiceVideoQuality, choices.videoQuality}})
                               .toXml();
    AtomicFile file(QFile::encodeName(m_path + u'/' + ChoicesFile).toStdString());
    Error error = file.create();
    if (!error) {
        error =
            file.write(reinterpret_cast<const uint8_t*>(xml.constData()), static_cast<uint64_t>(xml.size()));
    }
    return error ? error : file.commit();
}

std::optional<RecordingBundle::Choices> RecordingBundle::readChoices() const {
    const Result<std::string> xml =
        RegularFile::read(QFile::encodeName(m_path + u'/' + ChoicesFile).toStdString(), MaximumChoicesBytes);
    if (!xml) {
        return std::nullopt;
    }
    Choices choices;
    for (const auto& [key, value] : PropertyList::fromXml(QByteArray::fromStdString(*xml)).entries()) {
        if (key == ChoiceLayouts) {
            choices.layouts = value.toStringList();
        } else if (key == ChoiceFramesPerSecond) {
            choices.framesPerSecond = value.toString();
        } else if (key == ChoiceVideoQuality) {
            choices.videoQuality = value.toString();
        }
    }
    if (choices.layouts.isEmpty()) {
        return std::nullopt;
    }
    return choices;
}

QStringList RecordingBundle::movieLayouts() const {
    const QString prefix = QStringLiteral("Video"), suffix = QStringLiteral(".mov");
    QStringList names;
    for (const QString& file : QDir(m_path).entryList({prefix + u'*' + suffix}, QDir::Files, QDir::Name)) {
        names.append(file.mid(prefix.size(), file.size() - prefix.size() - suffix.size()));
    }
    return names;
}

bool RecordingBundle::isBundle(const QString& path) {
    return path.endsWith(u'.' + Extension) && QFileInfo(path).isDir();
}

Error RecordingBundle::markUnrecoverable(const QString& path) {
    // A recording that has just begun holds a header alone too: only a bundle nobody holds is marked.
    RecordingBundle bundle;
    if (Error error = bundle.open(path)) {
        return error;
    }
    if (Error error = bundle.lock()) {
        return error;
    }
    static const std::string why =
        "A recovery found no picture or sound in this recording that can be played.\n";
    AtomicFile file(QFile::encodeName(path + u'/' + UnrecoverableFile).toStdString());
    Error error = file.create();
    if (!error) {
        error = file.write(reinterpret_cast<const uint8_t*>(why.data()), why.size());
    }
    return error ? error : file.commit();
}

bool RecordingBundle::isUnrecoverable(const QString& path) {
    return QFileInfo::exists(path + u'/' + UnrecoverableFile);
}

qint64 RecordingBundle::size(const QString& path) {
    qint64 bytes = 0;
    for (QDirIterator files(path, QDir::Files | QDir::Hidden | QDir::NoSymLinks,
                            QDirIterator::Subdirectories);
         files.hasNext();) {
        files.next();
        bytes += files.fileInfo().size();
    }
    return bytes;
}

QStringList RecordingBundle::abandoned(const QString& storageFolder) {
    QStringList abandoned;
    const QDir folder(storageFolder);
    for (const QString& name : folder.entryList({QStringLiteral("*.") + Extension}, QDir::Dirs, QDir::Name)) {
        const QString path = folder.filePath(name);
        const int fd = openFolder(path);
        if (fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            abandoned.append(path);
        }
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return abandoned;
}

} // namespace zandor
