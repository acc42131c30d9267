#include "AudioInputsCommand.h"

#include "audio/AudioInput.h"

#include <QAudioDevice>
#include <QMediaDevices>

#include <cstdio>

namespace zandor {

int AudioInputsCommand::run(const CommandLine&) {
    std::printf("%s\t%s\n", qUtf8Printable(AudioInput::BoardId), "Capture board");
    const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
    for (const QAudioDevice& device : inputs) {
        std::printf("%s\t%s\n", device.id().constData(), qUtf8Printable(device.description()));
    }
    if (inputs.isEmpty()) {
        // Said beside the list, which scripts read: the board's own sound is there all the same.
        std::fputs("No audio inputs on this machine (the sound server lists none, or none runs)\n", stderr);
    }
    return 0;
}

} // namespace zandor
