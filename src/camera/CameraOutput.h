#pragma once

#include "base/Error.h"
#include "base/Guarded.h"
#include "base/Worker.h"
#include "capture/Observer.h"
#include "layouts/CaptureLayout.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace zandor {

class PipeWireCamera;

// Shares one layout's picture as a camera on the desktop's PipeWire, for OBS, browsers and calls.
// Like a recorder it subscribes to the layout and takes every frame on a thread of its own, asleep
// while none waits; each frame is copied into a free buffer of the camera node, or dropped when
// the consumers still hold every buffer, so the camera never holds up the pipeline. Owned by a
// std::shared_ptr (see create), which its thread holds too.
class CameraOutput : public std::enable_shared_from_this<CameraOutput> {
public:
    static std::shared_ptr<CameraOutput> create();
    ~CameraOutput();
    CameraOutput(const CameraOutput&) = delete;
    CameraOutput& operator=(const CameraOutput&) = delete;

    // Called once, on the camera's thread, with the Error of PipeWireCamera::failure() when the
    // daemon ends a camera that was sharing; sharing has stopped by then. Set it before start.
    void setFailureHandler(std::function<void(const Error& failure)> handler);

    // Makes the camera node and shares `layout` on it. The Error of PipeWireCamera::open() when
    // PipeWire cannot be reached or refuses the node; the handler of the failure says it. The
    // camera's lock comes before the layout's (see capture/Observable.h): call holding none of a
    // producer's.
    Error start(const LayoutPtr& layout);
    // Shares another layout: the node's description names it and its size is offered. A watching
    // consumer goes on with the same node at the new size; an unwatched node is made anew, so that
    // programs listing cameras see the new name at once; a watched one once its consumers have gone.
    void setLayout(const LayoutPtr& layout);
    // Ends sharing: unsubscribes, lets the thread end (bounded) and removes the node.
    void stop();

    bool isSharing();
    LayoutPtr layout();
    // The current node's id in PipeWire's registry, or 0 while not sharing.
    uint32_t nodeId();
    // Frames handed to consumers, and frames dropped because they held every buffer, since creation.
    uint64_t sentFrames() const { return m_sent; }
    uint64_t droppedFrames() const { return m_dropped; }

    // The node's description for a layout: "Zandor: <layout name>".
    static std::string description(const CaptureLayout& layout);

private:
    CameraOutput();
    // What the camera's thread and its callers share.
    struct Sharing {
        std::function<void(const Error&)> failureHandler;
        std::shared_ptr<PipeWireCamera> camera; // the current node, null while not sharing
        LayoutPtr layout;
        ObserverPtr observer;
        bool dropLogged = false;  // the first drop of a run is logged
        bool renewing = false;    // a new node is being made for the current one
        bool renewFailed = false; // until the next layout change, the node keeps its listed name
    };
    using Locked = Guarded<Sharing>::Locked;

    void listener(const Worker::Run& run);
    // Sends one waiting frame through the current node, which it returns in `camera`; false when
    // none waited or nobody took it.
    bool update(std::shared_ptr<PipeWireCamera>& camera);
    // Replaces `camera`, while it is still the current node, by a new node that the registry lists
    // by the layout's name. Call holding none of our locks: making a node waits for the daemon.
    void renew(const std::shared_ptr<PipeWireCamera>& camera);
    // Stops sharing after the daemon ended the camera, and reports it.
    void fail(const std::shared_ptr<PipeWireCamera>& camera, const Error& failure);
    // Unsubscribes from the layout and ends the run.
    void endRun(const Locked& sharing);

    std::atomic<uint64_t> m_sent{0};
    std::atomic<uint64_t> m_dropped{0};
    Guarded<Sharing> m_sharing;
    // Last: destroyed first, it joins the thread before the members above go.
    Worker m_worker{"zandor-camera"};
};

using CameraOutputPtr = std::shared_ptr<CameraOutput>;

} // namespace zandor
