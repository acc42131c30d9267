// Time to draw one frame of a layout in the layout view at 1x, 2x, and fitted full screen on 1920 by
// 1080 and 3840 by 2160 displays, against the 16.7 ms a frame has at 60 frames a second. A draw is
// what the view's paint does: the nearest-neighbour scale of the frame straight into the window's
// backing store (here an image of the window's size).

#include "app/CaptureLayoutView.h"
#include "app/WindowGeometry.h"

#include <benchmark/benchmark.h>

#include <QImage>

#include <random>
#include <vector>

using namespace zandor;

namespace {

void drawFrame(benchmark::State& state, QSize natural, QSize window) {
    // The layout view's place inside the window, as the window sizing puts it.
    const QRect place = WindowGeometry::layoutViewFrame(window, natural, true, true, 0, {});
    std::vector<uint8_t> frame(static_cast<size_t>(natural.width() * natural.height() * 3));
    std::mt19937 random(1);
    for (auto& byte : frame) {
        byte = static_cast<uint8_t>(random());
    }
    QImage backingStore(window, QImage::Format_RGB32);
    QImage view(backingStore.bits() + place.y() * backingStore.bytesPerLine() + place.x() * 4, place.width(),
                place.height(), backingStore.bytesPerLine(), QImage::Format_RGB32);
    for (auto _ : state) {
        CaptureLayoutView::scaleNearest(frame.data(), natural.width(), natural.height(), view);
        benchmark::DoNotOptimize(backingStore.constBits());
    }
    state.counters["pixels"] = static_cast<double>(place.width()) * place.height();
    // Seconds per draw times 60: the share of a frame's 16.7 ms that one draw takes.
    state.counters["share_of_frame"] =
        benchmark::Counter(static_cast<double>(state.iterations()) / 60.0,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void registerSizes() {
    const QSize tall(400, 480), wide(720, 240);
    struct Case {
        const char* name;
        QSize natural, window;
    };
    for (const Case& c :
         {Case{"TopOverBottom/1x", tall, tall}, Case{"TopOverBottom/2x", tall, tall * 2},
          Case{"TopOverBottom/1920x1080", tall, {1920, 1080}},
          Case{"TopOverBottom/3840x2160", tall, {3840, 2160}}, Case{"SideBySide/1x", wide, wide},
          Case{"SideBySide/2x", wide, wide * 2}, Case{"SideBySide/1920x1080", wide, {1920, 1080}},
          Case{"SideBySide/3840x2160", wide, {3840, 2160}}}) {
        benchmark::RegisterBenchmark((std::string("BM_DrawFrame/") + c.name).c_str(),
                                     [c](benchmark::State& state) { drawFrame(state, c.natural, c.window); })
            ->Unit(benchmark::kMillisecond);
    }
}

const int registered = (registerSizes(), 0);

} // namespace
