#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace zandor {

// Starts the detached threads of the pipeline and keeps count of those still running, so that
// the application can wait, bounded, for them to end before it exits and tests can check that a
// stopped pipeline left no thread behind.
class DetachedThread {
public:
    // Runs `body` on a new detached thread named `name` (at most 15 characters are kept). The body
    // and everything it captured are destroyed before the thread counts as ended.
    static void start(std::string name, std::function<void()> body);

    static int running();

    // Waits until no thread started here is running; false when the timeout passed first.
    static bool waitForAll(std::chrono::milliseconds timeout);
};

} // namespace zandor
