#pragma once

#include "BoardSound.h"
#include "base/Worker.h"
#include "capture/Observer.h"

#include <functional>
#include <memory>

namespace zandor {

class CaptureDevice;

// The capture board's own sound as a stream: a thread of its own takes every frame the device
// publishes, turns the sound that came with it into the tracks' rate on the frame's time (see
// BoardSound) and hands each piece on. Frames it falls behind on are dropped by its queue and
// become silence of their length. A board that sends no sound at all gives silence throughout,
// said once in the log.
class BoardAudio {
public:
    using Sink = std::function<void(const BoardSound::Piece& piece)>;

    // Frames that come while the board is there, all without sound, before the board is taken for
    // one that sends none: two seconds.
    static constexpr int SilentFrames = 120;

    BoardAudio(std::shared_ptr<CaptureDevice> device, int outputRate);
    ~BoardAudio();
    BoardAudio(const BoardAudio&) = delete;
    BoardAudio& operator=(const BoardAudio&) = delete;

    // Subscribes to the device and hands `sink` every piece, on the stream's thread. False, logged,
    // when the resampler cannot be made.
    bool start(Sink sink);
    // Unsubscribes and waits, bounded, for the thread; the sink is not called after it returns.
    void stop();

private:
    void take(const CaptureData& frame, BoardSound& sound, const Sink& sink);

    const std::shared_ptr<CaptureDevice> m_device;
    const int m_outputRate;
    ObserverPtr m_observer;
    int m_framesWithoutSound = 0; // the thread's own
    bool m_saidNoSound = false;   // the thread's own
    Worker m_worker{"zandor-boardsnd"};
};

} // namespace zandor
