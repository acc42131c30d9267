#pragma once

#include <memory>
#include <string>

namespace zandor {

class UsbBoard;

// Makes the board named on a command line: "usb" (the real board), "demo" or "replay:FILE".
// Null with a one-line reason in `error` for an unknown name or an unusable replay file.
std::unique_ptr<UsbBoard> createBoard(const std::string& name, std::string& error);

} // namespace zandor
