// zandor-emulated-board: runs one command with the capture board emulated at the device node, so
// that `--board usb` takes the real path through libusb and usbfs without hardware.

#include "EmulatedBoard.h"

#include "capture/DemoBoard.h"
#include "capture/ReplayBoard.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <sys/wait.h>
#include <unistd.h>

namespace {

pid_t g_child = 0;

void forward(int signal) {
    if (g_child > 0) {
        kill(g_child, signal);
    }
}

int usage() {
    std::fprintf(stderr,
                 "usage: with-emulated-board [--replay FILE] [--tone HZ] [--no-sound] [--firmware N] "
                 "[--serial S [--serial S2]] [--unplug-at-frame N] [--replug-after-ms M] -- COMMAND...\n");
    return 2;
}

bool number(const char* text, long long& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtoll(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && value >= 0;
}

} // namespace

int main(int argc, char** argv) {
    // umockdev sends uevents through libudev, which must see the testbed's sysfs as the programs
    // do: this program runs under the preload library too.
    if (const std::string error = zandor::EmulatedBoard::runUnderPreload(argv); !error.empty()) {
        std::fprintf(stderr, "with-emulated-board: %s\n", error.c_str());
        return 2;
    }
    std::string replay;
    std::vector<std::string> serials;
    long long firmware = 6;
    long long toneHertz = 0;
    bool sound = true;
    long long unplugAt = -1;
    long long replugAfterMs = -1;
    int i = 1;
    for (; i < argc; ++i) {
        std::string option = argv[i];
        if (option == "--") {
            ++i;
            break;
        }
        if (option == "--no-sound") {
            sound = false;
            continue;
        }
        if (i + 1 >= argc) {
            return usage();
        }
        if (option == "--serial") {
            serials.emplace_back(argv[++i]);
            if (serials.size() > 2 || serials.back().size() > 31) {
                return usage();
            }
        } else if (option == "--firmware") {
            if (!number(argv[++i], firmware) || firmware > 255) {
                return usage();
            }
        } else if (option == "--tone") {
            if (!number(argv[++i], toneHertz) || toneHertz < 1 || toneHertz > 16000) {
                return usage();
            }
        } else if (option == "--replay") {
            replay = argv[++i];
        } else if (option == "--unplug-at-frame") {
            if (!number(argv[++i], unplugAt)) {
                return usage();
            }
        } else if (option == "--replug-after-ms") {
            if (!number(argv[++i], replugAfterMs)) {
                return usage();
            }
        } else {
            return usage();
        }
    }
    if (i >= argc || (replugAfterMs >= 0 && unplugAt < 0)) {
        return usage(); // no command, or a replug without an unplug
    }

    if (serials.empty()) {
        serials.emplace_back("ZD0000000001");
    }
    // Each board shows the demo picture or plays the file, with the sound and identity asked for.
    const auto makeModel = [&](const std::string& serial) -> std::unique_ptr<zandor::SimulatedBoard> {
        std::unique_ptr<zandor::SimulatedBoard> model;
        if (replay.empty()) {
            auto demo = std::make_unique<zandor::DemoBoard>();
            demo->setTone(static_cast<double>(toneHertz));
            model = std::move(demo);
        } else {
            auto file = zandor::ReplayBoard::open(replay);
            if (!file) {
                std::fprintf(stderr, "with-emulated-board: %s\n", file.error().logLine().c_str());
                return nullptr;
            }
            model = std::move(*file);
        }
        model->setSerial(serial);
        model->setFirmwareVersion(static_cast<int>(firmware));
        model->setSendsSound(sound);
        return model;
    };
    auto model = makeModel(serials.front());
    if (!model) {
        return 2;
    }
    std::string error;
    auto board = zandor::EmulatedBoard::create(std::move(model), error);
    if (!board) {
        std::fprintf(stderr, "with-emulated-board: %s\n", error.c_str());
        return 2;
    }
    std::unique_ptr<zandor::EmulatedBoard> beside;
    if (serials.size() > 1) {
        auto second = makeModel(serials.back());
        if (!second) {
            return 2;
        }
        beside = zandor::EmulatedBoard::createBeside(*board, std::move(second));
    }
    if (unplugAt >= 0) {
        board->unplugAtRequest(static_cast<uint64_t>(unplugAt), std::chrono::milliseconds(replugAfterMs));
    }

    const auto environment = board->childEnvironment();
    g_child = fork();
    if (g_child < 0) {
        std::perror("with-emulated-board: fork");
        return 2;
    }
    if (g_child == 0) {
        for (const auto& entry : environment) {
            putenv(strdup(entry.c_str()));
        }
        execvp(argv[i], argv + i);
        std::fprintf(stderr, "with-emulated-board: cannot run %s: %s\n", argv[i], std::strerror(errno));
        _exit(127);
    }
    std::signal(SIGINT, forward);
    std::signal(SIGTERM, forward);
    int status = 0;
    while (waitpid(g_child, &status, 0) < 0 && errno == EINTR) {
    }
    beside.reset();
    board.reset();
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return 128 + WTERMSIG(status);
}
