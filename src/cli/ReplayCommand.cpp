#include "ReplayCommand.h"

#include "CliSession.h"
#include "base/CommandLine.h"
#include "recording/ReplayBuffer.h"
#include "settings/Settings.h"

#include <cstdio>
#include <thread>

namespace zandor {

int ReplayCommand::run(const CommandLine& options) {
    auto opened = openSession(options);
    if (!opened) {
        std::fprintf(stderr, "zandor-cli replay: %s\n", openFailure(opened.error()).c_str());
        return 2;
    }
    std::unique_ptr<CaptureSession> session = std::move(*opened);
    CaptureSettings settings = session->settings();
    if (auto text = options.value("buffer-seconds")) {
        const auto [minimum, maximum] = *settings::replaySeconds.range();
        auto count = CommandLine::parseCount(*text, minimum);
        if (!count || *count > static_cast<uint64_t>(maximum)) {
            return CommandLine::usageError("zandor-cli replay",
                                           "Option --buffer-seconds needs a whole number from " +
                                               std::to_string(minimum) + " to " + std::to_string(maximum));
        }
        settings.replaySeconds = static_cast<int>(*count);
    }
    auto play = CommandLine::parseCount(
        options.value("play-seconds").value_or(std::to_string(settings.replaySeconds + 5)), 1);
    if (!play) {
        return CommandLine::usageError("zandor-cli replay",
                                       "Option --play-seconds needs a whole number of at least 1");
    }
    if (!session->layout()) {
        return CommandLine::usageError("zandor-cli replay",
                                       "Option --layout needs one layout: the replay buffer "
                                       "keeps a catalogue layout, Top or Bottom");
    }
    settings.replayBuffer = true;
    session->apply(settings);
    SessionEvents events(*session);
    if (!session->start()) {
        return 1; // the device has logged why
    }
    // The game sound, when one is chosen, is kept beside the picture as the application keeps it.
    const auto lost = [](const session::Event& event) {
        return std::holds_alternative<session::GameSoundLost>(event);
    };
    if (events.waitFor(lost, std::chrono::milliseconds(0))) {
        std::fprintf(stderr, "zandor-cli replay: Could not open the game sound input \"%s\".\n",
                     qUtf8Printable(settings.gameAudioInput));
        return 1;
    }
    if (!session->replayBuffer()) {
        std::fprintf(stderr, "zandor-cli replay: Could not start the replay buffer.\n");
        return 1;
    }
    // The buffer fills on its own thread; this one only keeps time.
    std::this_thread::sleep_for(std::chrono::seconds(*play));
    session->saveReplay(settings.storageFolder);
    const auto saved = [](const session::Event& event) {
        return std::holds_alternative<session::ReplaySaved>(event);
    };
    // Saving waits for the sound of the last picture, so the picture and the sound go on meanwhile.
    const auto event = events.waitFor(saved, std::chrono::hours(1));
    session->shutdown();
    if (!event) {
        std::fprintf(stderr, "zandor-cli replay: Could not save the replay within an hour.\n");
        return 1;
    }
    const auto& result = std::get<session::ReplaySaved>(*event);
    if (result.path.isEmpty()) {
        std::fprintf(stderr, "zandor-cli replay: Could not save the replay. %s\n",
                     qUtf8Printable(result.message()));
        return 1;
    }
    std::printf("%s\n", qUtf8Printable(result.path));
    return 0;
}

} // namespace zandor
