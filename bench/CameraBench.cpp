// What sharing the picture as a camera costs. A 400 by 480 layout publishes a picture 60 times a
// second, the camera shares it, and a consumer in this process (a PipeWire input stream, as OBS
// and browsers open one) takes each buffer. Figures: the delay from the layout's publishing to the
// consumer's receiving (median and 99th percentile), the processor time of the camera's threads
// in percent of one core, and that of a plain memcpy of the same bytes 60 times a second, measured
// in the same run. Needs a PipeWire with a session manager, the desktop's or a private one:
//
//   scripts/with-pipewire -- build/bench/camera_bench

#include "BenchSupport.h"
#include "base/Log.h"
#include "camera/CameraOutput.h"
#include "layouts/LayoutController.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <mutex>
#include <set>

namespace zandor::bench {
namespace {

constexpr std::chrono::seconds Window{10};
constexpr auto FramePeriod = std::chrono::nanoseconds(1'000'000'000 / 60);

// A consumer of the node named "zandor": notes how long after its publishing each buffer's picture
// arrived, from the time stamp the camera put in its header (nanoseconds on CLOCK_MONOTONIC, which
// SteadyClock reads).
class Consumer {
public:
    Consumer() {
        m_loop = pw_thread_loop_new("bench-consumer", nullptr);
        pw_thread_loop_start(m_loop);
        pw_thread_loop_lock(m_loop);
        m_events.version = PW_VERSION_STREAM_EVENTS;
        m_events.process = [](void* consumer) { static_cast<Consumer*>(consumer)->process(); };
        // The buffers carry the header with the picture's time stamp only when both ends ask for it.
        m_events.param_changed = [](void* consumer, uint32_t id, const spa_pod* param) {
            if (id == SPA_PARAM_Format && param) {
                static_cast<Consumer*>(consumer)->askForHeaders();
            }
        };
        m_stream = pw_stream_new_simple(pw_thread_loop_get_loop(m_loop), "bench-consumer",
                                        pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                                          "Capture", PW_KEY_TARGET_OBJECT, "zandor", nullptr),
                                        &m_events, this);
        uint8_t space[512];
        spa_pod_builder builder;
        spa_pod_builder_init(&builder, space, sizeof space);
        spa_pod_frame frame;
        spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
        spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                            SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                            SPA_FORMAT_VIDEO_format, SPA_POD_Id(SPA_VIDEO_FORMAT_RGB), 0);
        const spa_pod* params[] = {static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame))};
        pw_stream_connect(
            m_stream, PW_DIRECTION_INPUT, PW_ID_ANY,
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS), params, 1);
        pw_thread_loop_unlock(m_loop);
    }
    ~Consumer() {
        pw_thread_loop_lock(m_loop);
        pw_stream_destroy(m_stream);
        pw_thread_loop_unlock(m_loop);
        pw_thread_loop_stop(m_loop);
        pw_thread_loop_destroy(m_loop);
    }

    // The delays noted so far, in milliseconds, and forgets them.
    std::vector<double> takeDelaysMs() {
        std::scoped_lock lock(m_mutex);
        return std::exchange(m_delaysMs, {});
    }

private:
    void askForHeaders() {
        uint8_t space[256];
        spa_pod_builder builder;
        spa_pod_builder_init(&builder, space, sizeof space);
        spa_pod_frame frame;
        spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta);
        spa_pod_builder_add(&builder, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size,
                            SPA_POD_Int(int32_t(sizeof(spa_meta_header))), 0);
        const spa_pod* params[] = {static_cast<spa_pod*>(spa_pod_builder_pop(&builder, &frame))};
        pw_stream_update_params(m_stream, params, 1);
    }

    void process() {
        const double now = std::chrono::duration<double>(SteadyClock::now().time_since_epoch()).count();
        while (pw_buffer* buffer = pw_stream_dequeue_buffer(m_stream)) {
            if (auto* header = static_cast<spa_meta_header*>(
                    spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
                std::scoped_lock lock(m_mutex);
                m_delaysMs.push_back((now - static_cast<double>(header->pts) * 1e-9) * 1e3);
            }
            pw_stream_queue_buffer(m_stream, buffer);
        }
    }

    pw_thread_loop* m_loop = nullptr;
    pw_stream* m_stream = nullptr;
    pw_stream_events m_events{};
    std::mutex m_mutex;
    std::vector<double> m_delaysMs;
};

std::set<long> threadIds() {
    std::set<long> ids;
    for (const auto& [id, time] : threadTimes()) {
        ids.insert(id);
    }
    return ids;
}

double secondsOf(const std::set<long>& ids) {
    double seconds = 0;
    for (const auto& [id, time] : threadTimes()) {
        seconds += ids.count(id) ? time.seconds : 0;
    }
    return seconds;
}

// One thread copying `bytes` 60 times a second, paced like the layout; percent of one core.
double memcpyPercent(size_t bytes) {
    std::vector<uint8_t> from(bytes, 7), to(bytes);
    const auto start = SteadyClock::now();
    const double cpuStart = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    for (auto pass = start; pass < start + Window / 2; pass += FramePeriod) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
        std::this_thread::sleep_until(pass + FramePeriod);
    }
    return 100 * (cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - cpuStart) /
           std::chrono::duration<double>(SteadyClock::now() - start).count();
}

void BM_CameraAt60Fps(benchmark::State& state) {
    LogCapture quiet;
    auto device = CaptureDevice::create(std::make_unique<DemoBoard>()); // never started
    LayoutController::instance().setDevice(device);
    const LayoutPtr layout = LayoutController::instance().layoutNamed("Top over Bottom");
    if (!layout) {
        state.SkipWithError("no layout Top over Bottom: build the plugins");
        return;
    }
    std::vector<uint8_t> picture(layout->size());
    DemoBoard::render(0, picture.data()); // any bytes will do; the camera copies what it is given

    for (auto _ : state) {
        const std::set<long> before = threadIds();
        auto camera = CameraOutput::create();
        if (camera->start(layout)) {
            state.SkipWithError("no PipeWire: run under scripts/with-pipewire");
            return;
        }
        std::set<long> cameraThreads;
        for (long id : threadIds()) {
            if (!before.count(id)) {
                cameraThreads.insert(id);
            }
        }
        const auto origin = SteadyClock::now();
        Consumer consumer;
        // The layout publishes from here; warm-up frames let the consumer connect and settle.
        auto publishUntil = [&](SteadyClock::time_point end) {
            for (auto pass = SteadyClock::now(); pass < end; pass += FramePeriod) {
                auto frame = CaptureData::create(layout->size());
                std::memcpy(frame->data(), picture.data(), picture.size());
                frame->setTimestamp(std::chrono::duration<double>(SteadyClock::now() - origin).count());
                frame->setWallClock(std::chrono::system_clock::now());
                layout->add(frame);
                std::this_thread::sleep_until(pass + FramePeriod);
            }
        };
        publishUntil(SteadyClock::now() + 4 * WarmUp);
        consumer.takeDelaysMs();
        const uint64_t sent = camera->sentFrames(), dropped = camera->droppedFrames();
        const double cpuStart = secondsOf(cameraThreads);
        const auto wallStart = SteadyClock::now();
        publishUntil(wallStart + Window);
        const double cameraPercent = 100 * (secondsOf(cameraThreads) - cpuStart) /
                                     std::chrono::duration<double>(SteadyClock::now() - wallStart).count();
        std::vector<double> delays = consumer.takeDelaysMs();
        std::sort(delays.begin(), delays.end());
        const double copyPercent = memcpyPercent(layout->size());

        state.counters["median_ms"] = percentile(delays, 0.5);
        state.counters["p99_ms"] = percentile(delays, 0.99);
        state.counters["received"] = static_cast<double>(delays.size());
        state.counters["sent"] = static_cast<double>(camera->sentFrames() - sent);
        state.counters["dropped"] = static_cast<double>(camera->droppedFrames() - dropped);
        state.counters["camera_cpu_pct"] = cameraPercent;
        state.counters["memcpy_cpu_pct"] = copyPercent;
        state.counters["camera_per_memcpy"] = copyPercent > 0 ? cameraPercent / copyPercent : 0;
        camera->stop();
    }
    layout->stopListening();
}

BENCHMARK(BM_CameraAt60Fps)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace
} // namespace zandor::bench
