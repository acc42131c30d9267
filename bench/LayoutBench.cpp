// Compositing cost per frame of each of the application's layouts, against a memcpy of the same
// canvas measured in the same run.

#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "layouts/CaptureLayout.h"
#include "layouts/PluginController.h"

#include <benchmark/benchmark.h>

#include <QTemporaryDir>

#include <chrono>
#include <cstring>
#include <vector>

using namespace zandor;

namespace {

struct Screens {
    CaptureDataPtr top, bottom;
};

// A few screen pairs cut from demo frames, so the screens change as they do live.
std::vector<Screens> demoScreens() {
    std::vector<Screens> pairs;
    std::vector<uint8_t> raw(raw::BlockBytes);
    for (uint64_t n = 0; n < 8; ++n) {
        DemoBoard::render(n * 7, raw.data());
        Screens pair{CaptureData::create(288000), CaptureData::create(230400)};
        CaptureScreen::cut(raw.data() + raw::TopOffset, pair.top->data(), raw::TopWidth, raw::TopHeight);
        CaptureScreen::cut(raw.data() + raw::BottomOffset, pair.bottom->data(), raw::BottomWidth,
                           raw::BottomHeight);
        pairs.push_back(pair);
    }
    return pairs;
}

template <class F> double medianMicroseconds(int rounds, F&& work) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        auto start = std::chrono::steady_clock::now();
        work(i);
        times.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
    return times[static_cast<size_t>(rounds / 2)];
}

void compositeLayout(benchmark::State& state, const std::shared_ptr<LayoutPlugin>& plugin) {
    LogCapture quiet;
    auto device = CaptureDevice::create(std::make_unique<DemoBoard>());
    auto layout = CaptureLayout::createWithPlugin(plugin, device);
    auto observer = layout->addObserver();
    layout->startListening(); // resets the drawing state; the device never runs, so no frame comes
    const auto pairs = demoScreens();
    layout->composite(pairs[0].top, pairs[0].bottom); // the first frame repaints everything

    std::vector<uint8_t> source(layout->size()), target(layout->size());
    double compositeUs = 0, memcpyUs = 0;
    for (auto _ : state) {
        compositeUs = medianMicroseconds(400, [&](int i) {
            const auto& pair = pairs[static_cast<size_t>(i) % pairs.size()];
            benchmark::DoNotOptimize(layout->composite(pair.top, pair.bottom));
        });
        memcpyUs = medianMicroseconds(400, [&](int) {
            std::memcpy(target.data(), source.data(), source.size());
            benchmark::ClobberMemory();
        });
        state.SetIterationTime(compositeUs / 1e6);
    }
    state.counters["canvas"] = static_cast<double>(layout->width() * layout->height());
    state.counters["composite_us"] = compositeUs;
    state.counters["memcpy_us"] = memcpyUs;
    state.counters["over_memcpy"] = compositeUs / memcpyUs;
    layout->removeObserver(observer);
    layout->stopListening();
}

int registerLayouts() {
    static QTemporaryDir user;
    static PluginController registry(PluginController::appPluginFolder(), user.path() + "/Plugins/");
    for (const auto& plugin : registry.pluginTyped(Plugin::LayoutType)) {
        auto layoutPlugin = std::static_pointer_cast<LayoutPlugin>(plugin);
        benchmark::RegisterBenchmark(
            ("BM_Composite/" + plugin->name().toStdString()).c_str(),
            [layoutPlugin](benchmark::State& state) { compositeLayout(state, layoutPlugin); })
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
    return 0;
}

const int registered = registerLayouts();

} // namespace
