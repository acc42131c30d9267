// zandor-emulated-board: runs one command with the capture board emulated at the device node, so
// that `--board usb` takes the real path through libusb and usbfs without hardware.

#include "EmulatedBoard.h"
#include "Ft601Model.h"

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
    std::fprintf(
        stderr, "usage: with-emulated-board [--kind classic|n3dsxl] [--replay FILE] [--tone HZ] [--no-sound] "
                "[--firmware N] [--serial S [--serial S2]] [--unplug-at-frame N] [--replug-after-ms M] "
                "[--usb2] [--no-3d] [--product NAME] [--garbage-configuration] [--no-configuration] "
                "[--short-frame-at N] "
                "[--oversized-frame-at N] [--stall-at-frame N] -- COMMAND...\n");
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
    bool ft601 = false;
    zandor::Ft601Options ft601Options;
    std::vector<std::pair<uint64_t, zandor::Ft601Fault>> ft601Faults;
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
        if (option == "--no-configuration") {
            ft601Options.answersConfiguration = false;
            continue;
        }
        if (option == "--usb2" || option == "--no-3d" || option == "--garbage-configuration") {
            ft601Options.superSpeed = ft601Options.superSpeed && option != "--usb2";
            ft601Options.capable3D = ft601Options.capable3D && option != "--no-3d";
            ft601Options.garbageConfiguration =
                ft601Options.garbageConfiguration || option == "--garbage-configuration";
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
        } else if (option == "--kind") {
            const std::string kind = argv[++i];
            if (kind != "classic" && kind != "n3dsxl") {
                return usage();
            }
            ft601 = kind == "n3dsxl";
        } else if (option == "--product") {
            ft601Options.product = argv[++i];
        } else if (option == "--short-frame-at" || option == "--oversized-frame-at" ||
                   option == "--stall-at-frame") {
            long long frame = 0;
            if (!number(argv[++i], frame)) {
                return usage();
            }
            ft601Faults.emplace_back(static_cast<uint64_t>(frame),
                                     option == "--short-frame-at"   ? zandor::Ft601Fault::ShortFrame
                                     : option == "--stall-at-frame" ? zandor::Ft601Fault::Stall
                                                                    : zandor::Ft601Fault::OversizedFrame);
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
    // The new models' board sends the same picture and sound in its own order.
    const auto makeFt601 = [&](std::unique_ptr<zandor::SimulatedBoard> source) {
        auto board = std::make_unique<zandor::Ft601Model>(std::move(source), ft601Options);
        for (const auto& [frame, fault] : ft601Faults) {
            board->injectFault(frame, fault);
        }
        return board;
    };
    auto model = makeModel(serials.front());
    if (!model) {
        return 2;
    }
    std::string error;
    auto board = ft601 ? zandor::EmulatedBoard::create(makeFt601(std::move(model)), error)
                       : zandor::EmulatedBoard::create(std::move(model), error);
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
        beside = ft601 ? zandor::EmulatedBoard::createBeside(*board, makeFt601(std::move(second)))
                       : zandor::EmulatedBoard::createBeside(*board, std::move(second));
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
