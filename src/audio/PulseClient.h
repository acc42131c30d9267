#pragma once

namespace zandor {

// What the sound server and the desktop see of Zandor. Qt Multimedia's PulseAudio client calls
// itself "QtPulseAudio:<pid>" and every stream "QtmPulseStream-<pid>-<n>", so a volume control or a
// "microphone in use" indicator could not tell a user what Zandor holds open; Qt gives no way to
// name them. PulseClient.cpp stands in front of the few libpulse calls that name a client or a
// stream: the program's own definitions come first in the dynamic linker's lookup and pass each
// call on to libpulse's, with the client named "Zandor" and each stream opened inside a StreamName
// scope named after it.
//
// It also serialises a context's disconnect with the sound server's thread when the caller holds
// no lock: Qt 6.4 disconnects its context at the program's exit without the mainloop's lock, which
// races the thread that still reads from the server (an assertion in libpulse's dispatcher ends the
// program then). And it keeps Qt's play-through sink from being told of a drain after it is
// deleted (see pa_stream_drain there).
class PulseClient {
public:
    static constexpr const char* ApplicationName = "Zandor";

    // Names the streams this thread opens until the scope ends ("Zandor: Game").
    class StreamName {
    public:
        explicit StreamName(const char* name);
        ~StreamName();
        StreamName(const StreamName&) = delete;
        StreamName& operator=(const StreamName&) = delete;

    private:
        const char* m_previous;
    };
};

} // namespace zandor
