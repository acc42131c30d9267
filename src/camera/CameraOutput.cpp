#include "CameraOutput.h"

#include "PipeWireCamera.h"
#include "base/Log.h"

namespace zandor {

namespace {

// How long stop waits for the thread to finish the frame it is sending.
constexpr std::chrono::seconds StopTimeout{2};
// How long a renamed node goes unwatched before it is made anew. A consumer that negotiates again
// (GStreamer's reconnects its stream for a new size) is away for a moment and must find its node;
// one that cannot take the new size sees its node end instead of waiting for frames forever.
constexpr std::chrono::seconds UnwatchedTimeout{2};

// A buffer's time as PipeWire's consumers read it: nanoseconds on the graph's clock, which is
// CLOCK_MONOTONIC (steady_clock here); GStreamer's pipewiresrc, for one, counts its pipeline's
// running time from it. The frame carries the wall-clock moment it shows, carried over by how long
// ago that was; a frame that never came from a board shows now.
int64_t graphTime(const CaptureData& frame) {
    auto moment = std::chrono::steady_clock::now();
    if (frame.wallClock() != std::chrono::system_clock::time_point{}) {
        moment -= std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::system_clock::now() - frame.wallClock());
    }
    return std::chrono::duration_cast<std::chrono::nanoseconds>(moment.time_since_epoch()).count();
}

} // namespace

CameraOutput::CameraOutput() = default;

CameraOutput::~CameraOutput() = default;

std::shared_ptr<CameraOutput> CameraOutput::create() {
    return std::shared_ptr<CameraOutput>(new CameraOutput());
}

std::string CameraOutput::description(const CaptureLayout& layout) {
    return "Zandor: " + layout.name().toStdString();
}

void CameraOutput::setFailureHandler(std::function<void(const Error& failure)> handler) {
    m_sharing.lock()->failureHandler = std::move(handler);
}

Error CameraOutput::start(const LayoutPtr& layout) {
    if (isSharing()) {
        return {};
    }
    // A run that failed on its own leaves its thread ending; it is joined before the next begins.
    if (!m_worker.join(StopTimeout)) {
        logs::camera.warning("The camera's last run has not ended: the new one starts beside it");
    }
    // Connecting waits for the daemon: done before taking the lock, so nobody waits on us meanwhile.
    auto camera = std::make_shared<PipeWireCamera>();
    if (Error error =
            camera->open(uint32_t(layout->width()), uint32_t(layout->height()), description(*layout))) {
        return error;
    }
    {
        auto sharing = m_sharing.lock();
        sharing->camera = camera;
        sharing->layout = layout;
        sharing->observer = layout->addObserver(m_worker.wakeup());
        layout->startListening();
        sharing->dropLogged = false;
        sharing->renewFailed = false;
        m_worker.start([output = shared_from_this()](const Worker::Run& run) { output->listener(run); });
    }
    logs::camera.info("Sharing the layout %s as a camera (node %u)", qUtf8Printable(layout->name()),
                      camera->nodeId());
    return {};
}

void CameraOutput::setLayout(const LayoutPtr& layout) {
    LayoutPtr previous;
    std::shared_ptr<PipeWireCamera> camera;
    bool watched = false;
    {
        auto sharing = m_sharing.lock();
        if (!sharing->camera || sharing->layout == layout) {
            return;
        }
        previous = sharing->layout;
        previous->removeObserver(sharing->observer);
        sharing->layout = layout;
        sharing->observer = layout->addObserver(m_worker.wakeup());
        layout->startListening();
        sharing->renewFailed = false;
        camera = sharing->camera;
        watched = camera->hasConsumer();
        // Renegotiated on the same node: a consumer that takes the new size goes on without a gap.
        camera->resize(uint32_t(layout->width()), uint32_t(layout->height()), description(*layout));
    }
    m_worker.wakeup()->signal();
    // Outside our lock: a layout's stop joins its thread.
    previous->stopListening();
    // A watched node is made anew once it has gone unwatched (see listener).
    if (!watched) {
        renew(camera);
    }
}

void CameraOutput::renew(const std::shared_ptr<PipeWireCamera>& camera) {
    LayoutPtr layout;
    {
        auto sharing = m_sharing.lock();
        if (sharing->camera != camera || sharing->renewing || sharing->renewFailed) {
            return;
        }
        sharing->renewing = true;
        layout = sharing->layout;
    }
    // The new node is made before the old one goes, so that a failure leaves the camera as it was.
    auto fresh = std::make_shared<PipeWireCamera>();
    const Error error =
        fresh->open(uint32_t(layout->width()), uint32_t(layout->height()), description(*layout));
    {
        auto sharing = m_sharing.lock();
        sharing->renewing = false;
        if (error) {
            sharing->renewFailed = true;
            logs::camera.warning("The camera keeps its listed name: %s", error.logLine().c_str());
            return;
        }
        if (sharing->camera != camera || sharing->layout != layout) {
            return; // stopped or changed meanwhile: the fresh node goes unused
        }
        sharing->camera = fresh;
    }
    m_worker.wakeup()->signal();
    logs::camera.info("The camera is listed as \"%s\" (node %u)", description(*layout).c_str(),
                      fresh->nodeId());
    // The old node goes with the last reference, here or on the camera's thread.
}

void CameraOutput::endRun(const Locked& sharing) {
    sharing->layout->removeObserver(sharing->observer);
    sharing->layout.reset();
    sharing->observer.reset();
    sharing->camera.reset();
    m_worker.stop();
}

void CameraOutput::stop() {
    LayoutPtr layout;
    {
        auto sharing = m_sharing.lock();
        if (sharing->camera) {
            layout = sharing->layout;
            // The thread holds the node until it has ended; the node goes with its reference.
            endRun(sharing);
        }
    }
    if (layout) {
        layout->stopListening();
    }
    // Also the thread of a run the daemon ended.
    if (!m_worker.join(StopTimeout)) {
        logs::camera.warning("The camera's thread has not ended: it is joined later");
    }
    if (layout) {
        logs::camera.info("Stopped sharing the picture as a camera (%llu frames sent, %llu dropped)",
                          static_cast<unsigned long long>(m_sent),
                          static_cast<unsigned long long>(m_dropped));
    }
}

bool CameraOutput::isSharing() {
    return m_sharing.lock()->camera != nullptr;
}

LayoutPtr CameraOutput::layout() {
    return m_sharing.lock()->layout;
}

uint32_t CameraOutput::nodeId() {
    auto sharing = m_sharing.lock();
    return sharing->camera ? sharing->camera->nodeId() : 0;
}

void CameraOutput::listener(const Worker::Run& run) {
    bool unwatched = false; // the node is listed by an old name and nobody watches it, since:
    std::chrono::steady_clock::time_point unwatchedSince;
    while (run.active()) {
        std::shared_ptr<PipeWireCamera> camera;
        if (update(camera)) {
            unwatched = false;
            continue;
        }
        if (!camera) {
            break; // stopped
        }
        if (const Error failure = camera->failure()) {
            fail(camera, failure);
            break;
        }
        const auto now = std::chrono::steady_clock::now();
        if (camera->hasConsumer() || !camera->isListedByAnOldName()) {
            unwatched = false;
        } else if (!unwatched) {
            unwatched = true;
            unwatchedSince = now;
        } else if (now - unwatchedSince >= UnwatchedTimeout) {
            renew(camera);
            unwatched = false;
        }
        run.wait();
    }
}

bool CameraOutput::update(std::shared_ptr<PipeWireCamera>& camera) {
    LayoutPtr layout;
    ObserverPtr observer;
    {
        auto sharing = m_sharing.lock();
        camera = sharing->camera;
        layout = sharing->layout;
        observer = sharing->observer;
    }
    // Taken and sent without our lock: a stop or a layout change never waits for a frame's copy.
    CaptureDataPtr frame = layout ? layout->observe(observer) : nullptr;
    if (!frame) {
        return false;
    }
    if (frame->size() != layout->size()) {
        return true;
    }
    switch (camera->send(frame->data(), uint32_t(layout->width()), uint32_t(layout->height()),
                         graphTime(*frame))) {
    case PipeWireCamera::Sent::Queued:
        ++m_sent;
        break;
    case PipeWireCamera::Sent::NoBuffer: {
        ++m_dropped;
        auto sharing = m_sharing.lock();
        if (!sharing->dropLogged) {
            sharing->dropLogged = true;
            logs::camera.info("A consumer of the camera holds every buffer: its frames are dropped");
        }
        break;
    }
    case PipeWireCamera::Sent::NoConsumer:
        // Nobody watches, or the daemon ended the camera: the idle pass looks at which.
        return false;
    }
    return true;
}

void CameraOutput::fail(const std::shared_ptr<PipeWireCamera>& camera, const Error& failure) {
    std::function<void(const Error&)> handler;
    LayoutPtr layout;
    {
        auto sharing = m_sharing.lock();
        if (sharing->camera != camera) {
            return; // stopped meanwhile
        }
        layout = sharing->layout;
        endRun(sharing);
        handler = sharing->failureHandler;
    }
    layout->stopListening();
    if (handler) {
        handler(failure);
    } else {
        logs::camera.error("The camera stopped sharing: %s", failure.logLine().c_str());
    }
}

} // namespace zandor
