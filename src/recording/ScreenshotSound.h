#pragma once

#include <mutex>

struct ca_context;

namespace zandor {

// The desktop's screenshot sound ("screen-capture" of the freedesktop sound theme) through
// libcanberra. Silent, without error, where no sound server runs.
class ScreenshotSound {
public:
    static void play();

private:
    ScreenshotSound();
    ~ScreenshotSound();
    ScreenshotSound(const ScreenshotSound&) = delete;
    ScreenshotSound& operator=(const ScreenshotSound&) = delete;

    // The context lives for the process, so a sound is not cut off when its recorder ends.
    std::mutex m_mutex;
    ca_context* m_context = nullptr;
};

} // namespace zandor
