#include "PipeWireCamera.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/result.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

namespace zandor {

namespace {

// A context loads PipeWire's modules as it is made and unloads them as it goes: cameras are made
// and let go on more than one thread (a layout change makes a node anew while the camera's thread
// drops the one before), and each context's modules come and go one context at a time.
std::mutex& contextsLock() {
    static std::mutex lock;
    return lock;
}

// How long open waits for the daemon to make the node.
constexpr std::chrono::seconds ConnectTimeout{5};

uint32_t bytesPerPixel(uint32_t format) {
    return format == SPA_VIDEO_FORMAT_BGRx ? 4 : 3;
}

// Rows start on 4-byte boundaries, as GStreamer and most consumers lay out packed RGB.
uint32_t strideOf(uint32_t format, uint32_t width) {
    return (width * bytesPerPixel(format) + 3) & ~3u;
}

// What the camera offers: packed RGB first, BGRx for consumers that want four bytes a pixel.
const spa_pod* enumFormat(spa_pod_builder& builder, uint32_t width, uint32_t height) {
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    const spa_rectangle size{width, height};
    const spa_fraction rate{PipeWireCamera::FramesPerSecond, 1};
    spa_pod_builder_add(
        &builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(3, SPA_VIDEO_FORMAT_RGB, SPA_VIDEO_FORMAT_RGB, SPA_VIDEO_FORMAT_BGRx),
        SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate),
        0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

// The trampolines from libpipewire's C callbacks to the camera.
const pw_stream_events StreamEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = [](void* camera, pw_stream_state, pw_stream_state state, const char* error) {
        static_cast<PipeWireCamera*>(camera)->onStateChanged(state, error);
    };
    events.param_changed = [](void* camera, uint32_t id, const spa_pod* param) {
        static_cast<PipeWireCamera*>(camera)->onParamChanged(id, param);
    };
    return events;
}();

const pw_core_events CoreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = [](void* camera, uint32_t id, int, int result, const char* message) {
        static_cast<PipeWireCamera*>(camera)->onCoreError(id, result, message);
    };
    return events;
}();

} // namespace

PipeWireCamera::PipeWireCamera() {
    static std::once_flag initialised;
    std::call_once(initialised, [] { pw_init(nullptr, nullptr); });
}

PipeWireCamera::~PipeWireCamera() {
    if (m_loop) {
        pw_thread_loop_lock(m_loop);
        if (m_stream) {
            pw_stream_destroy(m_stream);
        }
        if (m_core) {
            pw_core_disconnect(m_core);
        }
        pw_thread_loop_unlock(m_loop);
        pw_thread_loop_stop(m_loop);
    }
    if (m_context) {
        const std::scoped_lock lock(contextsLock());
        pw_context_destroy(m_context);
    }
    if (m_loop) {
        pw_thread_loop_destroy(m_loop);
    }
}

Error PipeWireCamera::open(uint32_t width, uint32_t height, const std::string& description) {
    m_loop = pw_thread_loop_new("zandor-pipewire", nullptr);
    if (m_loop) {
        const std::scoped_lock lock(contextsLock());
        m_context = pw_context_new(pw_thread_loop_get_loop(m_loop), nullptr, 0);
    }
    if (!m_context || pw_thread_loop_start(m_loop) < 0) {
        return Error::system(camera::StartStep);
    }
    pw_thread_loop_lock(m_loop);
    m_core = pw_context_connect(m_context, nullptr, 0);
    if (!m_core) {
        Error error = Error::system(camera::ConnectStep);
        pw_thread_loop_unlock(m_loop);
        return error;
    }
    pw_core_add_listener(m_core, &m_coreListener, &CoreEvents, this);
    m_width = width;
    m_height = height;
    m_description = m_listedDescription = description;
    m_stream = pw_stream_new(m_core, "Zandor",
                             pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                                               PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_MEDIA_ROLE,
                                               "Camera", PW_KEY_NODE_NAME, NodeName, PW_KEY_NODE_DESCRIPTION,
                                               description.c_str(), nullptr));
    if (!m_stream) {
        Error error = Error::system(camera::StreamStep);
        pw_thread_loop_unlock(m_loop);
        return error;
    }
    pw_stream_add_listener(m_stream, &m_streamListener, &StreamEvents, this);

    uint8_t space[1024];
    spa_pod_builder builder;
    spa_pod_builder_init(&builder, space, sizeof space);
    const spa_pod* params[] = {enumFormat(builder, width, height)};
    // The stream drives its consumers: a cycle of the graph runs whenever a frame is queued.
    const int connected = pw_stream_connect(
        m_stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS), params, 1);
    if (connected < 0) {
        pw_thread_loop_unlock(m_loop);
        return Error::library(Error::Domain::PipeWire, camera::StreamStep, {}, connected,
                              spa_strerror(connected));
    }
    const auto deadline = std::chrono::steady_clock::now() + ConnectTimeout;
    while (!m_failure && m_state < PW_STREAM_STATE_PAUSED && std::chrono::steady_clock::now() < deadline) {
        pw_thread_loop_timed_wait(m_loop, 1);
    }
    if (!m_failure && m_state < PW_STREAM_STATE_PAUSED) {
        m_failure = Error::system(camera::AnswerStep, {}, ETIMEDOUT);
    }
    Error error = m_failure;
    pw_thread_loop_unlock(m_loop);
    return error;
}

void PipeWireCamera::resize(uint32_t width, uint32_t height, const std::string& description) {
    pw_thread_loop_lock(m_loop);
    m_width = width;
    m_height = height;
    m_description = description;
    const spa_dict_item item{PW_KEY_NODE_DESCRIPTION, description.c_str()};
    const spa_dict properties{0, 1, &item};
    pw_stream_update_properties(m_stream, &properties);
    offerFormats();
    pw_thread_loop_unlock(m_loop);
}

bool PipeWireCamera::hasConsumer() {
    pw_thread_loop_lock(m_loop);
    const bool consumer = m_format != 0 && m_formatWidth == m_width && m_formatHeight == m_height;
    pw_thread_loop_unlock(m_loop);
    return consumer;
}

bool PipeWireCamera::isListedByAnOldName() {
    pw_thread_loop_lock(m_loop);
    const bool old = m_description != m_listedDescription;
    pw_thread_loop_unlock(m_loop);
    return old;
}

void PipeWireCamera::offerFormats() {
    uint8_t space[1024];
    spa_pod_builder builder;
    spa_pod_builder_init(&builder, space, sizeof space);
    const spa_pod* params[] = {enumFormat(builder, m_width, m_height)};
    pw_stream_update_params(m_stream, params, 1);
}

PipeWireCamera::Sent PipeWireCamera::send(const uint8_t* rgb, uint32_t width, uint32_t height,
                                          int64_t ptsNanoseconds) {
    pw_thread_loop_lock(m_loop);
    const uint32_t stride = m_stride, format = m_format;
    if (m_failure || m_state != PW_STREAM_STATE_STREAMING || format == 0 || m_formatWidth != width ||
        m_formatHeight != height) {
        pw_thread_loop_unlock(m_loop);
        return Sent::NoConsumer;
    }
    pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream);
    if (!buffer) {
        pw_thread_loop_unlock(m_loop);
        return Sent::NoBuffer;
    }
    spa_data& data = buffer->buffer->datas[0];
    const uint64_t bytes = uint64_t(stride) * height;
    if (!data.data || data.maxsize < bytes) {
        pw_stream_queue_buffer(m_stream, buffer); // returned empty
        pw_thread_loop_unlock(m_loop);
        return Sent::NoBuffer;
    }
    auto* target = static_cast<uint8_t*>(data.data);
    const uint64_t rowBytes = uint64_t(width) * 3;
    if (format == SPA_VIDEO_FORMAT_RGB && stride == rowBytes) {
        std::memcpy(target, rgb, bytes);
    } else {
        for (uint32_t y = 0; y < height; ++y) {
            const uint8_t* from = rgb + y * rowBytes;
            uint8_t* to = target + uint64_t(y) * stride;
            if (format == SPA_VIDEO_FORMAT_RGB) {
                std::memcpy(to, from, rowBytes);
                continue;
            }
            for (uint32_t x = 0; x < width; ++x, from += 3, to += 4) {
                to[0] = from[2];
                to[1] = from[1];
                to[2] = from[0];
                to[3] = 0xFF;
            }
        }
    }
    data.chunk->offset = 0;
    data.chunk->size = uint32_t(bytes);
    data.chunk->stride = int32_t(stride);
    data.chunk->flags = 0;
    if (auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
        header->flags = 0;
        header->offset = 0;
        header->pts = ptsNanoseconds;
        header->dts_offset = 0;
        header->seq = m_sequence++;
    }
    pw_stream_queue_buffer(m_stream, buffer);
    pw_stream_trigger_process(m_stream);
    pw_thread_loop_unlock(m_loop);
    return Sent::Queued;
}

Error PipeWireCamera::failure() {
    pw_thread_loop_lock(m_loop);
    Error failure = m_failure;
    pw_thread_loop_unlock(m_loop);
    return failure;
}

uint32_t PipeWireCamera::nodeId() {
    pw_thread_loop_lock(m_loop);
    const uint32_t id = pw_stream_get_node_id(m_stream);
    pw_thread_loop_unlock(m_loop);
    return id;
}

void PipeWireCamera::onStateChanged(int state, const char* error) {
    m_state = state;
    if (state == PW_STREAM_STATE_ERROR && !m_failure) {
        m_failure = Error::library(Error::Domain::PipeWire, camera::RunStep, {}, 0, error ? error : "");
    }
    pw_thread_loop_signal(m_loop, false);
}

void PipeWireCamera::onParamChanged(uint32_t id, const spa_pod* param) {
    if (id != SPA_PARAM_Format) {
        return;
    }
    spa_video_info_raw info{};
    uint32_t mediaType = 0, mediaSubtype = 0;
    if (!param || spa_format_parse(param, &mediaType, &mediaSubtype) < 0 ||
        mediaType != SPA_MEDIA_TYPE_video || mediaSubtype != SPA_MEDIA_SUBTYPE_raw ||
        spa_format_video_raw_parse(param, &info) < 0 ||
        (info.format != SPA_VIDEO_FORMAT_RGB && info.format != SPA_VIDEO_FORMAT_BGRx)) {
        m_format = 0; // the consumer went, or agreed on nothing we make
        return;
    }
    m_format = info.format;
    m_formatWidth = info.size.width;
    m_formatHeight = info.size.height;
    m_stride = strideOf(info.format, info.size.width);

    uint8_t space[1024];
    spa_pod_builder builder;
    spa_pod_builder_init(&builder, space, sizeof space);
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers);
    // A few buffers: a consumer holding one or two while it draws still leaves one to fill.
    spa_pod_builder_add(&builder, SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8),
                        SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
                        SPA_POD_Int(int32_t(m_stride * m_formatHeight)), SPA_PARAM_BUFFERS_stride,
                        SPA_POD_Int(int32_t(m_stride)), SPA_PARAM_BUFFERS_dataType,
                        SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr)), 0);
    const spa_pod* buffers = static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame));
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
    spa_pod_builder_add(&builder, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size,
                        SPA_POD_Int(int32_t(sizeof(spa_meta_header))), 0);
    const spa_pod* meta = static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame));
    const spa_pod* params[] = {buffers, meta};
    pw_stream_update_params(m_stream, params, 2);
}

void PipeWireCamera::onCoreError(uint32_t id, int result, const char* message) {
    if (id == PW_ID_CORE && !m_failure) {
        // An asynchronous sequence number is not an errno: PipeWire calls it "in progress".
        const int code = SPA_RESULT_IS_ASYNC(result) ? -EINPROGRESS : result;
        m_failure =
            Error::library(Error::Domain::PipeWire, camera::ConnectionStep, {}, code, message ? message : "");
    }
    pw_thread_loop_signal(m_loop, false);
}

} // namespace zandor
