#include "ScreenshotSound.h"

#include <canberra.h>

namespace zandor {

ScreenshotSound::ScreenshotSound() {
    if (ca_context_create(&m_context) != CA_SUCCESS) {
        m_context = nullptr;
        return;
    }
    // The sound server only: falling back to ALSA devices fills standard error with noise on
    // machines without sound and plays nothing useful.
    ca_context_set_driver(m_context, "pulse");
    ca_context_change_props(m_context, CA_PROP_APPLICATION_NAME, "Zandor", CA_PROP_APPLICATION_ID, "zandor",
                            nullptr);
}

ScreenshotSound::~ScreenshotSound() {
    if (m_context) {
        ca_context_destroy(m_context);
    }
}

void ScreenshotSound::play() {
    static ScreenshotSound sound;
    std::scoped_lock lock(sound.m_mutex);
    if (sound.m_context) {
        // Any error (no sound server, no theme) leaves the screenshot silent; nothing to report.
        ca_context_play(sound.m_context, 0, CA_PROP_EVENT_ID, "screen-capture", CA_PROP_EVENT_DESCRIPTION,
                        "Screenshot taken", nullptr);
    }
}

} // namespace zandor
