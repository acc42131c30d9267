#pragma once

#include "Process.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QString>

namespace zandor::test {

// The property list at `path` as Python's plistlib reads it: its top-level [key, value] pairs in
// file order, the values JSON cannot tell apart tagged as {"integer": n}, {"real": x}, {"data": hex}
// or {"date": iso}. Empty when the file cannot be read.
inline QJsonArray plistEntries(const QString& path) {
    static const char* const script = R"(
import datetime, json, plistlib, sys
def conv(v):
    if isinstance(v, bool): return v
    if isinstance(v, int): return {"integer": v}
    if isinstance(v, float): return {"real": v}
    if isinstance(v, bytes): return {"data": v.hex()}
    if isinstance(v, datetime.datetime): return {"date": v.isoformat()}
    if isinstance(v, list): return [conv(x) for x in v]
    if isinstance(v, dict): return {k: conv(x) for k, x in v.items()}
    return v
with open(sys.argv[1], "rb") as f:
    root = plistlib.load(f, fmt=plistlib.FMT_XML)
print(json.dumps([[k, conv(v)] for k, v in root.items()]))
)";
    const ProcessResult result = runProcess({"python3", "-c", script, path.toStdString()});
    return QJsonDocument::fromJson(QByteArray::fromStdString(result.out)).array();
}

// The value of `key` among them; undefined when the file has no such key.
inline QJsonValue plistEntry(const QString& path, const QString& key) {
    for (const QJsonValue& pair : plistEntries(path)) {
        if (pair[0] == key) {
            return pair[1];
        }
    }
    return QJsonValue(QJsonValue::Undefined);
}

} // namespace zandor::test
