#include "CameraOutput.h"

#include "PipeWireCamera.h"
#include "base/DetachedThread.h"
#include "base/Log.h"
#include "base/Wakeup.h"

namespace zandor {

namespace {

// How long stop waits for the thread to finish the frame it is sending.
constexpr std::chrono::seconds StopTimeout{2};

} // namespace

CameraOutput::CameraOutput() : m_wakeup(std::make_shared<Wakeup>()) {}

CameraOutput::~CameraOutput() = default;

std::shared_ptr<CameraOutput> CameraOutput::create() {
    return std::shared_ptr<CameraOutput>(new CameraOutput());
}

std::string CameraOutput::description(const CaptureLayout& layout) {
    return "Zandor: " + layout.name().toStdString();
}

void CameraOutput::setFailureHandler(std::function<void(const std::string& reason)> handler) {
    std::scoped_lock lock(m_lock);
    m_failureHandler = std::move(handler);
}

bool CameraOutput::start(const LayoutPtr& layout, std::string* reason) {
    if (isSharing()) {
        return true;
    }
    // Connecting waits for the daemon: done before taking the lock, so nobody waits on us meanwhile.
    auto camera = std::make_shared<PipeWireCamera>();
    std::string error;
    if (!camera->open(uint32_t(layout->width()), uint32_t(layout->height()), description(*layout), error)) {
        logs::camera.error("%s%s", FailurePrefix, error.c_str());
        if (reason) {
            *reason = error;
        }
        return false;
    }
    {
        std::scoped_lock lock(m_lock);
        m_camera = camera;
        m_layout = layout;
        m_observer = layout->addObserver(m_wakeup);
        layout->startListening();
        m_dropLogged = false;
        ++m_threads;
    }
    logs::camera.info("Sharing the layout %s as a camera (node %u)", qUtf8Printable(layout->name()),
                      camera->nodeId());
    DetachedThread::start("zandor-camera",
                          [output = shared_from_this(), camera] { output->listener(camera); });
    return true;
}

void CameraOutput::setLayout(const LayoutPtr& layout) {
    std::scoped_lock lock(m_lock);
    if (!m_camera || m_layout == layout) {
        return;
    }
    m_layout->removeObserver(m_observer);
    m_layout->stopListening();
    m_layout = layout;
    m_observer = layout->addObserver(m_wakeup);
    layout->startListening();
    m_camera->resize(uint32_t(layout->width()), uint32_t(layout->height()), description(*layout));
    m_wakeup->signal();
}

void CameraOutput::stop() {
    std::shared_ptr<PipeWireCamera> camera;
    {
        std::unique_lock lock(m_lock);
        if (!m_camera) {
            return;
        }
        m_layout->removeObserver(m_observer);
        m_layout->stopListening();
        m_layout.reset();
        m_observer.reset();
        camera = std::move(m_camera);
        m_wakeup->signal();
        // The thread is let go of only here: once it is done with the camera, the node goes with
        // this function's reference.
        m_finished.wait_for(lock, StopTimeout, [this] { return m_threads == 0; });
    }
    logs::camera.info("Stopped sharing the picture as a camera (%llu frames sent, %llu dropped)",
                      static_cast<unsigned long long>(m_sent), static_cast<unsigned long long>(m_dropped));
}

bool CameraOutput::isSharing() {
    std::scoped_lock lock(m_lock);
    return m_camera != nullptr;
}

LayoutPtr CameraOutput::layout() {
    std::scoped_lock lock(m_lock);
    return m_layout;
}

uint32_t CameraOutput::nodeId() {
    std::scoped_lock lock(m_lock);
    return m_camera ? m_camera->nodeId() : 0;
}

void CameraOutput::listener(const std::shared_ptr<PipeWireCamera>& camera) {
    for (;;) {
        {
            std::scoped_lock lock(m_lock);
            // A stop followed at once by a new start gives the new run its own thread.
            if (m_camera != camera) {
                break;
            }
        }
        if (!update(camera)) {
            if (std::string failure = camera->failure(); !failure.empty()) {
                fail(camera, failure);
                break;
            }
            m_wakeup->wait(Wakeup::IdleWait);
        }
    }
    std::scoped_lock lock(m_lock);
    --m_threads;
    m_finished.notify_all();
}

bool CameraOutput::update(const std::shared_ptr<PipeWireCamera>& camera) {
    LayoutPtr layout;
    ObserverPtr observer;
    {
        std::scoped_lock lock(m_lock);
        layout = m_layout;
        observer = m_observer;
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
                         frame->timestamp())) {
    case PipeWireCamera::Sent::Queued:
        ++m_sent;
        break;
    case PipeWireCamera::Sent::NoBuffer: {
        ++m_dropped;
        std::scoped_lock lock(m_lock);
        if (!m_dropLogged) {
            m_dropLogged = true;
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

void CameraOutput::fail(const std::shared_ptr<PipeWireCamera>& camera, const std::string& reason) {
    std::function<void(const std::string&)> handler;
    {
        std::scoped_lock lock(m_lock);
        if (m_camera != camera) {
            return; // stopped meanwhile
        }
        m_layout->removeObserver(m_observer);
        m_layout->stopListening();
        m_layout.reset();
        m_observer.reset();
        m_camera.reset();
        handler = m_failureHandler;
    }
    logs::camera.error("%s%s", FailurePrefix, reason.c_str());
    if (handler) {
        handler(reason);
    }
}

} // namespace zandor
