#include "ReplayCommand.h"

#include "CaptureSession.h"
#include "base/CommandLine.h"
#include "audio/GameAudio.h"
#include "recording/ReplayBuffer.h"

#include <cstdio>
#include <thread>

namespace zandor {

int ReplayCommand::run(const CommandLine& options) {
    CaptureSession session;
    std::string error;
    if (!session.open(options, error)) {
        std::fprintf(stderr, "zandor-cli replay: %s\n", error.c_str());
        return 2;
    }
    int seconds = session.settings().replaySeconds;
    if (auto text = options.value("buffer-seconds")) {
        auto count = CommandLine::parseCount(*text, ReplayBuffer::MinimumSeconds);
        if (!count || *count > ReplayBuffer::MaximumSeconds) {
            std::fprintf(stderr, "zandor-cli replay: --buffer-seconds needs a whole number from %d to %d\n",
                         ReplayBuffer::MinimumSeconds, ReplayBuffer::MaximumSeconds);
            return 2;
        }
        seconds = static_cast<int>(*count);
    }
    auto play =
        CommandLine::parseCount(options.value("play-seconds").value_or(std::to_string(seconds + 5)), 1);
    if (!play) {
        std::fprintf(stderr, "zandor-cli replay: --play-seconds needs a whole number of at least 1\n");
        return 2;
    }
    if (session.layouts().size() != 1) {
        std::fprintf(stderr, "zandor-cli replay: the replay buffer keeps one layout: choose a catalogue "
                             "layout, Top or Bottom with --layout\n");
        return 2;
    }
    if (!session.start()) {
        return 1; // the device has logged why
    }
    // The game sound, when one is chosen, kept beside the picture as the application keeps it.
    GameAudio game;
    if (!game.start(session.settings().gameAudioInput)) {
        session.stop();
        std::fprintf(stderr, "zandor-cli replay: Could not open the game sound input \"%s\".\n",
                     qUtf8Printable(session.settings().gameAudioInput));
        return 1;
    }
    auto buffer = std::make_shared<ReplayBuffer>(session.layouts().front(), session.settings(), seconds);
    buffer->shareGameInput(game.input());
    if (!buffer->start()) {
        session.stop();
        std::fprintf(stderr, "zandor-cli replay: Could not start the replay buffer.\n");
        return 1;
    }
    // The buffer fills on its own thread; this one only keeps time.
    std::this_thread::sleep_for(std::chrono::seconds(*play));
    const ReplayBuffer::Saved saved = buffer->save(session.settings().storageFolder);
    buffer->stop();
    session.stop();
    if (saved.path.isEmpty()) {
        std::fprintf(stderr, "zandor-cli replay: Could not save the replay. %s\n",
                     qUtf8Printable(saved.error));
        return 1;
    }
    std::printf("%s\n", qUtf8Printable(saved.path));
    return 0;
}

} // namespace zandor
