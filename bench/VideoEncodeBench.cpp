// Encoding speed of the video track writer on one core for every quality preset, side by side with
// the ffmpeg command line encoding the same frames with the same settings in the same run.

#include "base/Log.h"
#include "capture/CaptureData.h"
#include "capture/CaptureDevice.h"
#include "capture/CaptureScreen.h"
#include "capture/DemoBoard.h"
#include "capture/RawFrame.h"
#include "layouts/CaptureLayout.h"
#include "layouts/PluginController.h"
#include "settings/VideoQuality.h"
#include "recording/VideoRecord.h"
#include "settings/PreferencesController.h"

#include <benchmark/benchmark.h>

#include <QFile>
#include <QTemporaryDir>

#include <cstdlib>
#include <ctime>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

extern char** environ;

using namespace zandor;

namespace {

constexpr int FrameCount = 300; // five seconds at 60 frames a second

QTemporaryDir& folder() {
    static QTemporaryDir dir;
    return dir;
}

double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// CPU seconds (user and system) the command used, or a negative number when it failed.
double runCommand(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& a : arguments) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return -1;
    }
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A layout of the application with its frames of the demo board, and the same frames in a raw file.
struct Footage {
    LayoutPtr layout;
    std::vector<CaptureDataPtr> frames;
    QString rawFile;
};

Footage& footage(const QString& layoutName) {
    static std::map<QString, Footage> made;
    auto found = made.find(layoutName);
    if (found != made.end()) {
        return found->second;
    }
    static PluginController registry(PluginController::appPluginFolder(), folder().path() + "/user/");
    static auto device = CaptureDevice::create(std::make_unique<DemoBoard>());
    Footage& result = made[layoutName];
    auto plugin =
        std::static_pointer_cast<LayoutPlugin>(registry.pluginNamed(layoutName, Plugin::LayoutType));
    result.layout = CaptureLayout::createWithPlugin(plugin, device);
    static auto observer = result.layout->addObserver();
    result.layout->startListening(); // for the drawing state only; the device never runs
    result.rawFile = folder().path() + "/" + layoutName + ".rgb";
    QFile raw(result.rawFile);
    raw.open(QIODevice::WriteOnly);
    std::vector<uint8_t> board(raw::BlockBytes);
    for (int n = 0; n < FrameCount; ++n) {
        DemoBoard::render(static_cast<uint64_t>(n), board.data());
        auto top = CaptureData::create(288000), bottom = CaptureData::create(230400);
        CaptureScreen::cut(board.data() + raw::TopOffset, top->data(), raw::TopWidth, raw::TopHeight);
        CaptureScreen::cut(board.data() + raw::BottomOffset, bottom->data(), raw::BottomWidth,
                           raw::BottomHeight);
        top->setTimestamp(n / 60.0);
        auto frame = result.layout->composite(top, bottom);
        raw.write(reinterpret_cast<const char*>(frame->data()), static_cast<qint64>(frame->size()));
        result.frames.push_back(frame);
    }
    return result;
}

void encode(benchmark::State& state, const QString& layoutName, VideoQualityPtr preset) {
    LogCapture quiet;
    Footage& input = footage(layoutName);
    const bool intermediate = preset->name() == QLatin1String("Recording");
    CaptureSettings settings;
    settings.framesPerSecond = intermediate ? QStringLiteral("30") : QStringLiteral("Original");
    settings.videoQuality = intermediate ? QStringLiteral("Medium") : preset->name();

    double ours = 0, theirs = 0;
    for (auto _ : state) {
        VideoRecord record(input.layout);
        record.start(folder().path(), settings);
        const double start = threadSeconds();
        for (const auto& frame : input.frames) {
            record.append(*frame);
        }
        record.stop();
        ours = threadSeconds() - start;
        state.SetIterationTime(ours);

        const auto size =
            std::to_string(input.layout->width()) + "x" + std::to_string(input.layout->height());
        theirs = runCommand({"/usr/bin/ffmpeg",
                             "-v",
                             "error",
                             "-y",
                             "-f",
                             "rawvideo",
                             "-pix_fmt",
                             "rgb24",
                             "-s",
                             size,
                             "-framerate",
                             "60",
                             "-i",
                             input.rawFile.toStdString(),
                             "-filter_threads",
                             "1",
                             "-c:v",
                             "libx264",
                             "-preset",
                             VideoRecord::encoderSpeed(*preset),
                             "-threads",
                             "1",
                             "-bf",
                             "0",
                             "-b:v",
                             std::to_string(preset->bitsPerSecond()),
                             "-g",
                             std::to_string(preset->maxKeyInterval()),
                             "-pix_fmt",
                             "yuv420p",
                             "-f",
                             "mov",
                             "-movflags",
                             "empty_moov+default_base_moof",
                             "-frag_duration",
                             "1000000",
                             (folder().path() + "/cli.mov").toStdString()});
    }
    state.counters["ours_fps"] = FrameCount / ours;
    state.counters["ffmpeg_fps"] = theirs > 0 ? FrameCount / theirs : 0;
    state.counters["ours_over_ffmpeg"] = theirs > 0 ? theirs / ours : 0;
    state.counters["realtime_x"] = FrameCount / ours / 60.0;
}

int registerPresets() {
    setenv("XDG_DATA_HOME", qPrintable(folder().path() + "/data"), 1);
    PreferencesController::instance().setReadOnly(true);
    auto presets = VideoQuality::videoQualities();
    presets.append(VideoQuality::recordingQuality());
    for (const char* layout : {"Top over Bottom", "Side by Side"}) {
        for (const auto& preset : presets) {
            benchmark::RegisterBenchmark(
                (std::string("BM_Encode/") + layout + "/" + preset->name().toStdString()).c_str(),
                [layout, preset](benchmark::State& state) { encode(state, layout, preset); })
                ->Iterations(1)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
    return 0;
}

const int registered = registerPresets();

} // namespace
