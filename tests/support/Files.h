#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

#include <csignal>
#include <sys/resource.h>

namespace zandor::test {

// Writes `contents` to `path`, as a script only its owner may run when `executable`; false on failure.
inline bool writeFile(const QString& path, const QByteArray& contents = {}, bool executable = false) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() &&
           (!executable || file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

// While it lives, no file of this process grows past `bytes`: a write past the limit fails with
// EFBIG, as a write to a full disk fails (SIGXFSZ is ignored meanwhile, so it does not end the
// process). The limit is the whole process's: the test lifts it before it writes anything else.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : m_previousSignal(std::signal(SIGXFSZ, SIG_IGN)) {
        rlimit limit{};
        m_set = getrlimit(RLIMIT_FSIZE, &m_previous) == 0;
        limit = m_previous;
        limit.rlim_cur = bytes;
        m_set = m_set && setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    ~FileSizeLimit() { lift(); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

    bool isSet() const { return m_set; }
    // True when the limit before it is back.
    bool lift() {
        if (m_lifted) {
            return true;
        }
        m_lifted = true;
        const bool restored = !m_set || setrlimit(RLIMIT_FSIZE, &m_previous) == 0;
        std::signal(SIGXFSZ, m_previousSignal);
        return restored;
    }

private:
    rlimit m_previous{};
    void (*m_previousSignal)(int);
    bool m_set = false;
    bool m_lifted = false;
};

// A file's bytes; null when it cannot be read.
inline QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A text file's non-empty lines.
inline QStringList readLines(const QString& path) {
    return QString::fromUtf8(readFile(path)).split(u'\n', Qt::SkipEmptyParts);
}

// Stand-ins for the merging and the converting tool in `folder`: each notes its call in
// `folder`/calls and makes its destination from its (first) source (the merger only when there is
// none yet: its destination is its last argument), the converter after running `converterFirst`.
inline bool writeStandInTools(const QString& folder, const QByteArray& converterFirst = {}) {
    const QByteArray note = "#!/bin/sh\necho \"$(basename \"$0\") $*\" >> \"$(dirname \"$0\")/calls\"\n";
    return writeFile(folder + "/SublerCLI",
                     note + "for last; do :; done\n[ -f \"$last\" ] || cp \"$2\" \"$last\"\n", true) &&
           writeFile(folder + "/HandBrakeCLI", note + converterFirst + "\ncp \"$2\" \"$4\"\n", true);
}

} // namespace zandor::test
