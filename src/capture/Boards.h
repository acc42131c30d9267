#pragma once

#include "Board.h"
#include "base/Error.h"

#include <memory>
#include <string>

namespace zandor {

// Why a board name was refused, as the Error's code (domain Other, step StepChoose, the name as path).
enum class BoardNameProblem { Unknown = 1, ReplayWithoutFile };
constexpr const char* StepChoose = "choose the board";

// Makes the board named on a command line: "usb" (the real board, of the old models or the new ones;
// the first found, or the one the device is told to open), "usb:SERIAL" (that board alone), "demo" or
// "replay:FILE". An unknown name or a replay file that cannot be used gives the Error (see
// ReplayBoard::open).
Result<std::unique_ptr<Board>> createBoard(const std::string& name);

} // namespace zandor
