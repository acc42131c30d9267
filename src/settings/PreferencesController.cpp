#include "PreferencesController.h"

#include "PropertyList.h"
#include "Settings.h"
#include "base/AppPaths.h"
#include "base/Log.h"
#include "base/RegularFile.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

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

// A preferences file larger than this, or nesting arrays and dictionaries deeper, is not ours: the
// store never writes one, and parsing it could take the stack or minutes.
constexpr qint64 MaximumFileBytes = 1024 * 1024;
constexpr int MaximumNesting = 64;

// How deep arrays and dictionaries nest in an XML property list, counted in one pass without
// recursion, so that the file cannot choose how deep we go; counting stops past `limit`.
int nestingDepth(std::string_view xml, int limit) {
    int depth = 0, deepest = 0;
    const auto opens = [&](size_t at, std::string_view name) {
        const size_t end = at + name.size();
        return xml.compare(at, name.size(), name) == 0 && end < xml.size() &&
               (xml[end] == '>' || xml[end] == '/' || xml[end] == ' ' || xml[end] == '\t' ||
                xml[end] == '\n' || xml[end] == '\r');
    };
    for (size_t at = xml.find('<'); at != std::string_view::npos && deepest <= limit;
         at = xml.find('<', at + 1)) {
        if (xml.compare(at, 4, "<!--") == 0) {
            at = xml.find("-->", at);
        } else if (xml.compare(at, 9, "<![CDATA[") == 0) {
            at = xml.find("]]>", at);
        } else {
            const bool closing = at + 1 < xml.size() && xml[at + 1] == '/';
            const size_t name = at + (closing ? 2 : 1);
            if (opens(name, "array") || opens(name, "dict")) {
                const size_t end = xml.find('>', name);
                if (end == std::string_view::npos) {
                    break;
                }
                if (closing) {
                    --depth;
                } else if (xml[end - 1] != '/') {
                    deepest = std::max(deepest, ++depth);
                }
            }
        }
        if (at == std::string_view::npos) {
            break;
        }
    }
    return deepest;
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
    decltype(m_observers) observers;
    {
        std::scoped_lock lock(m_mutex);
        assign(m_preferences, key, normalized(value));
        live = m_defaulted && !m_readOnly;
        observers = m_observers;
    }
    for (const auto& observer : observers) {
        observer.second(key);
    }
    if (!live) {
        return;
    }
    const Error failed = store();
    if (!failed) {
        return;
    }
    std::function<void(const Error&)> report;
    {
        std::scoped_lock lock(m_mutex);
        if (std::exchange(m_writeFailureReported, true)) {
            return;
        }
        report = m_writeFailureHandler;
    }
    logs::settings.warning("Could not write the preferences file %s (%s): changes last only for this run",
                           qUtf8Printable(m_file), failed.cause().c_str());
    if (report) {
        report(failed);
    }
}

int PreferencesController::observeChanges(std::function<void(const QString& key)> observer) {
    std::scoped_lock lock(m_mutex);
    m_observers.emplace_back(++m_lastObserver, std::move(observer));
    return m_lastObserver;
}

void PreferencesController::stopObserving(int handle) {
    std::scoped_lock lock(m_mutex);
    std::erase_if(m_observers, [handle](const auto& observer) { return observer.first == handle; });
}

void PreferencesController::setWriteFailureHandler(std::function<void(const Error&)> handler) {
    std::scoped_lock lock(m_mutex);
    m_writeFailureHandler = std::move(handler);
    m_writeFailureReported = false;
}

void PreferencesController::defaults() {
    // Worked out before the lock is taken: the sound server may take a moment to answer for the
    // default input. The new dictionary is built aside, so that readers never see a half-filled one.
    Entries entries;
    for (const SeededSetting& setting : declaredSettings()) {
        if (const QVariant seed = setting.seed(); seed.isValid()) {
            assign(entries, setting.key, seed);
        }
    }
    std::scoped_lock lock(m_mutex);
    m_preferences = std::move(entries);
    m_defaulted = true;
}

void PreferencesController::setReadOnly(bool readOnly) {
    std::scoped_lock lock(m_mutex);
    m_readOnly = readOnly;
}

bool PreferencesController::load() {
    // Only a regular file of at most MaximumFileBytes is read: a named pipe or a device in its place
    // cannot hold the start up.
    const Result<std::string> read =
        RegularFile::read(QFile::encodeName(m_file).toStdString(), MaximumFileBytes);
    QString why;
    if (!read) {
        const Error error = read.error();
        if (error.systemCode() == ENOENT) {
            return true;
        }
        if (error.domain() == Error::Domain::System) {
            return false; // left in place; the next store replaces it
        }
        why = QString::fromStdString(error.detail());
    } else if (nestingDepth(*read, MaximumNesting) > MaximumNesting) {
        why = QStringLiteral("arrays or dictionaries nest deeper than 64");
    } else if (const PropertyList list = PropertyList::fromXml(QByteArray::fromStdString(*read));
               list.isDictionary()) {
        auto entries = list.entries();
        std::scoped_lock lock(m_mutex);
        for (auto& [key, value] : entries) {
            assign(m_preferences, key, std::move(value));
        }
        return true;
    } else {
        why = QStringLiteral("it is not a property list holding a dictionary");
    }
    logs::settings.warning(
        "The preferences file %s cannot be used (%s): the defaults hold, and the file is kept as "
        "preferences.plist.bad at the next change",
        qUtf8Printable(m_file), qUtf8Printable(why));
    std::scoped_lock lock(m_mutex);
    m_keepAside = true;
    return false;
}

Error PreferencesController::store() {
    std::scoped_lock writing(m_storeMutex);
    Entries snapshot;
    bool keepAside = false;
    {
        std::scoped_lock lock(m_mutex);
        snapshot = m_preferences;
        keepAside = std::exchange(m_keepAside, false);
    }
    if (keepAside) {
        // What the user had is not destroyed: the unusable file (or pipe, or link) moves aside,
        // replacing an older one, before the new file takes its place.
        const QByteArray from = QFile::encodeName(m_file),
                         to = QFile::encodeName(m_file + QStringLiteral(".bad"));
        std::rename(from.constData(), to.constData());
    }
    const QByteArray xml = PropertyList::dictionary(snapshot).toXml();
    const std::string path = QFile::encodeName(m_file).toStdString();
    const auto fail = [&path](const QString& reason) {
        return Error::other("cannot write", path, reason.toStdString());
    };
    if (xml.isEmpty()) {
        return fail(QStringLiteral("the preferences could not be written as a property list"));
    }
    // QSaveFile writes a temporary file beside the target and renames it into place on commit, so a
    // reader or a crash never sees half a file. It creates no folders.
    QSaveFile file(m_file);
    if (!file.open(QIODevice::WriteOnly)) {
        return fail(file.errorString());
    }
    if (file.write(xml) != xml.size()) {
        file.cancelWriting();
        return fail(file.errorString());
    }
    return file.commit() ? Error() : fail(file.errorString());
}

const QString& PreferencesController::file() const {
    return m_file;
}

} // namespace zandor
