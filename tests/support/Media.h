#pragma once

#include "Process.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>
#include <cstring>

namespace zandor::test {

// What ffprobe, an independent reader, says about a file: its JSON for the given options.
inline QJsonObject probe(const std::string& file, std::vector<std::string> options) {
    options.insert(options.begin(), {"ffprobe", "-v", "error", "-of", "json"});
    options.push_back(file);
    return QJsonDocument::fromJson(QByteArray::fromStdString(runProcess(options).out)).object();
}

// The first stream of a probe whose `key` has `value`, e.g. codec_type "audio"; empty when none has.
inline QJsonObject streamWith(const QJsonObject& probed, const QString& key, const QString& value) {
    for (const QJsonValue& stream : probed["streams"].toArray()) {
        if (stream[key].toString() == value) {
            return stream.toObject();
        }
    }
    return {};
}

// The sound of a file decoded by ffmpeg to mono 16-bit samples; `options` go before the output's.
inline std::vector<int16_t> decodeSound(const std::string& file, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"ffmpeg", "-v", "error", "-i", file});
    options.insert(options.end(), {"-ac", "1", "-f", "s16le", "-"});
    const std::string bytes = runProcess(options).out;
    std::vector<int16_t> samples(bytes.size() / 2);
    std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
}

} // namespace zandor::test
