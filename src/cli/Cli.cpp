#include "Cli.h"

#include "AudioInputsCommand.h"
#include "CameraCommand.h"
#include "BoardInfoCommand.h"
#include "DumpCommand.h"
#include "InstallPluginCommand.h"
#include "LayoutsCommand.h"
#include "RecordCommand.h"
#include "RecoverCommand.h"
#include "ReplayCommand.h"
#include "ScreenshotCommand.h"
#include "base/CommandLine.h"

#include <cstdio>
#include <functional>
#include <map>
#include <set>

namespace zandor {

namespace {

const char* const Usage =
    "usage: zandor-cli COMMAND [OPTIONS]\n"
    "\n"
    "commands:\n"
    "  layouts [--json]             list the layouts: name, width, height, resizable,\n"
    "                               background bytes, application or user, importance\n"
    "  install-plugin PATH          install a layout plugin bundle for this user\n"
    "  screenshot [--layout NAME] [--format PNG|JPEG] [--out DIR]\n"
    "                               save one screenshot of the layout (a catalogue\n"
    "                               layout, Top, Bottom, or None for both screens)\n"
    "  record --seconds N [--layout NAME] [--fps Original|24|25|30|50|60]\n"
    "         [--quality NAME] [--game-audio ID|None] [--narrator-audio ID|None] [--out DIR]\n"
    "                               record a video with sound and wait for the finished file\n"
    "  replay [--layout NAME] [--buffer-seconds N] [--play-seconds M] [--quality NAME]\n"
    "         [--game-audio ID|None] [--out DIR]\n"
    "                               play M seconds (default N + 5) keeping the last N\n"
    "                               (default 30), then save them as a replay movie\n"
    "  camera --seconds N [--layout NAME]\n"
    "                               share the layout as a PipeWire camera for N seconds\n"
    "  recover [--out DIR] [BUNDLE...]\n"
    "                               finish recordings a crash left unfinished (every\n"
    "                               abandoned *.zdrecord of the folder when none is named)\n"
    "  audio-inputs                 list the audio inputs: identifier and name\n"
    "  dump --frames N --out FILE   write N raw frames of the board, with their sound, to FILE\n"
    "  board-info                   what the board is: name, vendor:product, serial,\n"
    "                               firmware version, whether it sends sound\n"
    "\n"
    "options of every command:\n"
    "  --board usb|usb:SERIAL|demo|replay:FILE  the capture board (default usb: the first found)\n"
    "options of screenshot, record, replay and camera:\n"
    "  --3d                         capture the console's 3D picture, when the board can: the\n"
    "                               top screen is the left eye, layouts such as \"3D Side by\n"
    "                               Side\" show the right eye too\n";

struct Command {
    std::set<std::string> valueOptions;
    std::set<std::string> flags;
    bool positionals;
    std::function<int(const CommandLine&)> run;
};

} // namespace

int Cli::run(const std::vector<std::string>& arguments) {
    if (arguments.empty() || arguments[0] == "--help" || arguments[0] == "-h" || arguments[0] == "help") {
        std::fputs(Usage, arguments.empty() ? stderr : stdout);
        return arguments.empty() ? 2 : 0;
    }
    const std::map<std::string, Command> commands = {
        {"dump", {{"board", "frames", "out"}, {}, false, DumpCommand::run}},
        {"board-info", {{"board"}, {}, false, BoardInfoCommand::run}},
        {"layouts", {{"board"}, {"json"}, false, LayoutsCommand::run}},
        {"install-plugin", {{"board"}, {}, true, InstallPluginCommand::run}},
        {"screenshot", {{"board", "layout", "format", "out"}, {"3d"}, false, ScreenshotCommand::run}},
        {"record",
         {{"board", "layout", "seconds", "fps", "quality", "game-audio", "narrator-audio", "out"},
          {"3d"},
          false,
          RecordCommand::run}},
        {"replay",
         {{"board", "layout", "buffer-seconds", "play-seconds", "quality", "game-audio", "out"},
          {"3d"},
          false,
          ReplayCommand::run}},
        {"camera", {{"board", "layout", "seconds"}, {"3d"}, false, CameraCommand::run}},
        {"audio-inputs", {{"board"}, {}, false, AudioInputsCommand::run}},
        {"recover", {{"out"}, {}, true, RecoverCommand::run}},
    };
    auto command = commands.find(arguments[0]);
    if (command == commands.end()) {
        std::fprintf(stderr, "zandor-cli: unknown command '%s' (try zandor-cli --help)\n",
                     arguments[0].c_str());
        return 2;
    }
    CommandLine options(command->second.valueOptions, command->second.flags);
    if (const Error error = options.parse({arguments.begin() + 1, arguments.end()})) {
        std::fprintf(stderr, "zandor-cli %s: %s\n", arguments[0].c_str(), error.detail().c_str());
        return 2;
    }
    if (!command->second.positionals && !options.positionals().empty()) {
        std::fprintf(stderr, "zandor-cli %s: unexpected argument '%s'\n", arguments[0].c_str(),
                     options.positionals().front().c_str());
        return 2;
    }
    return command->second.run(options);
}

} // namespace zandor
