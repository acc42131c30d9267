#include "PreferencesController.h"

#include "PropertyList.h"
#include "base/AppPaths.h"

#include <QAudioDevice>
#include <QDir>
#include <QFile>
#include <QMediaDevices>
#include <QSaveFile>

#include <algorithm>

namespace zandor {

namespace {

// Key-value semantics: an invalid value removes the key; a new key goes to the end, so the file keeps
// the order in which keys first appeared.
void assign(std::vector<std::pair<QString, QVariant>>& entries, const QString& key, QVariant value) {
    auto it = std::find_if(entries.begin(), entries.end(),
                           [&key](const auto& entry) { return entry.first == key; });
    if (!value.isValid()) {
        if (it != entries.end()) {
            entries.erase(it);
        }
    } else if (it != entries.end()) {
        it->second = std::move(value);
    } else {
        entries.emplace_back(key, std::move(value));
    }
}

// Numbers are kept in the types a reread file gives back, so a value reads the same before and after
// a restart: integers as qint64, reals as double.
QVariant normalized(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::ULongLong:
        return QVariant(value.toLongLong());
    case QMetaType::Float:
        return QVariant(value.toDouble());
    default:
        return value;
    }
}

QString expandTilde(const QString& path) {
    if (path == QStringLiteral("~") || path.startsWith(QStringLiteral("~/"))) {
        return QDir::homePath() + path.mid(1);
    }
    return path;
}

// The unique id of the system's default audio input; empty when there is none. QMediaDevices needs no
// QCoreApplication for this, and without a sound server it answers at once with no device.
QString defaultAudioInputId() {
    const QAudioDevice device = QMediaDevices::defaultAudioInput();
    return device.isNull() ? QString() : QString::fromUtf8(device.id());
}

} // namespace

PreferencesController& PreferencesController::instance() {
    static PreferencesController controller(preferencesFile());
    return controller;
}

PreferencesController::PreferencesController(QString file) : m_file(std::move(file)) {
    defaults();
    load();
}

QString PreferencesController::preferencesFile() {
    return AppPaths::applicationSupportFolder() + QStringLiteral("/Zandor/preferences.plist");
}

QVariant PreferencesController::preference(const QString& key) const {
    std::scoped_lock lock(m_mutex);
    auto it = std::find_if(m_preferences.begin(), m_preferences.end(),
                           [&key](const auto& entry) { return entry.first == key; });
    return it != m_preferences.end() ? it->second : QVariant();
}

void PreferencesController::setPreference(const QString& key, const QVariant& value) {
    bool live = false;
    {
        std::scoped_lock lock(m_mutex);
        assign(m_preferences, key, normalized(value));
        live = m_defaulted && !m_readOnly;
    }
    if (live) {
        store();
    }
}

void PreferencesController::defaults() {
    // Looked up before the lock is taken: the sound server may take a moment to answer. The new
    // dictionary is built aside, so that readers never see a half-filled one.
    const QString storageFolder = expandTilde(expandTilde(AppPaths::desktopFolder()));
    const QString gameAudioInput = defaultAudioInputId();

    Entries entries;
    assign(entries, PreferenceFirstRun, true);
    assign(entries, PreferenceFullscreenScreen, QString(""));
    assign(entries, PreferenceFullscreenHudEnabled, true);
    assign(entries, PreferenceFullscreenMaxScale, qint64(0));
    assign(entries, PreferenceCaptureStorageFolder, storageFolder);
    assign(entries, PreferenceCaptureLayout, QStringLiteral("Active Layout"));
    assign(entries, PreferenceCaptureVideoFPS, QStringLiteral("Original"));
    assign(entries, PreferenceCaptureVideoQuality, QStringLiteral("Medium"));
    // Without an audio input the key stays unset; readers take that as "None".
    assign(entries, PreferenceCaptureGameAudioInput,
           gameAudioInput.isEmpty() ? QVariant() : QVariant(gameAudioInput));
    assign(entries, PreferenceCaptureNarratorAudioInput, QStringLiteral("None"));
    assign(entries, PreferenceCaptureImageFormat, QStringLiteral("PNG"));

    std::scoped_lock lock(m_mutex);
    m_preferences = std::move(entries);
    m_defaulted = true;
}

void PreferencesController::setReadOnly(bool readOnly) {
    std::scoped_lock lock(m_mutex);
    m_readOnly = readOnly;
}

bool PreferencesController::load() {
    QFile file(m_file);
    if (!file.exists()) {
        return true;
    }
    // A file that cannot be read or is no dictionary is left in place; the next store replaces it.
    if (!file.open(QIODevice::ReadOnly)) {
        return false;
    }
    const PropertyList list = PropertyList::fromXml(file.readAll());
    if (!list.isDictionary()) {
        return false;
    }
    auto entries = list.entries();
    std::scoped_lock lock(m_mutex);
    for (auto& [key, value] : entries) {
        assign(m_preferences, key, std::move(value));
    }
    return true;
}

bool PreferencesController::store() {
    std::scoped_lock writing(m_storeMutex);
    Entries snapshot;
    {
        std::scoped_lock lock(m_mutex);
        snapshot = m_preferences;
    }
    const QByteArray xml = PropertyList::dictionary(snapshot).toXml();
    if (xml.isEmpty()) {
        return false;
    }
    // QSaveFile writes a temporary file beside the target and renames it into place on commit, so a
    // reader or a crash never sees half a file. It creates no folders.
    QSaveFile file(m_file);
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    if (file.write(xml) != xml.size()) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}

const QString& PreferencesController::file() const {
    return m_file;
}

} // namespace zandor
