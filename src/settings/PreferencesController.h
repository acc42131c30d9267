#pragma once

#include "base/Error.h"

#include <QString>
#include <QVariant>

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace zandor {

// Every user setting of the application (declared in Settings.h), in one dictionary that lives for
// the whole run. Built-in defaults are overlaid with the preferences file, and once started every change
// rewrites the whole file. Values are bool, qint64 or QString for the known keys; keys the application does
// not know are kept as read (any property-list type) and written back.
//
// Reads may come from any thread; changes come from the GUI thread.
class PreferencesController {
public:
    // The application's store, made on first use with preferencesFile(). Call it first on the GUI
    // thread: the default audio input is looked up there.
    static PreferencesController& instance();

    // Sets the defaults, then overlays `file`; nothing is written until the first change.
    explicit PreferencesController(QString file);
    PreferencesController(const PreferencesController&) = delete;
    PreferencesController& operator=(const PreferencesController&) = delete;

    // <application-support folder>/Zandor/preferences.plist, built anew on every call.
    static QString preferencesFile();

    // The value stored under `key`; an invalid QVariant when the key is absent.
    QVariant preference(const QString& key) const;
    // Stores `value` under `key`, an invalid QVariant removing the key, then rewrites the file once
    // the store is live. A failed write keeps the value in memory for the run; the first one is
    // logged and handed to the write-failure handler.
    void setPreference(const QString& key, const QVariant& value);
    // Called on the thread of the change, after every change of any key, with the key. Returns a
    // handle for stopObserving.
    int observeChanges(std::function<void(const QString& key)> observer);
    void stopObserving(int handle);
    // Called, on the thread of the change, the first time after it is set that a change cannot be
    // written, with why.
    void setWriteFailureHandler(std::function<void(const Error& failure)> handler);

    // Replaces the dictionary with the built-in defaults, writing nothing, and makes the store live.
    void defaults();
    // Overlays the file on the dictionary. True when there is no file or it was read; false when it
    // cannot be read or used, which leaves the dictionary as it was. A file that is no regular file,
    // is larger than 1 MB, nests arrays and dictionaries deeper than 64 or is no property list
    // holding a dictionary is logged and moved aside to "preferences.plist.bad" at the next store.
    bool load();
    // Writes the whole dictionary to the file atomically. Never creates the file's folder.
    Error store();

    const QString& file() const;

    // While read-only, changes stay in memory for the run and the file is never written: the
    // command-line front end overrides settings for one run this way.
    void setReadOnly(bool readOnly);

private:
    using Entries = std::vector<std::pair<QString, QVariant>>;

    const QString m_file;
    // Serialises writes of the file so that the last write holds the newest dictionary.
    std::mutex m_storeMutex;
    // Guards m_preferences, the flags and the handler.
    mutable std::mutex m_mutex;
    // In insertion order, which is the order of the file.
    Entries m_preferences;
    // False while the defaults are set; from then on every change is written through.
    bool m_defaulted = false;
    bool m_readOnly = false;
    // The file read at start could not be used; the next store moves it aside first.
    bool m_keepAside = false;
    bool m_writeFailureReported = false;
    std::function<void(const Error&)> m_writeFailureHandler;
    std::vector<std::pair<int, std::function<void(const QString&)>>> m_observers;
    int m_lastObserver = 0;
};

} // namespace zandor
