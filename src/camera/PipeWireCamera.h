#pragma once

#include "CameraSteps.h"
#include "base/Error.h"

#include <spa/utils/hook.h>

#include <cstdint>
#include <string>

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_stream;
struct spa_pod;

namespace zandor {

// One video source node on the desktop's PipeWire: a connection with a loop thread of its own and
// an output stream (media.class "Video/Source", media.role "Camera", node.name "zandor") that drives
// its consumers. It offers packed RGB, and BGRx for consumers that want four bytes a pixel, at one
// size, 60 frames a second. Every libpipewire object of the camera is made and freed here.
//
// Methods may be called from any thread, one at a time; the loop thread runs the callbacks.
class PipeWireCamera {
public:
    static constexpr const char* NodeName = "zandor";
    static constexpr int FramesPerSecond = 60;

    enum class Sent {
        Queued,    // a consumer will receive the frame
        NoBuffer,  // every buffer is still with the consumers: the frame is dropped
        NoConsumer // nobody has agreed on a format of this size yet
    };

    PipeWireCamera();
    ~PipeWireCamera();
    PipeWireCamera(const PipeWireCamera&) = delete;
    PipeWireCamera& operator=(const PipeWireCamera&) = delete;

    // Connects and waits (bounded) until the daemon has made the node. The Error, with errno or
    // PipeWire's code, naming one of the steps in CameraSteps.h, on failure; the object may then
    // only be destroyed.
    Error open(uint32_t width, uint32_t height, const std::string& description);
    // Offers frames of another size and renames the node; linked consumers negotiate again. Programs
    // bound to the node see the new name at once; those that list cameras keep the name the node was
    // made with.
    void resize(uint32_t width, uint32_t height, const std::string& description);
    // Whether a consumer has agreed on a format of the offered size with the node. One that could not
    // take a new size keeps the old format and gets no frames: it does not count.
    bool hasConsumer();
    // Whether the node was renamed since it was made: PipeWire's registry, where programs list
    // cameras, still names it as made.
    bool isListedByAnOldName();
    // Copies one frame of rows of RGB bytes, `width` by `height`, into a free buffer stamped with
    // `ptsNanoseconds`, the moment it shows on the graph's clock (CLOCK_MONOTONIC), and hands it
    // over. A frame of another size than the one the consumers agreed on is not sent. Never waits
    // for a consumer.
    Sent send(const uint8_t* rgb, uint32_t width, uint32_t height, int64_t ptsNanoseconds);
    // Why the daemon ended the node after open; no Error while it is fine.
    Error failure();
    // The node's id in the daemon's registry.
    uint32_t nodeId();

    // libpipewire's events, on the loop thread with the loop's lock held.
    void onStateChanged(int state, const char* error);
    void onParamChanged(uint32_t id, const spa_pod* param);
    void onCoreError(uint32_t id, int result, const char* message);

private:
    // Replaces the offered format by one of the current size; expects the loop's lock held.
    void offerFormats();

    pw_thread_loop* m_loop = nullptr;
    pw_context* m_context = nullptr;
    pw_core* m_core = nullptr;
    pw_stream* m_stream = nullptr;
    spa_hook m_coreListener{};
    spa_hook m_streamListener{};

    // Guarded by the loop's lock; written by the callbacks and by resize.
    uint32_t m_width = 0;
    uint32_t m_height = 0;
    uint32_t m_format = 0; // the agreed SPA video format; 0 before a consumer agreed
    uint32_t m_formatWidth = 0;
    uint32_t m_formatHeight = 0;
    uint32_t m_stride = 0; // bytes per row in the buffers
    std::string m_description;
    std::string m_listedDescription; // as the registry lists the node: the one it was made with
    int m_state = 0;
    Error m_failure;
    uint64_t m_sequence = 0;
};

} // namespace zandor
