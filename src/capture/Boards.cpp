#include "Boards.h"

#include "AnyUsbBoard.h"
#include "ClassicBoard.h"
#include "DemoBoard.h"
#include "ReplayBoard.h"

namespace zandor {

namespace {

Error badName(const std::string& name, BoardNameProblem problem) {
    return Error::library(Error::Domain::Other, StepChoose, name, static_cast<int>(problem), {});
}

} // namespace

Result<std::unique_ptr<Board>> createBoard(const std::string& name) {
    const std::string replay = "replay:", usbSerial = "usb:";
    if (name == "usb") {
        return std::unique_ptr<Board>(std::make_unique<AnyUsbBoard>());
    }
    if (name.compare(0, usbSerial.size(), usbSerial) == 0 && name.size() > usbSerial.size()) {
        return std::unique_ptr<Board>(std::make_unique<AnyUsbBoard>(name.substr(usbSerial.size())));
    }
    if (name == "demo") {
        return std::unique_ptr<Board>(
            std::make_unique<ClassicBoard>(std::make_unique<DemoBoard>(), "Demo board"));
    }
    if (name.compare(0, replay.size(), replay) == 0) {
        const std::string path = name.substr(replay.size());
        if (path.empty()) {
            return badName(name, BoardNameProblem::ReplayWithoutFile);
        }
        auto file = ReplayBoard::open(path);
        if (!file) {
            return file.error();
        }
        return std::unique_ptr<Board>(std::make_unique<ClassicBoard>(std::move(*file), "Replay board"));
    }
    return badName(name, BoardNameProblem::Unknown);
}

} // namespace zandor
