#pragma once

#include "Process.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
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

// The amplitude, in the samples' own unit, of a sine of `frequencyHz` in `count` samples taken
// `rate` times a second: Goertzel's algorithm at that one frequency over a Hann window. The
// window's main lobe is four frequency bins wide, so a tone a little off the frequency still
// counts nearly whole, and its side lobes fall off fast, so a tone many bins away adds nothing.
template <typename Sample>
double toneAmplitude(const Sample* samples, size_t count, double frequencyHz, int rate) {
    const double coefficient = 2 * std::cos(2 * M_PI * frequencyHz / rate);
    double previous = 0, beforePrevious = 0;
    for (size_t i = 0; i < count; ++i) {
        const double hann =
            0.5 - 0.5 * std::cos(2 * M_PI * static_cast<double>(i) / static_cast<double>(count));
        const double current = hann * samples[i] + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    const double power =
        previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
    // The window passes half of a sine's amplitude.
    return 2 * std::sqrt(std::max(power, 0.0)) / (static_cast<double>(count) / 2);
}

} // namespace zandor::test
