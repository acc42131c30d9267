#pragma once

// What the recording benchmarks share: a folder of their own, five seconds of an application
// layout's frames made from the demo board, and the thread's processor time.

#include "capture/CaptureData.h"
#include "layouts/CaptureLayout.h"

#include <QString>

#include <vector>

namespace zandor::bench {

constexpr int FootageFrames = 300; // five seconds at 60 frames a second

// A temporary folder for the run, where the user folders point too.
const QString& benchFolder();

// A layout of the application with its frames of the demo board, stamped a 60th of a second apart,
// and the same frames in a raw file; made once per layout.
struct DemoFootage {
    LayoutPtr layout;
    std::vector<CaptureDataPtr> frames;
    QString rawFile;
};
DemoFootage& demoFootage(const QString& layoutName);

// Processor seconds the calling thread has used.
double threadSeconds();

} // namespace zandor::bench
