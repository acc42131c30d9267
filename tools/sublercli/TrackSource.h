#pragma once

#include "media/FFmpeg.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace zandor {

// One input movie whose tracks are copied into an output movie: it adds an output stream for each
// of its tracks the output can hold and hands out their packets unchanged, moved in time by a
// fixed offset and expressed in the output streams' time bases.
class TrackSource {
public:
    explicit TrackSource(std::string path) : m_path(std::move(path)) {}

    bool open(std::string& error);
    const std::string& path() const { return m_path; }
    // The movie's format-level metadata.
    const AVDictionary* metadata() const { return m_input->metadata; }
    // The capture start in nanoseconds since the epoch, when the movie carries a valid one.
    std::optional<int64_t> captureStartNs() const;
    // Where the movie's picture ends, in nanoseconds of its own time, when it has one of known length.
    std::optional<int64_t> pictureEndNs() const;

    // Moves every packet by `offsetNs` nanoseconds. With a negative offset, whatever then lies
    // before time zero is left out, except what the first picture or sample at time zero needs
    // to be decoded. With a positive offset nothing is left out: an audio encoder's priming
    // frame, which the muxer otherwise hides, then plays just before the offset, so the real
    // samples still start exactly at it.
    void setOffset(int64_t offsetNs) { m_offsetNs = offsetNs; }
    // Adds an output stream for every audio, video and subtitle track whose codec `output` can
    // store. Returns how many were added.
    int addStreams(AVFormatContext* output);

    // The next packet to write, once the output's header is written (the muxer may change the
    // streams' time bases until then). 1 with a packet, 0 at the end, -1 with a reason on failure.
    int next(ff::Packet& packet, std::string& error);

private:
    struct Track {
        int inputIndex = -1;
        AVStream* output = nullptr;
        int64_t shift = 0;     // the offset in the input stream's time base
        bool trimming = false; // still before time zero
        // Packets before time zero kept since the last key frame, in case the first packet at
        // time zero depends on them.
        std::vector<ff::Packet> preRoll;
    };

    Track* trackOf(int inputIndex);
    // Moves a packet into the ready queue, or holds or drops it while its track is trimmed.
    void place(Track& track, ff::Packet packet);

    std::string m_path;
    ff::InputContext m_input;
    int64_t m_offsetNs = 0;
    std::vector<Track> m_tracks;
    std::deque<ff::Packet> m_ready; // in input time, shifted
    bool m_ended = false;
};

} // namespace zandor
