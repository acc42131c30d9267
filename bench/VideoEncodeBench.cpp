// Encoding speed of the video track writer on one core for every quality preset, side by side with
// the ffmpeg command line encoding the same frames with the same settings in the same run.

#include "DemoFootage.h"
#include "base/Log.h"
#include "layouts/CaptureLayout.h"
#include "settings/VideoQuality.h"
#include "recording/VideoRecord.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

extern char** environ;

using namespace zandor;

namespace {

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

void encode(benchmark::State& state, const QString& layoutName, VideoQualityPtr preset) {
    LogCapture quiet;
    bench::DemoFootage& input = bench::demoFootage(layoutName);
    const bool intermediate = preset->name() == QLatin1String("Recording");
    CaptureSettings settings;
    settings.framesPerSecond = intermediate ? QStringLiteral("30") : QStringLiteral("Original");
    settings.videoQuality = intermediate ? QStringLiteral("Medium") : preset->name();

    double ours = 0, theirs = 0;
    for (auto _ : state) {
        VideoRecord record(input.layout);
        if (const Error failed = record.start(bench::benchFolder(), settings)) {
            state.SkipWithError(failed.logLine().c_str());
            return;
        }
        const double start = bench::threadSeconds();
        for (const auto& frame : input.frames) {
            record.append(*frame);
        }
        if (const Error failed = record.stop()) {
            state.SkipWithError(failed.logLine().c_str());
            return;
        }
        ours = bench::threadSeconds() - start;
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
                             (bench::benchFolder() + "/cli.mov").toStdString()});
    }
    state.counters["ours_fps"] = bench::FootageFrames / ours;
    state.counters["ffmpeg_fps"] = theirs > 0 ? bench::FootageFrames / theirs : 0;
    state.counters["ours_over_ffmpeg"] = theirs > 0 ? theirs / ours : 0;
    state.counters["realtime_x"] = bench::FootageFrames / ours / 60.0;
}

int registerPresets() {
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
