#include "BoardAudio.h"

#include "base/Log.h"
#include "capture/CaptureDevice.h"

namespace zandor {

BoardAudio::BoardAudio(std::shared_ptr<CaptureDevice> device, int outputRate)
    : m_device(std::move(device)), m_outputRate(outputRate) {}

BoardAudio::~BoardAudio() {
    stop();
}

bool BoardAudio::start(Sink sink) {
    stop();
    auto sound = std::make_shared<BoardSound>(m_outputRate);
    if (sound->error()) {
        logs::recording.error("Could not take the capture board's sound: %s",
                              sound->error().logLine().c_str());
        return false;
    }
    m_observer = m_device->addObserver(m_worker.wakeup());
    m_worker.start([this, sound, sink = std::move(sink), observer = m_observer](const Worker::Run& run) {
        while (run.active()) {
            if (CaptureDataPtr frame = m_device->observe(observer)) {
                take(*frame, *sound, sink);
            } else {
                run.wait();
            }
        }
    });
    return true;
}

void BoardAudio::stop() {
    if (m_observer) {
        m_device->removeObserver(m_observer);
        m_observer = nullptr;
    }
    if (!m_worker.stopAndJoin()) {
        logs::recording.error("The capture board's sound did not stop in time");
    }
}

void BoardAudio::take(const CaptureData& frame, BoardSound& sound, const Sink& sink) {
    const BoardSound::Piece piece = sound.add(frame.sound(), frame.wallClock(), frame.number());
    if (piece.frames() > 0) {
        sink(piece);
    }
}

} // namespace zandor
