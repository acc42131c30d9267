#include "Boards.h"

#include "DemoBoard.h"
#include "LibusbBoard.h"
#include "ReplayBoard.h"

namespace zandor {

std::unique_ptr<UsbBoard> createBoard(const std::string& name, std::string& error) {
    const std::string replay = "replay:";
    if (name == "usb") {
        return std::make_unique<LibusbBoard>();
    }
    if (name == "demo") {
        return std::make_unique<DemoBoard>();
    }
    if (name.compare(0, replay.size(), replay) == 0) {
        std::string path = name.substr(replay.size());
        if (path.empty()) {
            error = "The replay board needs a file: replay:FILE";
            return nullptr;
        }
        return ReplayBoard::open(path, error);
    }
    error = "Unknown board '" + name + "': use usb, demo or replay:FILE";
    return nullptr;
}

} // namespace zandor
