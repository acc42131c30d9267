#pragma once

#include "base/Error.h"
#include "session/CaptureSession.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zandor {

class CommandLine;

// The capture session of a capturing command: the board given with --board, the layout chosen with
// --layout on show (none with "None": both screens alone), and the stored settings overridden by
// the command line for this run only (the preferences file is never written). The Error for a bad
// board, layout, choice or folder; openFailure() says it.
Result<std::unique_ptr<CaptureSession>> openSession(const CommandLine& options);
// Why openSession() failed, in one line for the user.
std::string openFailure(const Error& error);

// A board that gives a capturing command no frame for this long is given up on.
inline constexpr std::chrono::seconds FrameTimeout{10};

// The session's events as they come, from any thread, for a command that waits on them.
class SessionEvents {
public:
    explicit SessionEvents(CaptureSession& session);
    ~SessionEvents();
    SessionEvents(const SessionEvents&) = delete;
    SessionEvents& operator=(const SessionEvents&) = delete;

    // Waits until an event satisfies `wanted` (looking at those already come too) or the timeout
    // passes; the event, or none.
    std::optional<session::Event> waitFor(const std::function<bool(const session::Event&)>& wanted,
                                          std::chrono::milliseconds timeout);
    // Every event so far, oldest first.
    std::vector<session::Event> all();

private:
    CaptureSession& m_session;
    std::mutex m_lock;
    std::condition_variable m_arrived;
    std::vector<session::Event> m_events; // guarded by m_lock
};

} // namespace zandor
