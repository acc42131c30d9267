#pragma once

#include "capture/Observer.h"
#include "layouts/CaptureLayout.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace zandor {

class PipeWireCamera;
class Wakeup;

// Shares one layout's picture as a camera on the desktop's PipeWire, for OBS, browsers and calls.
// Like a recorder it subscribes to the layout and takes every frame on a thread of its own, asleep
// while none waits; each frame is copied into a free buffer of the camera node, or dropped when
// the consumers still hold every buffer, so the camera never holds up the pipeline. Owned by a
// std::shared_ptr (see create), which its thread holds too.
class CameraOutput : public std::enable_shared_from_this<CameraOutput> {
public:
    // The start of the line logged whenever sharing fails; the reason follows.
    static constexpr const char* FailurePrefix = "Could not share the picture as a camera: ";

    static std::shared_ptr<CameraOutput> create();
    ~CameraOutput();
    CameraOutput(const CameraOutput&) = delete;
    CameraOutput& operator=(const CameraOutput&) = delete;

    // Called once, on the camera's thread, when the daemon ends a camera that was sharing; sharing
    // has stopped and the line is logged by then. Set it before start.
    void setFailureHandler(std::function<void(const std::string& reason)> handler);

    // Makes the camera node and shares `layout` on it. False when PipeWire cannot be reached or
    // refuses the node: the line is logged and `reason`, when given, says why. The camera's lock
    // comes before the layout's (see capture/Observable.h): call holding none of a producer's.
    bool start(const LayoutPtr& layout, std::string* reason = nullptr);
    // Shares another layout on the same node: its size is offered to the consumers again and the
    // node's description names it.
    void setLayout(const LayoutPtr& layout);
    // Ends sharing: unsubscribes, lets the thread end (bounded) and removes the node.
    void stop();

    bool isSharing();
    LayoutPtr layout();
    // The node's id in PipeWire's registry, or 0 while not sharing.
    uint32_t nodeId();
    // Frames handed to consumers, and frames dropped because they held every buffer, since creation.
    uint64_t sentFrames() const { return m_sent; }
    uint64_t droppedFrames() const { return m_dropped; }

    // The node's description for a layout: "Zandor: <layout name>".
    static std::string description(const CaptureLayout& layout);

private:
    CameraOutput();
    void listener(const std::shared_ptr<PipeWireCamera>& camera);
    // Sends one waiting frame; false when none waited.
    bool update(const std::shared_ptr<PipeWireCamera>& camera);
    // Stops sharing after the daemon ended the camera, and reports it.
    void fail(const std::shared_ptr<PipeWireCamera>& camera, const std::string& reason);

    const std::shared_ptr<Wakeup> m_wakeup;
    std::atomic<uint64_t> m_sent{0};
    std::atomic<uint64_t> m_dropped{0};

    // Guards everything below, between the camera's thread and its callers.
    std::mutex m_lock;
    std::condition_variable m_finished;
    std::function<void(const std::string&)> m_failureHandler;
    std::shared_ptr<PipeWireCamera> m_camera; // the current run's node, null while not sharing
    LayoutPtr m_layout;
    ObserverPtr m_observer;
    bool m_dropLogged = false; // the first drop of a run is logged
    int m_threads = 0;
};

using CameraOutputPtr = std::shared_ptr<CameraOutput>;

} // namespace zandor
