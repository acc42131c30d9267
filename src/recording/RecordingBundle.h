#pragma once

#include "base/Error.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace zandor {

// The folder "Capture <date>.zdrecord" in which a recording lives while it records and finalises:
// its name, its lock and the choices the recording was started with. A bundle is held (flock()ed)
// by the process that records or finalises it, so one that nobody holds was left by a crash, a kill
// or a power cut and can be recovered from what it holds.
class RecordingBundle {
public:
    static inline const QString Extension = QStringLiteral("zdrecord");

    // What a recording was started with, kept in the bundle so that a recovery needs nothing else.
    struct Choices {
        QStringList layouts;
        QString framesPerSecond;
        QString videoQuality;
    };

    RecordingBundle() = default;
    ~RecordingBundle();
    RecordingBundle(const RecordingBundle&) = delete;
    RecordingBundle& operator=(const RecordingBundle&) = delete;

    // Makes a new bundle "<folder>/Capture <stamp>.zdrecord", numbered ("Capture <stamp> 2") when
    // that bundle exists or `taken` says a file made from the base path would meet one already
    // there. Creating the folder claims the name, so two recordings of one second never share it.
    // The Error, logged, when no folder could be made.
    Error create(const QString& folder, const QString& stamp,
                 const std::function<bool(const QString& basePath)>& taken);

    // Takes an existing bundle, not held yet; an Error when `path` names no bundle.
    Error open(const QString& path);

    // The path without the extension: finished movies are named after it.
    const QString& basePath() const { return m_basePath; }
    const QString& path() const { return m_path; }

    // Holds the bundle for this process until unlock (or the process ends). The Error, logged,
    // when another holds it (EWOULDBLOCK) or it cannot be opened.
    Error lock();
    void unlock();

    // Writes the choices into the bundle, whole or not at all.
    Error writeChoices(const Choices& choices) const;
    // Unset when the bundle has no readable choices (one from before they were written).
    std::optional<Choices> readChoices() const;
    // The layouts whose movies the bundle holds, by their names in file names, in name order.
    QStringList movieLayouts() const;

    // Whether `path` names a bundle (a folder named *.zdrecord).
    static bool isBundle(const QString& path);
    // Remembers in the bundle at `path` that a recovery found nothing in it that can be played, so
    // that it is not offered again; an Error (EWOULDBLOCK) when another process holds it.
    static Error markUnrecoverable(const QString& path);
    static bool isUnrecoverable(const QString& path);
    // What the bundle at `path` takes on disk, in bytes.
    static qint64 size(const QString& path);
    // The bundles in `storageFolder` that no process holds.
    static QStringList abandoned(const QString& storageFolder);

private:
    QString m_basePath;
    QString m_path;
    int m_lock = -1; // the bundle folder, flock()ed while held
};

} // namespace zandor
