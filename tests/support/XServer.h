#pragma once

#include <QImage>

#include <sys/types.h>

#include <string>

namespace zandor::test {

// A private X server (Xvfb, 1280x1024 at 24 bits) for whole-program tests of the application. It
// ends with this object, and with the test program should that crash first.
class XServer {
public:
    XServer();
    ~XServer();
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    // True once the server accepts clients; otherwise error() says why.
    bool isRunning() const { return m_error.empty(); }
    const std::string& error() const { return m_error; }
    // ":N", for DISPLAY.
    const std::string& display() const { return m_display; }

    // The whole screen, as ffmpeg's X11 grabber (an independent reader) sees it; null on failure.
    QImage screenshot() const;

private:
    pid_t m_server = -1;
    std::string m_display;
    std::string m_error;
};

} // namespace zandor::test
