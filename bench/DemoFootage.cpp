#include "DemoFootage.h"

#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "layouts/PluginController.h"
#include "settings/PreferencesController.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstdlib>
#include <ctime>
#include <map>

namespace zandor::bench {

const QString& benchFolder() {
    static QTemporaryDir dir;
    static const QString path = [] {
        setenv("XDG_DATA_HOME", qPrintable(dir.path() + "/data"), 1);
        PreferencesController::instance().setReadOnly(true);
        return dir.path();
    }();
    return path;
}

DemoFootage& demoFootage(const QString& layoutName) {
    static std::map<QString, DemoFootage> made;
    auto found = made.find(layoutName);
    if (found != made.end()) {
        return found->second;
    }
    static PluginController registry(PluginController::appPluginFolder(), benchFolder() + "/user/");
    static auto device = CaptureDevice::create(std::make_unique<DemoBoard>());
    DemoFootage& result = made[layoutName];
    auto plugin =
        std::static_pointer_cast<LayoutPlugin>(registry.pluginNamed(layoutName, Plugin::LayoutType));
    result.layout = CaptureLayout::createWithPlugin(plugin, device);
    static auto observer = result.layout->addObserver();
    result.layout->startListening(); // for the drawing state only; the device never runs
    result.rawFile = benchFolder() + "/" + layoutName + ".rgb";
    QFile raw(result.rawFile);
    raw.open(QIODevice::WriteOnly);
    std::vector<uint8_t> board(raw::BlockBytes);
    for (int n = 0; n < FootageFrames; ++n) {
        DemoBoard::render(static_cast<uint64_t>(n), board.data());
        auto top = CaptureData::create(288000), bottom = CaptureData::create(230400);
        CaptureScreen::cut(board.data() + raw::TopOffset, top->data(), raw::TopWidth, raw::TopHeight);
        CaptureScreen::cut(board.data() + raw::BottomOffset, bottom->data(), raw::BottomWidth,
                           raw::BottomHeight);
        top->setTimestamp(n / 60.0);
        top->setNumber(static_cast<uint64_t>(n) + 1);
        auto frame = result.layout->composite(top, bottom);
        raw.write(reinterpret_cast<const char*>(frame->data()), static_cast<qint64>(frame->size()));
        result.frames.push_back(frame);
    }
    return result;
}

double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

} // namespace zandor::bench
