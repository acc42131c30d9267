#pragma once

class QThread;

namespace zandor {

// The one thread of the process that the sound lives on: every input, play-through, recording
// session and their Qt Multimedia objects, with its event loop. Work reaches it through
// runLater/runAndWait on those objects. Made on first use; ended when the application object is
// destroyed, after everything that used it (their owners are gone by then), so that no sound
// object outlives its thread and the thread never outlives the application.
class AudioThread {
public:
    // The running thread, started on the first call.
    static QThread* instance();
    // Ends the thread's event loop and waits for it; the next instance() starts a new one.
    static void end();
};

} // namespace zandor
