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
// become silence of their length, and so does a board that sends no sound at all (which the board
// says in the log).
class BoardAudio {
public:
    using Sink = std::function<void(const BoardSound::Piece& piece)>;

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
    static void take(const CaptureData& frame, BoardSound& sound, const Sink& sink);

    const std::shared_ptr<CaptureDevice> m_device;
    const int m_outputRate;
    ObserverPtr m_observer;
    Worker m_worker{"zandor-boardsnd"};
};

} // namespace zandor
