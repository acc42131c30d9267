#include "AudioMixer.h"

#include "AudioFileReader.h"
#include "audio/AudioFileWriter.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

namespace zandor {

Error AudioMixer::mix(const std::vector<std::string>& tracks, int64_t fromNs, int64_t toNs,
                      const std::string& destination) {
    constexpr int Channels = AudioFileReader::Channels;
    constexpr int Rate = AudioFileReader::SampleRate;
    constexpr int ChunkFrames = 4096;

    struct Track {
        AudioFileReader reader;
        int64_t lead = 0; // frames of silence before its first sample; negative: frames to skip
        bool ended = false;
    };
    std::vector<std::unique_ptr<Track>> inputs;
    for (const std::string& path : tracks) {
        auto track = std::make_unique<Track>();
        if (Error error = track->reader.open(path)) {
            return error;
        }
        const std::optional<int64_t> start = track->reader.startNs();
        if (!start) {
            return Error::other("cannot place", path, "it does not say when it was captured");
        }
        track->lead = av_rescale(*start - fromNs, Rate, 1000000000);
        inputs.push_back(std::move(track));
    }
    const int64_t total = av_rescale(toNs - fromNs, Rate, 1000000000);
    if (inputs.empty() || total <= 0) {
        return Error::other("cannot mix", destination, "nothing to mix");
    }

    AudioFileWriter writer;
    if (Error error = writer.open(destination, AV_SAMPLE_FMT_FLT, Rate, Channels)) {
        return error;
    }
    std::vector<float> mixed(ChunkFrames * Channels), part(ChunkFrames * Channels);
    for (const auto& track : inputs) {
        // What lies before the span is read and left out.
        while (track->lead < 0 && !track->ended) {
            const int wanted = static_cast<int>(std::min<int64_t>(-track->lead, ChunkFrames));
            const Result<int> read = track->reader.read(part.data(), wanted);
            if (!read) {
                return read.error();
            }
            track->ended = *read < wanted;
            track->lead += *read;
        }
    }
    for (int64_t written = 0; written < total;) {
        const int frames = static_cast<int>(std::min<int64_t>(total - written, ChunkFrames));
        std::fill(mixed.begin(), mixed.end(), 0.0f);
        for (const auto& track : inputs) {
            int filled = static_cast<int>(std::clamp<int64_t>(track->lead, 0, frames));
            track->lead -= filled;
            if (filled < frames && !track->ended) {
                const Result<int> read = track->reader.read(part.data(), frames - filled);
                if (!read) {
                    return read.error();
                }
                std::transform(part.begin(), part.begin() + *read * Channels,
                               mixed.begin() + filled * Channels, mixed.begin() + filled * Channels,
                               std::plus<float>());
                track->ended = *read < frames - filled;
            }
        }
        for (float& sample : mixed) {
            sample = std::clamp(sample, -1.0f, 1.0f);
        }
        // Each chunk is dated by the samples before it, so the encoder has no drift to follow.
        const std::chrono::system_clock::time_point at{
            std::chrono::duration_cast<std::chrono::system_clock::duration>(
                std::chrono::nanoseconds(fromNs + av_rescale(written, 1000000000, Rate)))};
        if (Error error = writer.write(reinterpret_cast<const uint8_t*>(mixed.data()), frames, at)) {
            return error;
        }
        written += frames;
    }
    return writer.finish();
}

} // namespace zandor
