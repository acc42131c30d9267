#pragma once

#include "Process.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zandor::test {

// What ffprobe, an independent reader, says about a file: its JSON for the given options.
inline QJsonObject probe(const std::string& file, std::vector<std::string> options) {
    options.insert(options.begin(), {"ffprobe", "-v", "error", "-of", "json"});
    options.push_back(file);
    return QJsonDocument::fromJson(QByteArray::fromStdString(runProcess(options).out)).object();
}

// What ffprobe says of a file for `options`: a line per item, its values separated by commas.
inline QStringList probeLines(std::vector<std::string> options) {
    options.insert(options.begin(), {"ffprobe", "-v", "error", "-of", "csv=p=0"});
    return QString::fromStdString(runProcess(options).out).split('\n', Qt::SkipEmptyParts);
}

// Every stream of a movie in short, sorted: "h264,400,240" for a picture, "aac,44100,2" for a sound.
inline QStringList streams(const std::string& movie) {
    QStringList described =
        probeLines({"-show_entries", "stream=codec_name,width,height,sample_rate,channels", movie});
    described.sort();
    return described;
}

// Seconds since the epoch of a wall-clock time.
inline double epochSeconds(std::chrono::system_clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

// The wall-clock time of a movie's time zero that its metadata gives, in seconds since the epoch;
// 0 when it gives none.
inline double captureStart(const std::string& movie) {
    return probeLines({"-show_entries", "format_tags=zandor_capture_start", movie}).value(0).toDouble();
}

// A movie as a killed recording leaves one: two seconds of a test picture in a fragmented QuickTime
// file, which has no index at its end. True when ffmpeg made it.
inline bool writeInterruptedMovie(const std::string& path) {
    return runProcess({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=400x240:rate=60", "-t",
                       "2", "-c:v", "libx264", "-movflags", "frag_keyframe+empty_moov", path})
               .exitCode == 0;
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

// The pictures of a file decoded by ffmpeg, each `pictureBytes` of rows of red, green and blue bytes;
// `input` options go before the input (a seek), `output` ones before the output's (a count).
inline std::vector<std::string> decodePictures(const std::string& file, uint64_t pictureBytes,
                                               const std::vector<std::string>& input = {},
                                               const std::vector<std::string>& output = {}) {
    std::vector<std::string> command{"ffmpeg", "-v", "error"};
    command.insert(command.end(), input.begin(), input.end());
    command.insert(command.end(), {"-i", file});
    command.insert(command.end(), output.begin(), output.end());
    command.insert(command.end(), {"-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    const std::string bytes = runProcess(command).out;
    std::vector<std::string> pictures;
    for (size_t at = 0; pictureBytes > 0 && at + pictureBytes <= bytes.size(); at += pictureBytes) {
        pictures.push_back(bytes.substr(at, pictureBytes));
    }
    return pictures;
}

// How many pixels of the top 240 rows of a picture `width` pixels wide (every other one, both
// ways) differ clearly between the left eye's place (x 0 to 399) and the right eye's (from 400).
inline int eyesDiffer(const std::string& picture, size_t width) {
    int differ = 0;
    for (size_t y = 0; y < 240; y += 2) {
        for (size_t x = 0; x < 400; x += 2) {
            const auto* left = reinterpret_cast<const uint8_t*>(picture.data()) + (y * width + x) * 3;
            const uint8_t* right = left + 400 * 3;
            differ += std::abs(left[0] - right[0]) + std::abs(left[1] - right[1]) > 120;
        }
    }
    return differ;
}

// How far two pictures of the same size are apart: the mean difference of their bytes.
inline double meanDifference(const std::string& picture, const std::string& other) {
    double sum = 0;
    for (size_t i = 0; i < picture.size(); ++i) {
        sum += std::abs(static_cast<int>(static_cast<uint8_t>(picture[i])) - static_cast<uint8_t>(other[i]));
    }
    return sum / static_cast<double>(picture.size());
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
