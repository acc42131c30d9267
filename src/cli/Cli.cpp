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
#include "base/Version.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>

namespace zandor {

namespace {

struct Command {
    const char* name;
    // What follows the name in its usage line.
    const char* synopsis;
    const char* description;
    bool positionals;
    int (*run)(const CommandLine&);
};

// In the order the help lists them.
const Command Commands[] = {
    {"layouts", "[--json] [--board BOARD]",
     "list the layouts: name, width, height, resizable, background bytes, application or user, importance",
     false, LayoutsCommand::run},
    {"install-plugin", "PATH", "install a layout plugin bundle for this user", true,
     InstallPluginCommand::run},
    {"screenshot", "[--board BOARD] [--layout NAME] [--format PNG|JPEG] [--3d] [--out DIR]",
     "save one screenshot of the layout (a catalogue layout, Top, Bottom, or None for both screens) and "
     "print its file",
     false, ScreenshotCommand::run},
    {"record",
     "--seconds N [--board BOARD] [--layout NAME] [--fps Original|24|25|30|50|60] [--quality NAME] "
     "[--game-audio ID|None] [--narrator-audio ID|None] [--3d] [--out DIR]",
     "record a video with sound for N seconds, wait for the finished files and print them", false,
     RecordCommand::run},
    {"replay",
     "[--board BOARD] [--layout NAME] [--buffer-seconds N] [--play-seconds M] [--quality NAME] "
     "[--game-audio ID|None] [--3d] [--out DIR]",
     "play M seconds (default N + 5) keeping the last N (default 30), then save them as a replay movie and "
     "print it",
     false, ReplayCommand::run},
    {"camera", "--seconds N [--board BOARD] [--layout NAME] [--3d]",
     "share the layout as a PipeWire camera for N seconds, then print the pictures sent and dropped", false,
     CameraCommand::run},
    {"recover", "[--out DIR] [BUNDLE...]",
     "finish recordings a crash left unfinished: the named bundles, or every abandoned *.zdrecord of "
     "the storage folder (of DIR when given); the movies go into DIR (beside their bundle unless given) "
     "and are printed",
     true, RecoverCommand::run},
    {"audio-inputs", "",
     "list the audio inputs: identifier, a tab, the name; board (the capture board's own "
     "sound) first",
     false, AudioInputsCommand::run},
    {"dump", "--frames N --out FILE [--board BOARD]",
     "write N raw frames of the board, with their sound, to FILE (for --board replay:FILE)", false,
     DumpCommand::run},
    {"board-info", "[--board BOARD]",
     "say what the board is: name, vendor:product, serial, firmware version, whether it sends sound, its "
     "connection and whether it can capture 3D",
     false, BoardInfoCommand::run},
};

const char* const ThreeDNote = "--3d captures the console's 3D picture when the board can: the top screen "
                               "is the left eye, and layouts such as \"3D Side by Side\" show the right "
                               "eye too.";

const char* const BoardNote = "BOARD is usb (the first board found, the default), usb:SERIAL, demo or "
                              "replay:FILE (raw frames written by dump).";

// The options a command takes, read from its synopsis: "--name WORD" takes a value, a lone "--name"
// is a flag. The help and the parsing cannot disagree.
CommandLine optionsOf(const Command& command) {
    std::set<std::string> values{}, flags{"help", "version"};
    const std::string synopsis = command.synopsis;
    for (size_t at = synopsis.find("--"); at != std::string::npos; at = synopsis.find("--", at)) {
        const size_t end = synopsis.find_first_of(" ]", at);
        const std::string name = synopsis.substr(at + 2, end == std::string::npos ? end : end - at - 2);
        const bool takesValue = end != std::string::npos && synopsis[end] == ' ' &&
                                synopsis.compare(end + 1, 1, "[") != 0 &&
                                synopsis.compare(end + 1, 2, "--") != 0;
        (takesValue ? values : flags).insert(name);
        at = end;
    }
    return CommandLine(std::move(values), std::move(flags));
}

// `text` in lines of at most 80 columns, every one indented by `indent`, the first by `first`.
// Breaks only at spaces outside brackets, so an option stays whole on one line.
std::string wrapped(const std::string& text, size_t first, size_t indent) {
    std::vector<std::string> words;
    int depth = 0;
    std::string word;
    for (char c : text) {
        depth += c == '[' ? 1 : c == ']' ? -1 : 0;
        if (c == ' ' && depth == 0) {
            words.push_back(std::move(word));
            word.clear();
        } else {
            word += c;
        }
    }
    words.push_back(std::move(word));
    std::string result;
    size_t column = first;
    bool lineEmpty = true;
    for (const std::string& next : words) {
        if (!lineEmpty && column + 1 + next.size() > 80) {
            result += '\n' + std::string(indent, ' ');
            column = indent;
            lineEmpty = true;
        }
        if (!lineEmpty) {
            result += ' ';
            ++column;
        }
        result += next;
        column += next.size();
        lineEmpty = false;
    }
    return result;
}

std::string usageLine(const Command& command) {
    const std::string head = std::string("usage: zandor-cli ") + command.name;
    return head +
           (*command.synopsis ? " " + wrapped(command.synopsis, head.size() + 1, head.size() + 1)
                              : std::string()) +
           '\n';
}

std::string help() {
    std::string text = "usage: zandor-cli COMMAND [OPTIONS]\n"
                       "       zandor-cli COMMAND --help\n"
                       "       zandor-cli --version\n"
                       "\n"
                       "commands:\n";
    for (const Command& command : Commands) {
        const std::string head = std::string("  ") + command.name;
        text += head +
                (*command.synopsis ? " " + wrapped(command.synopsis, head.size() + 1, head.size() + 1) : "") +
                '\n';
        text += "      " + wrapped(command.description, 6, 6) + '\n';
    }
    return text + '\n' + wrapped(BoardNote, 0, 0) + '\n';
}

std::string help(const Command& command) {
    std::string sentence = command.description;
    sentence[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(sentence[0])));
    std::string text = usageLine(command) + '\n' + wrapped(sentence + '.', 0, 0) + '\n';
    if (std::string(command.synopsis).find("--board") != std::string::npos) {
        text += '\n' + wrapped(BoardNote, 0, 0) + '\n';
    }
    if (std::string(command.synopsis).find("--3d") != std::string::npos) {
        text += '\n' + wrapped(ThreeDNote, 0, 0) + '\n';
    }
    return text;
}

} // namespace

int Cli::run(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        std::fputs(help().c_str(), stderr);
        return 2;
    }
    const auto named = [](const std::string& name) {
        return std::find_if(std::begin(Commands), std::end(Commands),
                            [&](const Command& command) { return name == command.name; });
    };
    const std::string& first = arguments[0];
    if (first == "--version") {
        std::printf("zandor-cli %s\n", applicationVersion());
        return 0;
    }
    if (first == "--help" || first == "-h" || first == "help") {
        if (arguments.size() > 1 && first == "help" && named(arguments[1]) != std::end(Commands)) {
            std::fputs(help(*named(arguments[1])).c_str(), stdout);
        } else {
            std::fputs(help().c_str(), stdout);
        }
        return 0;
    }
    const auto command = named(first);
    if (command == std::end(Commands)) {
        return CommandLine::usageError(
            "zandor-cli",
            (first.rfind("--", 0) == 0 ? "Unknown option '" : "Unknown command '") + first + "'");
    }
    const std::string program = "zandor-cli " + first;
    CommandLine options = optionsOf(*command);
    if (const Error error = options.parse({arguments.begin() + 1, arguments.end()})) {
        return CommandLine::usageError(program, error.detail());
    }
    if (options.flag("help")) {
        std::fputs(help(*command).c_str(), stdout);
        return 0;
    }
    if (options.flag("version")) {
        std::printf("zandor-cli %s\n", applicationVersion());
        return 0;
    }
    if (!command->positionals && !options.positionals().empty()) {
        return CommandLine::usageError(program,
                                       "Unexpected argument '" + options.positionals().front() + "'");
    }
    return command->run(options);
}

} // namespace zandor
