#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

namespace zandor::test {

// Writes `contents` to `path`, as a script only its owner may run when `executable`; false on failure.
inline bool writeFile(const QString& path, const QByteArray& contents = {}, bool executable = false) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() &&
           (!executable || file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

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
