// How long a frame takes from the board to the screen: from the moment the device stamps a frame
// to the end of the paint that shows it, in the application's own view, at 2x. Prints the median and
// the 99th percentile, and the CPU the process used. Runs on the X display of $DISPLAY (for
// example under Xvfb), else offscreen.
//
//   build/bench/view_latency [seconds]

#include "app/CaptureLayoutView.h"
#include "app/MainController.h"
#include "base/Log.h"
#include "capture/CaptureDevice.h"
#include "capture/DemoBoard.h"
#include "layouts/LayoutController.h"
#include "layouts/PluginController.h"

#include <QApplication>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

using namespace zandor;

namespace {

double processSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Measures, after each paint of the view, the age of the newest frame the layout has published.
class PaintClock : public QObject {
public:
    PaintClock(std::shared_ptr<CaptureDevice> device, LayoutPtr layout)
        : m_device(std::move(device)), m_layout(std::move(layout)), m_observer(m_layout->addObserver()) {}
    ~PaintClock() override { m_layout->removeObserver(m_observer); }

    std::vector<double> latenciesMs;

protected:
    bool eventFilter(QObject* object, QEvent* event) override {
        if (event->type() != QEvent::Paint) {
            return false;
        }
        object->event(event); // paint now (QObject::event is public), then read the clock
        const auto now = std::chrono::system_clock::now();
        CaptureDataPtr newest;
        while (auto frame = m_layout->observe(m_observer)) {
            newest = frame;
        }
        if (newest) {
            const auto stamped =
                m_device->startTime() + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                            std::chrono::duration<double>(newest->timestamp()));
            latenciesMs.push_back(std::chrono::duration<double, std::milli>(now - stamped).count());
        }
        return true;
    }

private:
    std::shared_ptr<CaptureDevice> m_device;
    LayoutPtr m_layout;
    ObserverPtr m_observer;
};

} // namespace

int main(int argc, char** argv) {
    if (!qEnvironmentVariableIsSet("DISPLAY")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    QTemporaryDir user;
    LogCapture quiet;

    auto device = CaptureDevice::create(std::make_unique<DemoBoard>());
    PluginController registry(PluginController::appPluginFolder(), user.path() + "/Plugins/");
    LayoutController catalogue(registry);
    catalogue.setDevice(device);
    LayoutPtr layout = catalogue.layoutNamed("Top over Bottom");
    if (!layout) {
        std::fprintf(stderr, "view_latency: the application's layouts are missing\n");
        return 1;
    }
    CaptureLayoutView view;
    view.resize(static_cast<int>(layout->width()) * 2, static_cast<int>(layout->height()) * 2);
    view.setLayout(layout);
    PaintClock clock(device, layout);
    view.installEventFilter(&clock);
    view.show();

    device->startListening();
    view.startListening();
    layout->startListening();
    const double cpuStart = processSeconds();
    QTimer::singleShot(seconds * 1000, &application, &QApplication::quit);
    QApplication::exec();
    const double cpu = processSeconds() - cpuStart;
    device->stopListening();
    view.stopListening();
    layout->stopListening();

    auto& ms = clock.latenciesMs;
    if (ms.empty()) {
        std::fprintf(stderr, "view_latency: nothing was drawn\n");
        return 1;
    }
    std::sort(ms.begin(), ms.end());
    std::printf("paints: %zu in %d s (%.1f a second)\n", ms.size(), seconds, ms.size() / double(seconds));
    std::printf(
        "board to screen: median %.2f ms, 99th percentile %.2f ms, max %.2f ms (a frame is 16.7 ms)\n",
        ms[ms.size() / 2], ms[ms.size() * 99 / 100], ms.back());
    std::printf("CPU: %.1f%% of one core (device, screens, layout, view and drawing)\n",
                100.0 * cpu / seconds);
    return 0;
}
