// libFuzzer target: bytes as the preferences file, through the store's reading of it (the checks of
// size and nesting, the property-list reader, the overlay on the defaults), what a screenshot or a
// recording takes of it, and one rewrite.
//
// Besides the sanitizers' faults, it fails when an unusable file is not named in the log, when what
// a capture takes of the settings breaks its promises (an absolute storage folder, a frame rate
// offered), or when a file the store used reads differently after the store rewrote it.

#include "base/Log.h"
#include "settings/Settings.h"
#include "settings/CaptureSettings.h"
#include "settings/PreferencesController.h"
#include "settings/PropertyList.h"

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

using namespace zandor;

QTemporaryDir* folder = nullptr;

[[noreturn]] void fail(const char* why, const QString& key = {}) {
    std::fprintf(stderr, "preferences fuzzer: %s %s\n", why, qUtf8Printable(key));
    std::abort();
}

void write(const QString& path, const uint8_t* data, size_t size) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(reinterpret_cast<const char*>(data), static_cast<qint64>(size)) !=
            static_cast<qint64>(size)) {
        fail("cannot write the input file");
    }
}

// Values as a rereading gives them back: a real that is not a number equals itself here.
bool same(const QVariant& a, const QVariant& b) {
    if (a.typeId() == QMetaType::Double && b.typeId() == QMetaType::Double && std::isnan(a.toDouble())) {
        return std::isnan(b.toDouble());
    }
    return a == b;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // No sound server: the default audio input is looked up at every start of the store.
    setenv("PULSE_SERVER", "unix:/nonexistent", 1);
    folder = new QTemporaryDir;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString file = folder->path() + "/preferences.plist";
    QFile::remove(file + ".bad");
    write(file, data, size);

    LogCapture log;
    PreferencesController preferences(file);
    const bool loaded = log.countPrefix("The preferences file ") == 0;
    if (!loaded && log.lines().size() != 1) {
        fail("an unusable file is not named by exactly one log line");
    }

    const CaptureSettings settings = CaptureSettings::fromPreferences(preferences);
    if (!settings.storageFolder.startsWith(u'/')) {
        fail("the storage folder is not absolute");
    }
    if (!settings::frameRates().contains(settings.framesPerSecond)) {
        fail("the frame rate is not one offered");
    }

    // A change rewrites the whole dictionary (an unusable file moved aside first); reading the new
    // file must give every value of the first reading back.
    const PropertyList input = PropertyList::fromXml(
        QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size)));
    preferences.setPreference(settings::firstRun.key, false);
    PreferencesController reread(file);
    if (log.countPrefix("The preferences file ") != (loaded ? 0u : 1u)) {
        fail("the store's own file cannot be read back");
    }
    if (loaded) {
        for (const auto& [key, value] : input.entries()) {
            if (key != settings::firstRun.key && !same(preferences.preference(key), reread.preference(key))) {
                fail("a value changed when the store rewrote the file:", key);
            }
        }
    }
    return 0;
}
