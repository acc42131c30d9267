#pragma once

namespace zandor {

// Sends Qt's own messages to our log: warnings to the system log only (Qt's audio backends warn
// about every missing sound server), critical and fatal ones to standard error too.
void routeQtMessages();

} // namespace zandor
