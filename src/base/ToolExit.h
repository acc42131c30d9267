#pragma once

namespace zandor::tool_exit {

// How the application's own command-line tools say why they failed, beyond their message: exit
// statuses a caller can act on. 1 is any other failure.
//
// The result could not be written as its disk is full.
constexpr int DiskFull = 3;

} // namespace zandor::tool_exit
