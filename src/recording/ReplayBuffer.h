#pragma once

#include "media/AudioEncoder.h"
#include "Recorder.h"
#include "media/FFmpeg.h"
#include "media/VideoEncoder.h"
#include "settings/CaptureSettings.h"

#include <QString>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

namespace zandor {

// The last seconds of one layout, encoded, in memory, while the picture plays: save() writes them
// to "Replay <stamp>.mp4" in a folder at any moment, without stopping anything, and after a stop
// too, until the next start. The ring starts on a key frame and never holds more than its seconds
// plus one key-frame interval (a key frame comes at least every second), so its memory is bounded
// by the bit rate and the seconds. With the game input shared, its sound is kept beside the picture,
// AAC, from the first picture to the last, and placed by the game sound's offset when saved, so that
// a change of the offset applies to what is held already. Nothing is written to disk until a save.
class AudioInput;

class ReplayBuffer final : public Recorder {
public:
    // `seconds` is clamped to the setting's range; the frames are encoded with the settings' quality.
    ReplayBuffer(LayoutPtr layout, CaptureSettings settings, int seconds);
    ~ReplayBuffer() override;

    // Before start: the game input, open already (see GameAudio), whose sound the replays carry.
    void shareGameInput(std::shared_ptr<AudioInput> input);
    // Empties the ring, opens the encoders and starts listening; false, logged, when the encoder
    // cannot be opened.
    bool start() override;
    // Stops listening; the ring keeps what it holds, to be saved, until the next start.
    bool stop() override;
    // Moves the sound against the picture from the next save on (-500 to 500 ms; later when
    // positive). Any thread.
    void setGameAudioOffset(std::chrono::milliseconds offset);

    int seconds() const { return m_seconds; }
    // The bytes the ring holds at most for a preset and a length, the extra key-frame interval
    // included.
    static uint64_t memoryFor(const QString& quality, int seconds);

    // The steps of a save's Error that its caller tells apart: the ring held no picture; the folder
    // could not be made or written to (with the system's code where it gave one). Out of memory is
    // the system's ENOMEM; a full disk, and any other failure to write, keep the code they met.
    static constexpr const char* EmptyStep = "cannot save the replay";
    static constexpr const char* FolderStep = "cannot write to the folder";
    // Writes what the ring holds now, from its oldest key frame, to a movie in `folder`, written
    // beside its final name and renamed into place when complete, so that a failure leaves no file.
    // The movie's path, or why nothing was written. Blocks for the writing (and up to a second for
    // the sound of the last picture): call it off the GUI thread. Frames keep coming meanwhile; the
    // ring is only read.
    Result<QString> save(const QString& folder);

    // Encodes one frame of the layout into the ring; the buffer's thread calls it for every frame
    // shown. Frames whose time does not come after the previous one's are dropped.
    void append(const CaptureData& frame);

    // What the ring holds now: the time from its first picture to its last, and its bytes.
    double heldSeconds();
    uint64_t heldBytes();

    struct Track;

protected:
    bool capture(const LayoutPtr& layout, const ObserverPtr& observer) override;

private:
    struct Packet {
        ff::Packet packet;
        int64_t wallMicroseconds; // when its picture was captured, on the system clock
        bool key;
    };

    struct Snapshot;
    // Copies what a save writes, waiting, bounded, for the sound of the last picture.
    Snapshot snapshot();
    // Moves the encoder's finished packets into the ring, then drops what has fallen out of it.
    void collect();
    // On the game input's thread: encodes its sound into the ring.
    void appendSound(const char* samples, int frames, std::chrono::system_clock::time_point captured);
    // Takes an encoded sound packet into the ring.
    Error keepSound(AVPacket* encoded);
    // Drops the sound that no offset can bring up to the first picture; under m_ringLock.
    void trimSound();
    bool startSound();
    void stopSound();
    void empty();

    const CaptureSettings m_settings;
    const int m_seconds;

    // The encoder belongs to the recorder's thread while it runs; start and stop set it up and
    // take it down while no thread runs.
    VideoEncoder m_encoder;
    ff::Packet m_received;
    int64_t m_firstNumber = -1; // the number of the first frame encoded
    int64_t m_firstWall = 0;    // its system-clock microseconds
    int64_t m_lastPts = -1;     // presentation milliseconds of the last frame encoded
    int64_t m_lastKeyPts = -1;  // and of the last one asked to be a key frame

    // Guards the ring and what a save needs to write it.
    std::mutex m_ringLock;
    std::deque<Packet> m_ring;
    std::deque<int64_t> m_keyTimes; // wall microseconds of the key frames in the ring
    uint64_t m_bytes = 0;
    ff::CodecParameters m_parameters;
    std::deque<Packet> m_audio; // at their capture times, the offset not applied
    ff::CodecParameters m_audioParameters;
    bool m_soundRunning = false; // the game input's tap is on
    std::condition_variable m_soundArrived;
    std::atomic<int64_t> m_offsetMicroseconds{0};

    // The game input and its tap; the encoder belongs to the input's thread while the tap is on.
    std::shared_ptr<AudioInput> m_gameInput;
    int m_tap = -1;
    AudioEncoder m_audioEncoder;
};

} // namespace zandor
