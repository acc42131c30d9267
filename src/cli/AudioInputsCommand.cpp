#include "AudioInputsCommand.h"

#include "audio/AudioInput.h"

#include <QAudioDevice>
#include <QMediaDevices>

#include <cstdio>

namespace zandor {

int AudioInputsCommand::run(const CommandLine&) {
    std::printf("%s\t%s\n", qUtf8Printable(AudioInput::BoardId), "Capture board");
    for (const QAudioDevice& device : QMediaDevices::audioInputs()) {
        std::printf("%s\t%s\n", device.id().constData(), qUtf8Printable(device.description()));
    }
    return 0;
}

} // namespace zandor
